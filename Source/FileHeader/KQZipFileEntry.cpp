#include "KQZipFileEntry.h"

#include <zlib.h>

#include <algorithm>
#include <typeinfo>

#include "../Internal/KQZipError.h"
#include "../Internal/KQZipSourceOfWrite.h"
#include "../Internal/KQZipTextBlock.h"
#include "../Internal/KQZipTransfer.h"
#include "../KQZipStreamPrimitives.h"
#include "../Platform/NSLog.h"
#include "../Platform/NSString.h"

// The field as a Zip64 field, or null when it has another id or class. Nearly every field is of the library's
// own class. Comparing with that first is cheaper than the cast, which also finds derived classes.
static const KQZipExtraFieldZip64ExtendedInfo* asZip64(const KQZipExtraField& field) {
  using Zip64 = KQZipExtraFieldZip64ExtendedInfo;
  if (field.fieldSignature() != Zip64::identifier) return nullptr;
  return typeid(field) == typeid(Zip64) ? static_cast<const Zip64*>(&field)
                                        : dynamic_cast<const Zip64*>(&field);
}

static std::optional<std::string> textOf(const KQZipText& text) {
  return text ? std::optional(*text) : std::nullopt;
}

static KQZipText sharedText(std::optional<std::string> text) {
  return text ? std::make_shared<const std::string>(*std::move(text)) : nullptr;
}

KQZipFileEntry::~KQZipFileEntry() = default;

std::shared_ptr<KQZipFileEntry> KQZipFileEntry::initWithSourceFile(const std::string& path) {
  auto entry = std::make_shared<KQZipFileEntry>();
  entry->_setSourceFile(path);
  return entry;
}

std::shared_ptr<KQZipFileEntry> KQZipFileEntry::initWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error) {
  auto entry = std::make_shared<KQZipFileEntry>();
  return entry->_parseLogged(stream, error) ? entry : nullptr;
}

void KQZipFileEntry::copyPropertiesFromHeader(const KQZipFileEntry& header) {
  versionNeeded_ = header.versionNeeded_;
  flags_ = header.flags_;
  compression_ = header.compression_;
  setCrc32(header.crc32_);
  compressedSize_ = header.compressedSize_;
  uncompressedSize_ = header.uncompressedSize_;
  fileNameLength_ = header.fileNameLength_;
  extraFieldLength_ = header.extraFieldLength_;
  fileName_.set(header.fileName_.get());
  fileNameLength_ = header.fileNameLength_;
  sourceFilePath_.set(header.sourceFilePath_.get());

  std::vector<std::shared_ptr<KQZipExtraField>> copies;
  copies.reserve(header.extraFields_.size());
  for (const auto& field : header.extraFields_) copies.push_back(field->copyWithZone());
  extraFields_.swap(copies);

  // Copied as a date, so that the copy's fields are a time that exists in the current time zone.
  setModificationDate(header.modificationDate());
}

bool KQZipFileEntry::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  const KQZipSourceOfWrite source(*this);
  offset_ = stream.NSStreamFileCurrentOffsetKey().value_or(0);
  return _prepareForWritingError(error);
}

bool KQZipFileEntry::parseFromStream(KQ::NSInputStream& /*stream*/, KQ::NSErrorSlot /*error*/) {
  return true;
}

void KQZipFileEntry::addExtraField(std::shared_ptr<KQZipExtraField> field) {
  if (field) extraFields_.push_back(std::move(field));
}

void KQZipFileEntry::setExtraFields(std::vector<std::shared_ptr<KQZipExtraField>> fields) {
  std::erase(fields, nullptr);
  extraFields_ = std::move(fields);
}

std::shared_ptr<KQZipExtraFieldZip64ExtendedInfo> KQZipFileEntry::findZip64InfoField() const {
  for (const auto& field : extraFields_) {
    if (asZip64(*field) != nullptr) return std::static_pointer_cast<KQZipExtraFieldZip64ExtendedInfo>(field);
  }
  return nullptr;
}

void KQZipFileEntry::setRelativePath(const std::optional<std::string>& path) {
  setFileName(path);
  fileNameLength_ = KQZipTextLength(fileName_.get());
}

