#include "KQZipRecordForm.h"

#include <algorithm>
#include <cstring>

#include "KQZipHeaderCodec.h"
#include "KQZipTimeFields.h"

namespace {

constexpr std::uint16_t nameIsUTF8 = 0x0800;

// External attributes: what is Unix's in the upper half, a folder's mark of MS-DOS in the lower.
constexpr int modeShift = 16;
constexpr std::uint32_t regularFile = 0100000;
constexpr std::uint32_t folder = 0040000;
constexpr std::uint32_t symbolicLink = 0120000;
constexpr std::uint32_t permissionsOfLink = 0777;
constexpr std::uint32_t folderInDOS = 0x10;

template <class Fields>
void setCommon(const KQZipPackingEntry& entry, Fields* fields) {
  fields->modTime = entry.modTime;
  fields->modDate = entry.modDate;
  fields->crc32 = entry.crc32;
  fields->fileNameLength = static_cast<std::uint16_t>(entry.nameLength);
}

bool isASCII(std::string_view name) {
  return std::all_of(name.begin(), name.end(),
                     [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

}  // namespace

std::uint64_t KQZipRecordForm::sizeOfLocalHeader(const KQZipPackingEntry& entry) const {
  return KQZipLocalHeaderFields::size + entry.nameLength + _sizeOfExtraFields(entry);
}

std::uint64_t KQZipRecordForm::sizeOfCentralHeader(const KQZipPackingEntry& entry) const {
  return KQZipCentralHeaderFields::size + entry.nameLength + _sizeOfExtraFields(entry);
}

void KQZipRecordForm::setTime(KQZipPackingEntry* entry) const {
  const KQZipDOSTime time =
      isExact_ ? KQZipDOSTime::wrapped(entry->seconds) : KQZipDOSTime::clamped(entry->seconds);
  entry->modDate = time.date;
  entry->modTime = time.time;
}

void KQZipRecordForm::encodeLocalHeader(const KQZipPackingEntry& entry, std::uint8_t* room) const {
  KQZipLocalHeaderFields fields;
  setCommon(entry, &fields);
  fields.flags = _flags(entry.name());
  fields.extraFieldLength = _sizeOfExtraFields(entry);
  KQZipEncode(fields, {room, KQZipLocalHeaderFields::size});
  _encodeNameAndFields(entry, room + KQZipLocalHeaderFields::size);
}

void KQZipRecordForm::setOffset(const KQZipPackingEntry& entry, std::uint8_t* localHeader) {
  std::uint8_t* const field = localHeader + KQZipLocalHeaderFields::size + entry.nameLength;
  KQZipStore(entry.offset, field + KQZipZip64Values::fieldSize - KQZipZip64Values::width);
}

void KQZipRecordForm::encodeCentralHeader(const KQZipPackingEntry& entry, std::uint8_t* room) const {
  KQZipCentralHeaderFields fields;
  setCommon(entry, &fields);
  fields.flags = _flags(entry.name());
  fields.extraFieldLength = _sizeOfExtraFields(entry);
  fields.externalFileAttributes = _externalAttributes(entry);
  fields.offsetOfLocalHeader =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(entry.offset, KQZipSaturated32));
  KQZipEncode(fields, {room, KQZipCentralHeaderFields::size});
  _encodeNameAndFields(entry, room + KQZipCentralHeaderFields::size);
}

KQZipEndRecords::Bytes KQZipRecordForm::encode(const KQZipEndRecords& records) const {
  return isExact_ ? records.exact() : records.interoperable();
}

std::uint16_t KQZipRecordForm::_sizeOfExtraFields(const KQZipPackingEntry& entry) const {
  const std::size_t timeField = isExact_ ? 0 : KQZipTimeField(entry.seconds).size();
  return static_cast<std::uint16_t>(KQZipZip64Values::fieldSize + timeField);
}

std::uint16_t KQZipRecordForm::_flags(std::string_view name) const {
  return isExact_ || isASCII(name) ? 0 : nameIsUTF8;
}

void KQZipRecordForm::_encodeNameAndFields(const KQZipPackingEntry& entry, std::uint8_t* room) const {
  std::memcpy(room, entry.nameBytes, entry.nameLength);
  std::uint8_t* const fields = room + entry.nameLength;
  KQZipEncodeZip64Field(
      {entry.length, entry.length, entry.offset},
      std::span<std::uint8_t, KQZipZip64Values::fieldSize>(fields, KQZipZip64Values::fieldSize));
  if (!isExact_) KQZipTimeField(entry.seconds).encode(fields + KQZipZip64Values::fieldSize);
}

std::uint32_t KQZipRecordForm::_externalAttributes(const KQZipPackingEntry& entry) const {
  if (isExact_) return 0;
  switch (entry.kind) {
    case KQZipPackingEntry::Kind::Folder:
      return (folder | entry.permissions) << modeShift | folderInDOS;
    case KQZipPackingEntry::Kind::Link:
      return (symbolicLink | permissionsOfLink) << modeShift;
    default:
      return (regularFile | entry.permissions) << modeShift;
  }
}
