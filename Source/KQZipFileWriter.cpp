#include "KQZipFileWriter.h"

#include <map>
#include <vector>

#include "FileHeader/KQZipFileLocalHeader.h"
#include "Internal/KQZipError.h"
#include "Internal/KQZipFailedWrite.h"
#include "Internal/KQZipTransferBlock.h"
#include "KQZipCentralDirectory.h"
#include "Platform/Internal/NSFileOutputStream.h"
#include "Platform/NSFileManager.h"
#include "Platform/NSLog.h"
#include "Platform/NSProgress.h"
#include "Platform/NSString.h"

struct KQZipFileWriter::State {
  using Entries = std::vector<std::shared_ptr<KQZipFileLocalHeader>>;
  using Name = std::shared_ptr<const std::string>;

  struct NameLess {
    bool operator()(const Name& left, const Name& right) const { return KQ::NSStringLess()(*left, *right); }
  };

  void _addEntry(std::string filePath, std::string relativePath);
  bool _writeEntry(KQZipFileLocalHeader& entry, KQ::NSOutputStream& stream, KQ::NSErrorSlot error);
  static bool _writeCentralDirectory(const Entries& entries, KQ::NSOutputStream& stream,
                                     KQ::NSErrorSlot error);

  // Sorted by name, which is the order of the archive.
  std::map<Name, std::shared_ptr<KQZipFileLocalHeader>, NameLess> fileEntries;
  std::shared_ptr<KQ::NSProgress> progress;
};

KQZipFileWriter::KQZipFileWriter() : state_(std::make_unique<State>()) {}

KQZipFileWriter::~KQZipFileWriter() = default;

void KQZipFileWriter::addFilePath(const std::string& filePath, const std::string& relativePath) {
  state_->_addEntry(filePath, relativePath);
}

void KQZipFileWriter::State::_addEntry(std::string filePath, std::string relativePath) {
  const auto path = std::make_shared<const std::string>(std::move(filePath));
  const auto name = std::make_shared<const std::string>(std::move(relativePath));
  // A tree is added mostly in the order of its names, so the end is the likely place.
  fileEntries.insert_or_assign(fileEntries.end(), name,
                               KQZipFileLocalHeader::_initWithSourceFile(path, name));
}

bool KQZipFileWriter::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  // Entries that the stream's or the log's own code adds during the write are for the next one.
  State::Entries entries;
  entries.reserve(state_->fileEntries.size());
  for (const auto& [name, entry] : state_->fileEntries) entries.push_back(entry);
  const KQZipTransferBlockKeeper keeper;

  auto& progress = state_->progress;
  progress = KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(entries.size()));
  progress->setCancellable(true);
  progress->setPausable(false);
  for (const auto& entry : entries) {
    if (!state_->_writeEntry(*entry, stream, error)) return false;
  }
  const bool written = State::_writeCentralDirectory(entries, stream, error);
  progress->setCompletedUnitCount(progress->totalUnitCount());
  return written;
}

bool KQZipFileWriter::State::_writeEntry(KQZipFileLocalHeader& entry, KQ::NSOutputStream& stream,
                                         KQ::NSErrorSlot error) {
  progress->becomeCurrentWithPendingUnitCount(1);
  const bool written = entry.writeToStream(stream, error);
  // By design, a cancellation takes precedence over the entry's own result and leaves the progress current.
  if (progress->isCancelled()) return KQZipFail(error, KQZipErrorCancelled, "Cancelled by user.");
  progress->resignCurrent();
  return written;
}

bool KQZipFileWriter::State::_writeCentralDirectory(const Entries& entries, KQ::NSOutputStream& stream,
                                                    KQ::NSErrorSlot error) {
  if (!KQZipCentralDirectory::centralDirectoryWithFileEntries(entries)->writeToStream(stream, error))
    return false;
  // Buffered bytes may still find the disk full, and data that the stream did not accept shows here at the
  // latest.
  return stream.flush() || KQZipReportFailedWrite(error);
}

