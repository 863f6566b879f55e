#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

#include "../Platform/Internal/NSFileOutputStream.h"
#include "../Platform/Internal/NSRawBytes.h"
#include "../Platform/NSProgress.h"
#include "../Platform/NSStream.h"

// What the copies of data have in common, which bypass the stream primitives. For the library's own use.

/// Data is read and copied in blocks of this many bytes.
inline constexpr std::uint64_t KQZipBlockSize = 1048576;

/// Lets the thread keep the block that a transfer has given back, for the next one, until the last keeper has
/// gone: a block of its own for each of many small files would cost more than the files.
class KQZipTransferBlockKeeper {
 public:
  KQZipTransferBlockKeeper() { ++kept().keepers; }
  ~KQZipTransferBlockKeeper() {
    if (--kept().keepers == 0) kept().spare.reset();
  }
  KQZipTransferBlockKeeper(const KQZipTransferBlockKeeper&) = delete;
  KQZipTransferBlockKeeper& operator=(const KQZipTransferBlockKeeper&) = delete;

 private:
  friend class KQZipTransferBlock;

  struct Kept {
    std::unique_ptr<std::uint8_t[]> spare;
    std::uint64_t keepers = 0;
  };

  static Kept& kept() {
    thread_local Kept kept;
    return kept;
  }
};

/// A buffer of one block for a transfer.
class KQZipTransferBlock {
 public:
  KQZipTransferBlock() : bytes_(std::move(KQZipTransferBlockKeeper::kept().spare)) {
    if (!bytes_) bytes_ = KQ::NSRawBytes(KQZipBlockSize);
  }
  ~KQZipTransferBlock() {
    auto& kept = KQZipTransferBlockKeeper::kept();
    if (kept.keepers != 0) kept.spare = std::move(bytes_);
  }
  KQZipTransferBlock(const KQZipTransferBlock&) = delete;
  KQZipTransferBlock& operator=(const KQZipTransferBlock&) = delete;

  /// The first of the block's bytes, which hold anything.
  std::uint8_t* get() const { return bytes_.get(); }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
};

/// Goes on with a copy of up to `length` bytes, block by block, as long as the system moves them by itself
/// and nobody cancels. To be called behind a whole block, so that nothing changes for small files. Returns
/// how many bytes that made; the rest is to be read and written.
inline std::uint64_t KQZipMoveBlocks(KQ::NSInputStream& source, KQ::NSOutputStream& target,
                                     std::uint64_t length, KQ::NSProgress& progress) {
  std::uint64_t done = 0;
  while (done < length && !progress.isCancelled()) {
    const std::uint64_t moved = KQ::NSMoveBytes(source, target, std::min(length - done, KQZipBlockSize));
    if (moved == 0) break;
    progress.setCompletedUnitCount(progress.completedUnitCount() + static_cast<std::int64_t>(moved));
    done += moved;
  }
  return done;
}
