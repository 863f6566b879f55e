#pragma once

#include <chrono>

#include "KQExport.h"

namespace KQ {

/// A point in time with all the precision of the file system.
using NSDate = std::chrono::system_clock::time_point;

/// A date taken apart; the fields may hold impossible values on the way to a date.
struct NSDateComponents {
  int year = 0;    ///< The year of the Gregorian calendar.
  int month = 0;   ///< 1 to 12.
  int day = 0;     ///< 1 to 31.
  int hour = 0;    ///< 0 to 23.
  int minute = 0;  ///< 0 to 59.
  int second = 0;  ///< 0 to 59.
};

/// The Gregorian calendar in local time, the time zone that `TZ` or the system names. Any thread may call
/// it; changing `TZ` while another thread does is the caller's to avoid.
class KQZIP_EXPORT NSCalendar {
 public:
  /// The six components of `date`; parts of a second are cut off.
  static NSDateComponents componentsFromDate(NSDate date);

  /// The date with these components. Impossible ones carry over into the next larger unit: day 0 is the
  /// last day of the month before, month 13 the January after, second 62 two seconds into the next minute.
  /// Of a time that a daylight-saving change makes twice or skips, the system's `mktime` chooses the
  /// reading. The date must be one that NSDate can hold, of the years 1678 to 2261.
  static NSDate dateFromComponents(const NSDateComponents& components);
};

}  // namespace KQ
