#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

#include "../Platform/Internal/NSRawBytes.h"

/// Data is read and copied in blocks of this many bytes.
inline constexpr std::uint64_t KQZipBlockSize = 1048576;

/// While a keeper exists, the thread keeps a transfer's block for the next transfer: a new block for each of
/// many small files would cost more than the files.
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

/// A buffer for a transfer: a whole block if the thread keeps one, or else no longer than needed.
class KQZipTransferBlock {
 public:
  /// A buffer for a transfer of `length` bytes.
  explicit KQZipTransferBlock(std::uint64_t length = KQZipBlockSize)
      : bytes_(std::move(KQZipTransferBlockKeeper::kept().spare)) {
    if (bytes_) return;
    const bool isKept = KQZipTransferBlockKeeper::kept().keepers != 0;
    bytes_ = KQ::NSRawBytes(isKept ? KQZipBlockSize : std::min(length, KQZipBlockSize));
    isWhole_ = isKept || length >= KQZipBlockSize;
  }
  ~KQZipTransferBlock() {
    auto& kept = KQZipTransferBlockKeeper::kept();
    if (kept.keepers != 0 && isWhole_) kept.spare = std::move(bytes_);
  }
  KQZipTransferBlock(const KQZipTransferBlock&) = delete;
  KQZipTransferBlock& operator=(const KQZipTransferBlock&) = delete;

  /// The first of the block's bytes, whose values are undefined.
  std::uint8_t* get() const { return bytes_.get(); }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  bool isWhole_ = true;
};
