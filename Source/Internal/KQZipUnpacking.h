#pragma once

#include <string>

#include "../Archive/KQZipReport.h"
#include "../Archive/KQZipUnpackOptions.h"
#include "../Platform/NSError.h"
#include "KQZipArchiveState.h"

// Unpacks an archive, from the plan to the last date. For the library's own use.

/// What KQZipArchive::unpack() does.
bool KQZipUnpackArchive(const KQZipArchiveState& archive, const std::string& folder,
                        const KQZipUnpackOptions& options, KQZipReport& report, KQ::NSErrorSlot error);
