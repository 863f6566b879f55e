#include "CentralRecord.h"

#include <algorithm>

namespace Tool {

namespace {

// Hands out the 64-bit values of a Zip64 field, first to last.
class Zip64Values {
 public:
  explicit Zip64Values(const CentralFields& fields) : fields_(fields) {}

  std::uint64_t valueOr(std::uint32_t narrow) {
    constexpr std::uint32_t saturated = 0xFFFFFFFF;
    const bool isThere = narrow == saturated && next_ < fields_.numberOfZip64Values;
    return isThere ? fields_.zip64Values[next_++] : narrow;
  }

 private:
  const CentralFields& fields_;
  std::size_t next_ = 0;
};

// Whoever made the header says with it how the external attributes are to be read.
bool isFromUnix(const CentralFields& fields) {
  constexpr int unixHost = 3;
  constexpr int darwinHost = 19;
  const int host = fields.versionMadeBy >> 8;
  return host == unixHost || host == darwinHost;
}

std::optional<std::uint32_t> permissionsOf(const CentralFields& fields, std::string_view name) {
  constexpr std::uint32_t typeBits = 0170000;
  constexpr std::uint32_t regularFile = 0100000;
  constexpr std::uint32_t folder = 0040000;
  constexpr std::uint32_t permissionBits = 0777;
  const std::uint32_t mode = fields.externalFileAttributes >> 16;
  const std::uint32_t expected = !name.empty() && name.back() == '/' ? folder : regularFile;
  const bool isExpected = (mode & typeBits) == 0 || (mode & typeBits) == expected;
  if (!isFromUnix(fields) || !isExpected || mode == 0) return std::nullopt;
  return mode & permissionBits;
}

}  // namespace

CentralFields centralFields(const KQZipCentralDirectoryFileHeader& header) {
  CentralFields fields;
  fields.versionMadeBy = header.versionMadeBy();
  fields.crc32 = header.crc32();
  fields.compressedSize = header.compressedSize();
  fields.uncompressedSize = header.uncompressedSize();
  fields.externalFileAttributes = header.externalFileAttributes();
  fields.offsetOfLocalHeader = header.offsetOfLocalHeader();
  if (const auto zip64 = header.findZip64InfoField()) {
    fields.zip64Values = {zip64->uncompressedSize(), zip64->compressedSize(),
                          zip64->offsetOfLocalHeaderRecord()};
    fields.numberOfZip64Values =
        std::min<std::size_t>(fields.zip64Values.size(), zip64->fieldSize() / sizeof(std::uint64_t));
  }
  return fields;
}

CentralRecord centralRecord(const CentralFields& fields, std::string_view name) {
  Zip64Values values(fields);
  CentralRecord record;
  record.permissions = permissionsOf(fields, name);
  record.name = name;
  record.crc32 = fields.crc32;
  // The uncompressed size comes first in the field, and is the same for data that is stored.
  values.valueOr(fields.uncompressedSize);
  record.size = values.valueOr(fields.compressedSize);
  record.localHeaderAt = values.valueOr(fields.offsetOfLocalHeader);
  return record;
}

}  // namespace Tool
