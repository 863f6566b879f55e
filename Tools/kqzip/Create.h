#pragma once

#include <KQZip/KQZip.h>

#include <memory>
#include <string>
#include <vector>

namespace Tool {

/// What `kqzip create` was asked for.
struct CreateOptions {
  std::string archive;               ///< The archive to make.
  std::vector<std::string> sources;  ///< One folder, or files.
  bool keepParent = false;           ///< Names begin with the folder's own.
  bool quiet = false;                ///< No progress line.
  bool verifies = false;             ///< Read everything back and compare it with its CRC-32.
  bool exact = false;                ///< Leave the archive as the library writes it.
};

/// Packs a folder, or files each under its last path component. Everything that can be told beforehand is
/// told before an archive is made, and the archive's records are checked afterwards. Then it is made
/// interoperable, with the permissions of the files. Throws a Failure, which names an archive that is left.
void create(const CreateOptions& options, const std::shared_ptr<KQ::NSProgress>& work);

}  // namespace Tool
