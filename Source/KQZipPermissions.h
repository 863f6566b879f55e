#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

/// A function that returns the permissions of an entry's source: the lowest nine bits of a file's mode; other
/// bits are ignored. Nothing gives the entry the default permissions. It is called at most once for each
/// entry, before anything is written, and must not throw.
using KQZipPermissions = std::function<std::optional<std::uint32_t>(const std::string& relativePath)>;
