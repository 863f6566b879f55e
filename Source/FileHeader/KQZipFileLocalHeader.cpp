#include "KQZipFileLocalHeader.h"

#include <algorithm>

#include "../Internal/KQZipError.h"
#include "../Internal/KQZipSourceOfWrite.h"
#include "../Internal/KQZipTransfer.h"
#include "../KQZipStreamPrimitives.h"
#include "../Platform/Internal/NSRawBytes.h"
#include "../Platform/NSLog.h"
#include "../Platform/NSString.h"
#include "KQZipCentralDirectoryFileHeader.h"

std::shared_ptr<KQZipFileLocalHeader> KQZipFileLocalHeader::initWithSourceFile(const std::string& path) {
  const auto text = std::make_shared<const std::string>(path);
  return _initWithSourceFile(text, text);
}

std::shared_ptr<KQZipFileLocalHeader> KQZipFileLocalHeader::_initWithSourceFile(Text path, Text name) {
  auto header = std::make_shared<KQZipFileLocalHeader>();
  header->sourceFilePath_.set(std::move(path));
  header->fileName_.set(std::move(name));
  header->addExtraField(std::make_shared<KQZipExtraFieldZip64ExtendedInfo>());
  return header;
}

std::shared_ptr<KQZipFileLocalHeader> KQZipFileLocalHeader::initWithStream(KQ::NSInputStream& stream,
                                                                           KQ::NSErrorSlot error) {
  auto header = std::make_shared<KQZipFileLocalHeader>();
  return header->_parseLogged(stream, error) ? header : nullptr;
}

bool KQZipFileLocalHeader::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  const KQZipSourceOfWrite sourceOfWrite(*this);
  const auto& path = sourceOfWrite.path();
  const auto attributes = path ? KQ::NSFileManager::attributesOfItemAtPath(*path) : std::nullopt;
  const std::uint64_t size = attributes ? attributes->NSFileSize.value_or(0) : 0;
  // One pass for the CRC, one for the copy.
  progress_ = KQ::NSProgress::progressWithTotalUnitCount(2 * std::min(KQ::NSUnitCount(size), INT64_MAX / 2));
  progress_->setCancellable(true);
  progress_->setPausable(false);
  progress_->becomeCurrentWithPendingUnitCount(1);

  // By design, the progress stays current when the preparation, the header or opening the source fails, and
  // after a cancellation: a caller that resigns its own progress restores the thread.
  if (!KQZipFileEntry::writeToStream(stream, error) || !_writeHeader(stream, error)) return false;
  const auto source = KQ::NSInputStream::inputStreamWithFileAtPath(*path);
  if (!source) {
    KQ::NSLog(KQ::stringWithFormat("%@ failed to open file at %@", {description(), *path}));
    return false;
  }
  source->open();
  const bool copied = _copySourceFile(*source, stream, error);
  source->close();
  if (!progress_->isCancelled()) progress_->resignCurrent();
  return copied;
}

bool KQZipFileLocalHeader::_writeHeader(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) const {
  return KQZipWriteBlock32(stream, &signature, error) &&          // 0
         KQZipWriteBlock16(stream, &versionNeeded_, error) &&     // 4
         KQZipWriteBlock16(stream, &flags_, error) &&             // 6
         KQZipWriteBlock16(stream, &compression_, error) &&       // 8
         KQZipWriteBlock16(stream, &modTime_, error) &&           // 10
         KQZipWriteBlock16(stream, &modDate_, error) &&           // 12
         KQZipWriteBlock32(stream, &crc32_, error) &&             // 14
         KQZipWriteBlock32(stream, &compressedSize_, error) &&    // 18
         KQZipWriteBlock32(stream, &uncompressedSize_, error) &&  // 22
         KQZipWriteBlock16(stream, &fileNameLength_, error) &&    // 26
         KQZipWriteBlock16(stream, &extraFieldLength_, error) &&  // 28
         _writeNameAndExtraFields(stream, error);                 // 30
}

bool KQZipFileLocalHeader::_copySourceFile(KQ::NSInputStream& source, KQ::NSOutputStream& stream,
                                           KQ::NSErrorSlot error) const {
  // By design, a write that accepts nothing ends the copy as a success, and a partial one is not completed: a
  // failed stream reports it at the first write of the next header.
  const auto write = [&](const std::uint8_t* bytes, std::int64_t length) {
    const std::int64_t written =
        stream.write(bytes, std::min(static_cast<std::uint64_t>(length), KQZipBlockSize));
    if (written == KQZipBlockSize) KQZipMoveBlocks(source, stream, UINT64_MAX, *progress_);
    return written;
  };
  const auto count = [this](std::int64_t written, std::int64_t /*read*/) { KQZipCount(*progress_, written); };
  return KQZipReadBlocks(source, progress_.get(), write, count) ||
         KQZipFail(error, KQZipErrorCancelled, "Operation was cancelled.");
}

