#pragma once

#include <string_view>

// Patterns that select entries by their names.

/// Whether the pattern matches the whole name. `*` matches any number of characters, `?` one, and `[…]` one
/// of a set, in which `a-z` is a range and a leading `!` or `^` inverts the set. All three match "/" too. A
/// backslash makes the character after it ordinary. A `[` without a `]` is an ordinary character. Characters
/// are code points; a byte that is not part of valid UTF-8 counts as one. Takes at most time proportional to
/// the product of both lengths.
bool KQZipMatchesPattern(std::string_view name, std::string_view pattern);

/// Whether the pattern matches the name or a folder above it. A final "/" of the name is ignored.
bool KQZipMatchesPatternOrIsBelow(std::string_view name, std::string_view pattern);
