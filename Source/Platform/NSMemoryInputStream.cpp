#include "NSMemoryInputStream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace KQ {

static constexpr char memoryName[] = "memory";

std::shared_ptr<NSInputStream> NSInputStream::inputStreamWithData(std::shared_ptr<const NSData> data) {
  return std::make_shared<NSMemoryInputStream>(std::move(data));
}

void NSMemoryInputStream::open() {
  if (status_ == NSStreamStatusNotOpen) status_ = NSStreamStatusOpen;
}

void NSMemoryInputStream::close() { status_ = NSStreamStatusClosed; }

bool NSMemoryInputStream::setNSStreamFileCurrentOffsetKey(std::uint64_t offset) {
  if (offset > INT64_MAX) {
    error_ = NSError::errorWithPOSIXCode(EOVERFLOW, memoryName);
    return false;
  }
  position_ = offset;
  return true;
}

std::int64_t NSMemoryInputStream::read(std::uint8_t* buffer, std::uint64_t maxLength) {
  if (status_ == NSStreamStatusNotOpen || status_ == NSStreamStatusClosed) {
    error_ = NSError::errorWithPOSIXCode(EBADF, memoryName);
    return -1;
  }
  const std::uint64_t count = std::min(maxLength, _bytesLeft());
  if (count != 0) std::memcpy(buffer, data_->bytes() + position_, count);
  position_ += count;
  status_ = count == 0 && maxLength > 0 ? NSStreamStatusAtEnd : NSStreamStatusOpen;
  return static_cast<std::int64_t>(count);
}

bool NSMemoryInputStream::hasBytesAvailable() {
  return status_ != NSStreamStatusNotOpen && status_ != NSStreamStatusClosed && _bytesLeft() > 0;
}

std::uint64_t NSMemoryInputStream::_bytesLeft() const {
  const std::uint64_t length = data_ ? data_->length() : 0;
  return position_ < length ? length - position_ : 0;
}

}  // namespace KQ
