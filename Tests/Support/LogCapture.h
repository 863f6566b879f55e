#pragma once

#include <KQZip/KQZip.h>

#include <mutex>
#include <string>
#include <vector>

namespace KQTest {

/// Takes the log lines of a test while it exists.
class LogCapture {
 public:
  LogCapture()
      : previous_(KQ::NSSetLogSink([this](const std::string& line) {
          const std::lock_guard<std::mutex> guard(mutex_);
          lines_.push_back(line);
        })) {}
  ~LogCapture() { KQ::NSSetLogSink(previous_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// The lines logged so far.
  std::vector<std::string> lines() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  KQ::NSLogSink previous_;
};

}  // namespace KQTest
