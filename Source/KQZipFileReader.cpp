#include "KQZipFileReader.h"

#include <algorithm>
#include <array>

#include "FileHeader/KQZipCentralDirectoryFileHeader.h"
#include "Internal/KQZipError.h"
#include "Internal/KQZipHeaderCodec.h"
#include "Internal/KQZipTransfer.h"
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

}  // namespace

KQZipFileReader::KQZipFileReader(Key /*key*/, std::optional<std::string> zipPath)
    : zipPath_(std::move(zipPath)) {}

std::shared_ptr<KQZipFileReader> KQZipFileReader::initWithZipPath(const std::string& zipPath,
                                                                  KQ::NSErrorSlot error) {
  auto reader = std::make_shared<KQZipFileReader>(Key{}, zipPath);
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(zipPath);
  // A file that cannot be opened acts like one without bytes.
  if (!stream) return reader;
  stream->open();
  std::shared_ptr<const KQ::NSError> scanError;
  const bool scanned = reader->_parseWithStream(*stream, &scanError);
  stream->close();
  if (scanned) return reader;
  KQ::NSStoreError(error, scanError);
  return nullptr;
}

std::shared_ptr<KQZipFileReader> KQZipFileReader::initWithStream(KQ::NSInputStream& stream,
                                                                 KQ::NSErrorSlot error) {
  auto reader = std::make_shared<KQZipFileReader>(Key{}, std::nullopt);
  std::shared_ptr<const KQ::NSError> scanError;
  if (reader->_parseWithStream(stream, &scanError)) return reader;
  KQ::NSStoreError(error, scanError);
  return nullptr;
}

bool KQZipFileReader::_parseWithStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  while (stream.hasBytesAvailable()) {
    std::array<std::uint8_t, KQZipSignatureSize> bytes{};
    if (stream.read(bytes.data(), bytes.size()) != static_cast<std::int64_t>(bytes.size())) return true;
    if (!_parseRecord(KQZipLoad<std::uint32_t>(bytes.data()), stream, error)) return false;
  }
  return true;
}

bool KQZipFileReader::_parseRecord(std::uint32_t signature, KQ::NSInputStream& stream,
                                   KQ::NSErrorSlot error) {
  switch (signature) {
    case KQZipFileLocalHeader::signature: {
      auto header = KQZipFileLocalHeader::initWithStream(stream, error);
      if (!header) return false;
      // Without a path there is nothing to ask for the entry by.
      if (header->fileName_.get()) _addEntry(std::move(header));
      return true;
    }
    case KQZipCentralDirectoryFileHeader::signature:
      // The directory's parse begins behind the signature, inside its first header. It is meant and harmless:
      // no answer depends on the directory, and one that cannot be parsed is passed over.
      if (!centralDirectory_) {
        // A slot of its own: an error left in the scan's would pass for that of a later record.
        std::shared_ptr<const KQ::NSError> directoryError;
        centralDirectory_ = ParsedDirectory::initWithStream(stream, &directoryError);
      }
      return true;
    default:
      return KQZipFail(error, KQZipErrorUnknownSignature,
                       KQ::stringWithFormat("got unexpected bytes looking for known signatures: %x",
                                            {KQ::NSFormatArgument::hexadecimal(signature)}));
  }
}

// Of several entries with one path the last counts.
void KQZipFileReader::_addEntry(std::shared_ptr<KQZipFileLocalHeader>&& entry) {
  const std::string_view path = *entry->fileName_.get();
  zipFileEntries_.erase(path);
  zipFileEntries_.emplace(path, std::move(entry));
}

std::vector<std::string> KQZipFileReader::relativePaths() const {
  std::vector<std::string> paths;
  paths.reserve(zipFileEntries_.size());
  for (const auto& [path, entry] : zipFileEntries_) paths.emplace_back(path);
  std::sort(paths.begin(), paths.end(), KQ::NSStringLess());
  return paths;
}

std::shared_ptr<const KQ::NSData> KQZipFileReader::dataForRelativePath(
    const std::string& relativePath) const {
  const auto entry = _entryForRelativePath(relativePath);
  const auto stream = entry ? _openArchive() : nullptr;
  return stream ? entry->unarchivedDataWithStream(*stream) : nullptr;
}

std::shared_ptr<KQ::NSInputStream> KQZipFileReader::streamForRelativePath(
    const std::string& relativePath) const {
  const auto entry = _entryForRelativePath(relativePath);
  auto stream = entry ? _openArchive() : nullptr;
  if (stream) stream->setNSStreamFileCurrentOffsetKey(entry->offsetOfDataInArchive());
  return stream;
}

std::optional<KQ::NSFileAttributes> KQZipFileReader::attributesForRelativePath(
    const std::string& relativePath) const {
  const auto entry = _entryForRelativePath(relativePath);
  if (!entry) return std::nullopt;
  const std::uint64_t length = entry->dataLengthFromHeader();
  return KQ::NSFileAttributes{length, entry->modificationDate(),
                              length != 0 ? KQ::NSFileTypeRegular : KQ::NSFileTypeDirectory};
}

