#include "Conform.h"

#include <memory>
#include <string>
#include <vector>

#include "Advice.h"
#include "ArchivePath.h"
#include "Message.h"

namespace Tool {

namespace {

// For an archive that is refused, what to do next, and nothing for an error of the system.
std::vector<std::string> stepsAfterRefusal(const std::shared_ptr<const KQ::NSError>& error) {
  if (!error || error->domain() == KQ::NSPOSIXErrorDomain) return {};
  return {"kqzip verify tells whether it is damaged"};
}

}  // namespace

void conform(const ConformOptions& options) {
  requireArchiveFile(options.archive);
  makeInteroperable(options.archive, KQZipPermissions());
}

void makeInteroperable(const std::string& archive, const KQZipPermissions& permissions) {
  std::shared_ptr<const KQ::NSError> error;
  if (!KQZipMakeArchiveInteroperable(archive, permissions, &error))
    failWithError(error, inQuotes(archive) + " cannot be made interoperable", stepsAfterRefusal(error));
}

}  // namespace Tool
