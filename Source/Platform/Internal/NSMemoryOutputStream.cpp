#include "NSMemoryOutputStream.h"

#include <cerrno>

namespace KQ {

std::shared_ptr<NSOutputStream> NSOutputStream::outputStreamToMemory() {
  return std::make_shared<NSMemoryOutputStream>();
}

void NSMemoryOutputStream::open() {
  if (status_ == NSStreamStatusNotOpen) status_ = NSStreamStatusOpen;
}

void NSMemoryOutputStream::close() { status_ = NSStreamStatusClosed; }

std::int64_t NSMemoryOutputStream::write(const std::uint8_t* buffer, std::uint64_t maxLength) {
  if (status_ != NSStreamStatusOpen) {
    error_ = NSError::errorWithPOSIXCode(EBADF, "memory");
    return -1;
  }
  bytes_.insert(bytes_.end(), buffer, buffer + maxLength);
  return static_cast<std::int64_t>(maxLength);
}

std::shared_ptr<const NSData> NSMemoryOutputStream::NSStreamDataWrittenToMemoryStreamKey() const {
  return NSData::dataWithBytes(bytes_.data(), bytes_.size());
}

}  // namespace KQ
