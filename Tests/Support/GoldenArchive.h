#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Support/Bytes.h"

namespace KQTest {

/// Length of a Zip64 extended information field with its header.
inline constexpr std::uint64_t zip64FieldLength = 28;

/// Length of the three records that close every archive.
inline constexpr std::uint64_t endRecordsLength = 56 + 20 + 22;

/// The MS-DOS time of a time of day.
constexpr std::uint16_t dosTime(unsigned hour, unsigned minute, unsigned second) {
  return static_cast<std::uint16_t>(hour * 2048 + minute * 32 + second / 2);
}

/// The MS-DOS date of a day between 1980 and 2107.
constexpr std::uint16_t dosDate(unsigned year, unsigned month, unsigned day) {
  return static_cast<std::uint16_t>((year - 1980) * 512 + month * 32 + day);
}

/// What an archive is expected to hold for one entry. Local and central header have values of their own,
/// because a source file may change between them.
struct GoldenEntry {
  GoldenEntry() = default;

  /// An entry whose two headers agree with its data.
  GoldenEntry(std::string entryName, std::string entryData, std::uint16_t time, std::uint16_t date);

  std::string name;
  std::string data;  ///< The bytes that follow the local header.
  std::uint32_t crc = 0;
  std::uint64_t localSize = 0;
  std::uint16_t localTime = 0;
  std::uint16_t localDate = 0;
  std::uint64_t centralSize = 0;
  std::uint16_t centralTime = 0;
  std::uint16_t centralDate = 0;
};

/// The local header of an entry at `offset`, without its data.
std::string goldenLocalHeader(const GoldenEntry& entry, std::uint64_t offset);

/// The central header of an entry whose local header stands at `offset`.
std::string goldenCentralHeader(const GoldenEntry& entry, std::uint64_t offset);

/// The three records at the end of an archive with `count` entries, whose directory starts at
/// `startOfDirectory` and has `lengthOfHeaders` bytes of central headers.
std::string goldenEndRecords(std::uint64_t count, std::uint64_t startOfDirectory,
                             std::uint64_t lengthOfHeaders);

/// A whole archive with the entries in the given order, its first byte at `startOffset`.
std::string goldenArchive(const std::vector<GoldenEntry>& entries, std::uint64_t startOffset = 0);

/// Fails the test when the bytes differ, showing where. Long strings are not printed whole.
void expectSameBytes(const std::string& expected, const std::string& actual, const std::string& what = {});

}  // namespace KQTest
