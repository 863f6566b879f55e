#include "Permissions.h"

#include <sys/stat.h>

#include <cerrno>

#include "Message.h"

namespace Tool {

namespace {

constexpr mode_t permissionsOfNewFile = 0666;

mode_t currentMask() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

}  // namespace

Permissions::Permissions(const ArchiveScan& archive) : mask_(currentMask()) {
  for (const CentralRecord& record : archive.centralRecords()) {
    if (record.permissions) permissionsAt_[record.localHeaderAt] = *record.permissions;
  }
}

void Permissions::apply(const ArchiveEntry& entry, const std::string& path) const {
  const auto found = permissionsAt_.find(entry.localHeaderAt());
  if (found == permissionsAt_.end()) return;
  const mode_t permissions = found->second & ~mask_;
  const bool hasThem = !entry.isFolder() && permissions == (permissionsOfNewFile & ~mask_);
  if (!hasThem && ::chmod(path.c_str(), permissions) != 0) failWithSystemError(errno, path);
}

}  // namespace Tool
