#pragma once

#include <string>
#include <string_view>

namespace KQ {

/// A name as the file systems see it that make the least difference: without case, composition, characters
/// that do not show, and blanks and dots at its end. Names that any file system holds for the same are equal
/// then; more are, too. Bytes that are not UTF-8 stay as they are.
std::string NSFoldedName(std::string_view name);

}  // namespace KQ
