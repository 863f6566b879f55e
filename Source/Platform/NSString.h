#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "KQExport.h"
#include "NSFormat.h"

namespace KQ {

// Strings are `std::string` in UTF-8; an absent one is an empty `std::optional`. All functions here are pure:
// any thread may call them at any time.

/// The order of two strings.
enum NSComparisonResult {
  NSOrderedAscending = -1,  ///< The left one comes first.
  NSOrderedSame = 0,        ///< Both have the same bytes.
  NSOrderedDescending = 1   ///< The right one comes first.
};

/// True when the bytes are well-formed UTF-8: no overlong form, no surrogate, nothing beyond U+10FFFF.
KQZIP_EXPORT bool isValidUTF8(std::string_view bytes);

/// The bytes as a string, or nothing when they are not valid UTF-8. A NUL byte is an ordinary character.
KQZIP_EXPORT std::optional<std::string> stringWithUTF8Bytes(const void* bytes, std::size_t length);

/// Compares two strings by the code points of their canonical decompositions: case-sensitive, independent of
/// the locale, byte order for ASCII. Canonically equivalent strings with different bytes are ordered by their
/// bytes, so the order is total. A byte that is not part of valid UTF-8 sorts after every code point.
KQZIP_EXPORT NSComparisonResult compare(std::string_view left, std::string_view right);

/// compare() as a less-than for sorted containers.
struct NSStringLess {
  using is_transparent = void;  ///< Lets a container look up a view without making a string.
  /// True when `left` sorts before `right`.
  bool operator()(std::string_view left, std::string_view right) const {
    return compare(left, right) == NSOrderedAscending;
  }
};

/// True when `string` begins with the bytes of `prefix`.
KQZIP_EXPORT bool hasPrefix(std::string_view string, std::string_view prefix);

/// The last component: "b" of "a/b" and of "a/b/", "/" of "/", "" of "".
KQZIP_EXPORT std::string lastPathComponent(std::string_view path);

/// The path without its last component: "a" of "a/b" and of "a/b/", "/" of "/x" and of "/", "" of "x".
KQZIP_EXPORT std::string stringByDeletingLastPathComponent(std::string_view path);

/// Joins with one "/". A trailing "/" is dropped, an empty left side yields the component itself, and an
/// absolute component never replaces the left side: "out" with "/etc/x" is "out/etc/x".
KQZIP_EXPORT std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);

/// `bytes` made printable: control characters, characters that reorder text or are invisible, and bytes that
/// are not valid UTF-8, as `\xNN`.
KQZIP_EXPORT std::string stringByEscapingUnprintables(std::string_view bytes);

}  // namespace KQ
