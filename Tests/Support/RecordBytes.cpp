#include "Support/RecordBytes.h"

#include "Support/Bytes.h"

namespace KQTest {

std::string extraFieldBytes(std::uint16_t identifier, const std::string& data,
                            std::optional<std::uint16_t> declaredSize) {
  return Bytes().u16(identifier).u16(declaredSize ? *declaredSize : data.size()).text(data);
}

std::string zip64FieldBytes(std::uint64_t uncompressedSize, std::uint64_t compressedSize,
                            std::uint64_t offsetOfLocalHeader) {
  return extraFieldBytes(1, Bytes().u64(uncompressedSize).u64(compressedSize).u64(offsetOfLocalHeader));
}

std::string LocalHeaderFields::bytes() const {
  return Bytes()
      .u32(0x04034b50)
      .u16(versionNeeded)
      .u16(flags)
      .u16(compression)
      .u16(modTime)
      .u16(modDate)
      .u32(crc32)
      .u32(compressedSize)
      .u32(uncompressedSize)
      .u16(nameLength ? *nameLength : name.size())
      .u16(extraLength ? *extraLength : extra.size())
      .text(name)
      .text(extra);
}

std::string CentralHeaderFields::bytes() const {
  return Bytes()
      .u32(0x02014b50)
      .u16(versionMadeBy)
      .u16(versionNeeded)
      .u16(flags)
      .u16(compression)
      .u16(modTime)
      .u16(modDate)
      .u32(crc32)
      .u32(compressedSize)
      .u32(uncompressedSize)
      .u16(nameLength ? *nameLength : name.size())
      .u16(extraLength ? *extraLength : extra.size())
      .u16(commentLength ? *commentLength : comment.size())
      .u16(diskNumberStart)
      .u16(internalFileAttributes)
      .u32(externalFileAttributes)
      .u32(offsetOfLocalHeader)
      .text(name)
      .text(extra)
      .text(comment);
}

std::string EndRecords::zip64Record() const {
  return Bytes()
      .u32(0x06064b50)
      .u64(44)
      .u16(0x031E)
      .u16(45)
      .u32(0)
      .u32(0)
      .u64(count)
      .u64(count)
      .u64(size)
      .u64(start);
}

std::string EndRecords::locator() const { return Bytes().u32(0x07064b50).u32(0).u64(zip64Start).u32(1); }

std::string EndRecords::classicRecord() const {
  return Bytes()
      .u32(0x06054b50)
      .u16(0)
      .u16(0)
      .u16(count)
      .u16(count)
      .u32(clampedTo32Bits(size))
      .u32(clampedTo32Bits(start))
      .u16(comment.size())
      .text(comment);
}

std::uint32_t clampedTo32Bits(std::uint64_t value) {
  return value < 0xFFFFFFFF ? static_cast<std::uint32_t>(value) : 0xFFFFFFFF;
}

}  // namespace KQTest