std::uint64_t KQZipFileEntry::dataLengthFromHeader() const {
  for (const auto& field : extraFields_) {
    if (const auto* const zip64Field = asZip64(*field)) return zip64Field->compressedSize();
  }
  return compressedSize_;
}

std::uint64_t KQZipFileEntry::outputSize() const {
  return 30 + _sizeOfNameAndExtraFields() + sourceFileSize_;
}

std::string KQZipFileEntry::description() const {
  return KQ::stringWithFormat(
      "<%@: %p path:%@ source:%@>",
      {_className(), KQ::NSFormatArgument::identity(this), fileName(), sourceFilePath()});
}

KQ::NSDate KQZipFileEntry::modificationDate() const {
  KQ::NSDateComponents components;
  components.second = (modTime_ * 2) & 62;
  components.minute = (modTime_ >> 5) & 63;
  components.hour = modTime_ >> 11;
  components.day = modDate_ & 31;
  components.month = (modDate_ >> 5) & 15;
  components.year = (modDate_ >> 9) + 1980;
  return KQ::NSCalendar::dateFromComponents(components);
}

void KQZipFileEntry::setModificationDate(KQ::NSDate date) {
  const KQ::NSDateComponents components = KQ::NSCalendar::componentsFromDate(date);
  modTime_ =
      static_cast<std::uint16_t>(components.second >> 1 | components.minute << 5 | components.hour << 11);
  // A year outside 1980 to 2107 loses the bits that do not fit; nothing is clamped.
  modDate_ =
      static_cast<std::uint16_t>(components.day | components.month << 5 | ((components.year << 9) - 0x7800));
}

bool KQZipFileEntry::calculateCRCOfSourceFile() {
  const auto path = _sourceOfWork();
  const auto stream = path ? KQ::NSInputStream::inputStreamWithFileAtPath(*path) : nullptr;
  if (!stream) {
    KQ::NSLog(KQ::stringWithFormat("failed to calculate crc: failed to open stream at %@", {textOf(path)}));
    return false;
  }
  stream->open();

  uLong crc = 0;
  const auto add = [&crc](const std::uint8_t* bytes, std::int64_t length) {
    crc = ::crc32(crc, bytes, static_cast<uInt>(length));
    return length;
  };
  // By design, the first block is never counted, and the last result always is, even the -1 of an error:
  // callers see the counts of a write.
  const auto count = [this](std::int64_t /*taken*/, std::int64_t read) {
    if (progress_) KQZipCount(*progress_, read);
  };
  if (!KQZipReadBlocks(*stream, progress_.get(), add, count)) return false;
  stream->close();
  setCrc32(static_cast<std::uint32_t>(crc));
  return true;
}

void KQZipFileEntry::updateAttributesFromSourceFile() {
  if (const auto attributes = _attributesOfSourceFile()) {
    _updateModificationDateFromAttributes(*attributes);
    _updateSourceFileSizeFromAttributes(*attributes);
    const bool isRegular = attributes->NSFileType == KQ::NSFileTypeRegular;
    sourceFilePermissions_ = isRegular ? attributes->NSFilePosixPermissions : std::nullopt;
  }
}

void KQZipFileEntry::updateFileSize() {
  if (const auto attributes = _attributesOfSourceFile()) _updateSourceFileSizeFromAttributes(*attributes);
}

void KQZipFileEntry::updateModificationDate() {
  if (const auto attributes = _attributesOfSourceFile()) _updateModificationDateFromAttributes(*attributes);
}

std::optional<std::string> KQZipFileEntry::fileName() const { return textOf(fileName_.get()); }

void KQZipFileEntry::setFileName(std::optional<std::string> value) {
  fileName_.set(sharedText(std::move(value)));
}

std::optional<std::string> KQZipFileEntry::sourceFilePath() const { return textOf(sourceFilePath_.get()); }

void KQZipFileEntry::setSourceFilePath(std::optional<std::string> value) {
  sourceFilePath_.set(sharedText(std::move(value)));
}

void KQZipFileEntry::setCrc32(std::uint32_t value) {
  crc32_ = value;
  needsToCalculateCRC_ = false;
}

