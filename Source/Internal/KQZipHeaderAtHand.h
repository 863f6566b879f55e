#pragma once

#include <cstdint>
#include <optional>

#include "../KQZipExtraField.h"
#include "../Platform/Internal/NSBufferedStreams.h"
#include "KQZipHeaderCodec.h"

/// Decodes the header after whose signature `stream` stands from the bytes that the stream has at hand; it
/// stays where it is, and the parts are valid until it is next used. False when it does not have the whole
/// header at hand, as a host's stream never has.
template <class Fields>
[[nodiscard]] bool KQZipHeaderAtHand(const KQ::NSInputStream& stream, Fields* header,
                                     KQZipHeaderParts* parts) {
  constexpr std::size_t fixedSize = Fields::size - KQZipSignatureSize;
  const auto* const buffered = KQ::NSBufferedInputStream::of(stream);
  const std::uint8_t* bytes = buffered != nullptr ? buffered->bytesAtHand(fixedSize) : nullptr;
  if (bytes == nullptr || !KQZipDecodeAfterSignature({bytes, fixedSize}, header)) return false;
  const std::uint64_t size = header->wholeSize() - KQZipSignatureSize;
  bytes = buffered->bytesAtHand(size);
  return bytes != nullptr && KQZipFindParts(*header, KQZipBytes(bytes, size).subspan(fixedSize), parts);
}

/// A header that needs no class to be read: its entry is stored, its extra fields fill their area, and all of
/// it is at hand. It is valid until the stream is next used.
template <class Fields>
struct KQZipOrdinaryHeader {
  Fields fields;                    ///< The fixed part.
  KQZipHeaderParts parts;           ///< The name and what follows it.
  std::optional<KQZipBytes> zip64;  ///< The data of the first Zip64 field.
  std::uint64_t offset = 0;  ///< The stream's offset, which is that of the first byte after the signature.
};

/// Decodes the header after whose signature `stream` stands, in the place of its class, which would find the
/// same and fail nowhere. The stream stays where it is. False for a header that is not ordinary, which its
/// class reads then, and once a host has registered extra fields of its own, whose classes expect to be
/// asked.
template <class Fields>
[[nodiscard]] bool KQZipOrdinaryHeaderAtHand(const KQ::NSInputStream& stream,
                                             KQZipOrdinaryHeader<Fields>* header) {
  if (KQZipExtraField::subclasses().size() != 1 ||
      !KQZipHeaderAtHand(stream, &header->fields, &header->parts) || header->fields.compression != 0 ||
      !KQZipFindZip64(header->parts.extraFields, &header->zip64))
    return false;
  // Without an offset the class reads extra fields in a way of its own.
  const auto offset = stream.NSStreamFileCurrentOffsetKey();
  header->offset = offset.value_or(0);
  return offset.has_value();
}
