#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "../Platform/NSError.h"
#include "../Platform/NSStream.h"

// Names and comments as records hold them: UTF-8 without a terminator after a 16-bit length.

/// A text that records share; null for an absent one.
using KQZipText = std::shared_ptr<const std::string>;

/// Reads `length` bytes of text. Text that is not valid UTF-8 becomes absent, which is a success. Bytes that
/// the stream does not deliver are zeros. `*text` is as before when the read fails, as KQZipReadBlockBytes()
/// does.
bool KQZipReadTextBlock(KQ::NSInputStream& stream, std::uint16_t length, KQZipText* text,
                        KQ::NSErrorSlot error);

/// The bytes of `text`; none for an absent one.
inline std::string_view KQZipBytesOf(const KQZipText& text) {
  return text ? std::string_view(*text) : std::string_view();
}

/// The length of `text` in bytes, cut to the 16 bits of a length field.
inline std::uint16_t KQZipTextLength(const KQZipText& text) {
  return static_cast<std::uint16_t>(KQZipBytesOf(text).size());
}
