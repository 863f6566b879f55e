#pragma once

#include <KQZip/KQZip.h>

#include <atomic>
#include <memory>
#include <thread>

namespace Tool {

/// What a first SIGINT or SIGTERM does; a second one always ends the process at once.
enum class OnInterruption {
  CancelWork,  ///< Cancels the work, which then ends in good order.
  EndAtOnce  ///< Ends the process: for commands that only print, and may hang on a reader that does not read.
};

/// A thread that waits for the signals while the object exists; System::blockInterruptions() comes before the
/// first thread is started.
class InterruptionWatch {
 public:
  InterruptionWatch(std::shared_ptr<KQ::NSProgress> work, OnInterruption action);
  ~InterruptionWatch();
  InterruptionWatch(const InterruptionWatch&) = delete;
  InterruptionWatch& operator=(const InterruptionWatch&) = delete;

 private:
  void run(KQ::NSProgress& work, OnInterruption action) const;
  bool isInterrupted() const;

  std::atomic<bool> isOver_{false};
  std::thread thread_;
};

/// Throws the Failure of an interrupted command once `work` is cancelled.
void requireNotInterrupted(const KQ::NSProgress& work);

}  // namespace Tool
