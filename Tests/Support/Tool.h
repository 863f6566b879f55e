#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Support/Surroundings.h"

namespace KQTest {

/// The tool's command line with these arguments.
inline std::vector<std::string> toolCommand(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{KQZIP_TOOL};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

/// Runs the tool to its end, in `directory` if one is given.
inline ProcessResult runTool(const std::vector<std::string>& arguments, const std::string& directory = {}) {
  return runProcess(toolCommand(arguments), directory);
}

/// What the tool puts behind a path for a reason of the system: the reason, and what to do about it.
inline std::string systemReason(int code) {
  static const std::map<int, std::string> advice{{ENOENT, "check the path"},
                                                 {ENOTDIR, "check the path"},
                                                 {EACCES, "check the permissions"},
                                                 {EEXIST, "choose another path"},
                                                 {EILSEQ, "rename it, names must be UTF-8"},
                                                 {ENAMETOOLONG, "a shorter name is needed"},
                                                 {ENOSPC, "check that there is room for it"}};
  const auto found = advice.find(code);
  return std::string(": ") + std::strerror(code) + (found == advice.end() ? "" : " (" + found->second + ")");
}

/// Expects that the tool did what it was told and printed `output`, and nothing on standard error.
inline void expectDone(const ProcessResult& result, const std::string& output = {}) {
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ(output, result.output);
  EXPECT_EQ("", result.errors);
}

/// Expects that the tool failed with this one line, after printing `output`.
inline void expectFailed(const ProcessResult& result, const std::string& message,
                         const std::string& output = {}) {
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ(output, result.output);
  EXPECT_EQ("kqzip: " + message + "\n", result.errors);
}

/// Expects that the tool refused its arguments, told how it is used, and printed nothing.
inline void expectWrongUsage(const ProcessResult& result, const std::string& message,
                             const std::string& usage) {
  EXPECT_EQ(2, result.exitStatus);
  EXPECT_EQ("", result.output);
  EXPECT_EQ("kqzip: " + message + "\nUsage: " + usage + "\n",
            result.errors.substr(0, result.errors.find("Try ")));
}

}  // namespace KQTest
