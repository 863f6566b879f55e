#include "Support/Surroundings.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <regex>
#include <stdexcept>
#include <string>

#include "Support/TemporaryDirectory.h"

namespace KQTest {

TimeZone::TimeZone(const std::string& name) {
  if (const char* previous = std::getenv("TZ")) {
    hadPrevious_ = true;
    previous_ = previous;
  }
  setenv("TZ", name.c_str(), 1);
  tzset();
}

TimeZone::~TimeZone() {
  if (hadPrevious_)
    setenv("TZ", previous_.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
}

namespace {

int waitForExit(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("waitpid failed");
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

void inChildProcess(const std::function<void()>& body) {
  std::cout.flush();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    body();
    std::cout.flush();
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  EXPECT_EQ(0, waitForExit(child)) << "the child process failed";
}

void inUnprivilegedChildProcess(const std::function<void()>& body) {
  inChildProcess([&body] {
    if (geteuid() == 0) {
      const gid_t nogroup = 65534;
      const uid_t nobody = 65534;
      ASSERT_EQ(0, setgroups(0, nullptr));
      ASSERT_EQ(0, setgid(nogroup));
      ASSERT_EQ(0, setuid(nobody));
    }
    body();
  });
}

std::string projectVersion() {
  const std::string project = readFile(KQZIP_SOURCE_DIRECTORY "/CMakeLists.txt");
  std::smatch match;
  if (!std::regex_search(project, match, std::regex("project\\(KQZip VERSION ([0-9]+\\.[0-9]+\\.[0-9]+) ")))
    throw std::runtime_error("CMakeLists.txt names no version");
  return match[1];
}

ProcessResult runProcess(const std::vector<std::string>& arguments, const std::string& directory,
                         const std::function<void(int)>& whileRunning) {
  std::array<int, 2> output{};
  std::array<int, 2> errors{};
  if (pipe2(output.data(), O_CLOEXEC) != 0 || pipe2(errors.data(), O_CLOEXEC) != 0)
    throw std::runtime_error("pipe2 failed");

  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    const int nothing = open("/dev/null", O_RDONLY);
    dup2(nothing, STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    dup2(errors[1], STDERR_FILENO);
    if (!directory.empty() && chdir(directory.c_str()) != 0) _exit(126);
    execvp(pointers[0], pointers.data());
    _exit(127);
  }
  close(output[1]);
  close(errors[1]);
  if (whileRunning) whileRunning(child);

  ProcessResult result;
  std::array<pollfd, 2> polled{pollfd{output[0], POLLIN, 0}, pollfd{errors[0], POLLIN, 0}};
  std::array<std::string*, 2> texts{&result.output, &result.errors};
  std::array<char, 65536> buffer{};
  for (int open = 2; open > 0;) {
    if (poll(polled.data(), polled.size(), -1) < 0) continue;
    for (std::size_t i = 0; i < polled.size(); ++i) {
      if (polled[i].fd < 0 || polled[i].revents == 0) continue;
      const ssize_t count = read(polled[i].fd, buffer.data(), buffer.size());
      if (count > 0) {
        texts[i]->append(buffer.data(), static_cast<std::size_t>(count));
      } else if (count == 0 || errno != EINTR) {
        close(polled[i].fd);
        polled[i].fd = -1;
        --open;
      }
    }
  }
  result.exitStatus = waitForExit(child);
  return result;
}

}  // namespace KQTest
