#include "Interruption.h"

#include <utility>

#include "Message.h"
#include "ProgressLine.h"
#include "System.h"

namespace Tool {

InterruptionWatch::InterruptionWatch(std::shared_ptr<KQ::NSProgress> work, OnInterruption action)
    : thread_([this, work = std::move(work), action] { run(*work, action); }) {}

InterruptionWatch::~InterruptionWatch() {
  isOver_ = true;
  // Only a signal wakes the thread.
  System::wake(thread_);
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
  System::endAtOnce(Interrupted);
}

// Waits for a signal. False when the watch is over, and there is nothing left to interrupt.
bool InterruptionWatch::isInterrupted() const {
  System::waitForInterruption();
  return !isOver_;
}

void requireNotInterrupted(const KQ::NSProgress& work) {
  if (work.isCancelled()) throw Failure("interrupted", Interrupted);
}

}  // namespace Tool
