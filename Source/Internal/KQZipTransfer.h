#pragma once

#include <cstdint>
#include <memory>

#include "../Platform/NSData.h"
#include "../Platform/NSProgress.h"
#include "../Platform/NSStream.h"
#include "KQZipTransferBlock.h"

// The transfers of data, which bypass the stream primitives. When each tests for a cancellation and what it
// counts is part of what its callers see, so these differ by design.

/// Reads `source` to its end and passes each block to `use`, which returns how many bytes it has taken; none,
/// or a negative number, ends the transfer. Once the next block has been read, `count` is called with that
/// number and what the read returned. A read that fails is an end, too. False when `progress`, if there is
/// one, is cancelled, tested before each block is used.
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
  TestReadCountWrite,  ///< Tests before each block, counts what was read even if it cannot be written.
  ReadWriteCountTest   ///< Counts what was written, tests after each block.
};

/// How a copy ended.
enum class KQZipCopyEnd {
  Complete,   ///< All is copied, or the source ended early.
  Cancelled,  ///< The progress was cancelled.
  NotRead,    ///< A read failed.
  NotWritten  ///< A write failed or took nothing.
};

/// Copies up to `length` bytes through `block`, which has room for as many or for a whole block. Where the
/// system can, it moves them by itself after the first whole block.
KQZipCopyEnd KQZipCopyBlocks(KQ::NSInputStream& source, KQ::NSOutputStream& target,
                             const KQZipTransferBlock& block, std::uint64_t length, KQ::NSProgress& progress,
                             KQZipCopyOrder order);

/// Goes on with a copy of up to `length` bytes, block by block, as long as the system moves them by itself
/// and nobody cancels. To be called after a whole block, so that nothing changes for small files. Returns how
/// many bytes that made; the rest is to be read and written.
std::uint64_t KQZipMoveBlocks(KQ::NSInputStream& source, KQ::NSOutputStream& target, std::uint64_t length,
                              KQ::NSProgress& progress);

/// Adds to the units that are completed.
inline void KQZipCount(KQ::NSProgress& progress, std::int64_t units) {
  progress.setCompletedUnitCount(progress.completedUnitCount() + units);
}

/// The `length` bytes of an archive from `offset` on, read with one read; what it does not deliver is zeros.
/// Null when there is nothing to read there, or no memory.
std::shared_ptr<const KQ::NSData> KQZipReadStoredData(KQ::NSInputStream& archive, std::uint64_t offset,
                                                      std::uint64_t length);
