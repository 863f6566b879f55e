#pragma once

#include <KQZip/KQZip.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Support/Bytes.h"
#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/RecordBytes.h"
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

/// A field with these contents.
inline std::shared_ptr<KQZipExtraField> fieldWith(std::uint16_t signature, const std::string& data) {
  auto field = std::make_shared<KQZipExtraField>();
  field->setFieldSignature(signature);
  field->setFieldData(dataOf(data));
  return field;
}

/// A Zip64 field with these values.
inline std::shared_ptr<KQZipExtraFieldZip64ExtendedInfo> zip64With(std::uint64_t uncompressed,
                                                                   std::uint64_t compressed,
                                                                   std::uint64_t offset) {
  auto field = std::make_shared<KQZipExtraFieldZip64ExtendedInfo>();
  field->setUncompressedSize(uncompressed);
  field->setCompressedSize(compressed);
  field->setOffsetOfLocalHeaderRecord(offset);
  return field;
}

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
