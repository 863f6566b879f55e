#pragma once

#include <KQZip/KQZip.h>

#include <memory>
#include <string>

namespace Tool {

/// What `kqzip extract` was asked for.
struct ExtractOptions {
  std::string archive;           ///< The archive to read.
  std::string directory = ".";   ///< Where to extract to.
  bool quiet = false;            ///< No progress line.
  bool isVerbose = false;        ///< A line for each entry.
  bool keepsExisting = false;    ///< The short form of keeping what is there.
  std::string existing;          ///< How files that are there are treated: the word of the option.
  KQZipUnpackOptions unpacking;  ///< What the library is told.
};

/// Gives the archive's tree back. Every entry that is whole is extracted; then a Failure is thrown if there
/// were others. A Failure is thrown at once, before anything is written, for names that would leave the
/// folder and for paths that are not in the archive.
void extract(const ExtractOptions& options, const std::shared_ptr<KQ::NSProgress>& work);

}  // namespace Tool
