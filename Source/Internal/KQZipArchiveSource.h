#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "../Platform/Internal/NSFileDescriptor.h"
#include "../Platform/NSError.h"
#include "../Platform/NSStream.h"

// Where the bytes of an archive that is read as a whole come from. For the library's own use.

/// Bytes that are read by offset.
class KQZipArchiveSource {
 public:
  virtual ~KQZipArchiveSource() = default;

  /// The file at `path`, for any number of threads; nothing with the error in the slot.
  static std::unique_ptr<KQZipArchiveSource> onFile(const std::string& path, KQ::NSErrorSlot error);
  /// A host's stream, for the thread that uses it; nothing with the error in the slot.
  static std::unique_ptr<KQZipArchiveSource> onStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error);

  /// Reads up to `length` bytes at `offset`. Returns how many, fewer only at the end; negative on an error.
  virtual std::int64_t readAt(void* buffer, std::uint64_t length, std::uint64_t offset,
                              KQ::NSErrorSlot error) const = 0;

  /// The file, for what goes beyond reading it; null for a stream.
  virtual const KQ::NSFileDescriptor* file() const { return nullptr; }

  /// Whether several threads may read at once.
  bool isForAllThreads() const { return file() != nullptr; }

  /// How many bytes there were when it was opened.
  std::uint64_t length() const { return length_; }

 protected:
  std::uint64_t length_ = 0;
};
