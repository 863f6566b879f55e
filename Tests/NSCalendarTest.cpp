#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Support/Surroundings.h"

using KQ::NSCalendar;
using KQ::NSDate;
using KQ::NSDateComponents;
using KQTest::TimeZone;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::nanoseconds;
using std::chrono::seconds;

namespace {

std::string textOf(const NSDateComponents& c) {
  std::ostringstream text;
  text << c.year << '-' << c.month << '-' << c.day << ' ' << c.hour << ':' << c.minute << ':' << c.second;
  return text.str();
}

constexpr char utc[] = "UTC0";
constexpr char halfHourZone[] = "<+0530>-5:30";
constexpr char westOfGreenwich[] = "<-0330>3:30";
constexpr char centralEurope[] = "CET-1CEST,M3.5.0,M10.5.0/3";

// A date in universal time, made without the system's calendar.
NSDate universal(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  const auto days = std::chrono::sys_days(std::chrono::year(year) / month / 1) + std::chrono::days(day - 1);
  return days + hours(hour) + minutes(minute) + seconds(second);
}

std::int64_t secondsSince1970(NSDate date) {
  return std::chrono::duration_cast<seconds>(date.time_since_epoch()).count();
}

void expectDate(NSDate expected, const NSDateComponents& components) {
  EXPECT_EQ(secondsSince1970(expected), secondsSince1970(NSCalendar::dateFromComponents(components)))
      << textOf(components);
}

void expectComponents(const NSDateComponents& expected, NSDate date) {
  EXPECT_EQ(textOf(expected), textOf(NSCalendar::componentsFromDate(date))) << secondsSince1970(date);
}

}  // namespace

TEST(NSCalendar, TheEpochInUniversalTime) {
  const TimeZone zone(utc);
  expectComponents({1970, 1, 1, 0, 0, 0}, NSDate());
  EXPECT_EQ(NSDate(), NSCalendar::dateFromComponents({1970, 1, 1, 0, 0, 0}));
}

TEST(NSCalendar, KnownDatesInUniversalTime) {
  const TimeZone zone(utc);
  const std::vector<std::pair<NSDateComponents, NSDate>> dates{
      {{1979, 12, 31, 23, 59, 59}, universal(1979, 12, 31, 23, 59, 59)},
      {{1980, 1, 1, 0, 0, 0}, universal(1980, 1, 1)},
      {{2000, 2, 29, 12, 30, 15}, universal(2000, 2, 29, 12, 30, 15)},
      {{2001, 9, 9, 1, 46, 40}, NSDate(seconds(1000000000))},
      {{2038, 1, 19, 3, 14, 8}, NSDate(seconds(2147483648))},
      {{2099, 12, 31, 23, 59, 58}, universal(2099, 12, 31, 23, 59, 58)},
      {{2107, 12, 31, 23, 59, 58}, universal(2107, 12, 31, 23, 59, 58)},
      {{2108, 1, 1, 0, 0, 0}, universal(2108, 1, 1)},
      {{2262, 4, 11, 23, 47, 16}, NSDate(seconds(9223372036))},
  };
  for (const auto& [components, date] : dates) {
    expectComponents(components, date);
    expectDate(date, components);
  }
}

TEST(NSCalendar, DatesBefore1970) {
  const TimeZone zone(utc);
  expectComponents({1969, 12, 31, 23, 59, 59}, NSDate(seconds(-1)));
  expectComponents({1900, 3, 1, 0, 0, 0}, universal(1900, 3, 1));
  expectComponents({1677, 9, 21, 0, 12, 44}, NSDate(seconds(-9223372036)));
  expectDate(NSDate(seconds(-2)), {1969, 12, 31, 23, 59, 58});
  expectDate(universal(1904, 2, 29, 6), {1904, 2, 29, 6, 0, 0});
  expectDate(universal(1900, 3, 1), {1900, 2, 29, 0, 0, 0});
}

TEST(NSCalendar, TheSecondBefore1970IsADateLikeAnyOther) {
  const TimeZone zone(utc);
  // The system's call returns the same -1 for this date and for a failure.
  expectDate(NSDate(seconds(-1)), {1969, 12, 31, 23, 59, 59});
}

TEST(NSCalendar, PartsOfASecondAreCutOff) {
  const TimeZone zone(utc);
  const NSDate date = universal(2020, 5, 17, 10, 20, 30);
  expectComponents({2020, 5, 17, 10, 20, 30}, date + milliseconds(1));
  expectComponents({2020, 5, 17, 10, 20, 30}, date + milliseconds(999));
  expectComponents({2020, 5, 17, 10, 20, 30}, date + nanoseconds(999999999));
  expectComponents({2020, 5, 17, 10, 20, 29}, date - nanoseconds(1));
}

