#include "KQZipInteroperablePlan.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

#include "../KQZip64EndOfCentralDirectoryRecord.h"
#include "../KQZipStreamPrimitives.h"
#include "../Platform/NSString.h"
#include "KQZipBlockStreams.h"
#include "KQZipError.h"
#include "KQZipTransfer.h"

namespace {

// Bytes of each header in front of the name, the signature included, and of the extra field behind it.
constexpr std::uint64_t localHeaderLength = 30;
constexpr std::uint64_t centralHeaderLength = 46;
constexpr std::uint64_t zip64FieldLength = 28;
constexpr std::uint64_t zip64FieldHeaderLength = 4;

// Where the headers keep what is used here without a parse, or may differ from what the library writes.
constexpr std::uint64_t flagsInLocalHeader = 6;
constexpr std::uint64_t flagsInCentralHeader = 8;
constexpr std::uint64_t nameLengthInCentralHeader = 28;
constexpr std::uint64_t attributesInCentralHeader = 38;
constexpr std::uint64_t offsetInCentralHeader = 42;
constexpr std::uint64_t signatureLength = 4;

constexpr std::uint16_t nameIsUTF8 = 0x0800;

// External attributes: what is Unix's in the upper half, a folder's mark of MS-DOS in the lower.
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

// Whether they are 0, or the beginning of what is set: a write that stopped inside the number has not reached
// its last byte, where the type is.
bool areUnset(std::uint32_t attributes, bool isFolder) {
  const std::uint32_t lowerHalf = attributes & 0xFFFF;
  return attributes >> 24 == 0 && (lowerHalf == 0 || (isFolder && lowerHalf == folderInDOS));
}

bool haveSignature(const std::uint8_t* record, std::uint32_t signature) {
  KQZipSignatureBytes bytes{};
  std::copy(record, record + bytes.size(), bytes.begin());
  return KQZipSignatureFromBytes(bytes) == signature;
}

std::uint64_t lengthOfHeader(const std::uint8_t* header) {
  const std::uint8_t* length = header + nameLengthInCentralHeader;
  return centralHeaderLength + (length[0] | static_cast<std::uint64_t>(length[1]) << 8) + zip64FieldLength;
}

// What differs from entry to entry, but for the name and the offset.
struct EntryValues {
  std::uint16_t flags = 0;
  std::uint16_t compression = 0;
  std::uint16_t modTime = 0;
  std::uint16_t modDate = 0;
  std::uint32_t crc32 = 0;
  std::uint32_t attributes = 0;
  std::uint64_t lengthOfData = 0;
};

EntryValues valuesIn(const std::uint8_t* header, std::uint64_t length) {
  EntryValues values;
  KQZipBlockInputStream stream(header, length);
  stream.setNSStreamFileCurrentOffsetKey(flagsInCentralHeader);
  KQZipReadBlock16(stream, &values.flags);
  KQZipReadBlock16(stream, &values.compression);
  KQZipReadBlock16(stream, &values.modTime);
  KQZipReadBlock16(stream, &values.modDate);
  KQZipReadBlock32(stream, &values.crc32);
  stream.setNSStreamFileCurrentOffsetKey(attributesInCentralHeader);
  KQZipReadBlock32(stream, &values.attributes);
  stream.setNSStreamFileCurrentOffsetKey(length - zip64FieldLength + zip64FieldHeaderLength);
  KQZipReadBlock64(stream, &values.lengthOfData);
  return values;
}

// Whether two headers are the same but for flags and attributes.
bool areAlike(const std::uint8_t* left, const std::uint8_t* right, std::uint64_t length) {
  const auto sameIn = [left, right](std::uint64_t start, std::uint64_t end) {
    return std::memcmp(left + start, right + start, end - start) == 0;
  };
  return sameIn(0, flagsInCentralHeader) && sameIn(flagsInCentralHeader + 2, attributesInCentralHeader) &&
         sameIn(offsetInCentralHeader, length);
}

}  // namespace

