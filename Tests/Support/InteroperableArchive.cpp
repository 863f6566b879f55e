#include "Support/InteroperableArchive.h"

#include <KQZip/KQZip.h>

#include <algorithm>

namespace KQTest {

namespace {

bool isMarked(const std::string& name) {
  const auto isOutside = [](char byte) { return (byte & 0x80) != 0; };
  return std::any_of(name.begin(), name.end(), isOutside) && KQ::isValidUTF8(name);
}

std::uint64_t attributesOf(const std::string& name, const std::map<std::string, unsigned>& permissions) {
  const auto given = permissions.find(name);
  const bool isFolder = !name.empty() && name.back() == '/';
  if (isFolder) return (040000U + (given == permissions.end() ? 0755U : given->second)) * 65536U + 16U;
  return (0100000U + (given == permissions.end() ? 0644U : given->second)) * 65536U;
}

}  // namespace

ArchiveTail::ArchiveTail(const std::string& archive)
    : entries(numberAt(archive, archive.size() - 98 + 32, 8)),
      startOfDirectory(numberAt(archive, archive.size() - 98 + 48, 8)),
      startOfEndRecords(archive.size() - 98) {}

std::uint64_t numberAt(const std::string& bytes, std::size_t position, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = width; i-- > 0;)
    value = value * 256 + static_cast<unsigned char>(bytes.at(position + i));
  return value;
}

void setNumberAt(std::string& bytes, std::size_t position, std::size_t width, std::uint64_t value) {
  for (std::size_t i = 0; i < width; ++i, value /= 256)
    bytes.at(position + i) = static_cast<char>(value % 256);
}

std::string interoperableArchive(std::string archive, const std::map<std::string, unsigned>& permissions) {
  const ArchiveTail tail(archive);
  std::size_t header = tail.startOfDirectory;
  for (std::uint64_t i = 0; i < tail.entries; ++i) {
    const std::size_t nameLength = numberAt(archive, header + 28, 2);
    const std::string name = archive.substr(header + 46, nameLength);
    // Behind the name stands the Zip64 field: id, size, two sizes, offset.
    const std::size_t local = numberAt(archive, header + 46 + nameLength + 20, 8);
    if (isMarked(name)) {
      setNumberAt(archive, header + 8, 2, 2048);
      setNumberAt(archive, local + 6, 2, 2048);
    }
    if (numberAt(archive, header + 38, 4) == 0)
      setNumberAt(archive, header + 38, 4, attributesOf(name, permissions));
    header += 46 + nameLength + 28;
  }
  const std::uint64_t size = tail.startOfEndRecords - tail.startOfDirectory;
  setNumberAt(archive, tail.startOfEndRecords + 40, 8, size);
  const std::size_t classic = archive.size() - 22;
  for (const std::size_t count : {classic + 8, classic + 10})
    setNumberAt(archive, count, 2, std::min<std::uint64_t>(tail.entries, 65535));
  setNumberAt(archive, classic + 12, 4, std::min<std::uint64_t>(size, 0xFFFFFFFF));
  return archive;
}

}  // namespace KQTest
