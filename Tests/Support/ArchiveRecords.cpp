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
  centrals += CentralHeaderFields{.versionNeeded = 10,
                                  .modTime = large.modTime,
                                  .modDate = large.modDate,
                                  .offsetOfLocalHeader = static_cast<std::uint32_t>(locals.size()),
                                  .name = name,
                                  .extra = extraFieldBytes(1, Bytes().u64(length).u64(length))}
                  .bytes();
  locals += large.header();
  const std::uint64_t start = locals.size() + length;
  EndRecords end{.count = before.size() + 1,
                 .size = centrals.size(),
                 .start = start,
                 .zip64Start = start + centrals.size()};
  const std::string zip64End = end.zip64Record() + end.locator();
  end.start = 0xFFFFFFFF;
  std::ofstream(path, std::ios::binary) << locals;
  std::filesystem::resize_file(path, start);
  std::ofstream(path, std::ios::binary | std::ios::app) << centrals << zip64End << end.classicRecord();
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