KQZipPackedFileHeader::KQZipPackedFileHeader(const std::shared_ptr<KQZipFileLocalHeader>& localHeader) {
  // Only an entry with a source is written, whatever it is.
  setSourceFilePath("");
  setLocalHeader(localHeader);
}

KQZipInteroperablePlan::KQZipInteroperablePlan(std::string path, const KQ::NSFileHandle& source,
                                               const KQZipPermissions& permissions)
    : path_(std::move(path)),
      source_(source),
      permissions_(permissions),
      localHeader_(std::make_shared<KQZipFileLocalHeader>()),
      header_(localHeader_) {}

bool KQZipInteroperablePlan::make(KQ::NSErrorSlot error) {
  return _readEndRecords(error) && _readDirectory(error);
}

bool KQZipInteroperablePlan::isEmpty() const {
  return localFlags_.empty() && blocks_.empty() && endRecordsFound_ == endRecords_.interoperable();
}

bool KQZipInteroperablePlan::carryOut(const KQ::NSFileHandle& archive, KQ::NSErrorSlot error) const {
  std::array<std::uint8_t, 2> flags{};
  KQZipBlockOutputStream stream(flags.data(), flags.size());
  KQZipWriteBlock16(stream, &nameIsUTF8);
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
  KQZip64EndOfCentralDirectoryRecord record;
  KQZipBlockInputStream stream(endRecordsFound_.data() + signatureLength,
                               endRecordsFound_.size() - signatureLength);
  record.parseFromStream(stream);
  if (record.offsetOfCD() > start) return _refuse(otherEnd, error);
  endRecords_ = {record.entriesInCD(), record.offsetOfCD(), start - record.offsetOfCD()};
  return endRecords_.match(endRecordsFound_) || _refuse(otherEnd, error);
}

bool KQZipInteroperablePlan::_readDirectory(KQ::NSErrorSlot error) {
  localHeader_->setOffset(0);
  const std::uint64_t end = endRecords_.startOfDirectory + endRecords_.sizeOfHeaders;
  const auto buffer =
      std::make_unique_for_overwrite<std::uint8_t[]>(std::min(KQZipBlockSize, endRecords_.sizeOfHeaders));
  for (std::uint64_t offset = endRecords_.startOfDirectory; offset < end;) {
    const std::uint64_t length = std::min(KQZipBlockSize, end - offset);
    if (!_read(buffer.get(), length, offset, error)) return false;
    const std::uint64_t converted = _convertBlock(buffer.get(), length, offset, error);
    if (converted == 0) return false;
    offset += converted;
  }
  if (entriesFound_ != endRecords_.entries)
    return _refuse("its central directory and its end records count differently", error);
  // Entries stand close together from the archive's first byte on.
  return localHeader_->offset() == endRecords_.startOfDirectory ||
         _refuse("its entries do not end where its central directory begins", error);
}

// Converts the whole headers at the start of the bytes and takes them into the plan if any has changed.
// Returns how many bytes they have, 0 on failure.
std::uint64_t KQZipInteroperablePlan::_convertBlock(const std::uint8_t* bytes, std::uint64_t length,
                                                    std::uint64_t offset, KQ::NSErrorSlot error) {
  auto converted = std::make_unique_for_overwrite<std::uint8_t[]>(length);
  std::uint64_t position = 0;
  while (length - position >= centralHeaderLength) {
    const std::uint64_t headerLength = lengthOfHeader(bytes + position);
    if (headerLength > length - position) break;
    const std::uint64_t entry = localHeader_->offset();
    if (!_convertHeader(bytes + position, converted.get() + position, headerLength))
      return _refuseHeader(offset + position, error), 0;
    if (header_.flags() != 0 && !_readLocalHeader(entry, error)) return 0;
    ++entriesFound_;
    position += headerLength;
  }
  if (position == 0) return _refuseHeader(offset, error), 0;
  if (std::memcmp(bytes, converted.get(), position) != 0)
    blocks_.push_back({offset, std::move(converted), position});
  return position;
}

