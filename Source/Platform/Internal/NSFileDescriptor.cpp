#include "NSFileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "../NSString.h"

namespace KQ {

namespace {

// The permissions of a new file, less the process's mask.
constexpr std::uint16_t permissionsOfNewFile = 0666;

// Skips `length` bytes of the pieces, and pieces that are empty then.
void advance(NSPiece*& pieces, int& count, std::uint64_t length) {
  while (count > 0 && length >= pieces->length) {
    length -= pieces->length;
    ++pieces;
    --count;
  }
  if (count > 0) {
    pieces->bytes = static_cast<const std::uint8_t*>(pieces->bytes) + length;
    pieces->length -= length;
  }
}

// Whether a write wrote something. A write of nothing without an error counts as an error: repeating it would
// never end.
bool tookSomething(std::int64_t written) { return NSTakeError(written == 0 ? -EIO : written); }

}  // namespace

int NSCodeForUnusablePath(const std::string& path) {
  if (path.find('\0') != std::string::npos) return EINVAL;
  return isValidUTF8(path) ? 0 : EILSEQ;
}

const char* NSSystemPath(const std::string& path) { return path.empty() ? "." : path.c_str(); }

bool NSTakeError(std::int64_t result) {
  if (result < 0) errno = static_cast<int>(-result);
  return result >= 0;
}

NSItemTime NSTimeOfDate(NSDate date) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(date);
  const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(date - whole);
  return {whole.time_since_epoch().count(), static_cast<std::int32_t>(rest.count())};
}

NSFileDescriptor::~NSFileDescriptor() { close(); }

bool NSFileDescriptor::openForReading(const std::string& path) { return _open(path, NSOpenToRead); }

bool NSFileDescriptor::openForWriting(const std::string& path) {
  return _open(path, NSOpenToWrite | NSOpenCreating | NSOpenEmptying);
}

bool NSFileDescriptor::openNewForWriting(const std::string& path) {
  return _open(path, NSOpenToWrite | NSOpenCreating | NSOpenNew);
}

bool NSFileDescriptor::openInPlace(const std::string& path, bool updating) {
  const unsigned access = updating ? NSOpenToRead | NSOpenToWrite : NSOpenToRead;
  if (!_open(path, access | NSOpenNotWaiting)) return false;
  NSItemStatus status;
  int code = -NSSystem::current().status(file_, &status);
  if (code == 0 && status.type != NSItemType::File)
    code = status.type == NSItemType::Folder ? EISDIR : ESPIPE;
  if (code == 0) return true;
  close();
  errno = code;
  return false;
}

bool NSFileDescriptor::_open(const std::string& path, unsigned mode) {
  if (const int code = NSCodeForUnusablePath(path); code != 0) return NSTakeError(-code);
  const NSHandle opened =
      NSSystem::current().open(NSCurrentFolder, NSSystemPath(path), mode, permissionsOfNewFile);
  if (!NSTakeError(opened)) return false;
  close();
  file_ = opened;
  return true;
}

bool NSFileDescriptor::close() {
  if (file_ < 0) return true;
  const int result = NSSystem::current().close(file_);
  file_ = -1;
  return NSTakeError(result);
}

bool NSFileDescriptor::isSeekable() const { return NSSystem::current().isSeekable(file_); }

std::int64_t NSFileDescriptor::readAt(void* buffer, std::uint64_t length, std::uint64_t offset) const {
  const std::int64_t count = NSSystem::current().readAt(file_, buffer, length, offset);
  return NSTakeError(count) ? count : -1;
}

std::int64_t NSFileDescriptor::readNext(void* buffer, std::uint64_t length) const {
  const std::int64_t count = NSSystem::current().read(file_, buffer, length);
  return NSTakeError(count) ? count : -1;
}

bool NSFileDescriptor::writeAll(NSPiece* pieces, int count) const {
  for (advance(pieces, count, 0); count > 0;) {
    const std::int64_t written = NSSystem::current().write(file_, pieces, count);
    if (!tookSomething(written)) return false;
    advance(pieces, count, static_cast<std::uint64_t>(written));
  }
  return true;
}

bool NSFileDescriptor::writeAllAt(const void* buffer, std::uint64_t length, std::uint64_t offset) const {
  const auto* bytes = static_cast<const std::uint8_t*>(buffer);
  while (length > 0) {
    const std::int64_t written = NSSystem::current().writeAt(file_, bytes, length, offset);
    if (!tookSomething(written)) return false;
    bytes += written;
    offset += static_cast<std::uint64_t>(written);
    length -= static_cast<std::uint64_t>(written);
  }
  return true;
}

std::uint64_t NSFileDescriptor::sendTo(const NSFileDescriptor& target, std::uint64_t length,
                                       std::uint64_t offset) const {
  length = std::min(length, static_cast<std::uint64_t>(INT64_MAX) - offset);
  std::uint64_t sent = 0;
  while (sent < length) {
    const std::int64_t count = NSSystem::current().sendAt(target.file_, file_, length - sent, offset + sent);
    if (count <= 0) break;
    sent += static_cast<std::uint64_t>(count);
  }
  return sent;
}

bool NSFileDescriptor::status(NSItemStatus* status) const {
  return NSTakeError(NSSystem::current().status(file_, status));
}

std::int64_t NSFileDescriptor::length() const {
  NSItemStatus found;
  return status(&found) ? static_cast<std::int64_t>(found.size) : -1;
}

}  // namespace KQ
