#include "NSCalendar.h"

#include <ctime>
#include <mutex>

#include "Internal/NSSystem.h"

namespace KQ {

// The C library locks the time zone itself, which a thread checker cannot see.
static std::mutex timeZoneLock;

NSDateComponents NSCalendar::componentsFromDate(NSDate date) {
  const std::time_t seconds = std::chrono::floor<std::chrono::seconds>(date).time_since_epoch().count();
  std::tm parts{};
  NSSystem::current().localTime(seconds, &parts);
  return {parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec};
}

NSDate NSCalendar::dateFromComponents(const NSDateComponents& components) {
  std::tm parts{};
  parts.tm_year = components.year - 1900;
  parts.tm_mon = components.month - 1;
  parts.tm_mday = components.day;
  parts.tm_hour = components.hour;
  parts.tm_min = components.minute;
  parts.tm_sec = components.second;
  parts.tm_isdst = -1;
  const std::lock_guard<std::mutex> guard(timeZoneLock);
  return std::chrono::system_clock::from_time_t(NSSystem::current().secondsOfLocalTime(&parts));
}

}  // namespace KQ
