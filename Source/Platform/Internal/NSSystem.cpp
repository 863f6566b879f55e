#include "NSSystem.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "../NSString.h"

namespace KQ {

namespace {

// No system transfers more in one call, and some fail when asked to.
constexpr std::uint64_t longestTransfer = 0x40000000;

// Steps over `length` bytes of the pieces, and over pieces that are used up.
void advance(iovec*& pieces, int& count, std::size_t length) {
  while (count > 0 && length >= pieces->iov_len) {
    length -= pieces->iov_len;
    ++pieces;
    --count;
  }
  if (count > 0) {
    pieces->iov_base = static_cast<std::uint8_t*>(pieces->iov_base) + length;
    pieces->iov_len -= length;
  }
}

}  // namespace

int NSCodeForUnusablePath(const std::string& path) {
  if (path.find('\0') != std::string::npos) return EINVAL;
  return isValidUTF8(path) ? 0 : EILSEQ;
}

const char* NSSystemPath(const std::string& path) { return path.empty() ? "." : path.c_str(); }

NSFileDescriptor::~NSFileDescriptor() { close(); }

bool NSFileDescriptor::openForReading(const std::string& path) { return _open(path, O_RDONLY); }

bool NSFileDescriptor::openForWriting(const std::string& path) {
  return _open(path, O_WRONLY | O_CREAT | O_TRUNC);
}

bool NSFileDescriptor::openNewForWriting(const std::string& path) {
  return _open(path, O_WRONLY | O_CREAT | O_EXCL);
}

bool NSFileDescriptor::openInPlace(const std::string& path, bool updating) {
  if (!_open(path, (updating ? O_RDWR : O_RDONLY) | O_NONBLOCK)) return false;
  struct stat status {};
  int code = _status(&status) ? 0 : errno;
  if (code == 0 && !S_ISREG(status.st_mode)) code = S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
  if (code == 0) return true;
  close();
  errno = code;
  return false;
}

bool NSFileDescriptor::_open(const std::string& path, int flags) {
  if (const int code = NSCodeForUnusablePath(path); code != 0) {
    errno = code;
    return false;
  }
  const int descriptor =
      NSRepeatingInterrupted([&] { return ::open(NSSystemPath(path), flags | O_CLOEXEC, 0666); });
  if (descriptor < 0) return false;
  close();
  descriptor_ = descriptor;
  return true;
}

bool NSFileDescriptor::close() {
  if (descriptor_ < 0) return true;
  // Never repeated: after an interruption the descriptor is gone already, and its number may be another's.
  const bool closed = ::close(descriptor_) == 0 || errno == EINTR;
  descriptor_ = -1;
  return closed;
}

bool NSFileDescriptor::isSeekable() const {
  return ::lseek(descriptor_, 0, SEEK_CUR) >= 0 || errno != ESPIPE;
}

std::int64_t NSFileDescriptor::readAt(void* buffer, std::uint64_t length, std::uint64_t offset) const {
  // The end of the transfer must fit the system's offset too.
  length = std::min({length, longestTransfer, static_cast<std::uint64_t>(INT64_MAX) - offset});
  return NSRepeatingInterrupted(
      [&] { return ::pread(descriptor_, buffer, length, static_cast<off_t>(offset)); });
}

std::int64_t NSFileDescriptor::readNext(void* buffer, std::uint64_t length) const {
  return NSRepeatingInterrupted(
      [&] { return ::read(descriptor_, buffer, std::min(length, longestTransfer)); });
}

bool NSFileDescriptor::writeAll(iovec* pieces, int count) const {
  for (advance(pieces, count, 0); count > 0;) {
    const ssize_t written = NSRepeatingInterrupted([&] { return ::writev(descriptor_, pieces, count); });
    if (written < 0) return false;
    if (written == 0) {
      // The system takes nothing and gives no reason: asking again would never end.
      errno = EIO;
      return false;
    }
    advance(pieces, count, static_cast<std::size_t>(written));
  }
  return true;
}

bool NSFileDescriptor::writeAllAt(const void* buffer, std::uint64_t length, std::uint64_t offset) const {
  const auto* bytes = static_cast<const std::uint8_t*>(buffer);
  while (length > 0) {
    const ssize_t written = NSRepeatingInterrupted([&] {
      return ::pwrite(descriptor_, bytes, std::min(length, longestTransfer), static_cast<off_t>(offset));
    });
    if (written < 0) return false;
    if (written == 0) {
      errno = EIO;
      return false;
    }
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
    auto position = static_cast<off_t>(offset + sent);
    const ssize_t count = NSRepeatingInterrupted([&] {
      return ::sendfile(target.descriptor_, descriptor_, &position, std::min(length - sent, longestTransfer));
    });
    if (count <= 0) break;
    sent += static_cast<std::uint64_t>(count);
  }
  return sent;
}

bool NSFileDescriptor::_status(struct stat* status) const {
  return NSRepeatingInterrupted([&] { return ::fstat(descriptor_, status); }) == 0;
}

std::int64_t NSFileDescriptor::length() const {
  struct stat status {};
  return _status(&status) ? static_cast<std::int64_t>(status.st_size) : -1;
}

}  // namespace KQ
