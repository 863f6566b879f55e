#pragma once

#include <KQZip/KQZip.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "CentralRecord.h"

namespace Tool {

// Headers decoded in one piece from the bytes that a stream has at hand, right behind their signature. A scan
// over many small entries does little else than read headers, and nearly all of them are alike: stored, with
// extra fields that fill their area. Where a header is not of that kind, or not at hand to its end, there is
// no result: its class then reads it, and says what is wrong with it. The stream stays where it is.

/// What the commands need of a local header.
struct LocalFields {
  std::uint64_t dataAt = 0;              ///< Offset of the data's first byte.
  std::uint64_t length = 0;              ///< Bytes of data.
  std::uint64_t uncompressedLength = 0;  ///< What the header says the length is once the data is unpacked.
  std::uint32_t crc32 = 0;               ///< CRC-32 of the data.
  std::uint16_t flags = 0;               ///< General purpose flags.
  std::uint16_t modTime = 0;             ///< Time of the last change.
  std::uint16_t modDate = 0;             ///< Date of the last change.
};

/// A local header.
struct LocalHeaderAtHand {
  std::string_view name;  ///< As stored, in the stream's own memory.
  LocalFields fields;     ///< The rest of it.
};

/// The local header that starts at the offset `start`.
std::optional<LocalHeaderAtHand> localHeaderAtHand(const KQ::NSInputStream& stream, std::uint64_t start);

/// A central header.
struct CentralHeaderAtHand {
  CentralRecord record;    ///< The name is in the stream's own memory.
  std::uint64_t size = 0;  ///< Bytes that the header takes, from its signature on.
};

/// The central header in front of which the stream stands.
std::optional<CentralHeaderAtHand> centralHeaderAtHand(const KQ::NSInputStream& stream);

/// Bytes that this central header takes, from its signature on. Its fixed part has to be at hand.
std::optional<std::uint64_t> sizeOfCentralHeaderAtHand(const KQ::NSInputStream& stream);

}  // namespace Tool
