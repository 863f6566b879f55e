#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

namespace Tool {

/// How fast work has gone in the last few seconds, and so how long the rest will take.
class Pace {
 public:
  using Clock = std::chrono::steady_clock;

  /// Takes note of how far the work is: a fraction from 0 to 1, and bytes.
  void add(Clock::time_point now, double fraction, std::uint64_t bytes);

  /// Nothing as long as it cannot be told.
  std::optional<std::uint64_t> bytesPerSecond() const;

  /// Nothing while it cannot be told, and when it is more than a person waits for.
  std::optional<std::chrono::seconds> remaining() const;

 private:
  struct Sample {
    Clock::time_point time;
    double fraction;
    std::uint64_t bytes;
  };

  double secondsSeen() const;

  std::deque<Sample> samples_;
};

}  // namespace Tool
