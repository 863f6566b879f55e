#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// What the transfers have in common that bypass the stream primitives: the copies of data and the scans for
// signatures. For the library's own use.

/// Data is read and copied in blocks of this many bytes.
inline constexpr std::uint64_t KQZipBlockSize = 1048576;

/// The four bytes by which a scan chooses the next record.
using KQZipSignatureBytes = std::array<std::uint8_t, 4>;

/// The signature that the bytes hold.
inline std::uint32_t KQZipSignatureFromBytes(const KQZipSignatureBytes& bytes) {
  std::uint32_t signature = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) signature |= static_cast<std::uint32_t>(bytes[i]) << (8 * i);
  return signature;
}
