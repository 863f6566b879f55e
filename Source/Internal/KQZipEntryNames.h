#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Names of entries: what characters their bytes stand for, and which of them are equal. For the library's own
// use.

/// Appends the bytes, taken for code page 437, as UTF-8.
void KQZipAppendFromCodePage437(std::string_view bytes, std::string* text);

/// The name without empty parts and parts that are ".", but for a "/" at its start and at its end. It is
/// `name` itself where it has none, else it is made in `room`.
std::string_view KQZipCanonicalName(std::string_view name, std::string& room);

/// A number that spreads names evenly, and differs from process to process, so that nobody can make names
/// that all have the same one.
std::uint32_t KQZipHashOfName(std::string_view name);
