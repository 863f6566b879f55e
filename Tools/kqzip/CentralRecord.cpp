#include "CentralRecord.h"

#include <utility>

namespace Tool {

namespace {

// The 64-bit values of a Zip64 field, handed out first to last.
class Zip64Values {
 public:
  explicit Zip64Values(const KQZipCentralDirectoryFileHeader& header) {
    if (const auto field = header.findZip64InfoField()) data_ = field->fieldData();
  }

  std::uint64_t valueOr(std::uint32_t narrow) {
    constexpr std::uint32_t saturated = 0xFFFFFFFF;
    constexpr std::uint64_t width = 8;
    if (narrow != saturated || !data_ || data_->length() < position_ + width) return narrow;
    std::uint64_t value = 0;
    for (std::uint64_t i = 0; i < width; ++i)
      value |= static_cast<std::uint64_t>(data_->bytes()[position_ + i]) << (8 * i);
    position_ += width;
    return value;
  }

 private:
  std::shared_ptr<const KQ::NSData> data_;
  std::uint64_t position_ = 0;
};

// Whoever made the header says with it how the external attributes are to be read.
bool isFromUnix(const KQZipCentralDirectoryFileHeader& header) {
  constexpr int unixHost = 3;
  constexpr int darwinHost = 19;
  const int host = header.versionMadeBy() >> 8;
  return host == unixHost || host == darwinHost;
}

std::optional<std::uint32_t> permissionsOf(const KQZipCentralDirectoryFileHeader& header,
                                           const std::string& name) {
  constexpr std::uint32_t typeBits = 0170000;
  constexpr std::uint32_t regularFile = 0100000;
  constexpr std::uint32_t folder = 0040000;
  constexpr std::uint32_t permissionBits = 0777;
  const std::uint32_t mode = header.externalFileAttributes() >> 16;
  const std::uint32_t expected = !name.empty() && name.back() == '/' ? folder : regularFile;
  const bool isExpected = (mode & typeBits) == 0 || (mode & typeBits) == expected;
  if (!isFromUnix(header) || !isExpected || (mode & permissionBits) == 0) return std::nullopt;
  return mode & permissionBits;
}

}  // namespace

CentralRecord centralRecord(const KQZipCentralDirectoryFileHeader& header, std::string name) {
  Zip64Values values(header);
  CentralRecord record;
  record.permissions = permissionsOf(header, name);
  record.name = std::move(name);
  record.crc32 = header.crc32();
  // The uncompressed size comes first in the field, and is the same for data that is stored.
  values.valueOr(header.uncompressedSize());
  record.size = values.valueOr(header.compressedSize());
  record.localHeaderAt = values.valueOr(header.offsetOfLocalHeader());
  return record;
}

}  // namespace Tool
