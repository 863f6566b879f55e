#pragma once

#include <chrono>

#include "KQExport.h"

namespace KQ {

/// A point in time with all the precision of the file system.
using NSDate = std::chrono::system_clock::time_point;

/// The components of a date. Before a conversion to a date they may be out of range.
struct NSDateComponents {
  int year = 0;    ///< The year of the Gregorian calendar.
  int month = 0;   ///< 1 to 12.
  int day = 0;     ///< 1 to 31.
  int hour = 0;    ///< 0 to 23.
  int minute = 0;  ///< 0 to 59.
  int second = 0;  ///< 0 to 59.
};

/// The Gregorian calendar in local time, in the time zone of `TZ` or of the system. Any thread may call it.
/// No thread may change `TZ` during a call.
class KQZIP_EXPORT NSCalendar {
 public:
  /// The six components of `date`. Fractions of a second are dropped.
  static NSDateComponents componentsFromDate(NSDate date);

  /// The date with these components. One that is out of range carries over into the next larger unit: day 0
  /// is the last day of the previous month, month 13 the following January, second 62 two seconds into the
  /// next minute. For a time that occurs twice or not at all because of a daylight-saving change, the
  /// system's `mktime` decides. NSDate must be able to hold the date: years 1678 to 2261.
  static NSDate dateFromComponents(const NSDateComponents& components);
};

}  // namespace KQ
