#pragma once

#include <cstdint>

#include "Platform/KQExport.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

/// @file
/// The eight functions by which records move their fields. Integers are little-endian on the stream,
/// whatever the host. Each function makes exactly one read or write call with the full count and never loops
/// to complete a partial transfer, so a transfer of at least one byte is a success. They keep no state; a
/// stream is used by one thread at a time.
///
/// Reading fails silently at the end of the stream: no error, no log line. On an error of the stream the
/// line "stream reading failed: %@" is logged, and an error that *already stands* in the slot is replaced by
/// code -50 "Error reading file"; an empty slot stays empty. Testing the slot's contents is meant: it is how
/// a reader tells an archive that ends early (no error) apart. Without a slot they act as with an empty one.
///
/// Writing fails silently when the stream takes nothing. On an error of the stream code -51 "Error writing
/// file" goes into the slot, if there is one, and the line "stream writing failed: %@" is logged.

/// Reads `length` bytes into `destination`. A length of 0 succeeds without touching the stream. After a
/// short read the rest of `destination` keeps what it held.
KQZIP_EXPORT bool KQZipReadBlockBytes(KQ::NSInputStream& stream, void* destination, std::uint64_t length,
                                      KQ::NSErrorSlot error = nullptr);

/// Reads a 16-bit value. After a short read the high byte of `*destination` keeps what it held.
KQZIP_EXPORT bool KQZipReadBlock16(KQ::NSInputStream& stream, std::uint16_t* destination,
                                   KQ::NSErrorSlot error = nullptr);

/// Reads a 32-bit value. After a short read the high bytes of `*destination` keep what they held.
KQZIP_EXPORT bool KQZipReadBlock32(KQ::NSInputStream& stream, std::uint32_t* destination,
                                   KQ::NSErrorSlot error = nullptr);

/// Reads a 64-bit value. After a short read the high bytes of `*destination` keep what they held.
KQZIP_EXPORT bool KQZipReadBlock64(KQ::NSInputStream& stream, std::uint64_t* destination,
                                   KQ::NSErrorSlot error = nullptr);

/// Writes `length` bytes from `source`. A length of 0 succeeds without touching the stream.
KQZIP_EXPORT bool KQZipWriteBlockBytes(KQ::NSOutputStream& stream, const void* source, std::uint64_t length,
                                       KQ::NSErrorSlot error = nullptr);

/// Writes a 16-bit value.
KQZIP_EXPORT bool KQZipWriteBlock16(KQ::NSOutputStream& stream, const std::uint16_t* value,
                                    KQ::NSErrorSlot error = nullptr);

/// Writes a 32-bit value.
KQZIP_EXPORT bool KQZipWriteBlock32(KQ::NSOutputStream& stream, const std::uint32_t* value,
                                    KQ::NSErrorSlot error = nullptr);

/// Writes a 64-bit value.
KQZIP_EXPORT bool KQZipWriteBlock64(KQ::NSOutputStream& stream, const std::uint64_t* value,
                                    KQ::NSErrorSlot error = nullptr);
