#pragma once

#include <KQZip/KQZip.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Pace.h"

namespace Tool {

/// One line on the terminal that shows how far `work` has come, for as long as the object exists: a bar,
/// percent, an amount, bytes per second and the time that is left, as much of it as the terminal is wide. A
/// thread rewrites it ten times a second and the destructor erases it. It shows nothing at all when it is
/// not wanted or standard error is no terminal that can rewrite a line. There is never more than one.
class ProgressLine {
 public:
  /// How much has been done.
  struct Amount {
    std::string text;         ///< To be shown.
    std::uint64_t bytes = 0;  ///< To tell the pace from.
  };

  /// Tells the amount. Called from the line's own thread, and only while there is a line.
  using Measure = std::function<Amount()>;

  ProgressLine(bool wanted, std::shared_ptr<KQ::NSProgress> work, Measure measure);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  /// Calls `print` while the line is erased.
  void eraseWhile(const std::function<void()>& print);

  /// Erases the line there is, if any, and lets none be shown again: for a thread that ends the process.
  static void eraseForGood();

 private:
  void run();
  void show(const std::string& text);
  std::string text(std::size_t columns);

  const std::shared_ptr<KQ::NSProgress> work_;
  const Measure measure_;
  Pace pace_;
  std::condition_variable stopped_;
  bool stop_ = false;
  std::string shown_;
  std::thread thread_;
};

}  // namespace Tool
