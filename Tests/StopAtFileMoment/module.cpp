// Loaded into a program before everything else, it stops the program at one moment of its reading of a file,
// which the environment names: KQZIP_TEST_STOP_FILE, the path as the program gives it to the system, and
// KQZIP_TEST_STOP_MOMENT, the number of a KQTest::SourceMoment.

#include <csignal>
#include <cstdlib>

#include "Support/FileMoments.h"

namespace {

KQTest::AtFileMoment* fromEnvironment() {
  const char* const path = std::getenv("KQZIP_TEST_STOP_FILE");
  const char* const moment = std::getenv("KQZIP_TEST_STOP_MOMENT");
  if (path == nullptr || moment == nullptr) return nullptr;
  const auto number = static_cast<KQTest::SourceMoment>(std::atoi(moment));
  return new KQTest::AtFileMoment(path, KQTest::fileMoment(number), [] { std::raise(SIGSTOP); });
}

// Lives as long as the program, so that nothing is missed while it ends.
[[maybe_unused]] KQTest::AtFileMoment* const stop = fromEnvironment();

}  // namespace
