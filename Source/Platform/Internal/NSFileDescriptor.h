#pragma once

#include <cstdint>
#include <string>

#include "../NSCalendar.h"
#include "NSSystem.h"

namespace KQ {

/// 0 when the system can be given `path`; EINVAL when it holds a NUL byte, EILSEQ when it is not valid UTF-8.
int NSCodeForUnusablePath(const std::string& path);

/// `path` as passed to the system: the empty path is the current directory.
const char* NSSystemPath(const std::string& path);

/// Sets `errno` from a negative result of NSSystem. Returns whether the call succeeded.
bool NSTakeError(std::int64_t result);

/// A date as the system sets it.
NSItemTime NSTimeOfDate(NSDate date);

/// Owns an open file and completes partial transfers. A call that fails returns false or a negative count and
/// sets `errno`.
class NSFileDescriptor {
 public:
  NSFileDescriptor() = default;
  ~NSFileDescriptor();
  NSFileDescriptor(const NSFileDescriptor&) = delete;
  NSFileDescriptor& operator=(const NSFileDescriptor&) = delete;

  /// Opens an existing file for reading.
  bool openForReading(const std::string& path);

  /// Creates a file for writing, or empties one that exists.
  bool openForWriting(const std::string& path);

  /// Creates a file for writing. EEXIST when anything exists at `path`, a dangling link included.
  bool openNewForWriting(const std::string& path);

  /// Opens an existing regular file for access by offset, for writing too if `updating`. Does not change the
  /// file, nor wait for the other end of a pipe. EISDIR for a folder, ESPIPE for an item without offsets.
  bool openInPlace(const std::string& path, bool updating);

  /// Closes the file if it is open. A failure means that written data may be lost.
  bool close();

  /// False for a file without offsets, such as a pipe.
  bool isSeekable() const;

  /// Reads at most `length` bytes at `offset`; 0 at the end.
  std::int64_t readAt(void* buffer, std::uint64_t length, std::uint64_t offset) const;

  /// Reads at most `length` bytes at the file's position; 0 at the end.
  std::int64_t readNext(void* buffer, std::uint64_t length) const;

  /// Writes all of the `count` pieces and changes them on the way.
  bool writeAll(NSPiece* pieces, int count) const;

  /// Writes all of `length` bytes at `offset`.
  bool writeAllAt(const void* buffer, std::uint64_t length, std::uint64_t offset) const;

  /// Copies up to `length` bytes from `offset` of this file to the position of `target`, inside the system.
  /// Returns the number of bytes copied. It is smaller at the end, after a failure and where the system
  /// cannot do this: reading and writing then continues, or finds the reason.
  std::uint64_t sendTo(const NSFileDescriptor& target, std::uint64_t length, std::uint64_t offset) const;

  /// What the file is.
  bool status(NSItemStatus* status) const;

  /// The file's length in bytes.
  std::int64_t length() const;

 private:
  bool _open(const std::string& path, unsigned mode);

  NSHandle file_ = -1;
};

}  // namespace KQ
