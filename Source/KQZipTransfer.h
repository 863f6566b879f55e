#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

// What the transfers have in common that bypass the stream primitives: the copies of data and the scans for
// signatures. For the library's own use.

/// Data is read and copied in blocks of this many bytes.
inline constexpr std::uint64_t KQZipBlockSize = 1048576;

/// A buffer of one block for a transfer. The thread keeps the last one given back for its next transfer,
/// because a block for each small file would cost more than the file.
class KQZipTransferBlock {
 public:
  KQZipTransferBlock() : bytes_(std::exchange(spare(), nullptr)) {
    if (!bytes_) bytes_ = std::make_unique_for_overwrite<std::uint8_t[]>(KQZipBlockSize);
  }
  ~KQZipTransferBlock() { spare() = std::move(bytes_); }
  KQZipTransferBlock(const KQZipTransferBlock&) = delete;
  KQZipTransferBlock& operator=(const KQZipTransferBlock&) = delete;

  /// The first of the block's bytes, which hold anything.
  std::uint8_t* get() const { return bytes_.get(); }

 private:
  using Bytes = std::unique_ptr<std::uint8_t[]>;

  static Bytes& spare() {
    thread_local Bytes bytes;
    return bytes;
  }

  Bytes bytes_;
};

/// The four bytes by which a scan chooses the next record.
using KQZipSignatureBytes = std::array<std::uint8_t, 4>;

/// The signature that the bytes hold.
inline std::uint32_t KQZipSignatureFromBytes(const KQZipSignatureBytes& bytes) {
  std::uint32_t signature = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) signature |= static_cast<std::uint32_t>(bytes[i]) << (8 * i);
  return signature;
}
