#include "NSFileHandle.h"

#include <cerrno>
#include <utility>

#include "Internal/NSFileDescriptor.h"

namespace KQ {

static constexpr std::uint64_t largestOffset = INT64_MAX;

std::shared_ptr<NSFileHandle> NSFileHandle::fileHandleForReadingAtPath(const std::string& path,
                                                                       NSErrorSlot error) {
  return _open(path, false, error);
}

std::shared_ptr<NSFileHandle> NSFileHandle::fileHandleForUpdatingAtPath(const std::string& path,
                                                                        NSErrorSlot error) {
  return _open(path, true, error);
}

NSFileHandle::NSFileHandle(Key /*key*/, std::string path)
    : path_(std::move(path)), file_(std::make_unique<NSFileDescriptor>()) {}

NSFileHandle::~NSFileHandle() = default;

std::shared_ptr<NSFileHandle> NSFileHandle::_open(const std::string& path, bool updating, NSErrorSlot error) {
  auto handle = std::make_shared<NSFileHandle>(Key{}, path);
  if (handle->file_->openInPlace(path, updating)) return handle;
  handle->_fail(error);
  return nullptr;
}

std::int64_t NSFileHandle::length(NSErrorSlot error) const {
  const std::int64_t length = file_->length();
  if (length < 0) _fail(error);
  return length;
}

std::int64_t NSFileHandle::read(std::uint8_t* buffer, std::uint64_t maxLength, std::uint64_t offset,
                                NSErrorSlot error) const {
  if (!_fits(0, offset, error)) return -1;
  std::uint64_t total = 0;
  while (total < maxLength) {
    const std::int64_t count = file_->readAt(buffer + total, maxLength - total, offset + total);
    if (count < 0) {
      _fail(error);
      return count;
    }
    if (count == 0) break;
    total += static_cast<std::uint64_t>(count);
  }
  return static_cast<std::int64_t>(total);
}

bool NSFileHandle::write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset,
                         NSErrorSlot error) const {
  return _fits(length, offset, error) && (file_->writeAllAt(bytes, length, offset) || _fail(error));
}

bool NSFileHandle::close(NSErrorSlot error) { return file_->close() || _fail(error); }

bool NSFileHandle::_fits(std::uint64_t length, std::uint64_t offset, NSErrorSlot error) const {
  if (offset <= largestOffset && length <= largestOffset - offset) return true;
  errno = EOVERFLOW;
  return _fail(error);
}

bool NSFileHandle::_fail(NSErrorSlot error) const {
  NSStoreError(error, NSError::errorWithPOSIXCode(errno, path_));
  return false;
}

}  // namespace KQ
