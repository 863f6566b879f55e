#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

using KQTest::inChildProcess;
using KQTest::LogCapture;
using KQTest::readFile;
using KQTest::TemporaryDirectory;

namespace {

// What was sent to the system log. The library's calls reach the two functions below instead of the system's.
std::string& systemLog() {
  static std::string text;
  return text;
}

void takeSystemLogLine(const char* format, va_list arguments) {
  static std::mutex mutex;
  char line[1000] = {};
  std::vsnprintf(line, sizeof line, format, arguments);
  const std::lock_guard<std::mutex> guard(mutex);
  systemLog() += line;
  systemLog() += '\n';
}

// Runs `body` with the default sink in a child process, its standard error in a file, and returns that file.
std::string standardErrorOf(const std::function<void()>& body) {
  const TemporaryDirectory folder;
  const std::string path = folder / "errors";
  inChildProcess([&] {
    KQ::NSSetLogSink({});
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ASSERT_GE(file, 0);
    ASSERT_GE(dup2(file, STDERR_FILENO), 0);
    body();
    std::fflush(stderr);
  });
  return readFile(path);
}

// The sink that is in place for the whole of this program, unless a test sets one: none.
class NSLog : public ::testing::Test {
 protected:
  void TearDown() override { KQ::NSSetLogSink({}); }
};

}  // namespace

extern "C" void syslog(int /*priority*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  takeSystemLogLine(format, arguments);
  va_end(arguments);
}

// What calls of syslog() become when the library is built with the C library's own checks.
extern "C" void __syslog_chk(int priority, int flag, const char* format, ...);
extern "C" void __syslog_chk(int /*priority*/, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  takeSystemLogLine(format, arguments);
  va_end(arguments);
}

TEST_F(NSLog, ASinkTakesTheLinesAsTheyStandAndInOrder) {
  std::vector<std::string> lines;
  KQ::NSSetLogSink([&lines](const std::string& line) { lines.push_back(line); });
  KQ::NSLog("first");
  KQ::NSLog("100%@ %s %n");
  KQ::NSLog("");
  EXPECT_EQ((std::vector<std::string>{"first", "100%@ %s %n", ""}), lines);
}

TEST_F(NSLog, ASinkTakesTheLinesInsteadOfStandardErrorAndTheSystemLog) {
  const std::string errors = standardErrorOf([] {
    KQ::NSSetLogSink([](const std::string&) {});
    KQ::NSLog("taken");
    EXPECT_EQ("", systemLog());
  });
  EXPECT_EQ("", errors);
}

TEST_F(NSLog, SettingASinkReturnsTheOneInPlace) {
  int first = 0;
  int second = 0;
  EXPECT_FALSE(KQ::NSSetLogSink([&first](const std::string&) { ++first; }));
  KQ::NSLogSink previous = KQ::NSSetLogSink([&second](const std::string&) { ++second; });
  ASSERT_TRUE(previous);
  KQ::NSLog("to the second");
  EXPECT_EQ(0, first);
  EXPECT_EQ(1, second);
  previous("to the first");
  EXPECT_EQ(1, first);

  KQ::NSSetLogSink(previous);
  KQ::NSLog("to the first");
  EXPECT_EQ(2, first);
  EXPECT_EQ(1, second);
  EXPECT_TRUE(KQ::NSSetLogSink({}));
  EXPECT_FALSE(KQ::NSSetLogSink({}));
}

TEST_F(NSLog, TheDefaultSendsOneLineToStandardError) {
  EXPECT_EQ("stream writing failed: (null)\n",
            standardErrorOf([] { KQ::NSLog("stream writing failed: (null)"); }));
}

TEST_F(NSLog, TheDefaultSendsOneLineToTheSystemLog) {
  standardErrorOf([] {
    KQ::NSLog("stream writing failed: (null)");
    EXPECT_EQ("stream writing failed: (null)\n", systemLog());
  });
}

TEST_F(NSLog, TheDefaultNeverTakesALineForAFormat) {
  const std::string line = "%s%s%n %@ 100%";
  EXPECT_EQ(line + "\n", standardErrorOf([&line] {
              KQ::NSLog(line);
              EXPECT_EQ(line + "\n", systemLog());
            }));
}

TEST_F(NSLog, AnEmptySinkGoesBackToTheDefault) {
  EXPECT_EQ("shown\n", standardErrorOf([] {
              KQ::NSSetLogSink([](const std::string&) {});
              KQ::NSLog("taken");
              KQ::NSSetLogSink({});
              KQ::NSLog("shown");
            }));
}

TEST_F(NSLog, LinesOfManyThreadsReachStandardErrorWhole) {
  constexpr std::size_t threadCount = 4;
  constexpr std::size_t lineCount = 50;
  std::istringstream text(standardErrorOf([] {
    std::vector<std::thread> threads;
    for (std::size_t number = 0; number < threadCount; ++number) {
      threads.emplace_back([number] {
        for (std::size_t i = 0; i < lineCount; ++i) KQ::NSLog(std::string(200, "abcd"[number]));
      });
    }
    for (std::thread& thread : threads) thread.join();
  }));
  std::map<std::string, std::size_t> lines;
  for (std::string line; std::getline(text, line);) ++lines[line];
  std::map<std::string, std::size_t> expected;
  for (const char letter : {'a', 'b', 'c', 'd'}) expected[std::string(200, letter)] = lineCount;
  EXPECT_EQ(expected, lines);
}

TEST_F(NSLog, ASinkMayLogAndReplaceItself) {
  std::vector<std::string> lines;
  KQ::NSSetLogSink([&lines](const std::string& line) {
    KQ::NSSetLogSink([&lines](const std::string& later) { lines.push_back("later " + later); });
    lines.push_back(line);
    KQ::NSLog("nested");
  });
  KQ::NSLog("outer");
  EXPECT_EQ((std::vector<std::string>{"outer", "later nested"}), lines);
}

TEST_F(NSLog, EveryLineOfManyThreadsReachesTheSinkOnce) {
  const LogCapture log;
  std::vector<std::thread> threads;
  for (int number = 0; number < 8; ++number) {
    threads.emplace_back([number] {
      for (int i = 0; i < 100; ++i) KQ::NSLog(std::to_string(number) + " " + std::to_string(i));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> lines = log.lines();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(800U, lines.size());
  EXPECT_EQ(lines.end(), std::adjacent_find(lines.begin(), lines.end()));
}

TEST_F(NSLog, SinksMayBeExchangedWhileOtherThreadsLog) {
  std::atomic<int> taken{0};
  const KQ::NSLogSink first = [&taken](const std::string&) { ++taken; };
  const KQ::NSLogSink second = [&taken](const std::string&) { ++taken; };
  KQ::NSSetLogSink(first);
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i) KQ::NSLog("line");
    });
  }
  for (int i = 0; i < 500; ++i) KQ::NSSetLogSink(i % 2 == 0 ? second : first);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(2000, taken.load());
}
