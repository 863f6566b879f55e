#pragma once

#include <KQZip/KQZip.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Tool {

/// What the central directory says of an entry, as far as it is compared or used.
struct CentralRecord {
  std::string_view name;            ///< The bytes of the name as stored.
  std::uint32_t crc32 = 0;          ///< CRC-32 of the data.
  std::uint64_t size = 0;           ///< Bytes of data.
  std::uint64_t localHeaderAt = 0;  ///< Offset of the local header.

  /// Unix's permission bits, the lowest nine; nothing when the entry has none, or is of another type than its
  /// name says.
  std::optional<std::uint32_t> permissions;
};

/// The fields of a central header from which its record is made, as they are stored.
struct CentralFields {
  std::uint16_t versionMadeBy = 0;
  std::uint32_t crc32 = 0;
  std::uint32_t compressedSize = 0;
  std::uint32_t uncompressedSize = 0;
  std::uint32_t externalFileAttributes = 0;
  std::uint32_t offsetOfLocalHeader = 0;
  std::array<std::uint64_t, 3> zip64Values{};  ///< The values of the Zip64 field, first to last.
  std::size_t numberOfZip64Values = 0;         ///< How many of them it has.
};

/// Takes the fields from a header.
CentralFields centralFields(const KQZipCentralDirectoryFileHeader& header);

/// Makes the record of an entry. A 32-bit field that is saturated gives way to the next value of the Zip64
/// field, as the format has it: other programs leave out the values that fit.
CentralRecord centralRecord(const CentralFields& fields, std::string_view name);

}  // namespace Tool
