#pragma once

#include <cstdint>
#include <memory>

#include "KQZipArchiveSource.h"
#include "KQZipHeaderCodec.h"

/// A view of an archive that moves over it. It reads little after a jump, and more and more as long as it
/// moves on, so that going over small records is a few large reads, and going from one to the next over large
/// data a few small ones.
class KQZipArchiveWindow {
 public:
  /// Sees nothing yet.
  explicit KQZipArchiveWindow(const KQZipArchiveSource& source) : source_(source) {}

  /// Shows what stands at `offset`: at least `wanted` bytes, fewer only where the archive ends, and all that
  /// follows and is at hand. They are valid until the next call. False when reading fails.
  bool look(std::uint64_t offset, std::uint64_t wanted, KQZipBytes* bytes, KQ::NSErrorSlot error);

 private:
  static constexpr std::uint64_t smallestRead = 4096;
  static constexpr std::uint64_t largestRead = 1048576;

  void _makeRoom(std::uint64_t offset, std::uint64_t length);

  const KQZipArchiveSource& source_;
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::uint64_t room_ = 0;
  std::uint64_t start_ = 0;
  std::uint64_t length_ = 0;
  std::uint64_t nextRead_ = smallestRead;
};
