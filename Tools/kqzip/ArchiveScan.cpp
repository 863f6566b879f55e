#include "ArchiveScan.h"

#include <KQZip/Internal/KQZipHeaderCodec.h>
#include <KQZip/Platform/Internal/NSBufferedStreams.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "Advice.h"
#include "ArchivePath.h"
#include "Interruption.h"
#include "Json.h"
#include "Message.h"

namespace fs = std::filesystem;

namespace Tool {

namespace {

// Bytes of a digital signature in front of its data.
constexpr std::uint64_t digitalSignatureSize = 6;

std::uint64_t sizeOfArchive(const std::string& path) {
  requireArchiveFile(path);
  std::error_code error;
  const std::uint64_t size = fs::file_size(path, error);
  if (error) failWithSystemError(error.value(), path);
  return size;
}

std::string number(std::uint64_t value) { return std::to_string(value); }

LocalFields localFields(const KQZipFileLocalHeader& header) {
  LocalFields fields;
  fields.dataAt = header.offsetOfDataInArchive();
  fields.length = header.dataLengthFromHeader();
  const auto zip64 = header.findZip64InfoField();
  fields.uncompressedLength = zip64 ? zip64->uncompressedSize() : header.uncompressedSize();
  fields.crc32 = header.crc32();
  fields.flags = header.flags();
  fields.modTime = header.modTime();
  fields.modDate = header.modDate();
  return fields;
}

}  // namespace

KQ::NSDate ArchiveEntry::modificationDate() const {
  KQZipFileEntry fields;
  fields.setModTime(fields_.modTime);
  fields.setModDate(fields_.modDate);
  return fields.modificationDate();
}

std::string Problem::sentence() const { return entry ? inQuotes(*entry) + " " + text : text; }

std::string Problem::nextStep() const { return advice.empty() ? verifyTellsMore : advice; }

void Problem::addTo(Json& json) const {
  json.beginObject();
  if (entry)
    json.addName("entry", *entry);
  else
    json.addNull("entry");
  json.addText("problem", KQ::stringByEscapingUnprintables(text));
  json.endObject();
}

ArchiveScan::ArchiveScan(std::string path, const KQ::NSProgress& work, Directory directory)
    : path_(std::move(path)), directory_(directory) {
  fileSize_ = sizeOfArchive(path_);
  stream_ = KQ::NSInputStream::inputStreamWithFileAtPath(path_);
  if (!stream_) throw Failure(inQuotes(path_) + " cannot be opened");
  stream_->open();
  scan(work);
}

std::uint64_t ArchiveScan::totalLength() const {
  std::uint64_t bytes = 0;
  for (const ArchiveEntry& entry : entries_) bytes += entry.length();
  return bytes;
}

std::vector<const ArchiveEntry*> ArchiveScan::currentEntries() const {
  std::vector<const ArchiveEntry*> current;
  current.reserve(entries_.size());
  std::unordered_set<std::string_view> seen;
  for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry) {
    if (namesAscend_ || seen.insert(entry->name).second) current.push_back(&*entry);
  }
  std::reverse(current.begin(), current.end());
  return current;
}

void ArchiveScan::requireNoProblem() const {
  if (problem_) throw Failure(withRemarks(path_ + ": " + problem_->sentence(), {problem_->nextStep()}));
}

Failure ArchiveScan::missing(const std::string& name) const {
  const std::string text = path_ + ": " + inQuotes(name) + " is not in the archive";
  if (!problem_) return Failure(withRemarks(text, {"kqzip list shows what is"}));
  return Failure(
      withRemarks(text + " as far as it can be read: " + problem_->sentence(), {problem_->nextStep()}));
}

std::shared_ptr<KQZipFileLocalHeader> ArchiveScan::headerOf(const ArchiveEntry& entry) const {
  std::shared_ptr<const KQ::NSError> error;
  const bool isAtHeader =
      stream_->setNSStreamFileCurrentOffsetKey(entry.localHeaderAt() + KQZipSignatureSize);
  auto header = isAtHeader ? KQZipFileLocalHeader::initWithStream(*stream_, &error) : nullptr;
  if (!header) throw Failure(inQuotes(entry.name) + " cannot be read: the archive has changed meanwhile");
  return header;
}

