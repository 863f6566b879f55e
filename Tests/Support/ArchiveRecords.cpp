#include "Support/ArchiveRecords.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "Support/Bytes.h"

namespace KQTest {

std::string LocalRecord::header() const {
  const std::uint32_t bothSizes = size ? *size : static_cast<std::uint32_t>(data.size());
  return LocalHeaderFields{.versionNeeded = 10,
                           .flags = flags,
                           .compression = compression,
                           .modTime = modTime,
                           .modDate = modDate,
                           .crc32 = crcOf(data),
                           .compressedSize = bothSizes,
                           .uncompressedSize = bothSizes,
                           .nameLength = nameLength,
                           .extraLength = extraLength,
                           .name = name,
                           .extra = extra}
      .bytes();
}

LocalRecord plainRecord(const std::string& name, const std::string& data) {
  LocalRecord record;
  record.name = name;
  record.data = data;
  return record;
}

LocalRecord zip64Record(const std::string& name, const std::string& data, std::uint64_t offset) {
  LocalRecord record = plainRecord(name, data);
  record.size = 0xFFFFFFFF;
  record.extra = zip64FieldBytes(data.size(), data.size(), offset);
  return record;
}

std::string centralHeaderBytes(const LocalRecord& record, std::uint32_t offset, std::uint16_t compression) {
  return CentralHeaderFields{.versionNeeded = 10,
                             .flags = record.flags,
                             .compression = compression,
                             .modTime = record.modTime,
                             .modDate = record.modDate,
                             .crc32 = crcOf(record.data),
                             .compressedSize = static_cast<std::uint32_t>(record.data.size()),
                             .uncompressedSize = static_cast<std::uint32_t>(record.data.size()),
                             .offsetOfLocalHeader = offset,
                             .name = record.name}
      .bytes();
}

std::string endRecordBytes(std::uint16_t entries, std::uint32_t size, std::uint32_t offset) {
  return EndRecords{.count = entries, .size = size, .start = offset}.classicRecord();
}

std::string archiveBytes(const std::vector<LocalRecord>& records) {
  std::string locals;
  std::string centrals;
  for (const LocalRecord& record : records) {
    centrals += centralHeaderBytes(record, static_cast<std::uint32_t>(locals.size()), record.compression);
    locals += record.bytes();
  }
  return locals + centrals +
         endRecordBytes(static_cast<std::uint16_t>(records.size()),
                        static_cast<std::uint32_t>(centrals.size()),
                        static_cast<std::uint32_t>(locals.size()));
}

void writeSparseArchive(const std::string& path, const std::vector<LocalRecord>& before,
                        const std::string& name, std::uint64_t length) {
  std::string locals;
  std::string centrals;
  for (const LocalRecord& record : before) {
    centrals += centralHeaderBytes(record, static_cast<std::uint32_t>(locals.size()));
    locals += record.bytes();
  }
  LocalRecord large = plainRecord(name, "");
  large.size = 0xFFFFFFFF;
  large.extra = zip64FieldBytes(length, length);
  std::string central = centralHeaderBytes(large, static_cast<std::uint32_t>(locals.size()));
  const std::string extra = extraFieldBytes(1, Bytes().u64(length).u64(length));
  central.replace(20, 8, std::string(8, '\xFF'));
  central[30] = static_cast<char>(extra.size());
  centrals += central + extra;
  locals += large.header();
  const std::uint64_t end = locals.size() + length;
  std::ofstream(path, std::ios::binary) << locals;
  std::filesystem::resize_file(path, end);
  std::ofstream(path, std::ios::binary | std::ios::app) << centrals
                                                        << Bytes()
                                                               .u32(0x06064B50)
                                                               .u64(44)
                                                               .u16(0x031E)
                                                               .u16(45)
                                                               .u32(0)
                                                               .u32(0)
                                                               .u64(before.size() + 1)
                                                               .u64(before.size() + 1)
                                                               .u64(centrals.size())
                                                               .u64(end)
                                                               .u32(0x07064B50)
                                                               .u32(0)
                                                               .u64(end + centrals.size())
                                                               .u32(1)
                                                               .string()
                                                        << Bytes()
                                                               .u32(0x06054B50)
                                                               .u32(0)
                                                               .u16(before.size() + 1)
                                                               .u16(before.size() + 1)
                                                               .u32(centrals.size())
                                                               .u32(0xFFFFFFFF)
                                                               .u16(0)
                                                               .string();
}

std::optional<std::string> bytesOf(const std::shared_ptr<const KQ::NSData>& data) {
  if (!data) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(data->bytes()), data->length());
}

std::string readFrom(KQ::NSInputStream& stream, std::uint64_t length) {
  std::string bytes(length, '\0');
  std::uint64_t filled = 0;
  while (filled < length) {
    const std::int64_t count =
        stream.read(reinterpret_cast<std::uint8_t*>(bytes.data()) + filled, length - filled);
    if (count <= 0) break;
    filled += static_cast<std::uint64_t>(count);
  }
  bytes.resize(filled);
  return bytes;
}

std::string localTime(KQ::NSDate date) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
  std::tm fields{};
  localtime_r(&seconds, &fields);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields);
  return text;
}

}  // namespace KQTest
