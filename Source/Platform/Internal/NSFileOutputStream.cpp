#include "NSFileOutputStream.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "NSFileInputStream.h"
#include "NSRawBytes.h"

namespace KQ {

static constexpr std::uint64_t bufferCapacity = 65536;

std::shared_ptr<NSOutputStream> NSOutputStream::outputStreamToFileAtPath(const std::string& path) {
  return std::make_shared<NSFileOutputStream>(path);
}

NSFileOutputStream::~NSFileOutputStream() { close(); }

void NSFileOutputStream::open() {
  if (status_ != NSStreamStatusNotOpen) return;
  const bool refuses = existing_ == Existing::Refused;
  if (!(refuses ? file_.openNewForWriting(path_) : file_.openForWriting(path_))) {
    hasRefusedExisting_ = refuses && errno == EEXIST;
    _fail(errno);
    return;
  }
  buffer_ = NSRawBytes(bufferCapacity);
  room_ = buffer_.get();
  roomEnd_ = room_ + bufferCapacity;
  status_ = NSStreamStatusOpen;
}

void NSFileOutputStream::close() {
  if (status_ == NSStreamStatusOpen) flush();
  const bool closed = file_.close();
  if (!closed) {
    _fail(errno);
  } else if (status_ != NSStreamStatusError) {
    _offerNoRoom();
    status_ = NSStreamStatusClosed;
  }
  buffer_.reset();
}

std::int64_t NSFileOutputStream::write(const std::uint8_t* buffer, std::uint64_t maxLength) {
  if (status_ != NSStreamStatusOpen) {
    if (!error_) error_ = NSError::errorWithPOSIXCode(EBADF, path_);
    return -1;
  }
  const std::uint64_t length = std::min(maxLength, static_cast<std::uint64_t>(INT64_MAX));
  if (length != 0 && !putIntoRoom(buffer, length) && !_writeThrough(buffer, length)) return -1;
  return static_cast<std::int64_t>(length);
}

bool NSFileOutputStream::flush() {
  if (status_ == NSStreamStatusOpen) return _writeThrough(nullptr, 0);
  return status_ != NSStreamStatusError;
}

std::uint64_t NSFileOutputStream::takeFrom(NSFileInputStream& source, std::uint64_t length) {
  if (status_ != NSStreamStatusOpen || !_writeThrough(nullptr, 0)) return 0;
  const std::uint64_t taken = source.sendTo(file_, length);
  passedOn_ += taken;
  return taken;
}

std::uint64_t NSMoveBytes(NSInputStream& source, NSOutputStream& target, std::uint64_t length) {
  auto* const from = dynamic_cast<NSFileInputStream*>(&source);
  auto* const to = dynamic_cast<NSFileOutputStream*>(&target);
  return from != nullptr && to != nullptr ? to->takeFrom(*from, length) : 0;
}

std::uint64_t NSFileOutputStream::_buffered() const {
  return room_ == nullptr ? 0 : static_cast<std::uint64_t>(room_ - buffer_.get());
}

// From here on, passedOn_ counts all accepted bytes.
void NSFileOutputStream::_offerNoRoom() {
  passedOn_ += _buffered();
  room_ = nullptr;
  roomEnd_ = nullptr;
}

// Writes the buffer's contents followed by `length` bytes, with one call.
bool NSFileOutputStream::_writeThrough(const std::uint8_t* buffer, std::uint64_t length) {
  std::array<NSPiece, 2> pieces{NSPiece{buffer_.get(), _buffered()}, NSPiece{buffer, length}};
  if (!file_.writeAll(pieces.data(), static_cast<int>(pieces.size()))) return _fail(errno);
  passedOn_ += _buffered() + length;
  room_ = buffer_.get();
  return true;
}

bool NSFileOutputStream::_fail(int code) {
  _offerNoRoom();
  error_ = NSError::errorWithPOSIXCode(code, path_);
  status_ = NSStreamStatusError;
  return false;
}

}  // namespace KQ
