#pragma once

#include <KQZip/KQZip.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Support/Bytes.h"
#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/Records.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

namespace KQTest {

/// The block in which entry data is moved.
inline constexpr std::uint64_t mebibyte = 1048576;

/// Seconds since 1970 of a time in UTC.
inline long long utcSeconds(int year, unsigned month, unsigned day, int hour = 0, int minute = 0,
                            int second = 0) {
  const std::chrono::sys_days date =
      std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day);
  return std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count() + hour * 3600LL +
         minute * 60LL + second;
}

/// The date at a number of seconds since 1970.
inline KQ::NSDate dateAt(long long seconds) { return KQ::NSDate(std::chrono::seconds(seconds)); }

/// An extra field as it stands on disk.
inline std::string rawExtraField(std::uint16_t identifier, const std::string& data) {
  return Bytes().u16(identifier).u16(data.size()).text(data);
}

/// A Zip64 extended information field as it stands on disk.
inline std::string rawZip64Field(std::uint64_t uncompressedSize, std::uint64_t compressedSize,
                                 std::uint64_t offset) {
  return Bytes().u16(1).u16(24).u64(uncompressedSize).u64(compressedSize).u64(offset);
}

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
  std::string bytes() const {
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
        .u16(nameLength.value_or(static_cast<std::uint16_t>(name.size())))
        .u16(extraLength.value_or(static_cast<std::uint16_t>(extra.size())))
        .text(name)
        .text(extra);
  }
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
  std::string bytes() const {
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
        .u16(nameLength.value_or(static_cast<std::uint16_t>(name.size())))
        .u16(extraLength.value_or(static_cast<std::uint16_t>(extra.size())))
        .u16(commentLength.value_or(static_cast<std::uint16_t>(comment.size())))
        .u16(diskNumberStart)
        .u16(internalFileAttributes)
        .u32(externalFileAttributes)
        .u32(offsetOfLocalHeader)
        .text(name)
        .text(extra)
        .text(comment);
  }
};

/// A stream on a record's bytes that stands behind its signature, where a parse begins.
class StreamBehindSignature : public TestInputStream {
 public:
  explicit StreamBehindSignature(const std::string& bytes) : TestInputStream(bytes) { position = 4; }
};

/// A progress that is current on the thread while the object exists. It takes off whatever an operation left
/// current above it, so that no test sees what another one left behind.
class OuterProgress {
 public:
  OuterProgress() : progress_(KQ::NSProgress::progressWithTotalUnitCount(1)) {
    progress_->becomeCurrentWithPendingUnitCount(1);
  }
  ~OuterProgress() { progress_->resignCurrent(); }
  OuterProgress(const OuterProgress&) = delete;
  OuterProgress& operator=(const OuterProgress&) = delete;

  KQ::NSProgress* operator->() const { return progress_.get(); }

  /// Whether nothing was left current above it.
  bool isCurrent() const { return KQ::NSProgress::currentProgress() == progress_; }

 private:
  std::shared_ptr<KQ::NSProgress> progress_;
};

}  // namespace KQTest
