#pragma once

#include <gtest/gtest.h>

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
