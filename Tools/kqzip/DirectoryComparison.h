#pragma once

#include <string>
#include <vector>

#include "ArchiveScan.h"

namespace Tool {

/// Compares every entry with its record in the central directory and the other way round: name, CRC-32, size
/// and offset. One problem for each difference; none for an archive whose central directory is right.
std::vector<Problem> differencesFromCentralDirectory(const ArchiveScan& archive);

}  // namespace Tool
