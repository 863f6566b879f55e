#pragma once

#include <KQZip/KQZip.h>

#include <string>

namespace Tool {

/// What `kqzip conform` was asked for.
struct ConformOptions {
  std::string archive;  ///< The archive to change.
};

/// Makes the archive interoperable; does nothing to one that is. Throws a Failure.
void conform(const ConformOptions& options);

/// Makes the archive interoperable, with these permissions for its entries. Throws a Failure.
void makeInteroperable(const std::string& archive, const KQZipPermissions& permissions);

}  // namespace Tool
