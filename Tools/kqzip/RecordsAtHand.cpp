#include "RecordsAtHand.h"

#include <KQZip/Platform/Internal/NSBufferedStreams.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>

namespace Tool {

namespace {

const std::uint8_t* atHand(const KQ::NSInputStream& stream, std::uint64_t length) {
  const KQ::NSBufferedInputStream* const buffered = KQ::NSBufferedInputStream::of(stream);
  return buffered == nullptr ? nullptr : buffered->bytesAtHand(length);
}

// Offsets of the fields, and the size of what is in front of the name, behind the signature.
namespace Local {
constexpr std::size_t flags = 2;
constexpr std::size_t compression = 4;
constexpr std::size_t modTime = 6;
constexpr std::size_t modDate = 8;
constexpr std::size_t crc32 = 10;
constexpr std::size_t compressedSize = 14;
constexpr std::size_t uncompressedSize = 18;
constexpr std::size_t nameLength = 22;
constexpr std::size_t extraLength = 24;
constexpr std::size_t size = 26;
}  // namespace Local

namespace Central {
constexpr std::size_t versionMadeBy = 0;
constexpr std::size_t compression = 6;
constexpr std::size_t crc32 = 12;
constexpr std::size_t compressedSize = 16;
constexpr std::size_t uncompressedSize = 20;
constexpr std::size_t nameLength = 24;
constexpr std::size_t extraLength = 26;
constexpr std::size_t commentLength = 28;
constexpr std::size_t lengthsEnd = 30;
constexpr std::size_t externalFileAttributes = 34;
constexpr std::size_t offsetOfLocalHeader = 38;
constexpr std::size_t size = 42;
}  // namespace Central

constexpr std::uint64_t signatureSize = 4;
constexpr std::uint16_t stored = 0;

// An extra field's id and size.
constexpr std::size_t fieldHeaderSize = 4;

// Bytes of each value in a Zip64 field.
constexpr std::size_t width = 8;

// A little-endian value.
template <class Value>
Value valueAt(const std::uint8_t* bytes) {
  std::array<std::uint8_t, sizeof(Value)> inHostOrder{};
  std::memcpy(inHostOrder.data(), bytes, sizeof(Value));
  if constexpr (std::endian::native != std::endian::little)
    std::reverse(inHostOrder.begin(), inHostOrder.end());
  return std::bit_cast<Value>(inHostOrder);
}

std::uint16_t value16(const std::uint8_t* bytes) { return valueAt<std::uint16_t>(bytes); }
std::uint32_t value32(const std::uint8_t* bytes) { return valueAt<std::uint32_t>(bytes); }
std::uint64_t value64(const std::uint8_t* bytes) { return valueAt<std::uint64_t>(bytes); }

std::string_view textAt(const std::uint8_t* bytes, std::size_t length) {
  return {reinterpret_cast<const char*>(bytes), length};
}

// The values of the first Zip64 field.
struct Zip64 {
  bool isThere = false;
  std::array<std::uint64_t, 3> values{};
  std::size_t count = 0;
};

// False when the fields do not fill their area exactly.
bool readExtraFields(const std::uint8_t* bytes, std::size_t length, Zip64* zip64) {
  while (length >= fieldHeaderSize) {
    const std::size_t size = value16(bytes + 2);
    if (size > length - fieldHeaderSize) return false;
    if (!zip64->isThere && value16(bytes) == KQZipExtraFieldZip64ExtendedInfo::identifier) {
      zip64->isThere = true;
      zip64->count = std::min(zip64->values.size(), size / width);
      const std::uint8_t* value = bytes + fieldHeaderSize;
      for (std::size_t i = 0; i < zip64->count; ++i, value += width) zip64->values[i] = value64(value);
    }
    bytes += fieldHeaderSize + size;
    length -= fieldHeaderSize + size;
  }
  return length == 0;
}

}  // namespace

std::optional<LocalHeaderAtHand> localHeaderAtHand(const KQ::NSInputStream& stream, std::uint64_t start) {
  const std::uint8_t* const bytes = atHand(stream, Local::size);
  if (bytes == nullptr || value16(bytes + Local::compression) != stored) return std::nullopt;
  const std::size_t nameLength = value16(bytes + Local::nameLength);
  const std::size_t extraLength = value16(bytes + Local::extraLength);
  if (atHand(stream, Local::size + nameLength + extraLength) == nullptr) return std::nullopt;

  Zip64 zip64;
  if (!readExtraFields(bytes + Local::size + nameLength, extraLength, &zip64)) return std::nullopt;
  // A field too short for both sizes is out of the ordinary here.
  if (zip64.isThere && zip64.count < 2) return std::nullopt;

  LocalHeaderAtHand header;
  header.name = textAt(bytes + Local::size, nameLength);
  header.fields.dataAt = start + signatureSize + Local::size + nameLength + extraLength;
  header.fields.length = zip64.isThere ? zip64.values[1] : value32(bytes + Local::compressedSize);
  // No stream can be moved behind data that ends beyond that.
  if (header.fields.length > INT64_MAX - header.fields.dataAt) return std::nullopt;
  header.fields.uncompressedLength =
      zip64.isThere ? zip64.values[0] : value32(bytes + Local::uncompressedSize);
  header.fields.crc32 = value32(bytes + Local::crc32);
  header.fields.flags = value16(bytes + Local::flags);
  header.fields.modTime = value16(bytes + Local::modTime);
  header.fields.modDate = value16(bytes + Local::modDate);
  return header;
}

std::optional<CentralHeaderAtHand> centralHeaderAtHand(const KQ::NSInputStream& stream) {
  const std::uint8_t* const bytes = atHand(stream, Central::size);
  if (bytes == nullptr || value16(bytes + Central::compression) != stored) return std::nullopt;
  const std::size_t nameLength = value16(bytes + Central::nameLength);
  const std::size_t extraLength = value16(bytes + Central::extraLength);
  const std::size_t commentLength = value16(bytes + Central::commentLength);
  const std::size_t size = Central::size + nameLength + extraLength + commentLength;
  if (atHand(stream, size) == nullptr) return std::nullopt;

  Zip64 zip64;
  if (!readExtraFields(bytes + Central::size + nameLength, extraLength, &zip64)) return std::nullopt;

  CentralHeaderAtHand header;
  header.name = textAt(bytes + Central::size, nameLength);
  header.fields.versionMadeBy = value16(bytes + Central::versionMadeBy);
  header.fields.crc32 = value32(bytes + Central::crc32);
  header.fields.compressedSize = value32(bytes + Central::compressedSize);
  header.fields.uncompressedSize = value32(bytes + Central::uncompressedSize);
  header.fields.externalFileAttributes = value32(bytes + Central::externalFileAttributes);
  header.fields.offsetOfLocalHeader = value32(bytes + Central::offsetOfLocalHeader);
  header.fields.zip64Values = zip64.values;
  header.fields.numberOfZip64Values = zip64.count;
  header.size = signatureSize + size;
  return header;
}

std::optional<std::uint64_t> sizeOfCentralHeaderAtHand(const KQ::NSInputStream& stream) {
  const std::uint8_t* const bytes = atHand(stream, Central::lengthsEnd);
  if (bytes == nullptr) return std::nullopt;
  return signatureSize + Central::size + value16(bytes + Central::nameLength) +
         value16(bytes + Central::extraLength) + value16(bytes + Central::commentLength);
}

}  // namespace Tool
