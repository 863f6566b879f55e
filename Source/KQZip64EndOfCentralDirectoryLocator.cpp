#include "KQZip64EndOfCentralDirectoryLocator.h"

#include "KQZipStreamPrimitives.h"

std::shared_ptr<KQZip64EndOfCentralDirectoryLocator> KQZip64EndOfCentralDirectoryLocator::initWithStream(
    KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  auto record = std::make_shared<KQZip64EndOfCentralDirectoryLocator>();
  return record->parseFromStream(stream, error) ? record : nullptr;
}

bool KQZip64EndOfCentralDirectoryLocator::parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  return KQZipReadBlock32(stream, &diskNumberWithStartOfZip64EoCD_, error) &&  // 4
         KQZipReadBlock64(stream, &offsetOfZip64EoCD_, error) &&               // 8
         KQZipReadBlock32(stream, &numberOfDisks_, error);                     // 16
}

bool KQZip64EndOfCentralDirectoryLocator::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  return KQZipWriteBlock32(stream, &signature, error) &&                        // 0
         KQZipWriteBlock32(stream, &diskNumberWithStartOfZip64EoCD_, error) &&  // 4
         KQZipWriteBlock64(stream, &offsetOfZip64EoCD_, error) &&               // 8
         KQZipWriteBlock32(stream, &numberOfDisks_, error);                     // 16
}
