#pragma once

#include <KQZip/KQZip.h>

#include <string>

namespace Tool {

/// What `kqzip cat` was asked for.
struct CatOptions {
  std::string archive;  ///< The archive to read.
  std::string path;     ///< The entry's name as stored.
};

/// Writes an entry's bytes to standard output. An entry that is whole is no failure, whatever else is wrong
/// with its archive. Throws a Failure when there is no such entry, and when the bytes, which are written by
/// then, do not have its CRC-32.
void cat(const CatOptions& options, const KQ::NSProgress& work);

}  // namespace Tool
