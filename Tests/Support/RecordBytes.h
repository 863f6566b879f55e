#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace KQTest {

/// An extra field's bytes: id, size, data. `declaredSize` stands for the size when it is to be wrong.
std::string extraFieldBytes(std::uint16_t identifier, const std::string& data,
                            std::optional<std::uint16_t> declaredSize = {});

/// The bytes of a Zip64 field with the two sizes and the local header's offset.
std::string zip64FieldBytes(std::uint64_t uncompressedSize, std::uint64_t compressedSize,
                            std::uint64_t offsetOfLocalHeader = 0);

/// The fields of a local header on disk.
struct LocalHeaderFields {
  std::uint16_t versionNeeded = 45;
  std::uint16_t flags = 0;
  std::uint16_t compression = 0;
  std::uint16_t modTime = 0;
  std::uint16_t modDate = 0;
  std::uint32_t crc32 = 0;
  std::uint32_t compressedSize = 0xFFFFFFFF;
  std::uint32_t uncompressedSize = 0xFFFFFFFF;
  std::optional<std::uint16_t> nameLength = std::nullopt;   ///< Unless it is the length of `name`.
  std::optional<std::uint16_t> extraLength = std::nullopt;  ///< Unless it is the length of `extra`.
  std::string name = {};
  std::string extra = {};

  /// The record with its signature.
  std::string bytes() const;
};

/// The fields of a central directory file header on disk.
struct CentralHeaderFields {
  std::uint16_t versionMadeBy = 0x031E;
  std::uint16_t versionNeeded = 45;
  std::uint16_t flags = 0;
  std::uint16_t compression = 0;
  std::uint16_t modTime = 0;
  std::uint16_t modDate = 0;
  std::uint32_t crc32 = 0;
  std::uint32_t compressedSize = 0xFFFFFFFF;
  std::uint32_t uncompressedSize = 0xFFFFFFFF;
  std::optional<std::uint16_t> nameLength = std::nullopt;     ///< Unless it is the length of `name`.
  std::optional<std::uint16_t> extraLength = std::nullopt;    ///< Unless it is the length of `extra`.
  std::optional<std::uint16_t> commentLength = std::nullopt;  ///< Unless it is the length of `comment`.
  std::uint16_t diskNumberStart = 0;
  std::uint16_t internalFileAttributes = 0;
  std::uint32_t externalFileAttributes = 0;
  std::uint32_t offsetOfLocalHeader = 0;
  std::string name = {};
  std::string extra = {};
  std::string comment = {};

  /// The record with its signature.
  std::string bytes() const;
};

/// The three records that close a directory.
struct EndRecords {
  std::uint64_t count = 0;
  std::uint64_t size = 98;
  std::uint64_t start = 0;       ///< Of the directory.
  std::uint64_t zip64Start = 0;  ///< Of the Zip64 end record.
  std::string comment = {};

  std::string zip64Record() const;
  std::string locator() const;
  std::string classicRecord() const;
  /// The three, in this order.
  std::string bytes() const { return zip64Record() + locator() + classicRecord(); }
};

/// A number in a field of 32 bits, which is full where a Zip64 field has the number.
std::uint32_t clampedTo32Bits(std::uint64_t value);

}  // namespace KQTest
