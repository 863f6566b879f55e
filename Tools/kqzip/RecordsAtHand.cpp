#include "RecordsAtHand.h"

#include <KQZip/Internal/KQZipHeaderAtHand.h>

namespace Tool {

static constexpr std::uint16_t stored = 0;

std::optional<LocalHeaderAtHand> localHeaderAtHand(const KQ::NSInputStream& stream, std::uint64_t start) {
  KQZipLocalHeaderFields fields;
  KQZipHeaderParts parts;
  std::optional<KQZipBytes> zip64;
  if (!KQZipHeaderAtHand(stream, &fields, &parts) || fields.compression != stored ||
      !KQZipFindZip64(parts.extraFields, &zip64))
    return std::nullopt;
  KQZipZip64Values sizes{fields.uncompressedSize, fields.compressedSize, 0};
  // A field too short for both sizes is out of the ordinary here.
  if (zip64 && zip64->size() < 2 * KQZipZip64Values::width) return std::nullopt;
  if (zip64) KQZipDecodeZip64InOrder(*zip64, &sizes);

  LocalHeaderAtHand header;
  header.name = parts.name;
  header.fields.dataAt = start + fields.wholeSize();
  header.fields.length = sizes.compressedSize;
  // No stream can be moved behind data that ends beyond that.
  if (header.fields.length > INT64_MAX - header.fields.dataAt) return std::nullopt;
  header.fields.uncompressedLength = sizes.uncompressedSize;
  header.fields.crc32 = fields.crc32;
  header.fields.flags = fields.flags;
  header.fields.modTime = fields.modTime;
  header.fields.modDate = fields.modDate;
  return header;
}

std::optional<CentralHeaderAtHand> centralHeaderAtHand(const KQ::NSInputStream& stream) {
  KQZipCentralHeaderFields fields;
  KQZipHeaderParts parts;
  std::optional<KQZipBytes> zip64;
  if (!KQZipHeaderAtHand(stream, &fields, &parts) || fields.compression != stored ||
      !KQZipFindZip64(parts.extraFields, &zip64))
    return std::nullopt;
  return CentralHeaderAtHand{centralRecord(fields, zip64.value_or(KQZipBytes()), parts.name),
                             fields.wholeSize()};
}

std::optional<std::uint64_t> sizeOfCentralHeaderAtHand(const KQ::NSInputStream& stream) {
  constexpr std::size_t needed = KQZipCentralHeaderFields::size - KQZipSignatureSize;
  const auto* const buffered = KQ::NSBufferedInputStream::of(stream);
  const std::uint8_t* const bytes = buffered != nullptr ? buffered->bytesAtHand(needed) : nullptr;
  KQZipCentralHeaderFields fields;
  if (bytes == nullptr || !KQZipDecodeAfterSignature({bytes, needed}, &fields)) return std::nullopt;
  return fields.wholeSize();
}

}  // namespace Tool
