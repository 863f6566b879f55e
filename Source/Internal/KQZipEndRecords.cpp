#include "KQZipEndRecords.h"

#include <algorithm>

#include "../KQZip64EndOfCentralDirectoryLocator.h"
#include "../KQZip64EndOfCentralDirectoryRecord.h"
#include "../KQZipEndOfCentralDirectoryRecord.h"
#include "KQZipBlockStreams.h"

namespace {

constexpr std::uint64_t largest16Bits = 0xFFFF;
constexpr std::uint64_t largest32Bits = 0xFFFFFFFF;

KQZipEndRecords::Bytes bytesOf(const KQZipEndRecords& records, std::uint64_t sizeOfDirectory,
                               std::uint64_t classicCount) {
  KQZip64EndOfCentralDirectoryRecord zip64Record;
  zip64Record.setEntriesInCDOnThisDisk(records.entries);
  zip64Record.setEntriesInCD(records.entries);
  zip64Record.setSizeOfCD(sizeOfDirectory);
  zip64Record.setOffsetOfCD(records.startOfDirectory);

  KQZip64EndOfCentralDirectoryLocator locator;
  locator.setOffsetOfZip64EoCD(records.startOfDirectory + records.sizeOfHeaders);

  KQZipEndOfCentralDirectoryRecord classicRecord;
  classicRecord.setEntriesInCDOnThisDisk(static_cast<std::uint16_t>(classicCount));
  classicRecord.setEntriesInCD(static_cast<std::uint16_t>(classicCount));
  classicRecord.setSizeOfCD(static_cast<std::uint32_t>(std::min(sizeOfDirectory, largest32Bits)));
  classicRecord.setOffsetOfCD(static_cast<std::uint32_t>(std::min(records.startOfDirectory, largest32Bits)));

  KQZipEndRecords::Bytes bytes{};
  KQZipBlockOutputStream stream(bytes.data(), bytes.size());
  zip64Record.writeToStream(stream);
  locator.writeToStream(stream);
  classicRecord.writeToStream(stream);
  return bytes;
}

}  // namespace

KQZipEndRecords::Bytes KQZipEndRecords::exact() const {
  return bytesOf(*this, sizeOfHeaders + length, entries & largest16Bits);
}

KQZipEndRecords::Bytes KQZipEndRecords::interoperable() const {
  return bytesOf(*this, sizeOfHeaders, std::min(entries, largest16Bits));
}

bool KQZipEndRecords::match(const Bytes& bytes) const {
  const Bytes before = exact();
  const Bytes after = interoperable();
  // Byte by byte: a write may stop inside a number, and storage need not keep the order of the bytes.
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != before[i] && bytes[i] != after[i]) return false;
  }
  return true;
}
