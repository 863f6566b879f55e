#include "NSLog.h"

#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#include "Internal/NSSystem.h"

namespace KQ {

namespace {

struct LogState {
  std::mutex mutex;
  std::shared_ptr<const NSLogSink> sink = std::make_shared<const NSLogSink>();
};

// Never destroyed, so that code that runs at the end of the process can still log.
LogState& logState() {
  static auto* const state = new LogState;
  return *state;
}

void logToSystem(const std::string& line) {
  NSSystem::current().log(line);
  const std::string withLineEnd = line + '\n';
  // A failure to log cannot be reported anywhere.
  (void)std::fwrite(withLineEnd.data(), 1, withLineEnd.size(), stderr);
}

}  // namespace

void NSLog(const std::string& line) {
  std::shared_ptr<const NSLogSink> sink;
  {
    const std::lock_guard<std::mutex> guard(logState().mutex);
    sink = logState().sink;
  }
  if (*sink) {
    (*sink)(line);
  } else {
    logToSystem(line);
  }
}

NSLogSink NSSetLogSink(NSLogSink sink) {
  auto replacement = std::make_shared<const NSLogSink>(std::move(sink));
  const std::lock_guard<std::mutex> guard(logState().mutex);
  logState().sink.swap(replacement);
  return *replacement;
}

}  // namespace KQ
