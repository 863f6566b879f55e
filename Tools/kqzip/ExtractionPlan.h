#pragma once

#include <string>
#include <vector>

#include "ArchiveScan.h"

namespace Tool {

/// An entry and where it goes.
struct ExtractionItem {
  const ArchiveEntry* entry = nullptr;
  std::string target;  ///< Its name without empty and "." components: the path below the destination.
};

/// What an extraction is going to write, and what it has to leave out.
struct ExtractionPlan {
  std::vector<ExtractionItem> items;  ///< In the order of the archive, each target once.
  std::vector<Problem> leftOut;       ///< Entries that cannot be extracted.
};

/// Throws a Failure for the first name that would leave the destination or cannot be the name of a file. With
/// `unsafePaths` only a NUL is refused.
void refuseUnsafeNames(const ArchiveScan& archive, bool unsafePaths);

/// Plans to extract the entries that `paths` ask for, all of them when there are none. Of several entries
/// with one target the last counts. Throws a Failure for a path that asks for nothing, and for a file where a
/// folder must be.
ExtractionPlan planExtraction(const ArchiveScan& archive, const std::vector<std::string>& paths);

}  // namespace Tool
