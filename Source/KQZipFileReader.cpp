#include "KQZipFileReader.h"

#include <algorithm>
#include <array>

#include "FileHeader/KQZipCentralDirectoryFileHeader.h"
#include "FileHeader/KQZipFileLocalHeader.h"
#include "Internal/KQZipEntryTable.h"
#include "Internal/KQZipError.h"
#include "Internal/KQZipHeaderAtHand.h"
#include "Internal/KQZipTransfer.h"
#include "KQZipCentralDirectory.h"
#include "Platform/NSLog.h"
#include "Platform/NSProgress.h"
#include "Platform/NSString.h"

namespace {

// The directory of a reader. Its headers are parsed as usual and then discarded: no answer depends on them,
// and they would double the memory of an entry.
class ParsedDirectory : public KQZipCentralDirectory {
 public:
  static std::shared_ptr<KQZipCentralDirectory> initWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error) {
    auto directory = std::make_shared<ParsedDirectory>();
    return directory->parseFromStream(stream, error) ? directory : nullptr;
  }

 protected:
  bool _parseFileHeader(KQ::NSInputStream& stream, KQ::NSErrorSlot error) override {
    return KQZipCentralDirectoryFileHeader::skipWithStream(stream, error);
  }
};

// Header of an entry that is read in one piece.
using LocalHeader = KQZipOrdinaryHeader<KQZipLocalHeaderFields>;

// Bytes of data after the header, as in KQZipFileEntry::dataLengthFromHeader().
std::uint64_t dataLengthOf(const LocalHeader& header) {
  if (!header.zip64) return header.fields.compressedSize;
  KQZipZip64Values values;
  KQZipDecodeZip64InOrder(*header.zip64, &values);
  return values.compressedSize;
}

KQ::NSDate modificationDateOf(const KQZipTableEntry& entry) {
  KQZipFileEntry fields;
  fields.setModTime(entry.modTime);
  fields.setModDate(entry.modDate);
  return fields.modificationDate();
}

// By design, an empty file counts as a directory too.
bool isDirectory(const KQZipTableEntry& entry) { return entry.dataLength == 0; }

bool hasBytesAvailable(KQ::NSInputStream& stream) {
  const auto* const buffered = KQ::NSBufferedInputStream::of(stream);
  return (buffered != nullptr && buffered->bytesAtHand(1) != nullptr) || stream.hasBytesAvailable();
}

}  // namespace

struct KQZipFileReader::State {
  explicit State(std::optional<std::string> path) : zipPath(std::move(path)) {}

