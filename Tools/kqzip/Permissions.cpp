#include "Permissions.h"

#include <sys/stat.h>

#include <algorithm>
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
    if (record.permissions) given_.push_back({record.localHeaderAt, *record.permissions});
  }
  const auto standsBefore = [](const Given& left, const Given& right) {
    return left.localHeaderAt < right.localHeaderAt;
  };
  const auto isOutOfOrder = [&](const Given& left, const Given& right) { return !standsBefore(left, right); };
  if (std::adjacent_find(given_.begin(), given_.end(), isOutOfOrder) == given_.end()) return;
  // Of several for one entry the last counts, and is found first.
  std::reverse(given_.begin(), given_.end());
  std::stable_sort(given_.begin(), given_.end(), standsBefore);
}

void Permissions::apply(const ArchiveEntry& entry, const std::string& path) {
  const std::uint64_t offset = entry.localHeaderAt();
  if (likely_ >= given_.size() || given_[likely_].localHeaderAt != offset) {
    const auto found =
        std::lower_bound(given_.begin(), given_.end(), offset,
                         [](const Given& each, std::uint64_t at) { return each.localHeaderAt < at; });
    if (found == given_.end() || found->localHeaderAt != offset) return;
    likely_ = static_cast<std::size_t>(found - given_.begin());
  }
  const mode_t permissions = given_[likely_++].permissions & ~mask_;
  const bool hasThem = !entry.isFolder() && permissions == (permissionsOfNewFile & ~mask_);
  if (!hasThem && ::chmod(path.c_str(), permissions) != 0) failWithSystemError(errno, path);
}

}  // namespace Tool
