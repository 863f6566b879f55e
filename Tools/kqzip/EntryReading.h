#pragma once

#include <KQZip/KQZip.h>

#include <cstdint>
#include <functional>
#include <string_view>

#include "ArchiveScan.h"

namespace Tool {

/// Hands the entry's data to `take` in blocks of 1 MiB. Returns how many bytes there were: fewer than the
/// entry's length when the archive has been cut since it was scanned. Throws a Failure when it cannot be
/// read.
std::uint64_t readEntry(const ArchiveScan& archive, const ArchiveEntry& entry,
                        const std::function<void(std::string_view)>& take);

}  // namespace Tool
