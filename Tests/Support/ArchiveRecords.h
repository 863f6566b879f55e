#pragma once

#include <KQZip/KQZip.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Support/RecordBytes.h"

namespace KQTest {

/// A local record laid out by hand, without the library's own code. Every member may be set to what no honest
/// program would write.
struct LocalRecord {
  std::string name;
  std::string data;
  std::string extra;  ///< The bytes of all extra fields.
  std::uint16_t flags = 0;
  std::uint16_t compression = 0;
  std::uint16_t modTime = 0x645C;            ///< 12:34:56
  std::uint16_t modDate = 0x50CF;            ///< 15 June 2020
  std::optional<std::uint32_t> size;         ///< Both 32-bit sizes; the data's length unless set.
  std::optional<std::uint16_t> nameLength;   ///< The name's length unless set.
  std::optional<std::uint16_t> extraLength;  ///< The length of `extra` unless set.

  /// The header: 30 bytes, the name, the extra fields.
  std::string header() const;
  /// The header and the data.
  std::string bytes() const { return header() + data; }
};

/// An honest record without extra fields, its sizes in the 32-bit fields.
LocalRecord plainRecord(const std::string& name, const std::string& data);

/// A record as the library itself writes it: saturated 32-bit sizes and a Zip64 field with the real ones.
LocalRecord zip64Record(const std::string& name, const std::string& data, std::uint64_t offset = 0);

/// A central header for `record`, whose local header stands at `offset`.
std::string centralHeaderBytes(const LocalRecord& record, std::uint32_t offset = 0,
                               std::uint16_t compression = 0);

/// A classic end record.
std::string endRecordBytes(std::uint16_t entries = 0, std::uint32_t size = 0, std::uint32_t offset = 0);

/// A whole archive: the records, a central header for each, a classic end record.
std::string archiveBytes(const std::vector<LocalRecord>& records);

/// Writes an archive of these records and one of `length` zeros, which take no room on the disk and long to
/// be read. The CRC-32 of the zeros is wrong.
void writeSparseArchive(const std::string& path, const std::vector<LocalRecord>& before,
                        const std::string& name, std::uint64_t length);

/// The bytes of a buffer, nothing for no buffer.
std::optional<std::string> bytesOf(const std::shared_ptr<const KQ::NSData>& data);

/// Up to `length` bytes read from `stream`, less only where it ends or fails.
std::string readFrom(KQ::NSInputStream& stream, std::uint64_t length);

/// A date's fields in local time, as "2020-06-15 12:34:56".
std::string localTime(KQ::NSDate date);

}  // namespace KQTest
