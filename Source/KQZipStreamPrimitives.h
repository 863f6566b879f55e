#pragma once

#include <cstdint>

#include "Platform/KQExport.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

/// @file
/// The eight functions with which records read and write their fields. Integers are little-endian on the
/// stream, on any host. Each function makes exactly one read or write call with the full count. It does not
/// complete a partial transfer: at least one byte is a success. The functions have no state; one thread uses
/// a stream at a time.
///
/// A read fails silently at the end of the stream: no error, no log line. On an error of the stream it logs
/// "stream reading failed: %@", and replaces an error that is *already* in the slot with code -50 "Error
/// reading file". An empty slot stays empty. The test of the slot's contents is by design: it is how a reader
/// recognises an archive that ends early (no error). A missing slot counts as an empty one.
///
/// A write fails silently when the stream accepts nothing. On an error of the stream it stores code -51
/// "Error writing file" in the slot, if there is one, and logs "stream writing failed: %@".

/// Reads `length` bytes into `destination`. A length of 0 succeeds without using the stream. After a short
/// read the rest of `destination` is unchanged.
KQZIP_EXPORT bool KQZipReadBlockBytes(KQ::NSInputStream& stream, void* destination, std::uint64_t length,
                                      KQ::NSErrorSlot error = nullptr);

/// Reads a 16-bit value. After a short read the high byte of `*destination` is unchanged.
KQZIP_EXPORT bool KQZipReadBlock16(KQ::NSInputStream& stream, std::uint16_t* destination,
                                   KQ::NSErrorSlot error = nullptr);

/// Reads a 32-bit value. After a short read the high bytes of `*destination` are unchanged.
KQZIP_EXPORT bool KQZipReadBlock32(KQ::NSInputStream& stream, std::uint32_t* destination,
                                   KQ::NSErrorSlot error = nullptr);

/// Reads a 64-bit value. After a short read the high bytes of `*destination` are unchanged.
KQZIP_EXPORT bool KQZipReadBlock64(KQ::NSInputStream& stream, std::uint64_t* destination,
                                   KQ::NSErrorSlot error = nullptr);

/// Writes `length` bytes from `source`. A length of 0 succeeds without using the stream.
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
