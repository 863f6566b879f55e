#pragma once

#include "../Archive/KQZipArchive.h"
#include "KQZipArchiveState.h"

/// Verifies an open archive; see KQZipArchive::verify().
bool KQZipVerifyArchive(const KQZipArchiveState& archive, const KQZipVerifyOptions& options,
                        KQZipReport& report, KQ::NSErrorSlot error);