TEST(NSCalendar, PartsOfASecondBefore1970AreCutOffToo) {
  const TimeZone zone(utc);
  expectComponents({1969, 12, 31, 23, 59, 59}, NSDate() - nanoseconds(1));
  expectComponents({1969, 12, 31, 23, 59, 59}, NSDate() - milliseconds(500));
  expectComponents({1969, 12, 31, 23, 59, 59}, NSDate() - milliseconds(1000));
  expectComponents({1969, 12, 31, 23, 59, 58}, NSDate() - milliseconds(1001));
  expectComponents({1965, 6, 7, 8, 9, 10}, universal(1965, 6, 7, 8, 9, 10) + milliseconds(750));
}

TEST(NSCalendar, ADateMadeFromComponentsHasNoPartsOfASecond) {
  const TimeZone zone(halfHourZone);
  const NSDate date = NSCalendar::dateFromComponents({2021, 6, 5, 4, 3, 2});
  EXPECT_EQ(date, std::chrono::floor<seconds>(date));
}

TEST(NSCalendar, AZoneWithAHalfHourOffset) {
  const TimeZone zone(halfHourZone);
  expectComponents({1970, 1, 1, 5, 30, 0}, NSDate());
  expectComponents({2022, 1, 1, 0, 0, 0}, universal(2021, 12, 31, 18, 30));
  expectComponents({2021, 12, 31, 23, 59, 59}, universal(2021, 12, 31, 18, 29, 59));
  expectDate(universal(2021, 12, 31, 18, 30), {2022, 1, 1, 0, 0, 0});
  expectDate(universal(1979, 12, 31, 18, 30), {1980, 1, 1, 0, 0, 0});
}

TEST(NSCalendar, AZoneWestOfGreenwich) {
  const TimeZone zone(westOfGreenwich);
  expectComponents({1969, 12, 31, 20, 30, 0}, NSDate());
  expectDate(universal(2000, 3, 1, 2, 15), {2000, 2, 29, 22, 45, 0});
  expectDate(NSDate(), {1969, 12, 31, 20, 30, 0});
}

TEST(NSCalendar, SummerAndWinterHaveTheirOwnOffsets) {
  const TimeZone zone(centralEurope);
  expectComponents({2021, 1, 15, 13, 0, 0}, universal(2021, 1, 15, 12));
  expectComponents({2021, 7, 15, 14, 0, 0}, universal(2021, 7, 15, 12));
  expectDate(universal(2021, 1, 15, 12), {2021, 1, 15, 13, 0, 0});
  expectDate(universal(2021, 7, 15, 12), {2021, 7, 15, 14, 0, 0});
}

TEST(NSCalendar, TheHourThatSpringSkipsIsNeverShown) {
  const TimeZone zone(centralEurope);
  const NSDate change = universal(2021, 3, 28, 1);
  expectComponents({2021, 3, 28, 1, 59, 59}, change - seconds(1));
  expectComponents({2021, 3, 28, 3, 0, 0}, change);
  expectDate(change - seconds(1), {2021, 3, 28, 1, 59, 59});
  expectDate(change, {2021, 3, 28, 3, 0, 0});
}

TEST(NSCalendar, TheHourThatAutumnRepeatsIsShownTwice) {
  const TimeZone zone(centralEurope);
  const NSDate change = universal(2021, 10, 31, 1);
  expectComponents({2021, 10, 31, 2, 59, 59}, change - seconds(1));
  expectComponents({2021, 10, 31, 2, 0, 0}, change);
  expectComponents({2021, 10, 31, 3, 0, 0}, change + hours(1));
  expectDate(change - hours(1) - seconds(1), {2021, 10, 31, 1, 59, 59});
  expectDate(change + hours(1), {2021, 10, 31, 3, 0, 0});
}

TEST(NSCalendar, ATimeThatIsMadeTwiceIsReadInOneOfItsTwoWays) {
  const TimeZone zone(centralEurope);
  const NSDate date = NSCalendar::dateFromComponents({2021, 10, 31, 2, 30, 0});
  EXPECT_TRUE(date == universal(2021, 10, 31, 0, 30) || date == universal(2021, 10, 31, 1, 30))
      << secondsSince1970(date);
  expectComponents({2021, 10, 31, 2, 30, 0}, date);
}

TEST(NSCalendar, ATimeThatIsSkippedIsReadByOneOfTheTwoOffsets) {
  const TimeZone zone(centralEurope);
  const NSDate date = NSCalendar::dateFromComponents({2021, 3, 28, 2, 30, 0});
  EXPECT_TRUE(date == universal(2021, 3, 28, 0, 30) || date == universal(2021, 3, 28, 1, 30))
      << secondsSince1970(date);
}

