// Loaded into a program before everything else, it stops the program at one moment of its reading of a file,
// which the environment names: KQZIP_TEST_STOP_FILE, the path as the program gives it to the system,
// KQZIP_TEST_STOP_MOMENT, the members of a KQTest::FileMoment, and KQZIP_TEST_STOP_ACTION, how it stops. See
// Support/StoppedProgram.h, which sets them.

#include <dlfcn.h>
#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "Support/FileMoments.h"

namespace {

// How often a thread has asked for the next signal.
std::atomic<int> signalsAskedFor{0};

// Posted when a thread asks for another signal, so whatever the one before it called for is done.
sem_t* signalHandled() {
  static sem_t semaphore;
  [[maybe_unused]] static const int made = sem_init(&semaphore, 0, 0);
  return &semaphore;
}

// Returns once the thread that waits for signals has done what an interruption calls for.
void interrupt() {
  kill(getpid(), SIGINT);
  while (sem_wait(signalHandled()) != 0) continue;
}

// Stops this thread, and no other, until the pipe's writing end has been opened and closed again.
void waitForPipe(const std::string& path) {
  const int pipe = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  char byte = 0;
  while (read(pipe, &byte, 1) < 0 && errno == EINTR) continue;
  close(pipe);
}

std::optional<KQTest::FileMoment> momentFrom(const char* text) {
  int call = 0;
  KQTest::FileMoment moment{};
  if (std::sscanf(text, "%d %d %" SCNd64 " %" SCNd64, &moment.opens, &call, &moment.from, &moment.end) != 4)
    return std::nullopt;
  moment.call = static_cast<KQTest::FileMoment::Call>(call);
  return moment;
}

KQTest::AtFileMoment* fromEnvironment() {
  const char* const path = std::getenv("KQZIP_TEST_STOP_FILE");
  const char* const text = std::getenv("KQZIP_TEST_STOP_MOMENT");
  const char* const given = std::getenv("KQZIP_TEST_STOP_ACTION");
  if (path == nullptr || text == nullptr || given == nullptr) return nullptr;
  const auto moment = momentFrom(text);
  if (!moment) return nullptr;
  return new KQTest::AtFileMoment(path, *moment, [action = std::string(given)] {
    if (action == "stop")
      std::raise(SIGSTOP);
    else if (action == "interrupt")
      interrupt();
    else
      waitForPipe(action);
  });
}

// Lives as long as the program, so that nothing is missed while it ends.
[[maybe_unused]] KQTest::AtFileMoment* const stop = fromEnvironment();

}  // namespace

extern "C" int sigwait(const sigset_t* signals, int* received) {
  static auto* const real = reinterpret_cast<int (*)(const sigset_t*, int*)>(dlsym(RTLD_NEXT, "sigwait"));
  if (signalsAskedFor++ > 0) sem_post(signalHandled());
  return real(signals, received);
}
