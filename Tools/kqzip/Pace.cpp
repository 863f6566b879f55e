#include "Pace.h"

#include <cmath>

namespace Tool {

namespace {

constexpr std::chrono::seconds window(5);
constexpr double secondsForAnAnswer = 0.5;
constexpr double longestAnswer = 100.0 * 3600;

}  // namespace

void Pace::add(Clock::time_point now, double fraction, std::uint64_t bytes) {
  while (!samples_.empty() && now - samples_.front().time > window) samples_.pop_front();
  samples_.push_back({now, fraction, bytes});
}

std::optional<std::uint64_t> Pace::bytesPerSecond() const {
  const double seconds = secondsSeen();
  if (seconds < secondsForAnAnswer || samples_.back().bytes <= samples_.front().bytes) return std::nullopt;
  const std::uint64_t bytes = samples_.back().bytes - samples_.front().bytes;
  return static_cast<std::uint64_t>(static_cast<double>(bytes) / seconds);
}

std::optional<std::chrono::seconds> Pace::remaining() const {
  const double seconds = secondsSeen();
  if (seconds < secondsForAnAnswer || samples_.back().fraction <= samples_.front().fraction)
    return std::nullopt;
  const double done = samples_.back().fraction - samples_.front().fraction;
  const double left = (1 - samples_.back().fraction) * seconds / done;
  if (left > longestAnswer) return std::nullopt;
  return std::chrono::seconds(std::llround(std::ceil(left)));
}

double Pace::secondsSeen() const {
  if (samples_.empty()) return 0;
  return std::chrono::duration<double>(samples_.back().time - samples_.front().time).count();
}

}  // namespace Tool