TEST(NSCalendar, ImpossibleComponentsCarryOver) {
  const TimeZone zone(utc);
  expectDate(universal(2020, 2, 29), {2020, 3, 0, 0, 0, 0});
  expectDate(universal(2021, 2, 28), {2021, 3, 0, 0, 0, 0});
  expectDate(universal(2022, 1, 5), {2021, 13, 5, 0, 0, 0});
  expectDate(universal(2020, 12, 5), {2021, 0, 5, 0, 0, 0});
  expectDate(universal(2022, 3, 5), {2021, 15, 5, 0, 0, 0});
  expectDate(universal(2021, 5, 6, 7, 9, 2), {2021, 5, 6, 7, 8, 62});
  expectDate(universal(2021, 5, 6, 8, 3), {2021, 5, 6, 7, 63, 0});
  expectDate(universal(2021, 5, 7, 7), {2021, 5, 6, 31, 0, 0});
  expectDate(universal(2021, 3, 3), {2021, 2, 31, 0, 0, 0});
  expectDate(universal(2022, 1, 1), {2021, 12, 31, 23, 59, 60});
}

TEST(NSCalendar, AllComponentsAtZeroCarryDownwards) {
  const TimeZone zone(utc);
  expectDate(universal(1979, 11, 30), {1980, 0, 0, 0, 0, 0});
}

TEST(NSCalendar, EveryImpossibleComponentOfAnMSDOSDateCarriesOver) {
  const TimeZone zone(utc);
  // All values that seven, four, five, five, six and five bits can hold at their limits.
  for (const int year : {1980, 2107}) {
    for (int month = 0; month <= 15; ++month) {
      for (const int day : {0, 1, 28, 29, 30, 31}) {
        for (const int hour : {0, 23, 24, 31}) {
          for (const int minute : {0, 59, 60, 63}) {
            for (const int second : {0, 58, 60, 62}) {
              const int wholeYear = month == 0 ? year - 1 : year + (month - 1) / 12;
              const int wholeMonth = month == 0 ? 12 : (month - 1) % 12 + 1;
              ASSERT_EQ(
                  secondsSince1970(universal(wholeYear, wholeMonth, day, hour, minute, second)),
                  secondsSince1970(NSCalendar::dateFromComponents({year, month, day, hour, minute, second})))
                  << textOf({year, month, day, hour, minute, second});
            }
          }
        }
      }
    }
  }
}

TEST(NSCalendar, ImpossibleComponentsCarryOverInLocalTime) {
  const TimeZone zone(centralEurope);
  expectDate(universal(2021, 3, 28, 1), {2021, 3, 27, 27, 0, 0});
  expectDate(universal(2021, 7, 31, 22), {2021, 8, 1, 0, 0, 0});
  expectDate(universal(2021, 7, 30, 22), {2021, 8, 0, 0, 0, 0});
}

TEST(NSCalendar, RandomDatesSurviveTheRoundTripInEveryZone) {
  for (const char* const name : {utc, halfHourZone, westOfGreenwich, centralEurope}) {
    const TimeZone zone(name);
    std::mt19937_64 generator(7);
    for (int round = 0; round < 2000; ++round) {
      const std::int64_t first = secondsSince1970(universal(1905, 1, 1));
      const std::int64_t last = secondsSince1970(universal(2200, 1, 1));
      const NSDate date(
          seconds(first + static_cast<std::int64_t>(generator() % static_cast<std::uint64_t>(last - first))));
      const NSDateComponents components = NSCalendar::componentsFromDate(date);
      const NSDate back = NSCalendar::dateFromComponents(components);
      // An hour that is shown twice has two dates; the components agree all the same.
      ASSERT_EQ(textOf(components), textOf(NSCalendar::componentsFromDate(back))) << name;
      ASSERT_LE(std::chrono::abs(back - date), hours(1)) << name << " " << textOf(components);
      if (std::string(name) != centralEurope) {
        ASSERT_EQ(date, back) << name << " " << textOf(components);
      }
    }
  }
}

TEST(NSCalendar, ManyThreadsConvertDatesAtOnce) {
  const TimeZone zone(centralEurope);
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (std::size_t number = 0; number < wrong.size(); ++number) {
    threads.emplace_back([&wrong, number] {
      for (int round = 0; round < 500; ++round) {
        const NSDate date = universal(2021, 7, 1 + static_cast<int>(number), 10) + seconds(round * 61);
        if (NSCalendar::dateFromComponents(NSCalendar::componentsFromDate(date)) != date) ++wrong[number];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(4, 0), wrong);
}
