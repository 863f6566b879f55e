#pragma once

#include <string>

namespace Tool {

/// Throws a Failure for an archive's path that is empty.
void requireArchiveName(const std::string& path);

/// Throws a Failure when there is no file at the path, it is no regular one or it may not be read.
void requireArchiveFile(const std::string& path);

}  // namespace Tool
