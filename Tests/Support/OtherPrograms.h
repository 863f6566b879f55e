#pragma once

#include <string>
#include <vector>

#include "Support/Surroundings.h"

namespace KQTest {

/// Whether the machine has a program. Does not run it.
inline bool isHere(const std::string& program) {
  return runProcess({"sh", "-c", "command -v " + program}).exitStatus == 0;
}

/// Runs another program in `folder`, whatever the user's environment asks of it: in a locale whose names are
/// UTF-8, with the usual mask and without options.
inline ProcessResult runOtherProgram(const std::vector<std::string>& command,
                                     const std::string& folder = {}) {
  std::vector<std::string> all{"env"};
  for (const char* const variable :
       {"UNZIP", "UNZIPOPT", "ZIPINFO", "ZIPINFOOPT", "ZIP", "ZIPOPT", "TAR_OPTIONS", "TAR_READER_OPTIONS",
        "TAR_WRITER_OPTIONS", "JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS"}) {
    all.emplace_back("-u");
    all.emplace_back(variable);
  }
  for (const char* const word : {"LC_ALL=C.UTF-8", "sh", "-c", "umask 022; exec \"$0\" \"$@\""})
    all.emplace_back(word);
  all.insert(all.end(), command.begin(), command.end());
  return runProcess(all, folder);
}

}  // namespace KQTest
