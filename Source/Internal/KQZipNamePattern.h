#pragma once

#include <string_view>

// Patterns that choose entries by their names. For the library's own use.

/// Whether the pattern matches the whole name. `*` stands for any characters, none included, `?` for one, and
/// `[…]` for one of a set, in which `a-z` is a range and a leading `!` or `^` turns the set around. All three
/// match "/" too. A backslash takes the special meaning from the character after it. A `[` without its `]` is
/// a character like any. Characters are code points; a byte that is not part of valid UTF-8 is one by itself.
/// Takes time by the product of the two lengths at most.
bool KQZipMatchesPattern(std::string_view name, std::string_view pattern);

/// Whether the pattern matches the name or a folder above it. A name's own final "/" does not count.
bool KQZipMatchesPatternOrIsBelow(std::string_view name, std::string_view pattern);
