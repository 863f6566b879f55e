#pragma once

#include <cstdint>
#include <memory>

#include "../Platform/NSData.h"
#include "../Platform/NSProgress.h"
#include "../Platform/NSStream.h"
#include "KQZipTransferBlock.h"

// The transfers of data, which bypass the stream primitives. They differ by design: callers see when each
// tests for a cancellation, and what it counts.

/// Reads `source` to its end and passes each block to `use`, which returns the number of bytes it accepts; 0
/// or a negative number ends the transfer. After the next block is read, calls `count` with that number and
/// the result of the read. A read that fails counts as the end. Returns false when `progress`, if there is
/// one, is cancelled, which is tested before each block is used.
template <class Use, class Count>
bool KQZipReadBlocks(KQ::NSInputStream& source, const KQ::NSProgress* progress, const Use& use,
                     const Count& count) {
  const KQZipTransferBlock block;
  std::int64_t length = source.read(block.get(), KQZipBlockSize);
  for (std::int64_t taken = 1; taken > 0 && length > 0;) {
    if (progress != nullptr && progress->isCancelled()) return false;
    taken = use(block.get(), length);
    length = source.read(block.get(), KQZipBlockSize);
    count(taken, length);
  }
  return true;
}

/// How a copy out of an archive tests for a cancellation and counts.
enum class KQZipCopyOrder {
  TestReadCountWrite,  ///< Tests before each block, counts read bytes even if they cannot be written.
  ReadWriteCountTest   ///< Counts written bytes, tests after each block.
};

/// How a copy ended.
enum class KQZipCopyEnd {
  Complete,   ///< All is copied, or the source ended early.
  Cancelled,  ///< The progress was cancelled.
  NotRead,    ///< A read failed.
  NotWritten  ///< A write failed or accepted nothing.
};

/// Copies up to `length` bytes through `block`, which has room for that many or for a whole block. After the
/// first whole block the system copies by itself, if it can.
KQZipCopyEnd KQZipCopyBlocks(KQ::NSInputStream& source, KQ::NSOutputStream& target,
                             const KQZipTransferBlock& block, std::uint64_t length, KQ::NSProgress& progress,
                             KQZipCopyOrder order);

/// Continues a copy of up to `length` bytes, block by block, as long as the system copies by itself and the
/// progress is not cancelled. Call it after a whole block, so that nothing changes for small files. Returns
/// the number of bytes copied; the caller reads and writes the rest.
std::uint64_t KQZipMoveBlocks(KQ::NSInputStream& source, KQ::NSOutputStream& target, std::uint64_t length,
                              KQ::NSProgress& progress);

/// Adds to the completed units.
inline void KQZipCount(KQ::NSProgress& progress, std::int64_t units) {
  progress.setCompletedUnitCount(progress.completedUnitCount() + units);
}

/// The `length` bytes of an archive from `offset` on, read with one read; bytes that it does not deliver are
/// zeros. Null when the stream ends there, or without enough memory.
std::shared_ptr<const KQ::NSData> KQZipReadStoredData(KQ::NSInputStream& archive, std::uint64_t offset,
                                                      std::uint64_t length);
