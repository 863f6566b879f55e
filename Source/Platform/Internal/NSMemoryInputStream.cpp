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
  if (status_ != NSStreamStatusNotOpen) return;
  status_ = NSStreamStatusOpen;
  _standAt(position_);
}

void NSMemoryInputStream::close() {
  status_ = NSStreamStatusClosed;
  _standAt(_position());
}

bool NSMemoryInputStream::setNSStreamFileCurrentOffsetKey(std::uint64_t offset) {
  if (offset > INT64_MAX) {
    error_ = NSError::errorWithPOSIXCode(EOVERFLOW, memoryName);
    return false;
  }
  _standAt(offset);
  return true;
}

std::int64_t NSMemoryInputStream::read(std::uint8_t* buffer, std::uint64_t maxLength) {
  if (status_ == NSStreamStatusNotOpen || status_ == NSStreamStatusClosed) {
    error_ = NSError::errorWithPOSIXCode(EBADF, memoryName);
    return -1;
  }
  const std::uint64_t count = std::min(maxLength, _bytesLeft());
  const std::uint64_t start = _position();
  if (count != 0) std::memcpy(buffer, data_->bytes() + start, count);
  status_ = count == 0 && maxLength > 0 ? NSStreamStatusAtEnd : NSStreamStatusOpen;
  _standAt(start + count);
  return static_cast<std::int64_t>(count);
}

bool NSMemoryInputStream::hasBytesAvailable() {
  return status_ != NSStreamStatusNotOpen && status_ != NSStreamStatusClosed && _bytesLeft() > 0;
}

std::uint64_t NSMemoryInputStream::_position() const {
  return atHand_ == nullptr ? position_ : static_cast<std::uint64_t>(atHand_ - data_->bytes());
}

std::uint64_t NSMemoryInputStream::_bytesLeft() const {
  const std::uint64_t length = data_ ? data_->length() : 0;
  const std::uint64_t position = _position();
  return position < length ? length - position : 0;
}

// Taking bytes at hand does not change the status, so none are offered while the next read must change it.
void NSMemoryInputStream::_standAt(std::uint64_t position) {
  position_ = position;
  atHand_ = nullptr;
  atHandEnd_ = nullptr;
  if (status_ != NSStreamStatusOpen || _bytesLeft() == 0) return;
  atHand_ = data_->bytes() + position;
  atHandEnd_ = data_->bytes() + data_->length();
}

}  // namespace KQ
