#include "NSFileInputStream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "NSRawBytes.h"

namespace KQ {

namespace {

constexpr std::uint64_t bufferCapacity = 65536;

// Bytes read after a jump: enough for a header with its name.
constexpr std::uint64_t shortestReadAhead = 512;

// A jump of at most this many bytes is still sequential reading: a scan over small entries.
constexpr std::uint64_t longestSequentialStep = 4096;

constexpr std::uint64_t largestOffset = INT64_MAX;

}  // namespace

std::shared_ptr<NSInputStream> NSInputStream::inputStreamWithFileAtPath(const std::string& path) {
  auto stream = std::make_shared<NSFileInputStream>(path);
  return stream->isUsable() ? stream : nullptr;
}

NSFileInputStream::NSFileInputStream(std::string path) : path_(std::move(path)) {
  usable_ = file_.openForReading(path_);
}

void NSFileInputStream::open() {
  if (status_ != NSStreamStatusNotOpen) return;
  open_ = true;
  status_ = NSStreamStatusOpen;
}

void NSFileInputStream::close() {
  _holdBack();
  file_.close();
  buffer_.reset();
  open_ = false;
  if (status_ != NSStreamStatusError) status_ = NSStreamStatusClosed;
}

std::optional<std::uint64_t> NSFileInputStream::NSStreamFileCurrentOffsetKey() const {
  return _isSeekable() ? std::optional(_position()) : std::nullopt;
}

bool NSFileInputStream::setNSStreamFileCurrentOffsetKey(std::uint64_t offset) {
  if (_moveAtHand(offset)) return true;
  const bool seekable = _isSeekable();
  if (!seekable || offset > largestOffset) {
    error_ = NSError::errorWithPOSIXCode(seekable ? EOVERFLOW : ESPIPE, path_);
    return false;
  }
  _holdBack();
  position_ = offset;
  end_.reset();
  _offerBuffered();
  return true;
}

std::int64_t NSFileInputStream::read(std::uint8_t* buffer, std::uint64_t maxLength) {
  if (!open_) return _fail(EBADF);
  maxLength = std::min(maxLength, largestOffset);
  if (takeAtHand(buffer, maxLength)) return static_cast<std::int64_t>(maxLength);
  _holdBack();
  const std::uint64_t start = position_;
  std::uint64_t total = _takeBuffered(buffer, maxLength);
  while (total < maxLength) {
    const std::int64_t count = _readMore(buffer + total, maxLength - total);
    if (count < 0) {
      // All or nothing: a partial read would look like a short file.
      const int code = errno;
      if (_isSeekable()) position_ = start;
      return _fail(code);
    }
    if (count == 0) break;
    total += static_cast<std::uint64_t>(count);
  }
  status_ = total == 0 && maxLength > 0 ? NSStreamStatusAtEnd : NSStreamStatusOpen;
  _offerBuffered();
  return static_cast<std::int64_t>(total);
}

bool NSFileInputStream::hasBytesAvailable() {
  if (!open_) return false;
  if (atHand_ != atHandEnd_) return true;
  _holdBack();
  const bool buffered = position_ >= bufferOffset_ && position_ - bufferOffset_ < bufferLength_;
  // After an error, true: the next read reports it.
  const bool available = buffered || (end_ != position_ && _fillBuffer(1) != 0);
  _offerBuffered();
  return available;
}

std::uint64_t NSFileInputStream::sendTo(const NSFileDescriptor& target, std::uint64_t length) {
  if (status_ != NSStreamStatusOpen || seekable_ != true || atHand_ != nullptr || end_ == position_) return 0;
  const std::uint64_t sent = file_.sendTo(target, length, position_);
  position_ += sent;
  return sent;
}

bool NSFileInputStream::_isSeekable() const {
  if (!seekable_) seekable_ = file_.isSeekable();
  return *seekable_;
}

std::uint64_t NSFileInputStream::_position() const {
  if (atHand_ == nullptr) return position_;
  return bufferOffset_ + static_cast<std::uint64_t>(atHand_ - buffer_.get());
}

// Moves within the buffer, as a scan over records does. False when the offset is elsewhere.
bool NSFileInputStream::_moveAtHand(std::uint64_t offset) {
  if (atHand_ == nullptr || seekable_ != true) return false;
  if (offset < bufferOffset_ || offset - bufferOffset_ >= bufferLength_) return false;
  atHand_ = buffer_.get() + (offset - bufferOffset_);
  end_.reset();
  return true;
}

// Withdraws the bytes at hand, so that position_ is the stream's position.
void NSFileInputStream::_holdBack() {
  position_ = _position();
  atHand_ = nullptr;
  atHandEnd_ = nullptr;
}

// Taking bytes at hand does not change the status, so none are offered while the next read must change it.
void NSFileInputStream::_offerBuffered() {
  if (status_ != NSStreamStatusOpen) return;
  if (position_ < bufferOffset_ || position_ - bufferOffset_ >= bufferLength_) return;
  atHand_ = buffer_.get() + (position_ - bufferOffset_);
  atHandEnd_ = buffer_.get() + bufferLength_;
}

std::uint64_t NSFileInputStream::_takeBuffered(std::uint8_t* buffer, std::uint64_t maxLength) {
  if (position_ < bufferOffset_ || position_ - bufferOffset_ >= bufferLength_) return 0;
  const std::uint64_t start = position_ - bufferOffset_;
  const std::uint64_t count = std::min(maxLength, bufferLength_ - start);
  std::memcpy(buffer, buffer_.get() + start, count);
  position_ += count;
  return count;
}

std::int64_t NSFileInputStream::_readMore(std::uint8_t* buffer, std::uint64_t maxLength) {
  if (end_ == position_) return 0;
  if (maxLength < bufferCapacity) {
    const std::int64_t count = _fillBuffer(maxLength);
    return count <= 0 ? count : static_cast<std::int64_t>(_takeBuffered(buffer, maxLength));
  }
  const std::int64_t count = _readFile(buffer, maxLength);
  if (count > 0) position_ += static_cast<std::uint64_t>(count);
  return count;
}

// Refills the buffer with the bytes at the position, which it does not hold.
std::int64_t NSFileInputStream::_fillBuffer(std::uint64_t atLeast) {
  if (!buffer_) buffer_ = NSRawBytes(bufferCapacity);
  _chooseReadAhead();
  const std::int64_t count = _readFile(buffer_.get(), std::max(atLeast, readAhead_));
  bufferOffset_ = position_;
  bufferLength_ = count > 0 ? static_cast<std::uint64_t>(count) : 0;
  return count;
}

void NSFileInputStream::_chooseReadAhead() {
  const std::uint64_t bufferEnd = bufferOffset_ + bufferLength_;
  const bool sequential = position_ >= bufferEnd && position_ - bufferEnd <= longestSequentialStep;
  readAhead_ = sequential ? std::clamp(readAhead_ * 2, shortestReadAhead, bufferCapacity) : shortestReadAhead;
}

std::int64_t NSFileInputStream::_readFile(std::uint8_t* buffer, std::uint64_t length) {
  std::int64_t count = -1;
  if (seekable_.value_or(true)) count = file_.readAt(buffer, length, position_);
  if (count >= 0) {
    seekable_ = true;
  } else if (errno == ESPIPE) {
    // A file without offsets fails here before any byte is read.
    seekable_ = false;
  }
  if (!seekable_.value_or(true)) count = file_.readNext(buffer, length);
  if (count == 0) end_ = position_;
  return count;
}

std::int64_t NSFileInputStream::_fail(int code) {
  error_ = NSError::errorWithPOSIXCode(code, path_);
  if (open_) status_ = NSStreamStatusError;
  return -1;
}

}  // namespace KQ
