#include "KQZipEndOfCentralDirectoryRecord.h"

#include "Internal/KQZipTextBlock.h"
#include "KQZipStreamPrimitives.h"

std::shared_ptr<KQZipEndOfCentralDirectoryRecord> KQZipEndOfCentralDirectoryRecord::initWithStream(
    KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  auto record = std::make_shared<KQZipEndOfCentralDirectoryRecord>();
  return record->parseFromStream(stream, error) ? record : nullptr;
}

bool KQZipEndOfCentralDirectoryRecord::parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  KQZipText comment;
  const bool parsed = KQZipReadBlock16(stream, &diskNumber_, error) &&                     // 4
                      KQZipReadBlock16(stream, &diskNumberContainingCD_, error) &&         // 6
                      KQZipReadBlock16(stream, &entriesInCDOnThisDisk_, error) &&          // 8
                      KQZipReadBlock16(stream, &entriesInCD_, error) &&                    // 10
                      KQZipReadBlock32(stream, &sizeOfCD_, error) &&                       // 12
                      KQZipReadBlock32(stream, &offsetOfCD_, error) &&                     // 16
                      KQZipReadBlock16(stream, &zipFileCommentLength_, error) &&           // 20
                      KQZipReadTextBlock(stream, zipFileCommentLength_, &comment, error);  // 22
  if (parsed) setZipFileComment(comment ? std::optional(*comment) : std::nullopt);
  return parsed;
}

bool KQZipEndOfCentralDirectoryRecord::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  const std::string comment = zipFileComment().value_or("");
  zipFileCommentLength_ = static_cast<std::uint16_t>(comment.size());
  return KQZipWriteBlock32(stream, &signature, error) &&                              // 0
         KQZipWriteBlock16(stream, &diskNumber_, error) &&                            // 4
         KQZipWriteBlock16(stream, &diskNumberContainingCD_, error) &&                // 6
         KQZipWriteBlock16(stream, &entriesInCDOnThisDisk_, error) &&                 // 8
         KQZipWriteBlock16(stream, &entriesInCD_, error) &&                           // 10
         KQZipWriteBlock32(stream, &sizeOfCD_, error) &&                              // 12
         KQZipWriteBlock32(stream, &offsetOfCD_, error) &&                            // 16
         KQZipWriteBlock16(stream, &zipFileCommentLength_, error) &&                  // 20
         KQZipWriteBlockBytes(stream, comment.data(), zipFileCommentLength_, error);  // 22
}

std::uint64_t KQZipEndOfCentralDirectoryRecord::outputSize() const {
  return 22 + zipFileComment().value_or("").size();
}