void ArchiveScan::scan(const KQ::NSProgress& work) {
  for (;;) {
    requireNotInterrupted(work);
    const std::uint64_t start = next_;
    const std::optional<std::uint32_t> signature = readSignature(start);
    if (!signature || !readRecord(*signature, start)) return;
  }
}

std::optional<std::uint32_t> ArchiveScan::readSignature(std::uint64_t start) {
  std::array<std::uint8_t, KQZipSignatureSize> bytes{};
  if (!KQ::NSBufferedInputStream::take(*stream_, bytes.data(), bytes.size())) {
    const std::int64_t count = stream_->read(bytes.data(), bytes.size());
    if (count != KQZipSignatureSize) {
      stopBetweenRecords(start, count);
      return std::nullopt;
    }
  }
  return KQZipLoad<std::uint32_t>(bytes.data());
}

bool ArchiveScan::readRecord(std::uint32_t signature, std::uint64_t start) {
  // What follows the end record may be more of the archive's tail, but no entries: whoever appended them,
  // they are not this archive's.
  if (signature == KQZipFileLocalHeader::signature && !endRecordSeen_) return readLocalHeader(start);
  if (signature == KQZipCentralDirectoryFileHeader::signature)
    return directory_ == DirectoryRead ? readCentralHeader(start) : skipCentralHeader(start);
  if (signature == KQZip64EndOfCentralDirectoryRecord::signature) return readZip64EndRecord(start);
  if (signature == KQZip64EndOfCentralDirectoryLocator::signature) return readZip64Locator(start);
  if (signature == KQZipEndOfCentralDirectoryRecord::signature) return readEndRecord(start);
  if (signature == KQZipCentralDirectory::digitalSignatureSignature) return readDigitalSignature(start);
  return stopAtUnknownBytes(signature, start);
}

bool ArchiveScan::readLocalHeader(std::uint64_t start) {
  const std::optional<LocalHeaderAtHand> header = localHeaderAtHand(*stream_, start);
  return header ? addEntry(header->name, start, header->fields) : parseLocalHeader(start);
}

bool ArchiveScan::parseLocalHeader(std::uint64_t start) {
  KQZipFileLocalHeader header;
  std::shared_ptr<const KQ::NSError> error;
  if (!header.parseFromStream(*stream_, &error)) return stopInsideLocalHeader(start, error);
  const std::uint64_t nameAt = start + KQZipLocalHeaderFields::size;
  const std::uint64_t dataAt = nameAt + header.fileNameLength() + header.extraFieldLength();
  // A read that the archive's end cuts short is no failure to the library; only the position tells.
  if (header.offsetOfDataInArchive() != dataAt) return stopInsideLocalHeader(start, nullptr);
  // The library keeps no name that is not valid UTF-8.
  const std::optional<std::string> text = header.fileName();
  if (text) return addEntry(*text, start, localFields(header));
  return addEntry(readBytes(nameAt, header.fileNameLength()), start, localFields(header));
}

bool ArchiveScan::addEntry(std::string_view name, std::uint64_t start, const LocalFields& fields) {
  if (fields.dataAt > fileSize_) return stopInsideLocalHeader(start, nullptr);
  if (fields.length > fileSize_ - fields.dataAt) {
    return stop({std::string(name), "ends after " + number(fileSize_ - fields.dataAt) + " of " +
                                        number(fields.length) + " bytes"});
  }
  if (!entries_.empty() && !KQ::NSStringLess()(entries_.back().name, name)) namesAscend_ = false;
  entries_.emplace_back(keep(name), start, fields);
  return skipTo(fields.dataAt + fields.length);
}

bool ArchiveScan::readCentralHeader(std::uint64_t start) {
  const std::optional<CentralHeaderAtHand> header = centralHeaderAtHand(*stream_);
  return header ? addCentralRecord(header->record, start, header->size) : parseCentralHeader(start);
}

bool ArchiveScan::parseCentralHeader(std::uint64_t start) {
  KQZipCentralDirectoryFileHeader header;
  std::shared_ptr<const KQ::NSError> error;
  if (!header.parseFromStream(*stream_, &error)) return stopInsideTail(start, error);
  const std::uint64_t size = KQZipCentralHeaderFields::size + header.fileNameLength() +
                             header.extraFieldLength() + header.fileCommentLength();
  const std::optional<std::string> text = header.fileName();
  if (text) return addCentralRecord(centralRecord(header, *text), start, size);
  const std::string name = readBytes(start + KQZipCentralHeaderFields::size, header.fileNameLength());
  return addCentralRecord(centralRecord(header, name), start, size);
}

