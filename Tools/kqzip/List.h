#pragma once

#include <KQZip/KQZip.h>

#include <string>

#include "ArchiveScan.h"
#include "StandardOutput.h"

namespace Tool {

/// What `kqzip list` was asked for.
struct ListOptions {
  std::string archive;    ///< The archive to list.
  bool isLong = false;    ///< With type, size and date.
  bool endsNull = false;  ///< Names as they stand, each with a NUL behind it.
  bool isJson = false;    ///< One JSON document instead of lines.
  bool isHuman = false;   ///< Sizes in units for a person.
};

/// Prints the names of all entries that are whole, or all there is to know of them, in the order of the
/// library's reader. Throws a Failure, after printing, when the archive is damaged.
void list(const ListOptions& options, const KQ::NSProgress& work);

/// What list() prints of an archive, damaged or not. The caller flushes `output`.
void printList(const ListOptions& options, const ArchiveScan& archive, StandardOutput& output);

}  // namespace Tool
