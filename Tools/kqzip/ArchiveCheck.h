#pragma once

#include <KQZip/KQZip.h>

#include <string>

namespace Tool {

/// Reads the records of an archive that was just made, and none of its data. Throws a Failure that names the
/// file when one was longer or shorter while it was packed than its entry says: the library writes what it
/// reads, and such an archive cannot be read back. Also throws when `work` is cancelled meanwhile.
void requireReadableArchive(const std::string& archive, const KQ::NSProgress& work);

}  // namespace Tool
