#include "KQZipNamePattern.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "../Platform/NSString.h"

namespace {

// The code of a byte that is not part of valid UTF-8, above all code points.
constexpr std::uint32_t strayByte = 0x110000;

// The first character of the text, which is not empty, and its length in bytes.
struct Character {
  explicit Character(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80) {
      code = first;
      return;
    }
    const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC0 || text.size() < size || !KQ::isValidUTF8(text.substr(0, size))) {
      code = strayByte + first;
      return;
    }
    length = size;
    code = first & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
  }

  std::uint32_t code = 0;
  std::size_t length = 1;
};

Character taken(std::string_view* text) {
  const Character character(*text);
  text->remove_prefix(character.length);
  return character;
}

// Reads the set after "[" up to its "]". False when there is no "]"; the "[" is then an ordinary character.
bool matchesSet(std::uint32_t code, std::string_view* pattern, bool* matches) {
  std::string_view rest = *pattern;
  const bool isTurned = !rest.empty() && (rest.front() == '!' || rest.front() == '^');
  if (isTurned) rest.remove_prefix(1);
  bool found = false;
  // A "]" in first place is a member of the set.
  for (bool isFirst = true; !rest.empty() && (isFirst || rest.front() != ']'); isFirst = false) {
    const std::uint32_t low = taken(&rest).code;
    std::uint32_t high = low;
    if (rest.size() > 1 && rest[0] == '-' && rest[1] != ']') {
      rest.remove_prefix(1);
      high = taken(&rest).code;
    }
    found = found || (low <= code && code <= high);
  }
  if (rest.empty()) return false;
  rest.remove_prefix(1);
  *pattern = rest;
  *matches = found != isTurned;
  return true;
}

// Removes the first element of the pattern, which is not a star. Returns whether it matches the character.
bool matchesOne(std::uint32_t code, std::string_view* pattern) {
  const std::uint32_t element = taken(pattern).code;
  if (element == '?') return true;
  bool matches = false;
  if (element == '[' && matchesSet(code, pattern, &matches)) return matches;
  if (element == '\\' && !pattern->empty()) return taken(pattern).code == code;
  return element == code;
}

}  // namespace

bool KQZipMatchesPattern(std::string_view name, std::string_view pattern) {
  // Where to continue when the part after the last star does not match: the star takes one more character. An
  // earlier star never needs to, because the last one can take the same characters.
  bool hasStar = false;
  std::string_view nameAtStar;
  std::string_view patternAfterStar;
  while (!name.empty() || !pattern.empty()) {
    if (!pattern.empty() && pattern.front() == '*') {
      pattern.remove_prefix(1);
      hasStar = true;
      nameAtStar = name;
      patternAfterStar = pattern;
      continue;
    }
    std::string_view rest = pattern;
    if (!name.empty() && !pattern.empty() && matchesOne(Character(name).code, &rest)) {
      taken(&name);
      pattern = rest;
      continue;
    }
    if (!hasStar || nameAtStar.empty()) return false;
    taken(&nameAtStar);
    name = nameAtStar;
    pattern = patternAfterStar;
  }
  return true;
}

bool KQZipMatchesPatternOrIsBelow(std::string_view name, std::string_view pattern) {
  for (std::size_t end = name.find('/'); end != std::string_view::npos; end = name.find('/', end + 1)) {
    if (KQZipMatchesPattern(name.substr(0, end), pattern)) return true;
  }
  return !name.ends_with('/') && KQZipMatchesPattern(name, pattern);
}
