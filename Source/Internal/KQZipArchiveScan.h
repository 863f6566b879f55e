#pragma once

#include "../Platform/NSError.h"
#include "KQZipArchiveState.h"

/// Fills the index of an archive whose directory cannot be followed, from its local headers: from one to the
/// next, and where there is none, on from the next one that holds up. What central headers there are give
/// permissions and kinds. False with the error in the slot when reading fails.
bool KQZipScanArchive(KQZipArchiveState& archive, KQ::NSErrorSlot error);