bool ArchiveScan::addCentralRecord(CentralRecord record, std::uint64_t start, std::uint64_t size) {
  if (size > fileSize_ - start) return stopInsideTail(start, nullptr);
  // As a rule the entry in the same place has the same name, which is kept already.
  const std::size_t place = centralRecords_.size();
  const bool isKept = place < entries_.size() && entries_[place].name == record.name;
  record.name = isKept ? entries_[place].name : keep(record.name);
  centralRecords_.push_back(record);
  return skipTailRecord(start, size);
}

bool ArchiveScan::skipCentralHeader(std::uint64_t start) {
  if (const auto size = sizeOfCentralHeaderAtHand(*stream_)) return skipTailRecord(start, *size);
  std::uint16_t lengthOfName = 0;
  std::uint16_t lengthOfExtraFields = 0;
  std::uint16_t lengthOfComment = 0;
  std::shared_ptr<const KQ::NSError> error;
  stream_->setNSStreamFileCurrentOffsetKey(start + KQZipOffsetOf(&KQZipCentralHeaderFields::fileNameLength));
  if (!KQZipReadBlock16(*stream_, &lengthOfName, &error) ||
      !KQZipReadBlock16(*stream_, &lengthOfExtraFields, &error) ||
      !KQZipReadBlock16(*stream_, &lengthOfComment, &error))
    return stopInsideTail(start, error);
  return skipTailRecord(
      start, KQZipCentralHeaderFields::size + lengthOfName + lengthOfExtraFields + lengthOfComment);
}

bool ArchiveScan::readZip64EndRecord(std::uint64_t start) {
  std::shared_ptr<const KQ::NSError> error;
  const auto record = KQZip64EndOfCentralDirectoryRecord::initWithStream(*stream_, &error);
  if (!record) return stopInsideTail(start, error);
  // A record that says more than its fields take has extensible data behind them.
  const std::uint64_t size = std::max(record->size(), record->sizeOfZip64EoCDRecord());
  if (size > fileSize_ - start) return stopInsideTail(start, nullptr);
  return skipTailRecord(start, KQZipZip64EndRecordFields::uncounted + size);
}

bool ArchiveScan::readZip64Locator(std::uint64_t start) {
  std::shared_ptr<const KQ::NSError> error;
  if (!KQZip64EndOfCentralDirectoryLocator::initWithStream(*stream_, &error))
    return stopInsideTail(start, error);
  return skipTailRecord(start, KQZipZip64LocatorFields::size);
}

bool ArchiveScan::readEndRecord(std::uint64_t start) {
  std::shared_ptr<const KQ::NSError> error;
  const auto record = KQZipEndOfCentralDirectoryRecord::initWithStream(*stream_, &error);
  if (!record) return stopInsideTail(start, error);
  if (!skipTailRecord(start, KQZipEndRecordFields::size + record->zipFileCommentLength())) return false;
  endRecordSeen_ = true;
  return true;
}

bool ArchiveScan::readDigitalSignature(std::uint64_t start) {
  std::uint16_t size = 0;
  std::shared_ptr<const KQ::NSError> error;
  if (!KQZipReadBlock16(*stream_, &size, &error)) return stopInsideTail(start, error);
  return skipTailRecord(start, digitalSignatureSize + size);
}

bool ArchiveScan::skipTo(std::uint64_t end) {
  next_ = end;
  if (stream_->setNSStreamFileCurrentOffsetKey(end)) return true;
  return stop({std::nullopt, errorText(stream_->streamError(), "the archive cannot be read")});
}

bool ArchiveScan::skipTailRecord(std::uint64_t start, std::uint64_t size) {
  return size > fileSize_ - start ? stopInsideTail(start, nullptr) : skipTo(start + size);
}

bool ArchiveScan::stop(Problem problem) {
  problem_ = std::move(problem);
  return false;
}

