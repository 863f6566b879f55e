#include "CentralRecord.h"

namespace Tool {

namespace {

// Whoever made the header says with it how the external attributes are to be read.
bool isFromUnix(const KQZipCentralHeaderFields& header) {
  constexpr int unixHost = 3;
  constexpr int darwinHost = 19;
  const int host = header.versionMadeBy >> 8;
  return host == unixHost || host == darwinHost;
}

std::optional<std::uint32_t> permissionsOf(const KQZipCentralHeaderFields& header, std::string_view name) {
  constexpr std::uint32_t typeBits = 0170000;
  constexpr std::uint32_t regularFile = 0100000;
  constexpr std::uint32_t folder = 0040000;
  constexpr std::uint32_t permissionBits = 0777;
  const std::uint32_t mode = header.externalFileAttributes >> 16;
  const std::uint32_t expected = !name.empty() && name.back() == '/' ? folder : regularFile;
  const bool isExpected = (mode & typeBits) == 0 || (mode & typeBits) == expected;
  if (!isFromUnix(header) || !isExpected || mode == 0) return std::nullopt;
  return mode & permissionBits;
}

}  // namespace

CentralRecord centralRecord(const KQZipCentralHeaderFields& header, KQZipBytes zip64Data,
                            std::string_view name) {
  const KQZipWideValues values = KQZipWiden(header, zip64Data);
  CentralRecord record;
  record.permissions = permissionsOf(header, name);
  record.name = name;
  record.crc32 = header.crc32;
  record.size = values.compressedSize;
  record.localHeaderAt = values.offsetOfLocalHeader;
  return record;
}

CentralRecord centralRecord(const KQZipCentralDirectoryFileHeader& header, std::string_view name) {
  KQZipCentralHeaderFields fields;
  fields.versionMadeBy = header.versionMadeBy();
  fields.crc32 = header.crc32();
  fields.compressedSize = header.compressedSize();
  fields.uncompressedSize = header.uncompressedSize();
  fields.externalFileAttributes = header.externalFileAttributes();
  fields.offsetOfLocalHeader = header.offsetOfLocalHeader();
  const auto zip64 = header.findZip64InfoField();
  const auto data = zip64 ? zip64->fieldData() : nullptr;
  return centralRecord(fields, data ? KQZipBytes(data->bytes(), data->length()) : KQZipBytes(), name);
}

}  // namespace Tool
