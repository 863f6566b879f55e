#pragma once

#include <KQZip/KQZip.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace Tool {

/// One line on the terminal that shows how far `work` has come, for as long as the object exists: percent,
/// an amount and the time so far. A thread rewrites it ten times a second and the destructor erases it. It
/// shows nothing at all when it is not wanted or standard error is no terminal.
class ProgressLine {
 public:
  /// What to show between percent and time. Called from the line's own thread.
  using Amount = std::function<std::string()>;

  ProgressLine(bool wanted, std::shared_ptr<KQ::NSProgress> work, Amount amount);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Calls `print` while the line is erased.
  void eraseWhile(const std::function<void()>& print);

 private:
  void run();
  void show(const std::string& text);
  std::string text() const;

  const std::shared_ptr<KQ::NSProgress> work_;
  const Amount amount_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::mutex mutex_;
  std::condition_variable stopped_;
  bool stop_ = false;
  std::string shown_;
  std::thread thread_;
};

/// An amount of bytes as a person reads it, "1.5 MiB".
std::string readableSize(std::uint64_t bytes);

/// "3/7 entries" of a progress that counts entries.
ProgressLine::Amount entriesDone(std::shared_ptr<const KQ::NSProgress> entries);

}  // namespace Tool