void ArchiveScan::stopBetweenRecords(std::uint64_t start, std::int64_t bytesRead) {
  if (bytesRead < 0) {
    stop({std::nullopt, errorText(stream_->streamError(), "the archive cannot be read")});
  } else if (fileSize_ == 0) {
    stop({std::nullopt, "the file is empty", checkTheFile});
  } else if (!endRecordSeen_) {
    if (!stopBehindEntryWithoutSize(start))
      stop({std::nullopt, "the archive ends early, at offset " + number(fileSize_),
            start == 0 ? checkTheFile : ""});
  } else if (bytesRead > 0) {
    trailingBytes_ = start;
  }
}

bool ArchiveScan::stopInsideLocalHeader(std::uint64_t start,
                                        const std::shared_ptr<const KQ::NSError>& error) {
  const std::string somewhere =
      "the archive ends early, inside the header of an entry at offset " + number(start);
  if (start + KQZipLocalHeaderFields::size > fileSize_) return stop({std::nullopt, somewhere});
  std::uint16_t nameLength = 0;
  std::uint16_t extraLength = 0;
  stream_->setNSStreamFileCurrentOffsetKey(start + KQZipOffsetOf(&KQZipLocalHeaderFields::fileNameLength));
  KQZipReadBlock16(*stream_, &nameLength);
  KQZipReadBlock16(*stream_, &extraLength);
  const std::uint64_t nameEnd = start + KQZipLocalHeaderFields::size + nameLength;
  if (nameEnd > fileSize_) return stop({std::nullopt, somewhere});
  const std::string name = readBytes(start + KQZipLocalHeaderFields::size, nameLength);
  if (nameEnd + extraLength > fileSize_) return stop({name, "ends inside its header"});
  const auto reason = error ? error : stream_->streamError();
  if (!reason) return stop({name, "has extra fields that do not fit its header"});
  if (reason->code() == KQZipErrorUnsupportedCompression)
    return stop({name, "is compressed; only stored entries can be read", otherProgramNeeded});
  return stop({name, "cannot be read: " + reason->localizedDescription()});
}

bool ArchiveScan::stopInsideTail(std::uint64_t start, const std::shared_ptr<const KQ::NSError>& error) {
  const std::string place = "inside its central directory, at offset " + number(start);
  const auto reason = error ? error : stream_->streamError();
  return stop({std::nullopt, reason
                                 ? "the archive is damaged " + place + ": " + reason->localizedDescription()
                                 : "the archive ends early, " + place});
}

bool ArchiveScan::stopAtUnknownBytes(std::uint32_t signature, std::uint64_t start) {
  if (endRecordSeen_) {
    trailingBytes_ = start;
    return false;
  }
  if (stopBehindEntryWithoutSize(start)) return false;
  const std::string unknown = "unknown signature " + hexadecimal(signature) + " at offset " + number(start);
  if (start != 0) return stop({std::nullopt, unknown});
  return stop(
      {std::nullopt, "this is no archive, or something stands in front of it: " + unknown, checkTheFile});
}

// Where no record follows an entry that says that its sizes come behind its data, they do: then its end is
// nowhere to be found, and what the header seemed to say of its length is not true.
bool ArchiveScan::stopBehindEntryWithoutSize(std::uint64_t start) {
  if (entries_.empty()) return false;
  const ArchiveEntry last = entries_.back();
  const bool endsHere = last.dataAt() + last.length() == start;
  if (!endsHere || !last.hasDataDescriptor()) return false;
  if (last.length() == 0) entries_.pop_back();
  stop({last.nameText(), "has its size behind its data, in a data descriptor, which cannot be read",
        otherProgramNeeded});
  return true;
}

// Keeps the bytes of a name as long as the scan lives.
std::string_view ArchiveScan::keep(std::string_view name) {
  if (name.empty()) return {};
  auto* const bytes = static_cast<char*>(names_.allocate(name.size(), 1));
  // The name lives until this returns, were it a temporary's.
  // cppcheck-suppress danglingTemporaryLifetime
  std::memcpy(bytes, name.data(), name.size());
  return {bytes, name.size()};
}

// Reads what the library does not keep. The scan sets its own position afterwards.
std::string ArchiveScan::readBytes(std::uint64_t start, std::uint64_t length) {
  std::string bytes(length, '\0');
  std::shared_ptr<const KQ::NSError> error;
  if (!stream_->setNSStreamFileCurrentOffsetKey(start) ||
      !KQZipReadBlockBytes(*stream_, bytes.data(), length, &error))
    bytes.assign(length, '?');
  return bytes;
}

}  // namespace Tool
