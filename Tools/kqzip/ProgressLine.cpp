#include "ProgressLine.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iomanip>
#include <sstream>
#include <utility>

#include "Message.h"

namespace Tool {

namespace {

constexpr std::chrono::milliseconds interval(100);

// One column is left free: a character in the last one makes some terminals go to the next line.
std::size_t usableColumns() {
  winsize size{};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col - 1U : 79U;
}

std::string elapsedSince(std::chrono::steady_clock::time_point start) {
  const auto elapsed = std::chrono::steady_clock::now() - start;
  const auto seconds =
      static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count());
  return std::to_string(seconds / 60) + ":" + padded(seconds % 60, 2, '0');
}

}  // namespace

ProgressLine::ProgressLine(bool wanted, std::shared_ptr<KQ::NSProgress> work, Amount amount)
    : work_(std::move(work)), amount_(std::move(amount)) {
  if (wanted && isatty(STDERR_FILENO) != 0) thread_ = std::thread([this] { run(); });
}

ProgressLine::~ProgressLine() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    stop_ = true;
  }
  stopped_.notify_all();
  if (thread_.joinable()) thread_.join();
  show({});
}

void ProgressLine::eraseWhile(const std::function<void()>& print) {
  const std::lock_guard<std::mutex> guard(mutex_);
  show({});
  print();
}

void ProgressLine::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopped_.wait_for(lock, interval, [this] { return stop_; })) show(text());
}

// Blanks go over what the earlier text leaves; an empty text puts the cursor back to the start of the line.
void ProgressLine::show(const std::string& text) {
  if (text.empty() && shown_.empty()) return;
  const std::size_t columns = usableColumns();
  const std::string visible = text.substr(0, columns);
  std::string line = "\r" + visible;
  if (shown_.size() > visible.size()) line.append(std::min(shown_.size(), columns) - visible.size(), ' ');
  if (visible.empty()) line += '\r';
  shown_ = visible;
  printToStandardError(line);
}

std::string ProgressLine::text() const {
  const int percent = static_cast<int>(work_->fractionCompleted() * 100);
  return std::to_string(percent) + "%  " + amount_() + "  " + elapsedSince(start_);
}

std::string readableSize(std::uint64_t bytes) {
  static constexpr std::array<const char*, 7> units = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; value >= 1024 && unit + 1 < units.size(); ++unit) value /= 1024;
  std::ostringstream text;
  text << std::fixed << std::setprecision(unit == 0 ? 0 : 1) << value << ' ' << units[unit];
  return text.str();
}

ProgressLine::Amount entriesDone(std::shared_ptr<const KQ::NSProgress> entries) {
  return [entries = std::move(entries)] {
    return std::to_string(entries->completedUnitCount()) + "/" + std::to_string(entries->totalUnitCount()) +
           " entries";
  };
}

}  // namespace Tool
