#pragma once

#include "../Platform/NSError.h"

/// Reports a failed write or flush: stores -51 "Error writing file" if there is a slot, and logs "stream
/// writing failed: %@". Returns false.
bool KQZipReportFailedWrite(KQ::NSErrorSlot error);