bool KQZipFileWriter::writeToZipPath(const std::optional<std::string>& zipPath, KQ::NSErrorSlot error) {
  const auto refuse = [&](const char* format) {
    const auto refusal = KQZipMakeError(KQZipErrorRefusedPath, KQ::stringWithFormat(format, {zipPath}));
    KQ::NSStoreError(error, refusal);
    KQ::NSLog(KQ::stringWithFormat("failed writing to path: %@ %@",
                                   {zipPath, error != nullptr ? refusal : nullptr}));
    return false;
  };
  if (!zipPath || KQ::NSFileManager::fileExistsAtPath(*zipPath))
    return refuse("Could not write to zip path %@");
  bool parentIsDirectory = false;
  KQ::NSFileManager::fileExistsAtPath(KQ::stringByDeletingLastPathComponent(*zipPath), &parentIsDirectory);
  if (!parentIsDirectory)
    return refuse("Could not write to zip path %@ because parent directory doesn't exist");

  // The test above gives the refusals their order. Opening decides: it also refuses a dangling link, and an
  // item that has appeared since the test.
  KQ::NSFileOutputStream stream(*zipPath, KQ::NSFileOutputStream::Existing::Refused);
  stream.open();
  if (stream.hasRefusedExisting()) return refuse("Could not write to zip path %@");
  const auto logFailure = [error] {
    KQ::NSLog(KQ::stringWithFormat("closing stream because writing failed: %@", {KQZipErrorInSlot(error)}));
    return false;
  };
  const bool written = writeToStream(stream, error) || logFailure();
  stream.close();
  const bool closed = stream.streamStatus() != KQ::NSStreamStatusError;
  return written && (closed || KQZipReportFailedWrite(error) || logFailure());
}

bool KQZipFileWriter::addContentsOfDirectory(const std::string& directory, bool keepParentDirectory,
                                             KQ::NSErrorSlot error) {
  const std::string prefix = keepParentDirectory ? KQ::lastPathComponent(directory) : "";
  std::vector<std::string> relativePaths;
  auto enumerator = KQ::NSFileManager::enumeratorAtPath(directory);
  while (auto relativePath = enumerator.nextObject()) {
    // Only the item's own name counts: the files of a hidden folder are kept.
    const std::size_t slash = relativePath->rfind('/');
    const bool isHidden = (*relativePath)[slash == std::string::npos ? 0 : slash + 1] == '.';
    if (!isHidden) relativePaths.push_back(std::move(*relativePath));
  }
  bool complete = enumerator.error() == nullptr;
  if (!complete) KQ::NSStoreError(error, enumerator.error());

  // Continues after a failure, so that the slot has the last error at the end.
  for (const std::string& relativePath : relativePaths) {
    std::string path = KQ::stringByAppendingPathComponent(directory, relativePath);
    const auto attributes = KQ::NSFileManager::attributesOfItemAtPath(path, error);
    if (!attributes) {
      complete = false;
    } else if (attributes->NSFileType == KQ::NSFileTypeRegular) {
      state_->_addEntry(std::move(path), KQ::stringByAppendingPathComponent(prefix, relativePath));
    }
  }
  return complete;
}

bool KQZipFileWriter::createZipFileAtPath(const std::string& zipPath,
                                          const std::string& withContentsOfDirectory,
                                          bool keepParentDirectory, KQ::NSErrorSlot error) {
  KQZipFileWriter writer;
  return writer.addContentsOfDirectory(withContentsOfDirectory, keepParentDirectory, error) &&
         writer.writeToZipPath(zipPath, error);
}

KQZipPermissions KQZipFileWriter::permissionsOfSources() const {
  // The permissions are asked for in the order of the archive, so the next entry is the likely one.
  return [&entries = state_->fileEntries, next = state_->fileEntries.begin()](
             const std::string& relativePath) mutable -> std::optional<std::uint32_t> {
    if (next == entries.end() || *next->first != relativePath)
      next = entries.find(std::make_shared<const std::string>(relativePath));
    if (next == entries.end()) return std::nullopt;
    return (next++)->second->sourceFilePermissions();
  };
}
