#pragma once

#include <functional>
#include <string>

#include "KQExport.h"

namespace KQ {

/// Takes one log line, without a line end. Several threads may call it at once.
using NSLogSink = std::function<void(const std::string& line)>;

/// Logs one line: to the system log and standard error, or to the sink that is set. Any thread may call it.
KQZIP_EXPORT void NSLog(const std::string& line);

/// Sends the lines to `sink` instead of the system log and standard error; an empty sink restores those.
/// Returns the previous sink, empty for the default. Any thread may call it. A line that is being logged
/// during the call may still go to the previous sink.
KQZIP_EXPORT NSLogSink NSSetLogSink(NSLogSink sink);

}  // namespace KQ
