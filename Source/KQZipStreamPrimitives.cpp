#include "KQZipStreamPrimitives.h"

#include <array>

#include "Internal/KQZipError.h"
#include "Internal/KQZipFailedWrite.h"
#include "Internal/KQZipLittleEndian.h"
#include "Platform/Internal/NSBufferedStreams.h"
#include "Platform/NSLog.h"
#include "Platform/NSString.h"

namespace {

bool readBlock(KQ::NSInputStream& stream, std::uint8_t* destination, std::uint64_t length,
               KQ::NSErrorSlot error) {
  const std::int64_t count = stream.read(destination, length);
  if (count >= 0) return count > 0;
  // By design, only an error that is already in the slot is replaced: with the fresh slot of a scan, a
  // damaged archive and one that ends early look the same.
  if (error != nullptr && *error) *error = KQZipMakeError(KQZipErrorReading, "Error reading file");
  KQ::NSLog(KQ::stringWithFormat("stream reading failed: %@", {KQZipErrorInSlot(error)}));
  return false;
}

template <class Integer>
bool readInteger(KQ::NSInputStream& stream, Integer* destination, KQ::NSErrorSlot error) {
  std::array<std::uint8_t, sizeof(Integer)> bytes;
  if (!KQ::NSBufferedInputStream::take(stream, bytes.data(), bytes.size())) {
    // Starts from the current value, so that bytes that are not read keep theirs.
    KQZipStore(*destination, bytes.data());
    if (!readBlock(stream, bytes.data(), bytes.size(), error)) return false;
  }
  *destination = KQZipLoad<Integer>(bytes.data());
  return true;
}

bool writeBlock(KQ::NSOutputStream& stream, const std::uint8_t* source, std::uint64_t length,
                KQ::NSErrorSlot error) {
  const std::int64_t count = stream.write(source, length);
  if (count < 0) return KQZipReportFailedWrite(error);
  return count > 0;
}

template <class Integer>
bool writeInteger(KQ::NSOutputStream& stream, Integer value, KQ::NSErrorSlot error) {
  std::array<std::uint8_t, sizeof(Integer)> bytes;
  KQZipStore(value, bytes.data());
  return KQ::NSBufferedOutputStream::put(stream, bytes.data(), bytes.size()) ||
         writeBlock(stream, bytes.data(), bytes.size(), error);
}

}  // namespace

bool KQZipReadBlockBytes(KQ::NSInputStream& stream, void* destination, std::uint64_t length,
                         KQ::NSErrorSlot error) {
  return length == 0 || KQ::NSBufferedInputStream::take(stream, destination, length) ||
         readBlock(stream, static_cast<std::uint8_t*>(destination), length, error);
}

bool KQZipReadBlock16(KQ::NSInputStream& stream, std::uint16_t* destination, KQ::NSErrorSlot error) {
  return readInteger(stream, destination, error);
}

bool KQZipReadBlock32(KQ::NSInputStream& stream, std::uint32_t* destination, KQ::NSErrorSlot error) {
  return readInteger(stream, destination, error);
}

bool KQZipReadBlock64(KQ::NSInputStream& stream, std::uint64_t* destination, KQ::NSErrorSlot error) {
  return readInteger(stream, destination, error);
}

bool KQZipReportFailedWrite(KQ::NSErrorSlot error) {
  KQZipFail(error, KQZipErrorWriting, "Error writing file");
  KQ::NSLog(KQ::stringWithFormat("stream writing failed: %@", {KQZipErrorInSlot(error)}));
  return false;
}

bool KQZipWriteBlockBytes(KQ::NSOutputStream& stream, const void* source, std::uint64_t length,
                          KQ::NSErrorSlot error) {
  return length == 0 || KQ::NSBufferedOutputStream::put(stream, source, length) ||
         writeBlock(stream, static_cast<const std::uint8_t*>(source), length, error);
}

bool KQZipWriteBlock16(KQ::NSOutputStream& stream, const std::uint16_t* value, KQ::NSErrorSlot error) {
  return writeInteger(stream, *value, error);
}

bool KQZipWriteBlock32(KQ::NSOutputStream& stream, const std::uint32_t* value, KQ::NSErrorSlot error) {
  return writeInteger(stream, *value, error);
}

bool KQZipWriteBlock64(KQ::NSOutputStream& stream, const std::uint64_t* value, KQ::NSErrorSlot error) {
  return writeInteger(stream, *value, error);
}
