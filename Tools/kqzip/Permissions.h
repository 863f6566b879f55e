#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ArchiveScan.h"

namespace Tool {

/// The permission bits that an archive's central directory gives its entries.
class Permissions {
 public:
  /// Made before the first entry is extracted. It asks for the process's mask, which the system only tells by
  /// changing it, so no file must be made at the same time.
  explicit Permissions(const ArchiveScan& archive);

  /// Gives the file or folder that the entry became its permissions, as far as the mask lets a new file have
  /// them; one without any is left as it is. Throws a Failure when that cannot be.
  void apply(const ArchiveEntry& entry, const std::string& path);

 private:
  struct Given {
    std::uint64_t localHeaderAt;
    mode_t permissions;
  };

  // In the order of the offsets, as the entries are and the directory is as a rule, and the next likely one.
  std::vector<Given> given_;
  std::size_t likely_ = 0;
  mode_t mask_;
};

}  // namespace Tool
