#include "Interruption.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <utility>

#include "Message.h"
#include "ProgressLine.h"

namespace Tool {

namespace {

sigset_t interruptions() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace

void blockInterruptions() {
  // A signal that is ignored need not reach sigwait(); a shell starts background jobs so.
  static_cast<void>(signal(SIGINT, SIG_DFL));
  static_cast<void>(signal(SIGTERM, SIG_DFL));
  const sigset_t signals = interruptions();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

InterruptionWatch::InterruptionWatch(std::shared_ptr<KQ::NSProgress> work, OnInterruption action)
    : thread_([this, work = std::move(work), action] { run(*work, action); }) {}

InterruptionWatch::~InterruptionWatch() {
  isOver_ = true;
  // Only a signal wakes the thread.
  pthread_kill(thread_.native_handle(), SIGINT);
  thread_.join();
}

void InterruptionWatch::run(KQ::NSProgress& work, OnInterruption action) const {
  if (!isInterrupted()) return;
  if (action == OnInterruption::CancelWork) {
    work.cancel();
    if (!isInterrupted()) return;
  }
  ProgressLine::eraseForGood();
  printMessage("interrupted");
  _exit(Interrupted);
}

// Waits for a signal. False when the watch is over, and there is nothing left to interrupt.
bool InterruptionWatch::isInterrupted() const {
  const sigset_t signals = interruptions();
  int received = 0;
  while (sigwait(&signals, &received) != 0) continue;
  return !isOver_;
}

void requireNotInterrupted(const KQ::NSProgress& work) {
  if (work.isCancelled()) throw Failure("interrupted", Interrupted);
}

}  // namespace Tool
