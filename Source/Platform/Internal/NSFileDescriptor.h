#pragma once

#include <cstdint>
#include <string>

#include "NSSystem.h"

namespace KQ {

/// 0 when the system can be given `path`; EINVAL when it holds a NUL byte, EILSEQ when it is not valid UTF-8.
int NSCodeForUnusablePath(const std::string& path);

/// What the system is given for `path`: the empty path is the current directory.
const char* NSSystemPath(const std::string& path);

/// Makes a negative result of NSSystem the `errno` that it stands for. Returns whether the call succeeded.
bool NSTakeError(std::int64_t result);

/// Owns an open file and completes transfers that the system cut short. What fails returns false or a
/// negative count and leaves the reason in `errno`.
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

  /// Creates a file for writing; EEXIST when there is anything at `path`, a link that leads nowhere included.
  bool openNewForWriting(const std::string& path);

  /// Opens an existing regular file for access by offset, for writing too if `updating`. Neither waits for
  /// the other end of a pipe nor changes the file; EISDIR for a folder, ESPIPE for what has no offsets.
  bool openInPlace(const std::string& path, bool updating);

  /// Closes the file if it is open. A failure means that what was written may be lost.
  bool close();

  /// False when the file has no offsets, as a pipe has none.
  bool isSeekable() const;

  /// Reads at most `length` bytes at `offset`; 0 at the end.
  std::int64_t readAt(void* buffer, std::uint64_t length, std::uint64_t offset) const;

  /// Reads at most `length` bytes where the file stands; 0 at the end.
  std::int64_t readNext(void* buffer, std::uint64_t length) const;

  /// Writes all of `count` pieces, which are used up.
  bool writeAll(NSPiece* pieces, int count) const;

  /// Writes all of `length` bytes at `offset`.
  bool writeAllAt(const void* buffer, std::uint64_t length, std::uint64_t offset) const;

  /// Writes up to `length` bytes that this file has at `offset` to `target`, where that stands, without
  /// bringing them here. Returns how many. They are fewer at the end, after a failure and where the system
  /// cannot do this: who then reads and writes is told of the reason, or goes on.
  std::uint64_t sendTo(const NSFileDescriptor& target, std::uint64_t length, std::uint64_t offset) const;

  /// The file's length in bytes.
  std::int64_t length() const;

 private:
  bool _open(const std::string& path, unsigned mode);

  NSHandle file_ = -1;
};

}  // namespace KQ
