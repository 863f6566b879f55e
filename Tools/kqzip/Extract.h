#pragma once

#include <KQZip/KQZip.h>

#include <memory>
#include <string>
#include <vector>

namespace Tool {

/// What `kqzip extract` was asked for.
struct ExtractOptions {
  std::string archive;             ///< The archive to read.
  std::string directory = ".";     ///< Where to extract to.
  bool unsafePaths = false;        ///< Takes names and links as they stand.
  bool quiet = false;              ///< No progress line.
  std::vector<std::string> paths;  ///< What to extract; everything when empty.
};

/// Gives the archive's tree back. Every entry that is whole is extracted; then a Failure is thrown if there
/// were others. A Failure is thrown at once, before anything is written, for names that would leave the
/// folder and for paths that are not in the archive.
void extract(const ExtractOptions& options, const std::shared_ptr<KQ::NSProgress>& work);

}  // namespace Tool
