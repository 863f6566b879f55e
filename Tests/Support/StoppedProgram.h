#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "Support/FileMoment.h"

namespace KQTest {

/// How a program stops at a moment of its reading of a file.
inline const std::string stopWhole = "stop";           ///< All of it, until SIGCONT is sent.
inline const std::string stopForSIGINT = "interrupt";  ///< Until a SIGINT, sent at that moment, was seen to.

/// The command line that runs `command` with StopAtFileMoment loaded, so that it stops at that moment. `path`
/// is the file as the program gives it to the system. `how` is one of the above, or the path of a named pipe:
/// then the thread that reads the file, alone, waits until somebody opens the pipe for writing and closes it.
inline std::vector<std::string> stoppedAt(const std::string& path, const FileMoment& moment,
                                          const std::string& how, const std::vector<std::string>& command) {
  const char* const options = std::getenv("ASAN_OPTIONS");
  std::vector<std::string> all{
      "/usr/bin/env", "LD_PRELOAD=" KQZIP_STOP_AT_FILE_MOMENT, "KQZIP_TEST_STOP_FILE=" + path,
      "KQZIP_TEST_STOP_MOMENT=" + std::to_string(moment.opens) + " " +
          std::to_string(static_cast<int>(moment.call)) + " " + std::to_string(moment.from) + " " +
          std::to_string(moment.end),
      "KQZIP_TEST_STOP_ACTION=" + how,
      // AddressSanitizer wants to be loaded first unless it is told not to.
      "ASAN_OPTIONS=" + std::string(options == nullptr ? "" : options) + ":verify_asan_link_order=0"};
  all.insert(all.end(), command.begin(), command.end());
  return all;
}

}  // namespace KQTest
