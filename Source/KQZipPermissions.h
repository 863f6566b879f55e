#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

/// The permission bits of the source of an entry: the lowest nine bits of a file's mode, of which no others
/// are used. Nothing for those that an entry gets otherwise. It is called at most once for each entry, before
/// anything is written, and must not throw.
using KQZipPermissions = std::function<std::optional<std::uint32_t>(const std::string& relativePath)>;
