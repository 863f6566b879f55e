#pragma once

#include <array>
#include <cstdint>

#include "KQZipHeaderCodec.h"

// The three records that close an archive, as bytes. For the library's own use.

/// What the records say, and where they stand.
struct KQZipEndRecords {
  /// The Zip64 end record, the locator and the classic end record, all without parts of variable length.
  static constexpr std::uint64_t length =
      KQZipZip64EndRecordFields::size + KQZipZip64LocatorFields::size + KQZipEndRecordFields::size;
  /// The records' bytes.
  using Bytes = std::array<std::uint8_t, length>;

  std::uint64_t entries = 0;           ///< Number of central headers.
  std::uint64_t startOfDirectory = 0;  ///< Offset of the first one.
  std::uint64_t sizeOfHeaders = 0;     ///< Bytes of all of them, behind which the records stand.

  /// As KQZipCentralDirectory writes them: the size counts the records too, and the classic counts are cut.
  Bytes exact() const;

  /// As other programs want them: the size is that of the headers, and the classic counts are saturated.
  Bytes interoperable() const;

  /// True when `bytes` are either, or what is left where writing the one over the other stopped.
  bool match(const Bytes& bytes) const;
};
