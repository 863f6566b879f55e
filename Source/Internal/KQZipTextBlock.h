#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "../Platform/NSError.h"
#include "../Platform/NSStream.h"

// Names and comments in records: UTF-8 without a terminator, after a 16-bit length.

/// A text that records share; null for an absent one.
using KQZipText = std::shared_ptr<const std::string>;

/// Reads `length` bytes of text. Text that is not valid UTF-8 becomes absent; that is a success. Bytes that
/// the stream does not deliver are zeros. Fails as KQZipReadBlockBytes() does, with `*text` unchanged.
bool KQZipReadTextBlock(KQ::NSInputStream& stream, std::uint16_t length, KQZipText* text,
                        KQ::NSErrorSlot error);

/// The bytes of `text`; none for an absent one.
inline std::string_view KQZipBytesOf(const KQZipText& text) {
  return text ? std::string_view(*text) : std::string_view();
}

/// The length of `text` in bytes, truncated to the 16 bits of a length field.
inline std::uint16_t KQZipTextLength(const KQZipText& text) {
  return static_cast<std::uint16_t>(KQZipBytesOf(text).size());
}