const char* KQZipFileEntry::_className() const { return "KQZipFileEntry"; }

void KQZipFileEntry::_setSourceFile(const std::string& path) {
  setSourceFilePath(path);
  setFileName(path);
}

bool KQZipFileEntry::_parseLogged(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  if (parseFromStream(stream, error)) return true;
  KQ::NSLog(
      KQ::stringWithFormat("Failed to parse %@ from stream: %@", {_className(), KQZipErrorInSlot(error)}));
  return false;
}

bool KQZipFileEntry::_prepareForWritingError(KQ::NSErrorSlot error) {
  const auto path = _sourceOfWork();
  if (!path) {
    // Formatted with no path, by design: there is none.
    return KQZipFail(error, KQZipErrorReading,
                     KQ::stringWithFormat("Source file doesn't exist: %@", {textOf(path)}));
  }
  if (needsToCalculateCRC() && !calculateCRCOfSourceFile()) {
    return KQZipFail(error, KQZipErrorReading,
                     KQ::stringWithFormat("Can't calculate CRC of %@", {textOf(path)}));
  }
  if (needsToUpdateAttributesFromSourceFile()) updateAttributesFromSourceFile();

  fileNameLength_ = KQZipTextLength(fileName_.get());
  auto zip64Field = findZip64InfoField();
  if (!zip64Field) {
    zip64Field = std::make_shared<KQZipExtraFieldZip64ExtendedInfo>();
    addExtraField(zip64Field);
  }
  zip64Field->setCompressedSize(sourceFileSize_);
  zip64Field->setUncompressedSize(sourceFileSize_);
  zip64Field->setOffsetOfLocalHeaderRecord(offset_);

  extraFieldLength_ = 0;
  for (const auto& field : extraFields_)
    extraFieldLength_ = static_cast<std::uint16_t>(extraFieldLength_ + field->outputSize());
  return true;
}

void KQZipFileEntry::_updateSourceFileSizeFromAttributes(const KQ::NSFileAttributes& attributes) {
  sourceFileSize_ = attributes.NSFileSize.value_or(0);
  needsToSetFileSize_ = false;
}

void KQZipFileEntry::_updateModificationDateFromAttributes(const KQ::NSFileAttributes& attributes) {
  setModificationDate(attributes.NSFileModificationDate.value_or(KQ::NSDate()));
  needsToSetModificationDate_ = false;
}

bool KQZipFileEntry::_parseFileName(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  KQZipText name;
  if (!KQZipReadTextBlock(stream, fileNameLength_, &name, error)) return false;
  fileName_.set(std::move(name));
  return true;
}

bool KQZipFileEntry::_parseExtraFields(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  const auto position = [&stream] { return stream.NSStreamFileCurrentOffsetKey().value_or(0); };
  // A field that extends past the end of the area is read whole; reading continues after it.
  for (const std::uint64_t start = position(); position() - start < extraFieldLength_;) {
    auto field = KQZipExtraField::extraFieldWithStream(stream, error);
    if (!field) return false;
    addExtraField(std::move(field));
  }
  return true;
}

bool KQZipFileEntry::_writeNameAndExtraFields(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) const {
  const KQZipText name = fileName_.get();
  return KQZipWriteBlockBytes(stream, KQZipBytesOf(name).data(), KQZipBytesOf(name).size(), error) &&
         std::all_of(extraFields_.begin(), extraFields_.end(),
                     [&](const auto& field) { return field->writeToStream(stream, error); });
}

std::uint64_t KQZipFileEntry::_sizeOfNameAndExtraFields() const {
  std::uint64_t size = KQZipBytesOf(fileName_.get()).size();
  for (const auto& field : extraFields_) size += field->outputSize();
  return size;
}

std::optional<KQ::NSFileAttributes> KQZipFileEntry::_attributesOfSourceFile() const {
  const auto path = _sourceOfWork();
  auto attributes = path ? KQ::NSFileManager::attributesOfItemAtPath(*path) : std::nullopt;
  if (!attributes) KQ::NSLog(KQ::stringWithFormat("failed to get attributes for %@", {textOf(path)}));
  return attributes;
}
