#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KQExport.h"
#include "NSError.h"

namespace KQ {

class NSFileDescriptor;

/// An existing regular file, read and changed in place, by offset. Opening it does not change its length.
///
/// Errors are of NSPOSIXErrorDomain with `errno` as their code, and name the path. EOVERFLOW means that the
/// bytes would end beyond the system's signed 64-bit offset. A handle is used by one thread at a time.
class KQZIP_EXPORT NSFileHandle {
 private:
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A handle that only reads. Nothing, with the error in the slot, when the file cannot be opened: EISDIR
  /// for a folder, ESPIPE for anything else that is not a regular file. Does not wait for the other end of a
  /// pipe.
  static std::shared_ptr<NSFileHandle> fileHandleForReadingAtPath(const std::string& path,
                                                                  NSErrorSlot error = nullptr);

  /// A handle that reads and writes. The file must exist; opening does not change it. Fails as
  /// fileHandleForReadingAtPath() does.
  static std::shared_ptr<NSFileHandle> fileHandleForUpdatingAtPath(const std::string& path,
                                                                   NSErrorSlot error = nullptr);

  /// Use the static operations instead.
  NSFileHandle(Key key, std::string path);
  ~NSFileHandle();
  NSFileHandle(const NSFileHandle&) = delete;             ///< Owns the open file.
  NSFileHandle& operator=(const NSFileHandle&) = delete;  ///< Owns the open file.

  /// The file's length in bytes. Negative on an error.
  std::int64_t length(NSErrorSlot error = nullptr) const;

  /// Reads up to `maxLength` bytes at `offset`. Returns the number of bytes read, which is smaller only at
  /// the end of the file. Negative on an error; the contents of `buffer` are then undefined.
  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength, std::uint64_t offset,
                    NSErrorSlot error = nullptr) const;

  /// Writes all bytes at `offset`, first to last. After a failure some of the first bytes may be written.
  bool write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset,
             NSErrorSlot error = nullptr) const;

  /// Closes the file; a second call does nothing. A failure means that written data may be lost. The
  /// destructor closes the file too, but reports no failure.
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
