#include "KQZip64EndOfCentralDirectoryRecord.h"

#include "KQZipStreamPrimitives.h"

std::shared_ptr<KQZip64EndOfCentralDirectoryRecord> KQZip64EndOfCentralDirectoryRecord::initWithStream(
    KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  auto record = std::make_shared<KQZip64EndOfCentralDirectoryRecord>();
  return record->parseFromStream(stream, error) ? record : nullptr;
}

bool KQZip64EndOfCentralDirectoryRecord::parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  return KQZipReadBlock64(stream, &size_, error) &&                    // 4
         KQZipReadBlock16(stream, &versionMadeBy_, error) &&           // 12
         KQZipReadBlock16(stream, &versionNeeded_, error) &&           // 14
         KQZipReadBlock32(stream, &diskNumber_, error) &&              // 16
         KQZipReadBlock32(stream, &diskNumberContainingCD_, error) &&  // 20
         KQZipReadBlock64(stream, &entriesInCDOnThisDisk_, error) &&   // 24
         KQZipReadBlock64(stream, &entriesInCD_, error) &&             // 32
         KQZipReadBlock64(stream, &sizeOfCD_, error) &&                // 40
         KQZipReadBlock64(stream, &offsetOfCD_, error);                // 48
}

bool KQZip64EndOfCentralDirectoryRecord::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  if (!KQZipWriteBlock32(stream, &signature, error)) return false;
  size_ = sizeOfZip64EoCDRecord();
  return KQZipWriteBlock64(stream, &size_, error) &&                    // 4
         KQZipWriteBlock16(stream, &versionMadeBy_, error) &&           // 12
         KQZipWriteBlock16(stream, &versionNeeded_, error) &&           // 14
         KQZipWriteBlock32(stream, &diskNumber_, error) &&              // 16
         KQZipWriteBlock32(stream, &diskNumberContainingCD_, error) &&  // 20
         KQZipWriteBlock64(stream, &entriesInCDOnThisDisk_, error) &&   // 24
         KQZipWriteBlock64(stream, &entriesInCD_, error) &&             // 32
         KQZipWriteBlock64(stream, &sizeOfCD_, error) &&                // 40
         KQZipWriteBlock64(stream, &offsetOfCD_, error);                // 48
}