// Writes the header that is wanted in the place of one that was found. False when the library wrote no such
// header: whatever it writes otherwise shows in the comparison, so no more is read than what it can vary.
bool KQZipInteroperablePlan::_convertHeader(const std::uint8_t* bytes, std::uint8_t* converted,
                                            std::uint64_t length) {
  const EntryValues found = valuesIn(bytes, length);
  name_.assign(bytes + centralHeaderLength, bytes + length - zip64FieldLength);
  const std::uint16_t flags = !isASCII(name_) && KQ::isValidUTF8(name_) ? nameIsUTF8 : 0;
  if (found.flags != 0 && found.flags != flags) return false;
  const bool areSet = haveType(found.attributes);
  if (!areSet && !areUnset(found.attributes, isFolder(name_))) return false;
  header_.setFlags(flags);
  header_.setModTime(found.modTime);
  header_.setModDate(found.modDate);
  header_.setCrc32(found.crc32);
  header_.setSourceFileSize(found.lengthOfData);
  header_.setExternalFileAttributes(areSet ? found.attributes : _externalAttributes(name_));
  header_.setFileName(name_);
  KQZipBlockOutputStream output(converted, length);
  return header_.writeToStream(output) && areAlike(bytes, converted, length) &&
         _stepOverEntry(name_.size(), found.lengthOfData);
}

std::uint32_t KQZipInteroperablePlan::_externalAttributes(const std::string& name) const {
  const auto given = permissions_ ? permissions_(name) : std::nullopt;
  const std::uint32_t permissions = given.value_or(isFolder(name) ? permissionsOfFolder : permissionsOfFile);
  const std::uint32_t mode = (isFolder(name) ? folder : regularFile) | (permissions & permissionBits);
  return mode << modeShift | (isFolder(name) ? folderInDOS : 0);
}

// Moves on to where the next entry stands. False when that is behind the entries.
bool KQZipInteroperablePlan::_stepOverEntry(std::uint64_t lengthOfName, std::uint64_t lengthOfData) {
  const std::uint64_t left = endRecords_.startOfDirectory - localHeader_->offset();
  const std::uint64_t lengthOfHeader = localHeaderLength + lengthOfName + zip64FieldLength;
  if (lengthOfHeader > left || lengthOfData > left - lengthOfHeader) return false;
  localHeader_->setOffset(localHeader_->offset() + lengthOfHeader + lengthOfData);
  return true;
}

// The local header at `offset` of the entry that was converted last.
bool KQZipInteroperablePlan::_readLocalHeader(std::uint64_t offset, KQ::NSErrorSlot error) {
  std::vector<std::uint8_t> bytes(localHeaderLength + header_.fileNameLength() + zip64FieldLength);
  if (!_read(bytes.data(), bytes.size(), offset, error)) return false;
  KQZipFileLocalHeader local;
  KQZipBlockInputStream stream(bytes.data() + signatureLength, bytes.size() - signatureLength);
  if (!haveSignature(bytes.data(), KQZipFileLocalHeader::signature) || !local.parseFromStream(stream) ||
      !_matchesLocalHeader(local, offset)) {
    return _refuse(KQ::stringWithFormat("the entry at offset %llu and its central header differ",
                                        {KQ::NSFormatArgument::decimal(offset)}),
                   error);
  }
  if (local.flags() == 0) localFlags_.push_back(offset + flagsInLocalHeader);
  return true;
}

bool KQZipInteroperablePlan::_matchesLocalHeader(const KQZipFileLocalHeader& local,
                                                 std::uint64_t offset) const {
  const auto sizes = local.findZip64InfoField();
  return local.versionNeeded() == header_.versionNeeded() &&
         (local.flags() == 0 || local.flags() == header_.flags()) && local.crc32() == header_.crc32() &&
         local.compressedSize() == header_.compressedSize() &&
         local.uncompressedSize() == header_.uncompressedSize() && local.fileName() == header_.fileName() &&
         local.extraFieldLength() == zip64FieldLength && sizes &&
         sizes->outputSize() == 4U + sizes->fieldSize() &&
         sizes->compressedSize() == header_.sourceFileSize() &&
         sizes->uncompressedSize() == header_.sourceFileSize() &&
         sizes->offsetOfLocalHeaderRecord() == offset;
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
