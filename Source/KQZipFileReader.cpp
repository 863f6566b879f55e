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

// The directory as a reader keeps it. Its headers are parsed like any, but since no answer depends on them
// they are let go: they would double the memory that an entry takes.
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

// Bytes of data behind the header, as KQZipFileEntry::dataLengthFromHeader() has it.
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

// An empty file counts as a directory too; that is meant.
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
  // A file that cannot be opened acts like one without bytes.
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

// An entry whose name is not valid UTF-8 has no path, by which there would be nothing to ask for it.
bool KQZipFileReader::State::_takeLocalHeaderAtHand(KQ::NSInputStream& stream) {
  LocalHeader header;
  if (!KQZipOrdinaryHeaderAtHand(stream, &header)) return false;
  const std::uint64_t dataOffset = header.offset + header.fields.wholeSize() - KQZipSignatureSize;
  const std::uint64_t dataLength = dataLengthOf(header);
  // The class says what is wrong with data that ends beyond any offset, and with a stream that cannot be
  // moved.
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

// The directory's parse begins after the signature, inside its first header. It is meant and harmless: no
// answer depends on the directory, and one that cannot be parsed is passed over.
void KQZipFileReader::State::_parseCentralDirectory(KQ::NSInputStream& stream) {
  // A slot of its own: an error left in the scan's would pass for that of a later record.
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
  // After a cancellation the progress stays current; that is meant.
  if (!progress->isCancelled()) progress->resignCurrent();
  return written;
}

bool KQZipFileReader::State::_writeData(const KQZipTableEntry& entry, const std::string& toPath,
                                        KQ::NSProgress& progress, KQ::NSErrorSlot error) const {
  // Nothing is created for a reader that was made from a stream: it has no archive to read from.
  if (!zipPath) return false;
  const std::string parent = KQ::stringByDeletingLastPathComponent(toPath);
  if (!KQ::NSFileManager::createDirectoryAtPath(parent, true, error)) return false;

  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(toPath);
  output->open();
  const auto input = _openArchive();
  // An archive that cannot be opened any more only matters where there is data.
  auto end = isDirectory(entry) ? KQZipCopyEnd::Complete : KQZipCopyEnd::NotRead;
  if (input) {
    input->setNSStreamFileCurrentOffsetKey(entry.dataOffset);
    const KQZipTransferBlock block;
    end = KQZipCopyBlocks(*input, *output, block, entry.dataLength, progress,
                          KQZipCopyOrder::ReadWriteCountTest);
  }
  if (end == KQZipCopyEnd::Cancelled) KQZipFail(error, KQZipErrorCancelled, "Cancelled By User.");
  // A small file only leaves the stream's buffer at the end, so that is where a full disk shows.
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
    // A failure here comes before the test for a cancellation.
    if (!reader.writeDataForRelativePath(relativePath, target, error)) return false;
  }
  return !progress.isCancelled() || KQZipFail(error, KQZipErrorCancelled, "Cancelled By User.");
}