std::shared_ptr<KQZipFileLocalHeader> KQZipFileReader::_entryForRelativePath(
    const std::string& relativePath) const {
  const auto found = zipFileEntries_.find(relativePath);
  return found == zipFileEntries_.end() ? nullptr : found->second;
}

std::shared_ptr<KQ::NSInputStream> KQZipFileReader::_openArchive() const {
  auto stream = zipPath_ ? KQ::NSInputStream::inputStreamWithFileAtPath(*zipPath_) : nullptr;
  if (stream) stream->open();
  return stream;
}

bool KQZipFileReader::writeDataForRelativePath(const std::string& relativePath, const std::string& toPath,
                                               KQ::NSErrorSlot error) const {
  const auto entry = _entryForRelativePath(relativePath);
  if (!entry) return true;
  const auto progress =
      KQ::NSProgress::progressWithTotalUnitCount(KQ::NSUnitCount(entry->dataLengthFromHeader()));
  progress->becomeCurrentWithPendingUnitCount(1);
  const bool written = _writeData(*entry, toPath, *progress, error);
  // After a cancellation the progress stays current; that is meant.
  if (!progress->isCancelled()) progress->resignCurrent();
  return written;
}

bool KQZipFileReader::_writeData(const KQZipFileLocalHeader& entry, const std::string& toPath,
                                 KQ::NSProgress& progress, KQ::NSErrorSlot error) const {
  // Nothing is created for a reader that was made from a stream: it has no archive to read from.
  if (!zipPath_) return false;
  const std::string parent = KQ::stringByDeletingLastPathComponent(toPath);
  if (!KQ::NSFileManager::createDirectoryAtPath(parent, true, error)) return false;

  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(toPath);
  output->open();
  const auto input = _openArchive();
  if (input) input->setNSStreamFileCurrentOffsetKey(entry.offsetOfDataInArchive());
  // An archive that cannot be opened any more only matters where there is data. A small file only leaves the
  // stream's buffer at the end, so that is where a full disk shows.
  const bool copied = input ? _copyData(entry, *input, *output, progress, error) : entry.isDirectory();
  const bool written = copied && output->flush();
  if (input) input->close();
  output->close();
  return written && output->streamStatus() != KQ::NSStreamStatusError;
}

bool KQZipFileReader::_copyData(const KQZipFileLocalHeader& entry, KQ::NSInputStream& input,
                                KQ::NSOutputStream& output, KQ::NSProgress& progress, KQ::NSErrorSlot error) {
  const KQZipTransferBlock buffer;
  for (std::uint64_t remaining = entry.dataLengthFromHeader(); remaining != 0;) {
    const std::int64_t count = input.read(buffer.get(), std::min(remaining, KQZipBlockSize));
    if (count < 0) return false;
    // An archive that ends early still counts as extracted; that is meant.
    if (count == 0) return true;
    const std::int64_t written = output.write(buffer.get(), static_cast<std::uint64_t>(count));
    if (written <= 0) return false;
    remaining -= static_cast<std::uint64_t>(count);
    progress.setCompletedUnitCount(progress.completedUnitCount() + written);
    if (written == KQZipBlockSize) remaining -= KQZipMoveBlocks(input, output, remaining, progress);
    if (progress.isCancelled()) return KQZipFail(error, KQZipErrorCancelled, "Cancelled By User.");
  }
  return true;
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
    return reader->_extract(path, toDestination, *progress, error);
  });
  if (!progress->isCancelled()) progress->resignCurrent();
  return extracted;
}

bool KQZipFileReader::_extract(const std::string& relativePath, const std::string& destination,
                               const KQ::NSProgress& progress, KQ::NSErrorSlot error) const {
  const std::string target = KQ::stringByAppendingPathComponent(destination, relativePath);
  if (_entryForRelativePath(relativePath)->isDirectory()) {
    if (!KQ::NSFileManager::createDirectoryAtPath(target, true))
      KQ::NSLog(KQ::stringWithFormat("failed to create directory at %@ for %@", {target, relativePath}));
  } else {
    const std::string parent = KQ::stringByDeletingLastPathComponent(target);
    if (!KQ::NSFileManager::fileExistsAtPath(parent) &&
        !KQ::NSFileManager::createDirectoryAtPath(parent, true))
      KQ::NSLog(
          KQ::stringWithFormat("failed to create parent directory at %@ for %@", {parent, relativePath}));
    // A failure here comes before the test for a cancellation.
    if (!writeDataForRelativePath(relativePath, target, error)) return false;
  }
  return !progress.isCancelled() || KQZipFail(error, KQZipErrorCancelled, "Cancelled By User.");
}
