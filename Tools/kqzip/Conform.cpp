#include "Conform.h"

#include <memory>

#include "Message.h"

namespace Tool {

void conform(const ConformOptions& options) { makeInteroperable(options.archive, KQZipPermissions()); }

void makeInteroperable(const std::string& archive, const KQZipPermissions& permissions) {
  std::shared_ptr<const KQ::NSError> error;
  if (!KQZipMakeArchiveInteroperable(archive, permissions, &error))
    failWithError(error, inQuotes(archive) + " cannot be made interoperable");
}

}  // namespace Tool
