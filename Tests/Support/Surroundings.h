#pragma once

#include <functional>
#include <string>
#include <vector>

namespace KQTest {

/// Sets the process's time zone while it exists.
class TimeZone {
 public:
  explicit TimeZone(const std::string& name);
  ~TimeZone();
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  bool hadPrevious_ = false;
  std::string previous_;
};

/// Runs `body` in a child process, for what would change the whole process: its limits, its user, its folder.
/// Failed expectations of the child are printed by it and fail the calling test.
void inChildProcess(const std::function<void()>& body);

/// inChildProcess(), without the privileges that let root read everything.
void inUnprivilegedChildProcess(const std::function<void()>& body);

/// The version of the project, from its CMakeLists.txt.
std::string projectVersion();

/// What a program did.
struct ProcessResult {
  int exitStatus = -1;  ///< The exit status, or 128 and the number of the signal that ended it.
  std::string output;   ///< Standard output.
  std::string errors;   ///< Standard error.
};

/// Runs a program to its end, its output and errors in pipes. `whileRunning` is called with its process id
/// once it is started. `directory` is the folder it runs in.
ProcessResult runProcess(const std::vector<std::string>& arguments, const std::string& directory = {},
                         const std::function<void(int)>& whileRunning = {});

}  // namespace KQTest
