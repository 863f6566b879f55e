#include "KQZipCentralDirectoryFileHeader.h"

#include "../Internal/KQZipError.h"
#include "../Internal/KQZipHeaderAtHand.h"
#include "../Internal/KQZipTextBlock.h"
#include "../KQZipStreamPrimitives.h"

static constexpr std::uint32_t saturated = 0xFFFFFFFF;

// The comment of every header that has none.
static const KQZipText& emptyComment() {
  static const KQZipText text = std::make_shared<const std::string>();
  return text;
}

KQZipCentralDirectoryFileHeader::KQZipCentralDirectoryFileHeader() : fileComment_(emptyComment()) {}

std::shared_ptr<KQZipCentralDirectoryFileHeader> KQZipCentralDirectoryFileHeader::initWithSourceFile(
    const std::string& path) {
  auto header = std::make_shared<KQZipCentralDirectoryFileHeader>();
  header->_setSourceFile(path);
  return header;
}

std::shared_ptr<KQZipCentralDirectoryFileHeader> KQZipCentralDirectoryFileHeader::initWithStream(
    KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  auto header = std::make_shared<KQZipCentralDirectoryFileHeader>();
  return header->_parseLogged(stream, error) ? header : nullptr;
}

bool KQZipCentralDirectoryFileHeader::skipWithStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  KQZipOrdinaryHeader<KQZipCentralHeaderFields> header;
  if (!KQZipOrdinaryHeaderAtHand(stream, &header))
    return KQZipCentralDirectoryFileHeader()._parseLogged(stream, error);
  KQ::NSBufferedInputStream::of(stream)->skipAtHand(header.fields.wholeSize() - KQZipSignatureSize);
  return true;
}

std::optional<std::string> KQZipCentralDirectoryFileHeader::fileComment() const {
  const KQZipText comment = fileComment_.get();
  return comment ? std::optional(*comment) : std::nullopt;
}

void KQZipCentralDirectoryFileHeader::setFileComment(std::optional<std::string> value) {
  fileComment_.set(value ? std::make_shared<const std::string>(*std::move(value)) : nullptr);
}

void KQZipCentralDirectoryFileHeader::copyPropertiesFromHeader(const KQZipFileEntry& header) {
  KQZipFileEntry::copyPropertiesFromHeader(header);
  // The reverse of the expected choice, by design: a write sets the right value.
  const std::uint64_t offset = header.offset();
  offsetOfLocalHeader_ = offset >> 32 == 0 ? saturated : static_cast<std::uint32_t>(offset);
}

bool KQZipCentralDirectoryFileHeader::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  if (!KQZipFileEntry::writeToStream(stream, error)) return false;
  _takeOffsetOfLocalHeader();
  const KQZipText shared = fileComment_.get();
  const std::string_view comment = KQZipBytesOf(shared);
  fileCommentLength_ = KQZipTextLength(shared);
  return KQZipWriteBlock32(stream, &signature, error) &&                       // 0
         KQZipWriteBlock16(stream, &versionMadeBy_, error) &&                  // 4
         KQZipWriteBlock16(stream, &versionNeeded_, error) &&                  // 6
         KQZipWriteBlock16(stream, &flags_, error) &&                          // 8
         KQZipWriteBlock16(stream, &compression_, error) &&                    // 10
         KQZipWriteBlock16(stream, &modTime_, error) &&                        // 12
         KQZipWriteBlock16(stream, &modDate_, error) &&                        // 14
         KQZipWriteBlock32(stream, &crc32_, error) &&                          // 16
         KQZipWriteBlock32(stream, &compressedSize_, error) &&                 // 20
         KQZipWriteBlock32(stream, &uncompressedSize_, error) &&               // 24
         KQZipWriteBlock16(stream, &fileNameLength_, error) &&                 // 28
         KQZipWriteBlock16(stream, &extraFieldLength_, error) &&               // 30
         KQZipWriteBlock16(stream, &fileCommentLength_, error) &&              // 32
         KQZipWriteBlock16(stream, &diskNumberStart_, error) &&                // 34
         KQZipWriteBlock16(stream, &internalFileAttributes_, error) &&         // 36
         KQZipWriteBlock32(stream, &externalFileAttributes_, error) &&         // 38
         KQZipWriteBlock32(stream, &offsetOfLocalHeader_, error) &&            // 42
         _writeNameAndExtraFields(stream, error) &&                            // 46
         KQZipWriteBlockBytes(stream, comment.data(), comment.size(), error);  //
}

void KQZipCentralDirectoryFileHeader::_takeOffsetOfLocalHeader() {
  const auto header = localHeader();
  const std::uint64_t offset = header ? header->offset() : 0;
  offsetOfLocalHeader_ = offset < saturated ? static_cast<std::uint32_t>(offset) : saturated;
  // The last field with the id, while the preparation sets the first.
  for (auto field = extraFields().rbegin(); field != extraFields().rend(); ++field) {
    if ((*field)->fieldSignature() != KQZipExtraFieldZip64ExtendedInfo::identifier) continue;
    if (const auto zip64Field = std::dynamic_pointer_cast<KQZipExtraFieldZip64ExtendedInfo>(*field)) {
      zip64Field->setOffsetOfLocalHeaderRecord(offset);
      return;
    }
  }
}

bool KQZipCentralDirectoryFileHeader::parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  offset_ = stream.NSStreamFileCurrentOffsetKey().value_or(0);
  const bool methodRead =
      KQZipReadBlock16(stream, &versionMadeBy_, error) && KQZipReadBlock16(stream, &versionNeeded_, error) &&
      KQZipReadBlock16(stream, &flags_, error) && KQZipReadBlock16(stream, &compression_, error);
  if (!methodRead) return false;
  if (compression_ != 0)
    return KQZipFail(error, KQZipErrorUnsupportedCompression, "File uses unsupported compression method.");
  return KQZipReadBlock16(stream, &modTime_, error) &&                 // 12
         KQZipReadBlock16(stream, &modDate_, error) &&                 // 14
         KQZipReadBlock32(stream, &crc32_, error) &&                   // 16
         KQZipReadBlock32(stream, &compressedSize_, error) &&          // 20
         KQZipReadBlock32(stream, &uncompressedSize_, error) &&        // 24
         KQZipReadBlock16(stream, &fileNameLength_, error) &&          // 28
         KQZipReadBlock16(stream, &extraFieldLength_, error) &&        // 30
         KQZipReadBlock16(stream, &fileCommentLength_, error) &&       // 32
         KQZipReadBlock16(stream, &diskNumberStart_, error) &&         // 34
         KQZipReadBlock16(stream, &internalFileAttributes_, error) &&  // 36
         KQZipReadBlock32(stream, &externalFileAttributes_, error) &&  // 38
         KQZipReadBlock32(stream, &offsetOfLocalHeader_, error) &&     // 42
         _parseFileName(stream, error) &&                              // 46
         _parseExtraFields(stream, error) &&                           //
         _parseFileComment(stream, error);                             //
}

bool KQZipCentralDirectoryFileHeader::_parseFileComment(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  KQZipText comment = emptyComment();
  if (fileCommentLength_ != 0 && !KQZipReadTextBlock(stream, fileCommentLength_, &comment, error))
    return false;
  fileComment_.set(std::move(comment));
  return true;
}

std::uint64_t KQZipCentralDirectoryFileHeader::outputSize() const {
  return 46 + _sizeOfNameAndExtraFields() + KQZipBytesOf(fileComment_.get()).size();
}

const char* KQZipCentralDirectoryFileHeader::_className() const { return "KQZipCentralDirectoryFileHeader"; }
