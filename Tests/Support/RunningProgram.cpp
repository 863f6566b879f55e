#include "Support/RunningProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace KQTest {

namespace {

constexpr int patience = 600;  // Seconds: longer than a busy machine ever takes.

struct Ends {
  int ours = -1;
  int theirs = -1;
};

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

Ends makePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe2 failed");
  return {ends[0], ends[1]};
}

Ends makeTerminal(unsigned short columns) {
  const int ours = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (ours < 0 || grantpt(ours) != 0 || unlockpt(ours) != 0) fail("no terminal can be made");
  const int theirs = open(ptsname(ours), O_RDWR | O_NOCTTY | O_CLOEXEC);
  winsize size{};
  size.ws_row = 24;
  size.ws_col = columns;
  if (theirs < 0 || ioctl(theirs, TIOCSWINSZ, &size) != 0) fail("the terminal cannot be opened");
  return {ours, theirs};
}

[[noreturn]] void becomeProgram(const std::vector<std::string>& arguments, int output, int errors) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(errors, STDERR_FILENO);
  // A program that does not heed what it is told must not fill the disk from a file that is all hole.
  const rlimit largestFile{rlim_t{2} << 30, rlim_t{2} << 30};
  setrlimit(RLIMIT_FSIZE, &largestFile);
  execv(pointers[0], pointers.data());
  _exit(127);
}

void waitUntilReadable(int file) {
  pollfd polled{file, POLLIN, 0};
  if (poll(&polled, 1, patience * 1000) < 1) fail("nothing was printed");
}

// False at the end. A terminal whose other end is closed reports an error instead.
bool readSome(int file, std::string& text) {
  std::array<char, 65536> buffer{};
  const ssize_t count = read(file, buffer.data(), buffer.size());
  if (count <= 0) return count < 0 && errno == EINTR;
  text.append(buffer.data(), static_cast<std::size_t>(count));
  return true;
}

void closeOnce(int& file) {
  if (file >= 0) close(file);
  file = -1;
}

}  // namespace

RunningProgram::RunningProgram(const std::vector<std::string>& arguments, Streams streams,
                               unsigned short columns) {
  Ends errors = streams == Streams::Pipes ? makePipe() : makeTerminal(columns);
  Ends output = streams == Streams::BothOnTerminal ? Ends{-1, errors.theirs} : makePipe();
  process_ = fork();
  if (process_ < 0) fail("fork failed");
  if (process_ == 0) becomeProgram(arguments, output.theirs, errors.theirs);
  output_ = output.ours;
  errors_ = errors.ours;
  close(errors.theirs);
  if (streams != Streams::BothOnTerminal) close(output.theirs);
}

RunningProgram::~RunningProgram() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  closeOnce(output_);
  closeOnce(errors_);
}

void RunningProgram::send(int signal) const { kill(process_, signal); }

void RunningProgram::waitForOutput(int bytes) const {
  waitUntil([this, bytes] {
    int available = 0;
    return ioctl(output_, FIONREAD, &available) == 0 && available >= bytes;
  });
}

void RunningProgram::waitUntilItStops() const {
  siginfo_t information{};
  while (waitid(P_PID, static_cast<id_t>(process_), &information, WSTOPPED | WEXITED | WNOWAIT) != 0) {
    if (errno != EINTR) fail("waitid failed");
  }
  if (information.si_code != CLD_STOPPED) fail("the program ended and did not stop");
}

void RunningProgram::closeOutput() { closeOnce(output_); }

void RunningProgram::readErrorsUntil(const std::string& text) {
  while (result_.errors.find(text) == std::string::npos) {
    waitUntilReadable(errors_);
    if (!readSome(errors_, result_.errors)) fail("never printed: " + text);
  }
}

void RunningProgram::sendUntilItEnds(int signal) {
  waitUntil([this, signal] {
    send(signal);
    return hasEnded();
  });
}

void RunningProgram::waitUntilItEnds() {
  waitUntil([this] { return hasEnded(); });
}

bool RunningProgram::hasEnded() {
  siginfo_t information{};
  return waitid(P_PID, static_cast<id_t>(process_), &information, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         information.si_pid == process_;
}

ProcessResult RunningProgram::finish() {
  // Neither stream may fill up while the other is read.
  std::thread output([this] {
    while (output_ >= 0 && readSome(output_, result_.output)) continue;
  });
  while (readSome(errors_, result_.errors)) continue;
  output.join();
  int status = 0;
  while (waitpid(process_, &status, 0) < 0 && errno == EINTR) continue;
  process_ = -1;
  result_.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result_;
}

void waitUntil(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(patience);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) fail("waited in vain");
    std::this_thread::yield();
  }
}

}  // namespace KQTest
