#include "Interruption.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <thread>
#include <utility>

#include "Message.h"

namespace Tool {

namespace {

sigset_t interruptions() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void waitForInterruption() {
  const sigset_t signals = interruptions();
  int received = 0;
  while (sigwait(&signals, &received) != 0) continue;
}

}  // namespace

void blockInterruptions() {
  // A signal that is ignored need not reach sigwait(); a shell starts background jobs so.
  static_cast<void>(signal(SIGINT, SIG_DFL));
  static_cast<void>(signal(SIGTERM, SIG_DFL));
  const sigset_t signals = interruptions();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void watchForInterruptions(std::shared_ptr<KQ::NSProgress> work, OnInterruption action) {
  // Detached: it waits for as long as the process lives, and touches nothing but what it holds.
  std::thread([work = std::move(work), action] {
    waitForInterruption();
    if (action == OnInterruption::CancelWork) {
      work->cancel();
      waitForInterruption();
    }
    printMessage("interrupted");
    _exit(Interrupted);
  }).detach();
}

void requireNotInterrupted(const KQ::NSProgress& work) {
  if (work.isCancelled()) throw Failure("interrupted", Interrupted);
}

}  // namespace Tool
