#pragma once

#include <cstdint>

#include "../Platform/Internal/NSSharedString.h"
#include "../Platform/NSError.h"
#include "../Platform/NSStream.h"

// Names and comments as records hold them: UTF-8 without a terminator behind a 16-bit length. For the
// records' own use.

/// Reads `length` bytes of text. Text that is not valid UTF-8 becomes absent, which is a success. Bytes that
/// the stream ends before are zeros. `*text` is as before when the read fails, as KQZipReadBlockBytes() does.
bool KQZipReadTextBlock(KQ::NSInputStream& stream, std::uint16_t length, KQ::NSSharedString* text,
                        KQ::NSErrorSlot error);

/// The length of `text` in bytes, cut to the 16 bits of a length field.
inline std::uint16_t KQZipTextLength(const KQ::NSSharedString& text) {
  return static_cast<std::uint16_t>(text.view().size());
}
