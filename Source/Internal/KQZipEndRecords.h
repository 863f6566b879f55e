#pragma once

#include <array>
#include <cstdint>

#include "KQZipHeaderCodec.h"

// The three records at the end of an archive, as bytes.

/// The values of the records, and their offset.
struct KQZipEndRecords {
  /// The Zip64 end record, the locator and the classic end record, all without parts of variable length.
  static constexpr std::uint64_t length =
      KQZipZip64EndRecordFields::size + KQZipZip64LocatorFields::size + KQZipEndRecordFields::size;
  /// The records' bytes.
  using Bytes = std::array<std::uint8_t, length>;

  std::uint64_t entries = 0;           ///< Number of central headers.
  std::uint64_t startOfDirectory = 0;  ///< Offset of the first one.
  std::uint64_t sizeOfHeaders = 0;     ///< Bytes of all headers; the records follow them.

  /// As KQZipCentralDirectory writes them: the size includes the records, and the classic counts are
  /// truncated.
  Bytes exact() const;

  /// As other programs expect them: the size is that of the headers, and the classic counts are saturated.
  Bytes interoperable() const;

  /// True when `bytes` are one of the two forms, or an interrupted write of one over the other.
  bool match(const Bytes& bytes) const;
};
