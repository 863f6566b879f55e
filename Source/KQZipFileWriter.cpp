#include "KQZipFileWriter.h"

#include <vector>

#include "Internal/KQZipError.h"
#include "Internal/KQZipFailedWrite.h"
#include "Internal/KQZipTransferBlock.h"
#include "Platform/Internal/NSFileOutputStream.h"
#include "Platform/NSFileManager.h"
#include "Platform/NSLog.h"
#include "Platform/NSString.h"

void KQZipFileWriter::addFilePath(const std::string& filePath, const std::string& relativePath) {
  _addEntry(filePath, relativePath);
}

void KQZipFileWriter::_addEntry(std::string filePath, std::string relativePath) {
  const auto path = std::make_shared<const std::string>(std::move(filePath));
  const auto name = std::make_shared<const std::string>(std::move(relativePath));
  // A tree is added in the order of its names for the greater part, which makes the end the likely place.
  fileEntries_.insert_or_assign(fileEntries_.end(), name,
                                KQZipFileLocalHeader::_initWithSourceFile(path, name));
}

bool KQZipFileWriter::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  // What the stream's or the log's own code adds meanwhile is for the next write.
  Entries entries;
  entries.reserve(fileEntries_.size());
  for (const auto& [name, entry] : fileEntries_) entries.push_back(entry);
  const KQZipTransferBlockKeeper keeper;

  progress_ = KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(entries.size()));
  progress_->setCancellable(true);
  progress_->setPausable(false);
  for (const auto& entry : entries) {
    if (!_writeEntry(*entry, stream, error)) return false;
  }
  const bool written = _writeCentralDirectory(entries, stream, error);
  progress_->setCompletedUnitCount(progress_->totalUnitCount());
  return written;
}

bool KQZipFileWriter::_writeEntry(KQZipFileLocalHeader& entry, KQ::NSOutputStream& stream,
                                  KQ::NSErrorSlot error) {
  progress_->becomeCurrentWithPendingUnitCount(1);
  const bool written = entry.writeToStream(stream, error);
  // A cancellation comes before the entry's own result and leaves the progress current; both are meant.
  if (progress_->isCancelled()) return KQZipFail(error, KQZipErrorCancelled, "Cancelled by user.");
  progress_->resignCurrent();
  return written;
}

bool KQZipFileWriter::_writeCentralDirectory(const Entries& entries, KQ::NSOutputStream& stream,
                                             KQ::NSErrorSlot error) {
  if (!KQZipCentralDirectory::centralDirectoryWithFileEntries(entries)->writeToStream(stream, error))
    return false;
  // Buffered bytes may still meet a full disk, and data that the stream did not take shows here at the
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

  // The test above is for the order of the refusals. Opening decides: what has come since, and a link that
  // leads nowhere, are somebody else's.
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
    // Only the item's own name counts: what a hidden folder holds is kept.
    const std::size_t slash = relativePath->rfind('/');
    const bool isHidden = (*relativePath)[slash == std::string::npos ? 0 : slash + 1] == '.';
    if (!isHidden) relativePaths.push_back(std::move(*relativePath));
  }
  bool complete = enumerator.error() == nullptr;
  if (!complete) KQ::NSStoreError(error, enumerator.error());

  // Goes on behind a failure, so that the slot ends with the last one.
  for (const std::string& relativePath : relativePaths) {
    std::string path = KQ::stringByAppendingPathComponent(directory, relativePath);
    const auto attributes = KQ::NSFileManager::attributesOfItemAtPath(path, error);
    if (!attributes) {
      complete = false;
    } else if (attributes->NSFileType == KQ::NSFileTypeRegular) {
      _addEntry(std::move(path), KQ::stringByAppendingPathComponent(prefix, relativePath));
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
  // They are asked for in the order of the archive, so that the next entry is the likely one.
  return [this, next = fileEntries_.begin()](
             const std::string& relativePath) mutable -> std::optional<std::uint32_t> {
    if (next == fileEntries_.end() || *next->first != relativePath)
      next = fileEntries_.find(std::make_shared<const std::string>(relativePath));
    if (next == fileEntries_.end()) return std::nullopt;
    return (next++)->second->sourceFilePermissions();
  };
}
