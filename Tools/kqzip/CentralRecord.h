#pragma once

#include <KQZip/Internal/KQZipHeaderCodec.h>
#include <KQZip/KQZip.h>

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

/// Makes the record of an entry from its header and the data of its Zip64 field. A 32-bit field that is
/// saturated gives way to the next value there, as the format has it: other programs leave out the values
/// that fit.
CentralRecord centralRecord(const KQZipCentralHeaderFields& header, KQZipBytes zip64Data,
                            std::string_view name);

/// The same from a header that its class has read.
CentralRecord centralRecord(const KQZipCentralDirectoryFileHeader& header, std::string_view name);

}  // namespace Tool
