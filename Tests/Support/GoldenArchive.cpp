#include "Support/GoldenArchive.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "Support/Bytes.h"
#include "Support/RecordBytes.h"

namespace KQTest {

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
  return LocalHeaderFields{.modTime = entry.localTime,
                           .modDate = entry.localDate,
                           .crc32 = entry.crc,
                           .name = entry.name,
                           .extra = zip64FieldBytes(entry.localSize, entry.localSize, offset)}
      .bytes();
}

std::string goldenCentralHeader(const GoldenEntry& entry, std::uint64_t offset) {
  return CentralHeaderFields{.modTime = entry.centralTime,
                             .modDate = entry.centralDate,
                             .crc32 = entry.crc,
                             .offsetOfLocalHeader = clampedTo32Bits(offset),
                             .name = entry.name,
                             .extra = zip64FieldBytes(entry.centralSize, entry.centralSize, offset)}
      .bytes();
}

std::string goldenEndRecords(std::uint64_t count, std::uint64_t startOfDirectory,
                             std::uint64_t lengthOfHeaders) {
  // The directory's size counts the end records too.
  return EndRecords{.count = count,
                    .size = lengthOfHeaders + endRecordsLength,
                    .start = startOfDirectory,
                    .zip64Start = startOfDirectory + lengthOfHeaders}
      .bytes();
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
