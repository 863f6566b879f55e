#include "KQZipTimeFields.h"

#include <algorithm>
#include <chrono>

#include "../Platform/NSCalendar.h"
#include "KQZipLittleEndian.h"

namespace {

constexpr std::size_t fieldHeaderSize = 4;

// 0x5455: flags that say which times follow, and the modification time.
constexpr std::uint16_t extendedTimestamp = 0x5455;
constexpr std::uint16_t sizeOfTimestamp = 5;
constexpr std::uint8_t hasModificationTime = 1;

// 0x000A: four reserved bytes, then a tagged block with the times of modification, access and creation.
constexpr std::uint16_t ntfsField = 0x000A;
constexpr std::uint16_t sizeOfTimes = 3 * 8;
constexpr std::uint16_t sizeOfNTFSField = 4 + 4 + sizeOfTimes;
constexpr std::uint16_t tagOfTimes = 1;
constexpr std::int64_t from1601To1970 = 11644473600;
constexpr std::int64_t ticksInSecond = 10000000;

bool isTimestamp(std::int64_t seconds) { return seconds >= INT32_MIN && seconds <= INT32_MAX; }

bool isNTFSTime(std::int64_t seconds) {
  return seconds >= -from1601To1970 && seconds <= INT64_MAX / ticksInSecond - from1601To1970;
}

KQ::NSDateComponents componentsOf(std::int64_t seconds) {
  // What the clock cannot hold becomes its first or last second, as NSFileManager has it.
  using std::chrono::floor;
  const auto earliest = floor<std::chrono::seconds>(KQ::NSDate::min()).time_since_epoch().count();
  const auto latest = floor<std::chrono::seconds>(KQ::NSDate::max()).time_since_epoch().count();
  if (seconds <= earliest) return KQ::NSCalendar::componentsFromDate(KQ::NSDate::min());
  return KQ::NSCalendar::componentsFromDate(KQ::NSDate(std::chrono::seconds(std::min(seconds, latest))));
}

KQZipDOSTime dosTimeOf(const KQ::NSDateComponents& parts) {
  return {static_cast<std::uint16_t>(parts.day | parts.month << 5 | ((parts.year << 9) - 0x7800)),
          static_cast<std::uint16_t>(parts.second >> 1 | parts.minute << 5 | parts.hour << 11)};
}

}  // namespace

KQZipDOSTime KQZipDOSTime::wrapped(std::int64_t secondsSince1970) {
  return dosTimeOf(componentsOf(secondsSince1970));
}

KQZipDOSTime KQZipDOSTime::clamped(std::int64_t secondsSince1970) {
  const KQ::NSDateComponents parts = componentsOf(secondsSince1970);
  if (parts.year < 1980) return dosTimeOf({1980, 1, 1, 0, 0, 0});
  if (parts.year > 2107) return dosTimeOf({2107, 12, 31, 23, 59, 59});
  return dosTimeOf(parts);
}

std::size_t KQZipTimeField::size() const {
  if (isTimestamp(seconds_)) return fieldHeaderSize + sizeOfTimestamp;
  return isNTFSTime(seconds_) ? fieldHeaderSize + sizeOfNTFSField : 0;
}

void KQZipTimeField::encode(std::uint8_t* room) const {
  if (isTimestamp(seconds_)) {
    KQZipStore(extendedTimestamp, room);
    KQZipStore(sizeOfTimestamp, room + 2);
    room[4] = hasModificationTime;
    KQZipStore(static_cast<std::uint32_t>(seconds_), room + 5);
  } else if (isNTFSTime(seconds_)) {
    KQZipStore(ntfsField, room);
    KQZipStore(sizeOfNTFSField, room + 2);
    KQZipStore(std::uint32_t{0}, room + 4);
    KQZipStore(tagOfTimes, room + 8);
    KQZipStore(sizeOfTimes, room + 10);
    const auto ticks = static_cast<std::uint64_t>((seconds_ + from1601To1970) * ticksInSecond);
    for (const std::size_t at : {12U, 20U, 28U}) KQZipStore(ticks, room + at);
  }
}