  // The scan.
  bool _parseWithStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  bool _parseRecords(KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  bool _parseRecord(std::uint32_t signature, KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  bool _parseLocalHeader(KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  bool _takeLocalHeaderAtHand(KQ::NSInputStream& stream);
  void _parseCentralDirectory(KQ::NSInputStream& stream);

  // The answers.
  std::shared_ptr<KQ::NSInputStream> _openArchive() const;
  bool _writeData(const KQZipTableEntry& entry, const std::string& toPath, KQ::NSProgress& progress,
                  KQ::NSErrorSlot error) const;
  static bool _extract(const KQZipFileReader& reader, const std::string& relativePath,
                       const std::string& destination, const KQ::NSProgress& progress, KQ::NSErrorSlot error);

  std::optional<std::string> zipPath;
  KQZipEntryTable zipFileEntries;
  std::shared_ptr<KQZipCentralDirectory> centralDirectory;
};

KQZipFileReader::KQZipFileReader(Key /*key*/, std::optional<std::string> zipPath)
    : state_(std::make_unique<State>(std::move(zipPath))) {}

KQZipFileReader::~KQZipFileReader() = default;

std::shared_ptr<KQZipFileReader> KQZipFileReader::initWithZipPath(const std::string& zipPath,
                                                                  KQ::NSErrorSlot error) {
  auto reader = std::make_shared<KQZipFileReader>(Key{}, zipPath);
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(zipPath);
  // A file that cannot be opened counts as an empty one.
  if (!stream) return reader;
  stream->open();
  std::shared_ptr<const KQ::NSError> scanError;
  const bool scanned = reader->state_->_parseWithStream(*stream, &scanError);
  stream->close();
  if (scanned) return reader;
  KQ::NSStoreError(error, scanError);
  return nullptr;
}

std::shared_ptr<KQZipFileReader> KQZipFileReader::initWithStream(KQ::NSInputStream& stream,
                                                                 KQ::NSErrorSlot error) {
  auto reader = std::make_shared<KQZipFileReader>(Key{}, std::nullopt);
  std::shared_ptr<const KQ::NSError> scanError;
  if (reader->state_->_parseWithStream(stream, &scanError)) return reader;
  KQ::NSStoreError(error, scanError);
  return nullptr;
}

bool KQZipFileReader::State::_parseWithStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  if (!_parseRecords(stream, error)) return false;
  zipFileEntries.finish();
  return true;
}

bool KQZipFileReader::State::_parseRecords(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  while (hasBytesAvailable(stream)) {
    std::array<std::uint8_t, KQZipSignatureSize> bytes{};
    if (!KQ::NSBufferedInputStream::take(stream, bytes.data(), bytes.size()) &&
        stream.read(bytes.data(), bytes.size()) != static_cast<std::int64_t>(bytes.size()))
      return true;
    if (!_parseRecord(KQZipLoad<std::uint32_t>(bytes.data()), stream, error)) return false;
  }
  return true;
}

bool KQZipFileReader::State::_parseRecord(std::uint32_t signature, KQ::NSInputStream& stream,
                                          KQ::NSErrorSlot error) {
  switch (signature) {
    case KQZipFileLocalHeader::signature:
      return _takeLocalHeaderAtHand(stream) || _parseLocalHeader(stream, error);
    case KQZipCentralDirectoryFileHeader::signature:
      if (!centralDirectory) _parseCentralDirectory(stream);
      return true;
    default:
      return KQZipFail(error, KQZipErrorUnknownSignature,
                       KQ::stringWithFormat("got unexpected bytes looking for known signatures: %x",
                                            {KQ::NSFormatArgument::hexadecimal(signature)}));
  }
}

// An entry whose name is not valid UTF-8 has no path, and so nobody can ask for it.
bool KQZipFileReader::State::_takeLocalHeaderAtHand(KQ::NSInputStream& stream) {
  LocalHeader header;
  if (!KQZipOrdinaryHeaderAtHand(stream, &header)) return false;
  const std::uint64_t dataOffset = header.offset + header.fields.wholeSize() - KQZipSignatureSize;
  const std::uint64_t dataLength = dataLengthOf(header);
  // For data that ends beyond any offset, and for a stream that cannot be moved, the class makes the error.
  if (dataLength > INT64_MAX - dataOffset) return false;
  const std::string_view name = header.parts.name;
  if (KQ::isValidUTF8(name))
    zipFileEntries.add(name, {.dataOffset = dataOffset,
                              .dataLength = dataLength,
                              .modTime = header.fields.modTime,
                              .modDate = header.fields.modDate});
  return stream.setNSStreamFileCurrentOffsetKey(dataOffset + dataLength);
}

bool KQZipFileReader::State::_parseLocalHeader(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  const auto header = KQZipFileLocalHeader::initWithStream(stream, error);
  if (!header) return false;
  if (const auto name = header->relativePath())
    zipFileEntries.add(*name, {.dataOffset = header->offsetOfDataInArchive(),
                               .dataLength = header->dataLengthFromHeader(),
                               .modTime = header->modTime(),
                               .modDate = header->modDate()});
  return true;
}

// By design, the directory's parse begins after the signature, inside its first header. This does no harm: no
// answer depends on the directory, and one that cannot be parsed is ignored.
void KQZipFileReader::State::_parseCentralDirectory(KQ::NSInputStream& stream) {
  // A slot of its own: an error left in the scan's slot would look like that of a later record.
  std::shared_ptr<const KQ::NSError> directoryError;
  centralDirectory = ParsedDirectory::initWithStream(stream, &directoryError);
}

std::vector<std::string> KQZipFileReader::relativePaths() const {
  std::vector<std::string> paths;
  paths.reserve(state_->zipFileEntries.entries().size());
  for (const KQZipTableEntry& entry : state_->zipFileEntries.entries()) {
    if (!entry.isReplaced) paths.emplace_back(entry.name());
  }
  // An archive of the library's own has them in this order.
  if (!std::is_sorted(paths.begin(), paths.end(), KQ::NSStringLess()))
    std::sort(paths.begin(), paths.end(), KQ::NSStringLess());
  return paths;
}

std::shared_ptr<const KQ::NSData> KQZipFileReader::dataForRelativePath(
    const std::string& relativePath) const {
  const auto* const entry = state_->zipFileEntries.find(relativePath);
  const auto stream = entry != nullptr ? state_->_openArchive() : nullptr;
  return stream ? KQZipReadStoredData(*stream, entry->dataOffset, entry->dataLength) : nullptr;
}

std::shared_ptr<KQ::NSInputStream> KQZipFileReader::streamForRelativePath(
    const std::string& relativePath) const {
  const auto* const entry = state_->zipFileEntries.find(relativePath);
  auto stream = entry != nullptr ? state_->_openArchive() : nullptr;
  if (stream) stream->setNSStreamFileCurrentOffsetKey(entry->dataOffset);
  return stream;
}

std::optional<KQ::NSFileAttributes> KQZipFileReader::attributesForRelativePath(
    const std::string& relativePath) const {
  const auto* const entry = state_->zipFileEntries.find(relativePath);
  if (entry == nullptr) return std::nullopt;
  return KQ::NSFileAttributes{entry->dataLength, modificationDateOf(*entry),
                              isDirectory(*entry) ? KQ::NSFileTypeDirectory : KQ::NSFileTypeRegular};
}

std::shared_ptr<KQ::NSInputStream> KQZipFileReader::State::_openArchive() const {
  auto stream = zipPath ? KQ::NSInputStream::inputStreamWithFileAtPath(*zipPath) : nullptr;
  if (stream) stream->open();
  return stream;
}

bool KQZipFileReader::writeDataForRelativePath(const std::string& relativePath, const std::string& toPath,
                                               KQ::NSErrorSlot error) const {
  const auto* const entry = state_->zipFileEntries.find(relativePath);
  if (entry == nullptr) return true;
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(KQ::NSUnitCount(entry->dataLength));
  progress->becomeCurrentWithPendingUnitCount(1);
  const bool written = state_->_writeData(*entry, toPath, *progress, error);
  // By design, the progress stays current after a cancellation.
  if (!progress->isCancelled()) progress->resignCurrent();
  return written;
}

bool KQZipFileReader::State::_writeData(const KQZipTableEntry& entry, const std::string& toPath,
                                        KQ::NSProgress& progress, KQ::NSErrorSlot error) const {
  // A reader that was made from a stream has no file to read, so no file is created.
  if (!zipPath) return false;
  const std::string parent = KQ::stringByDeletingLastPathComponent(toPath);
  if (!KQ::NSFileManager::createDirectoryAtPath(parent, true, error)) return false;

  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(toPath);
  output->open();
  const auto input = _openArchive();
  // An archive that cannot be opened again matters only if the entry has data.
  auto end = isDirectory(entry) ? KQZipCopyEnd::Complete : KQZipCopyEnd::NotRead;
  if (input) {
    input->setNSStreamFileCurrentOffsetKey(entry.dataOffset);
    const KQZipTransferBlock block;
    end = KQZipCopyBlocks(*input, *output, block, entry.dataLength, progress,
                          KQZipCopyOrder::ReadWriteCountTest);
  }
  if (end == KQZipCopyEnd::Cancelled) KQZipFail(error, KQZipErrorCancelled, "Cancelled By User.");
  // A small file leaves the stream's buffer only at the end, where a full disk shows.
  const bool written = end == KQZipCopyEnd::Complete && output->flush();
  if (input) input->close();
  output->close();
  return written && output->streamStatus() != KQ::NSStreamStatusError;
}

bool KQZipFileReader::unzipFileAtPath(const std::string& zipPath, const std::string& toDestination,
                                      KQ::NSErrorSlot error) {
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(-1);
  const auto reader = initWithZipPath(zipPath, error);
  if (!reader) return false;
  const std::vector<std::string> paths = reader->relativePaths();
  const KQZipTransferBlockKeeper keeper;
  progress->setTotalUnitCount(static_cast<std::int64_t>(paths.size()));
  progress->becomeCurrentWithPendingUnitCount(1);
  const bool extracted = std::all_of(paths.begin(), paths.end(), [&](const std::string& path) {
    return State::_extract(*reader, path, toDestination, *progress, error);
  });
  if (!progress->isCancelled()) progress->resignCurrent();
  return extracted;
}

bool KQZipFileReader::State::_extract(const KQZipFileReader& reader, const std::string& relativePath,
                                      const std::string& destination, const KQ::NSProgress& progress,
                                      KQ::NSErrorSlot error) {
  const std::string target = KQ::stringByAppendingPathComponent(destination, relativePath);
  if (isDirectory(*reader.state_->zipFileEntries.find(relativePath))) {
    if (!KQ::NSFileManager::createDirectoryAtPath(target, true))
      KQ::NSLog(KQ::stringWithFormat("failed to create directory at %@ for %@", {target, relativePath}));
  } else {
    const std::string parent = KQ::stringByDeletingLastPathComponent(target);
    if (!KQ::NSFileManager::fileExistsAtPath(parent) &&
        !KQ::NSFileManager::createDirectoryAtPath(parent, true))
      KQ::NSLog(
          KQ::stringWithFormat("failed to create parent directory at %@ for %@", {parent, relativePath}));
    // A failure here takes precedence over a cancellation.
    if (!reader.writeDataForRelativePath(relativePath, target, error)) return false;
  }
  return !progress.isCancelled() || KQZipFail(error, KQZipErrorCancelled, "Cancelled By User.");
}
