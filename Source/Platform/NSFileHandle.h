#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KQExport.h"
#include "NSError.h"

namespace KQ {

class NSFileDescriptor;

/// An existing regular file that is read, and changed in place, by offset. It never becomes longer by being
/// opened, and never shorter.
///
/// Errors are of NSPOSIXErrorDomain with `errno` as their code, and name the path; EOVERFLOW is that of bytes
/// that would end beyond the system's signed 64-bit offset. A handle is used by one thread at a time.
class KQZIP_EXPORT NSFileHandle {
 private:
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A handle that only reads. Nothing, with the error in the slot, when the file cannot be opened, with
  /// EISDIR for a folder and ESPIPE for anything else that is no regular file; a pipe is not waited for.
  static std::shared_ptr<NSFileHandle> fileHandleForReadingAtPath(const std::string& path,
                                                                  NSErrorSlot error = nullptr);

  /// A handle that reads and writes. The file must exist; opening it changes nothing. Fails as
  /// fileHandleForReadingAtPath() does.
  static std::shared_ptr<NSFileHandle> fileHandleForUpdatingAtPath(const std::string& path,
                                                                   NSErrorSlot error = nullptr);

  /// Use the static operations instead.
  NSFileHandle(Key key, std::string path);
  ~NSFileHandle();
  NSFileHandle(const NSFileHandle&) = delete;             ///< Owns the open file.
  NSFileHandle& operator=(const NSFileHandle&) = delete;  ///< Owns the open file.

  /// The file's length in bytes; negative on an error.
  std::int64_t length(NSErrorSlot error = nullptr) const;

  /// Reads up to `maxLength` bytes at `offset`. Returns how many were read, fewer only when the file ends
  /// there; negative on an error, after which what `buffer` holds is undefined.
  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength, std::uint64_t offset,
                    NSErrorSlot error = nullptr) const;

  /// Writes all of the bytes at `offset`, first to last. After a failure a first part may have been written.
  bool write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset,
             NSErrorSlot error = nullptr) const;

  /// Closes the file; a second call does nothing. A failure means that what was written may be lost. A handle
  /// that is released closes its file without telling of a failure.
  bool close(NSErrorSlot error = nullptr);

 private:
  KQZIP_HIDDEN static std::shared_ptr<NSFileHandle> _open(const std::string& path, bool updating,
                                                          NSErrorSlot error);
  KQZIP_HIDDEN bool _fits(std::uint64_t length, std::uint64_t offset, NSErrorSlot error) const;
  KQZIP_HIDDEN bool _fail(NSErrorSlot error) const;

  std::string path_;
  std::unique_ptr<NSFileDescriptor> file_;
};

}  // namespace KQ
