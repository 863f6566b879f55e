#include "KQZipEndRecords.h"

namespace {

KQZipEndRecords::Bytes bytesOf(const KQZipEndRecords& records, std::uint64_t sizeOfDirectory,
                               std::uint16_t classicCount) {
  KQZipZip64EndRecordFields zip64Record;
  zip64Record.entriesInCDOnThisDisk = records.entries;
  zip64Record.entriesInCD = records.entries;
  zip64Record.sizeOfCD = sizeOfDirectory;
  zip64Record.offsetOfCD = records.startOfDirectory;

  KQZipZip64LocatorFields locator;
  locator.offsetOfZip64EoCD = records.startOfDirectory + records.sizeOfHeaders;

  KQZipEndRecordFields classicRecord;
  classicRecord.entriesInCDOnThisDisk = classicCount;
  classicRecord.entriesInCD = classicCount;
  classicRecord.sizeOfCD = KQZipSaturate<std::uint32_t>(sizeOfDirectory);
  classicRecord.offsetOfCD = KQZipSaturate<std::uint32_t>(records.startOfDirectory);

  KQZipEndRecords::Bytes bytes;
  KQZipRoom room(bytes);
  KQZipEncode(zip64Record, room);
  room = room.subspan(KQZipZip64EndRecordFields::size);
  KQZipEncode(locator, room);
  KQZipEncode(classicRecord, room.subspan(KQZipZip64LocatorFields::size));
  return bytes;
}

}  // namespace

KQZipEndRecords::Bytes KQZipEndRecords::exact() const {
  return bytesOf(*this, sizeOfHeaders + length, static_cast<std::uint16_t>(entries));
}

KQZipEndRecords::Bytes KQZipEndRecords::interoperable() const {
  return bytesOf(*this, sizeOfHeaders, KQZipSaturate<std::uint16_t>(entries));
}

bool KQZipEndRecords::match(const Bytes& bytes) const {
  const Bytes before = exact();
  const Bytes after = interoperable();
  // Byte by byte: a write may stop inside a number, and storage may change the order of the bytes.
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != before[i] && bytes[i] != after[i]) return false;
  }
  return true;
}
