#include "System.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace Tool::System {

namespace {

int descriptorOf(Stream stream) { return stream == Stream::Output ? STDOUT_FILENO : STDERR_FILENO; }

sigset_t interruptions() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

int codeForAccess(const std::string& path, int mode) {
  return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
}

constexpr char standardInputAgain[] = "/dev/stdin";

// Copies standard input into the file. 0 or an error number.
int copyStandardInput(int file, const std::function<bool()>& goesOn) {
  std::vector<char> block(std::size_t{1} << 20);
  while (goesOn()) {
    const ssize_t count = ::read(STDIN_FILENO, block.data(), block.size());
    if (count == 0) return 0;
    if (count < 0 && errno != EINTR) return errno;
    for (ssize_t done = 0; done < count;) {
      const ssize_t written = ::write(file, block.data() + done, static_cast<std::size_t>(count - done));
      if (written < 0 && errno != EINTR) return errno;
      done += written < 0 ? 0 : written;
    }
  }
  return ECANCELED;
}

}  // namespace

std::ptrdiff_t write(Stream stream, std::string_view bytes) {
  for (;;) {
    const ssize_t count = ::write(descriptorOf(stream), bytes.data(), bytes.size());
    if (count >= 0) return count;
    if (errno != EINTR) return -errno;
  }
}

void waitUntilWritable(Stream stream) {
  pollfd output{descriptorOf(stream), POLLOUT, 0};
  ::poll(&output, 1, -1);
}

bool isTerminal(Stream stream) { return ::isatty(descriptorOf(stream)) != 0; }

std::size_t columnsOf(Stream stream) {
  winsize size{};
  const bool known = ::ioctl(descriptorOf(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : 80;
}

void holdStandardStreams() {
  // For reading only, so that printing fails.
  int descriptor = 0;
  while ((descriptor = ::open("/dev/null", O_RDONLY)) >= 0 && descriptor <= STDERR_FILENO) continue;
  if (descriptor > STDERR_FILENO) ::close(descriptor);
}

void ignoreFatalWrites() {
  static_cast<void>(::signal(SIGPIPE, SIG_IGN));
  static_cast<void>(::signal(SIGXFSZ, SIG_IGN));
}

void nameTimeZone() {
  static_cast<void>(::setenv("TZ", ":/etc/localtime", 0));  // NOLINT(concurrency-mt-unsafe)
}

void blockInterruptions() {
  // A signal that is ignored need not reach sigwait(); a shell starts background jobs so.
  static_cast<void>(::signal(SIGINT, SIG_DFL));
  static_cast<void>(::signal(SIGTERM, SIG_DFL));
  const sigset_t signals = interruptions();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void waitForInterruption() {
  const sigset_t signals = interruptions();
  int received = 0;
  while (::sigwait(&signals, &received) != 0) continue;
}

void wake(std::thread& thread) { ::pthread_kill(thread.native_handle(), SIGINT); }

void endAtOnce(int status) { ::_exit(status); }

int codeForReading(const std::string& path) { return codeForAccess(path, R_OK); }

int codeForAddingTo(const std::string& path) { return codeForAccess(path, W_OK | X_OK); }

int codeForLookingAt(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? 0 : errno;
}

int keepStandardInput(std::string* path, const std::function<bool()>& goesOn) {
  struct stat status {};
  if (::fstat(STDIN_FILENO, &status) != 0) return errno;
  *path = standardInputAgain;
  if (S_ISREG(status.st_mode)) return 0;
  // Read once, before any other thread is started that could change it.
  const char* const folder = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
  *path = std::string(folder == nullptr || *folder == '\0' ? "/tmp" : folder) + "/kqzip-XXXXXX";
  const int file = ::mkostemp(path->data(), O_CLOEXEC);
  if (file < 0) return errno;
  int code = copyStandardInput(file, goesOn);
  if (::close(file) != 0 && code == 0) code = errno;
  if (code != 0) ::unlink(path->c_str());
  return code;
}

void forgetStandardInput(const std::string& path) {
  if (path != standardInputAgain) ::unlink(path.c_str());
}

}  // namespace Tool::System
