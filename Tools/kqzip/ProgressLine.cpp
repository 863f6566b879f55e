#include "ProgressLine.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <mutex>
#include <utility>

#include "Colour.h"
#include "Message.h"
#include "System.h"

namespace Tool {

namespace {

constexpr std::chrono::milliseconds interval(100);
constexpr std::size_t narrowestBar = 10;
constexpr std::size_t widestBar = 30;

// Guards the line that there is and whatever is printed beside it.
std::mutex lineMutex;
ProgressLine* currentLine = nullptr;

// One column is left free: a character in the last one makes some terminals go to the next line.
std::size_t usableColumns() { return System::columnsOf(Stream::Errors) - 1; }

// "0:09", "12:34", "1:02:03".
std::string timeText(std::chrono::seconds time) {
  const auto seconds = static_cast<std::uint64_t>(time.count());
  std::string text = std::to_string(seconds / 60);
  if (seconds >= 3600)
    text = std::to_string(seconds / 3600).append(1, ':').append(padded(seconds / 60 % 60, 2, '0'));
  return text.append(1, ':').append(padded(seconds % 60, 2, '0'));
}

// A bar for what columns there are, with the blanks that part it from what follows; nothing for too few.
std::string barText(double fraction, std::size_t columns) {
  constexpr std::size_t frame = 4;
  if (columns < narrowestBar + frame) return {};
  const std::size_t width = std::min(columns - frame, widestBar);
  const auto full = static_cast<std::size_t>(fraction * static_cast<double>(width));
  return std::string(1, '[').append(full, '#').append(width - full, '.').append("]  ");
}

}  // namespace

ProgressLine::ProgressLine(bool wanted, std::shared_ptr<KQ::NSProgress> work, Measure measure)
    : work_(std::move(work)), measure_(std::move(measure)) {
  if (!wanted || !isCapableTerminal(Stream::Errors)) return;
  const std::lock_guard<std::mutex> guard(lineMutex);
  currentLine = this;
  thread_ = std::thread([this] { run(); });
}

ProgressLine::~ProgressLine() {
  {
    const std::lock_guard<std::mutex> guard(lineMutex);
    stop_ = true;
    currentLine = nullptr;
    show({});
  }
  stopped_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void ProgressLine::eraseWhile(const std::function<void()>& print) {
  const std::lock_guard<std::mutex> guard(lineMutex);
  show({});
  print();
}

void ProgressLine::eraseForGood() {
  // Whoever has the mutex may be printing to a terminal or a pipe that takes nothing: it gets a moment.
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::unique_lock<std::mutex> lock(lineMutex, std::try_to_lock);
    if (lock.owns_lock()) {
      if (currentLine != nullptr) currentLine->show({});
      lock.release();
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void ProgressLine::run() {
  std::unique_lock<std::mutex> lock(lineMutex);
  while (!stopped_.wait_for(lock, interval, [this] { return stop_; })) show(text(usableColumns()));
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

std::string ProgressLine::text(std::size_t columns) {
  const double fraction = work_->fractionCompleted();
  const Amount amount = measure_();
  pace_.add(Pace::Clock::now(), fraction, amount.bytes);
  const auto rate = pace_.bytesPerSecond();
  const auto remaining = pace_.remaining();
  const std::array<std::string, 3> parts{amount.text, rate ? readableSize(*rate) + "/s" : "",
                                         remaining ? timeText(*remaining) + " left" : ""};
  std::string line = std::to_string(static_cast<int>(fraction * 100)) + "%";
  for (const std::string& part : parts) {
    if (!part.empty() && line.size() + 2 + part.size() <= columns) line.append(2, ' ').append(part);
  }
  return barText(fraction, columns - std::min(columns, line.size())) + line;
}

}  // namespace Tool
