#pragma once

#include <KQZip/KQZip.h>

#include <memory>
#include <string>

namespace Tool {

/// What `kqzip verify` was asked for.
struct VerifyOptions {
  std::string archive;   ///< The archive to check.
  bool quiet = false;    ///< No progress line and no summary.
  bool summary = true;   ///< A line when everything is right.
  bool isJson = false;   ///< One JSON document instead of lines and summary.
  bool isHuman = false;  ///< Sizes in units for a person.
};

/// Compares every entry's data with its header, and the entries with the central directory. Prints one line
/// for each thing that is wrong and throws a Failure if there is any.
void verify(const VerifyOptions& options, const std::shared_ptr<KQ::NSProgress>& work);

}  // namespace Tool
