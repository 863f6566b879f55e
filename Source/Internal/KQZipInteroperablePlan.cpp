#include "KQZipInteroperablePlan.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

#include "../Platform/Internal/NSRawBytes.h"
#include "../Platform/NSString.h"
#include "KQZipError.h"
#include "KQZipHeaderCodec.h"
#include "KQZipTransferBlock.h"

namespace {

using Local = KQZipLocalHeaderFields;
using Central = KQZipCentralHeaderFields;

// Both headers have the Zip64 field as their only one, after the name.
constexpr std::uint64_t zip64FieldLength = KQZipZip64Values::fieldSize;

constexpr std::uint16_t nameIsUTF8 = 0x0800;

// External attributes: the Unix mode in the upper half, the MS-DOS bit of a folder in the lower.
constexpr int typeShift = 28;
constexpr int modeShift = 16;
constexpr std::uint32_t regularFile = 0100000;
constexpr std::uint32_t folder = 0040000;
constexpr std::uint32_t permissionBits = 0777;
constexpr std::uint32_t permissionsOfFile = 0644;
constexpr std::uint32_t permissionsOfFolder = 0755;
constexpr std::uint32_t folderInDOS = 0x10;

bool isASCII(std::string_view name) {
  return std::all_of(name.begin(), name.end(),
                     [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

bool isFolder(std::string_view name) { return !name.empty() && name.back() == '/'; }

bool haveType(std::uint32_t attributes) { return attributes >> typeShift != 0; }

// Whether they are 0, or the first bytes of the value to set: an interrupted write has not reached the last
// byte, which has the type.
bool areUnset(std::uint32_t attributes, bool isFolder) {
  const std::uint32_t lowerHalf = attributes & 0xFFFF;
  return attributes >> 24 == 0 && (lowerHalf == 0 || (isFolder && lowerHalf == folderInDOS));
}

// The length of the central header with this fixed part.
std::uint64_t lengthOfHeader(const std::uint8_t* header) {
  return Central::size + KQZipLoad<std::uint16_t>(header + KQZipOffsetOf(&Central::fileNameLength)) +
         zip64FieldLength;
}

// Whether two central headers are the same, except flags and attributes.
bool areAlike(const std::uint8_t* left, const std::uint8_t* right, std::uint64_t length) {
  constexpr std::size_t flags = KQZipOffsetOf(&Central::flags);
  constexpr std::size_t attributes = KQZipOffsetOf(&Central::externalFileAttributes);
  constexpr std::size_t flagsEnd = flags + sizeof(Central::flags);
  constexpr std::size_t attributesEnd = attributes + sizeof(Central::externalFileAttributes);
  const auto sameIn = [left, right](std::uint64_t start, std::uint64_t end) {
    return std::memcmp(left + start, right + start, end - start) == 0;
  };
  return sameIn(0, flags) && sameIn(flagsEnd, attributes) && sameIn(attributesEnd, length);
}

// Whether a local header has the same values as the central one. The local flags may still be unset.
bool match(const Local& local, const Central& central) {
  return local.versionNeeded == central.versionNeeded && (local.flags == 0 || local.flags == central.flags) &&
         local.compression == central.compression && local.crc32 == central.crc32 &&
         local.compressedSize == central.compressedSize &&
         local.uncompressedSize == central.uncompressedSize &&
         local.fileNameLength == central.fileNameLength && local.extraFieldLength == central.extraFieldLength;
}

}  // namespace

KQZipInteroperablePlan::KQZipInteroperablePlan(std::string path, const KQ::NSFileHandle& source,
                                               const KQZipPermissions& permissions)
    : path_(std::move(path)), source_(source), permissions_(permissions) {}

bool KQZipInteroperablePlan::make(KQ::NSErrorSlot error) {
  return _readEndRecords(error) && _readDirectory(error);
}

bool KQZipInteroperablePlan::isEmpty() const {
  return localFlags_.empty() && blocks_.empty() && endRecordsFound_ == endRecords_.interoperable();
}

bool KQZipInteroperablePlan::carryOut(const KQ::NSFileHandle& archive, KQ::NSErrorSlot error) const {
  std::array<std::uint8_t, sizeof(nameIsUTF8)> flags;
  KQZipStore(nameIsUTF8, flags.data());
  for (const std::uint64_t offset : localFlags_) {
    if (!archive.write(flags.data(), flags.size(), offset, error)) return false;
  }
  for (const Block& block : blocks_) {
    if (!archive.write(block.bytes.get(), block.length, block.offset, error)) return false;
  }
  const KQZipEndRecords::Bytes records = endRecords_.interoperable();
  return archive.write(records.data(), records.size(),
                       endRecords_.startOfDirectory + endRecords_.sizeOfHeaders, error);
}

bool KQZipInteroperablePlan::_readEndRecords(KQ::NSErrorSlot error) {
  constexpr auto otherEnd = "it does not end with the records that KQZip writes";
  const std::int64_t length = source_.length(error);
  if (length < 0) return false;
  const auto lengthOfArchive = static_cast<std::uint64_t>(length);
  if (lengthOfArchive < KQZipEndRecords::length) return _refuse(otherEnd, error);

  const std::uint64_t start = lengthOfArchive - KQZipEndRecords::length;
  if (!_read(endRecordsFound_.data(), endRecordsFound_.size(), start, error)) return false;
  KQZipZip64EndRecordFields record;
  if (!KQZipDecode(endRecordsFound_, &record) || record.offsetOfCD > start) return _refuse(otherEnd, error);
  endRecords_ = {record.entriesInCD, record.offsetOfCD, start - record.offsetOfCD};
  return endRecords_.match(endRecordsFound_) || _refuse(otherEnd, error);
}

bool KQZipInteroperablePlan::_readDirectory(KQ::NSErrorSlot error) {
  const std::uint64_t end = endRecords_.startOfDirectory + endRecords_.sizeOfHeaders;
  const auto buffer = KQ::NSRawBytes(std::min(KQZipBlockSize, endRecords_.sizeOfHeaders));
  for (std::uint64_t offset = endRecords_.startOfDirectory; offset < end;) {
    const std::uint64_t length = std::min(KQZipBlockSize, end - offset);
    if (!_read(buffer.get(), length, offset, error)) return false;
    const std::uint64_t converted = _convertBlock(buffer.get(), length, offset, error);
    if (converted == 0) return false;
    offset += converted;
  }
  if (entriesFound_ != endRecords_.entries)
    return _refuse("its central directory and its end records count differently", error);
  // The entries fill the archive from its first byte to the directory.
  return nextEntry_ == endRecords_.startOfDirectory ||
         _refuse("its entries do not end where its central directory begins", error);
}

// Converts the complete headers at the start of the bytes, and adds them to the plan if any of them changes.
// Returns their size in bytes, 0 on failure.
std::uint64_t KQZipInteroperablePlan::_convertBlock(const std::uint8_t* bytes, std::uint64_t length,
                                                    std::uint64_t offset, KQ::NSErrorSlot error) {
  auto converted = KQ::NSRawBytes(length);
  std::uint64_t position = 0;
  while (length - position >= Central::size) {
    const std::uint64_t headerLength = lengthOfHeader(bytes + position);
    if (headerLength > length - position) break;
    const std::uint64_t entry = nextEntry_;
    if (!_convertHeader(bytes + position, converted.get() + position, headerLength))
      return _refuseHeader(offset + position, error), 0;
    const KQZipBytes header(converted.get() + position, headerLength);
    if (header_.flags != 0 && !_readLocalHeader(header.subspan(Central::size), entry, error)) return 0;
    ++entriesFound_;
    position += headerLength;
  }
  if (position == 0) return _refuseHeader(offset, error), 0;
  if (std::memcmp(bytes, converted.get(), position) != 0)
    blocks_.push_back({offset, std::move(converted), position});
  return position;
}

// Writes the header that replaces the given one. False when the library does not write such a header. Only
// the values that vary are read; the comparison finds any other difference.
bool KQZipInteroperablePlan::_convertHeader(const std::uint8_t* bytes, std::uint8_t* converted,
                                            std::uint64_t length) {
  const std::uint64_t zip64At = length - zip64FieldLength;
  Central found;
  KQZipZip64Values zip64;
  if (!KQZipDecode({bytes, length}, &found)) return false;
  KQZipDecodeZip64InOrder({bytes + length - KQZipZip64Values::dataSize, KQZipZip64Values::dataSize}, &zip64);
  name_.assign(bytes + Central::size, bytes + zip64At);
  const std::uint16_t flags = !isASCII(name_) && KQ::isValidUTF8(name_) ? nameIsUTF8 : 0;
  if (found.flags != 0 && found.flags != flags) return false;
  const bool areSet = haveType(found.externalFileAttributes);
  if (!areSet && !areUnset(found.externalFileAttributes, isFolder(name_))) return false;

  header_ = {};
  header_.flags = flags;
  header_.modTime = found.modTime;
  header_.modDate = found.modDate;
  header_.crc32 = found.crc32;
  header_.fileNameLength = static_cast<std::uint16_t>(name_.size());
  header_.extraFieldLength = zip64FieldLength;
  header_.externalFileAttributes = areSet ? found.externalFileAttributes : _externalAttributes(name_);
  header_.offsetOfLocalHeader = KQZipSaturate<std::uint32_t>(nextEntry_);
  KQZipEncode(header_, {converted, length});
  std::copy(name_.begin(), name_.end(), converted + Central::size);
  KQZipEncodeZip64Field({zip64.compressedSize, zip64.compressedSize, nextEntry_},
                        KQZipRoom(converted + zip64At, zip64FieldLength).first<zip64FieldLength>());
  return areAlike(bytes, converted, length) && _stepOverEntry(name_.size(), zip64.compressedSize);
}

std::uint32_t KQZipInteroperablePlan::_externalAttributes(const std::string& name) const {
  const auto given = permissions_ ? permissions_(name) : std::nullopt;
  const std::uint32_t permissions = given.value_or(isFolder(name) ? permissionsOfFolder : permissionsOfFile);
  const std::uint32_t mode = (isFolder(name) ? folder : regularFile) | (permissions & permissionBits);
  return mode << modeShift | (isFolder(name) ? folderInDOS : 0);
}

// Moves to the offset of the next entry. False when that is after the entries.
bool KQZipInteroperablePlan::_stepOverEntry(std::uint64_t lengthOfName, std::uint64_t lengthOfData) {
  const std::uint64_t left = endRecords_.startOfDirectory - nextEntry_;
  const std::uint64_t lengthOfHeader = Local::size + lengthOfName + zip64FieldLength;
  if (lengthOfHeader > left || lengthOfData > left - lengthOfHeader) return false;
  nextEntry_ += lengthOfHeader + lengthOfData;
  return true;
}

// The local header, at `offset`, of the entry that was converted last. Both of its headers have the same name
// and Zip64 field.
bool KQZipInteroperablePlan::_readLocalHeader(KQZipBytes nameAndExtraField, std::uint64_t offset,
                                              KQ::NSErrorSlot error) {
  std::vector<std::uint8_t> bytes(Local::size + nameAndExtraField.size());
  if (!_read(bytes.data(), bytes.size(), offset, error)) return false;
  Local local;
  if (!KQZipDecode(bytes, &local) || !match(local, header_) ||
      !std::equal(nameAndExtraField.begin(), nameAndExtraField.end(), bytes.begin() + Local::size)) {
    return _refuse(KQ::stringWithFormat("the entry at offset %llu and its central header differ",
                                        {KQ::NSFormatArgument::decimal(offset)}),
                   error);
  }
  if (local.flags == 0) localFlags_.push_back(offset + KQZipOffsetOf(&Local::flags));
  return true;
}

bool KQZipInteroperablePlan::_read(std::uint8_t* buffer, std::uint64_t length, std::uint64_t offset,
                                   KQ::NSErrorSlot error) const {
  const std::int64_t count = source_.read(buffer, length, offset, error);
  if (count < 0) return false;
  return static_cast<std::uint64_t>(count) == length || _refuse("it became shorter", error);
}

bool KQZipInteroperablePlan::_refuse(const std::string& reason, KQ::NSErrorSlot error) const {
  return KQZipFail(error, KQZipErrorRefusedPath,
                   KQ::stringWithFormat("%@ cannot be made interoperable: %@", {path_, reason}));
}

bool KQZipInteroperablePlan::_refuseHeader(std::uint64_t offset, KQ::NSErrorSlot error) const {
  return _refuse(KQ::stringWithFormat("the central header at offset %llu is not as KQZip writes it",
                                      {KQ::NSFormatArgument::decimal(offset)}),
                 error);
}
