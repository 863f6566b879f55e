#pragma once

#include <functional>
#include <string>

#include "KQExport.h"

namespace KQ {

/// Takes one log line, without a line end. It may be called from several threads at once.
using NSLogSink = std::function<void(const std::string& line)>;

/// Sends one line to the log: to the system log and standard error, or to the sink that was set. May be
/// called from any thread.
KQZIP_EXPORT void NSLog(const std::string& line);

/// Makes `sink` take the lines instead of the system log and standard error; an empty one goes back to
/// those. Returns the sink that was in place, empty for the default. May be called from any thread; a line
/// on its way while the sink is replaced may still reach the earlier one.
KQZIP_EXPORT NSLogSink NSSetLogSink(NSLogSink sink);

}  // namespace KQ
