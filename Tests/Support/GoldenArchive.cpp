#include "Support/GoldenArchive.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>

#include "Support/Bytes.h"

namespace KQTest {

namespace {

const std::uint64_t saturated = 0xFFFFFFFF;

std::uint64_t clampedTo32Bits(std::uint64_t value) { return value < saturated ? value : saturated; }

std::string zip64Field(std::uint64_t size, std::uint64_t offset) {
  return Bytes().u16(1).u16(24).u64(size).u64(size).u64(offset).string();
}

}  // namespace

std::uint32_t crcOf(const std::string& bytes) {
  return static_cast<std::uint32_t>(
      ::crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

GoldenEntry::GoldenEntry(std::string entryName, std::string entryData, std::uint16_t time, std::uint16_t date)
    : name(std::move(entryName)),
      data(std::move(entryData)),
      crc(crcOf(data)),
      localSize(data.size()),
      localTime(time),
      localDate(date),
      centralSize(data.size()),
      centralTime(time),
      centralDate(date) {}

std::string goldenLocalHeader(const GoldenEntry& entry, std::uint64_t offset) {
  return Bytes()
      .text("PK\x03\x04")
      .u16(45)
      .u16(0)
      .u16(0)
      .u16(entry.localTime)
      .u16(entry.localDate)
      .u32(entry.crc)
      .u32(saturated)
      .u32(saturated)
      .u16(entry.name.size())
      .u16(zip64FieldLength)
      .text(entry.name)
      .text(zip64Field(entry.localSize, offset))
      .string();
}

std::string goldenCentralHeader(const GoldenEntry& entry, std::uint64_t offset) {
  return Bytes()
      .text("PK\x01\x02")
      .u16(0x031E)
      .u16(45)
      .u16(0)
      .u16(0)
      .u16(entry.centralTime)
      .u16(entry.centralDate)
      .u32(entry.crc)
      .u32(saturated)
      .u32(saturated)
      .u16(entry.name.size())
      .u16(zip64FieldLength)
      .u16(0)
      .u16(0)
      .u16(0)
      .u32(0)
      .u32(clampedTo32Bits(offset))
      .text(entry.name)
      .text(zip64Field(entry.centralSize, offset))
      .string();
}

std::string goldenEndRecords(std::uint64_t count, std::uint64_t startOfDirectory,
                             std::uint64_t lengthOfHeaders) {
  // The directory's size counts the end records too.
  const std::uint64_t size = lengthOfHeaders + endRecordsLength;
  Bytes zip64Record;
  zip64Record.text("PK\x06\x06").u64(44).u16(0x031E).u16(45).u32(0).u32(0);
  zip64Record.u64(count).u64(count).u64(size).u64(startOfDirectory);
  Bytes locator;
  locator.text("PK\x06\x07").u32(0).u64(startOfDirectory + lengthOfHeaders).u32(1);
  Bytes classicRecord;
  classicRecord.text("PK\x05\x06").u16(0).u16(0).u16(count).u16(count);
  classicRecord.u32(clampedTo32Bits(size)).u32(clampedTo32Bits(startOfDirectory)).u16(0);
  return zip64Record.string() + locator.string() + classicRecord.string();
}

std::string goldenArchive(const std::vector<GoldenEntry>& entries, std::uint64_t startOffset) {
  std::string archive;
  std::string headers;
  for (const GoldenEntry& entry : entries) {
    const std::uint64_t offset = startOffset + archive.size();
    archive += goldenLocalHeader(entry, offset);
    archive += entry.data;
    headers += goldenCentralHeader(entry, offset);
  }
  const std::uint64_t startOfDirectory = startOffset + archive.size();
  return archive + headers + goldenEndRecords(entries.size(), startOfDirectory, headers.size());
}

void expectSameBytes(const std::string& expected, const std::string& actual, const std::string& what) {
  if (expected == actual) return;
  const auto difference = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end()).first;
  const auto position = static_cast<std::size_t>(difference - expected.begin());
  const std::size_t from = position < 32 ? 0 : position - 32;
  const auto part = [from](const std::string& bytes) {
    return from < bytes.size() ? hex(bytes.substr(from, 96)) : std::string();
  };
  ADD_FAILURE() << what << (what.empty() ? "" : ": ") << "the bytes differ from byte " << position
                << " on; expected " << expected.size() << " bytes, got " << actual.size()
                << "\nexpected from byte " << from << ": " << part(expected) << "\nactual   from byte "
                << from << ": " << part(actual);
}

}  // namespace KQTest
