#pragma once

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