bool KQZipFileLocalHeader::parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  offset_ = stream.NSStreamFileCurrentOffsetKey().value_or(0);
  const bool methodRead = KQZipReadBlock16(stream, &versionNeeded_, error) &&  // 4
                          KQZipReadBlock16(stream, &flags_, error) &&          // 6
                          KQZipReadBlock16(stream, &compression_, error);      // 8
  if (!methodRead) return false;
  if (compression_ != 0)
    return KQZipFail(error, KQZipErrorUnsupportedCompression, "File uses unsupported compression method.");
  return KQZipReadBlock16(stream, &modTime_, error) &&           // 10
         KQZipReadBlock16(stream, &modDate_, error) &&           // 12
         KQZipReadBlock32(stream, &crc32_, error) &&             // 14
         KQZipReadBlock32(stream, &compressedSize_, error) &&    // 18
         KQZipReadBlock32(stream, &uncompressedSize_, error) &&  // 22
         KQZipReadBlock16(stream, &fileNameLength_, error) &&    // 26
         KQZipReadBlock16(stream, &extraFieldLength_, error) &&  // 28
         _parseFileName(stream, error) &&                        // 30
         _parseExtraFields(stream, error) &&                     //
         _skipData(stream, error);                               //
}

bool KQZipFileLocalHeader::_skipData(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  fileDataOffset_ = stream.NSStreamFileCurrentOffsetKey().value_or(0);
  const std::uint64_t length = dataLengthFromHeader();
  // An end that does not fit 64 bits is passed on as the largest offset, which the stream refuses. It must
  // never wrap to an earlier offset, or a header could make the scan run in circles.
  const bool fits = length <= UINT64_MAX - fileDataOffset_;
  const bool moved = stream.setNSStreamFileCurrentOffsetKey(fits ? fileDataOffset_ + length : UINT64_MAX);
  if (fits && moved) return true;
  KQ::NSLog(KQ::stringWithFormat("failed to set stream offset: %@", {stream.streamError()}));
  KQ::NSStoreError(error, stream.streamError());
  return false;
}

bool KQZipFileLocalHeader::calculateCRCOfSourceFile() {
  if (!KQZipFileEntry::calculateCRCOfSourceFile()) return false;
  if (const auto header = centralDirectoryHeader()) header->setCrc32(crc32());
  return true;
}

void KQZipFileLocalHeader::updateModificationDate() {
  KQZipFileEntry::updateModificationDate();
  if (const auto header = centralDirectoryHeader()) {
    header->setModDate(modDate());
    header->setModTime(modTime());
  }
}

std::shared_ptr<const KQ::NSData> KQZipFileLocalHeader::unarchivedDataWithStream(
    KQ::NSInputStream& stream) const {
  return KQZipReadStoredData(stream, fileDataOffset_, dataLengthFromHeader());
}

bool KQZipFileLocalHeader::exportFileToPath(const std::string& path, KQ::NSInputStream& stream,
                                            KQ::NSErrorSlot error) const {
  const bool positioned = stream.setNSStreamFileCurrentOffsetKey(fileDataOffset_);
  if (!positioned) {
    KQZipFail(error, KQZipErrorReading,
              KQ::stringWithFormat("Failed to seek to offset %llu",
                                   {KQ::NSFormatArgument::decimal(fileDataOffset_)}));
  }
  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(path);
  output->open();

  const std::uint64_t length = dataLengthFromHeader();
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(KQ::NSUnitCount(length));
  progress->setCancellable(true);
  progress->setPausable(false);
  progress->setKind(KQ::NSProgressKindFile);
  progress->becomeCurrentWithPendingUnitCount(KQ::NSUnitCount(length));

  // By design, the copy runs after a failed seek too, but never counts as a success.
  bool exported = _exportData(path, stream, *output, *progress, error) && positioned;
  if (exported) {
    const auto type = length != 0 ? KQ::NSFileTypeRegular : KQ::NSFileTypeDirectory;
    exported = KQ::NSFileManager::setAttributes({length, modificationDate(), type}, path, error);
  }
  if (!progress->isCancelled()) progress->resignCurrent();
  return exported;
}

bool KQZipFileLocalHeader::_exportData(const std::string& path, KQ::NSInputStream& stream,
                                       KQ::NSOutputStream& output, KQ::NSProgress& progress,
                                       KQ::NSErrorSlot error) const {
  const auto writingFailed = [&] {
    output.close();
    return KQZipFail(error, KQZipErrorWriting,
                     KQ::stringWithFormat("Failed to write to stream at %@", {path}));
  };
  const std::uint64_t length = dataLengthFromHeader();
  const KQZipTransferBlock block(length);
  const auto end =
      KQZipCopyBlocks(stream, output, block, length, progress, KQZipCopyOrder::TestReadCountWrite);
  if (end == KQZipCopyEnd::NotWritten) return writingFailed();
  if (end != KQZipCopyEnd::Complete) return false;
  // A small file is still in the stream's buffer, so that only closing shows whether it can be written. For
  // an entry without data nothing is written, and setting the attributes shows whether the file exists.
  output.close();
  return length == 0 || output.streamStatus() != KQ::NSStreamStatusError || writingFailed();
}

const char* KQZipFileLocalHeader::_className() const { return "KQZipFileLocalHeader"; }
