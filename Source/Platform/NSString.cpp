#include "NSString.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>
#include <vector>

namespace KQ {

namespace {

bool isASCII(char byte) { return static_cast<unsigned char>(byte) < 0x80; }

using Word = std::uint64_t;

Word wordAt(std::string_view bytes, std::size_t position) {
  Word word = 0;
  std::memcpy(&word, bytes.data() + position, sizeof(Word));
  return word;
}

// The number of leading zero bytes of a word, in memory order.
std::size_t lengthOfZeros(Word word) {
  const int bits =
      std::endian::native == std::endian::little ? std::countr_zero(word) : std::countl_zero(word);
  return static_cast<std::size_t>(bits) / 8;
}

// The number of leading ASCII bytes.
std::size_t lengthOfASCII(std::string_view bytes) {
  constexpr Word highBits = 0x8080808080808080;
  std::size_t length = 0;
  for (; length + sizeof(Word) <= bytes.size(); length += sizeof(Word)) {
    const std::size_t inWord = lengthOfZeros(wordAt(bytes, length) & highBits);
    if (inWord != sizeof(Word)) return length + inWord;
  }
  while (length < bytes.size() && isASCII(bytes[length])) ++length;
  return length;
}

// The number of leading bytes that are equal.
std::size_t commonLength(std::string_view left, std::string_view right) {
  const std::size_t limit = std::min(left.size(), right.size());
  std::size_t length = 0;
  for (; length + sizeof(Word) <= limit; length += sizeof(Word)) {
    const std::size_t inWord = lengthOfZeros(wordAt(left, length) ^ wordAt(right, length));
    if (inWord != sizeof(Word)) return length + inWord;
  }
  while (length < limit && left[length] == right[length]) ++length;
  return length;
}

// The first code point of `bytes` and its length, or nothing when the bytes are not valid UTF-8.
struct CodePoint {
  utf8proc_int32_t value;
  std::size_t length;
};

std::optional<CodePoint> firstCodePoint(std::string_view bytes) {
  if (isASCII(bytes.front())) return CodePoint{bytes.front(), 1};
  utf8proc_int32_t value = 0;
  const utf8proc_ssize_t length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(bytes.data()),
                                                   static_cast<utf8proc_ssize_t>(bytes.size()), &value);
  if (length <= 0) return std::nullopt;
  return CodePoint{value, static_cast<std::size_t>(length)};
}

using CodePoints = std::vector<utf8proc_int32_t>;

void appendDecomposed(utf8proc_int32_t codePoint, CodePoints& result) {
  // No canonical decomposition is longer than four code points.
  std::array<utf8proc_int32_t, 16> decomposed{};
  const utf8proc_ssize_t count =
      utf8proc_decompose_char(codePoint, decomposed.data(), decomposed.size(), UTF8PROC_DECOMPOSE, nullptr);
  if (count <= 0 || count > static_cast<utf8proc_ssize_t>(decomposed.size())) {
    result.push_back(codePoint);
  } else {
    result.insert(result.end(), decomposed.begin(), decomposed.begin() + count);
  }
}

utf8proc_propval_t combiningClass(utf8proc_int32_t codePoint) {
  return utf8proc_get_property(codePoint)->combining_class;
}

// Brings the combining marks on each letter into canonical order; letters keep their places.
void orderMarks(CodePoints& codePoints) {
  for (auto mark = codePoints.begin(); mark != codePoints.end();) {
    if (combiningClass(*mark) == 0) {
      ++mark;
      continue;
    }
    const auto end = std::find_if(mark, codePoints.end(), [](auto c) { return combiningClass(c) == 0; });
    std::stable_sort(mark, end,
                     [](auto left, auto right) { return combiningClass(left) < combiningClass(right); });
    mark = end;
  }
}

CodePoints canonicalDecomposition(std::string_view string) {
  const utf8proc_int32_t behindAllCodePoints = 0x110000;
  CodePoints result;
  result.reserve(string.size());
  while (!string.empty()) {
    if (const auto codePoint = firstCodePoint(string)) {
      appendDecomposed(codePoint->value, result);
      string.remove_prefix(codePoint->length);
    } else {
      result.push_back(behindAllCodePoints + static_cast<unsigned char>(string.front()));
      string.remove_prefix(1);
    }
  }
  orderMarks(result);
  return result;
}

NSComparisonResult resultOf(int order) {
  if (order == 0) return NSOrderedSame;
  return order < 0 ? NSOrderedAscending : NSOrderedDescending;
}

NSComparisonResult compareDecomposed(std::string_view left, std::string_view right) {
  const CodePoints leftPoints = canonicalDecomposition(left);
  const CodePoints rightPoints = canonicalDecomposition(right);
  if (leftPoints < rightPoints) return NSOrderedAscending;
  if (rightPoints < leftPoints) return NSOrderedDescending;
  return resultOf(left.compare(right));
}

std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

std::string_view withoutLeadingSlashes(std::string_view path) {
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  return path;
}

// Letters by their category that show as nothing.
bool isFiller(utf8proc_int32_t codePoint) {
  return codePoint == 0x034F || codePoint == 0x115F || codePoint == 0x1160 || codePoint == 0x17B4 ||
         codePoint == 0x17B5 || codePoint == 0x3164 || codePoint == 0xFFA0;
}

// Characters that format, as those that reorder the text around them, are not to be seen themselves.
bool isPrintable(utf8proc_int32_t codePoint) {
  switch (utf8proc_category(codePoint)) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
      return false;
    default:
      return !isFiller(codePoint);
  }
}

void appendEscaped(std::string_view bytes, std::string& result) {
  static constexpr char digits[] = "0123456789ABCDEF";
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    result += {'\\', 'x', digits[value >> 4], digits[value & 15]};
  }
}

}  // namespace

bool isValidUTF8(std::string_view bytes) {
  for (;;) {
    bytes.remove_prefix(lengthOfASCII(bytes));
    if (bytes.empty()) return true;
    const auto codePoint = firstCodePoint(bytes);
    if (!codePoint) return false;
    bytes.remove_prefix(codePoint->length);
  }
}

std::optional<std::string> stringWithUTF8Bytes(const void* bytes, std::size_t length) {
  const std::string_view view(static_cast<const char*>(bytes), length);
  if (!isValidUTF8(view)) return std::nullopt;
  return std::string(view);
}

NSComparisonResult compare(std::string_view left, std::string_view right) {
  const std::size_t common = commonLength(left, right);
  const bool leftEnds = common == left.size();
  const bool rightEnds = common == right.size();
  if (leftEnds && rightEnds) return NSOrderedSame;

  // An ASCII character is its own decomposition, and no mark moves across it. A first difference between two
  // of them, or between one and the end, therefore decides.
  const bool decided = (leftEnds || isASCII(left[common])) && (rightEnds || isASCII(right[common]));
  if (!decided) return compareDecomposed(left, right);
  if (leftEnds || rightEnds) return leftEnds ? NSOrderedAscending : NSOrderedDescending;
  return resultOf(left[common] - right[common]);
}

bool hasPrefix(std::string_view string, std::string_view prefix) {
  return string.substr(0, prefix.size()) == prefix;
}

std::string lastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  if (path == "/") return "/";
  return std::string(path.substr(path.rfind('/') + 1));
}

std::string stringByDeletingLastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {};
  return std::string(withoutTrailingSlashes(path.substr(0, slash + 1)));
}

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component) {
  if (path.empty()) return std::string(withoutTrailingSlashes(component));
  path = withoutTrailingSlashes(path);
  component = withoutTrailingSlashes(withoutLeadingSlashes(component));
  if (component.empty()) return std::string(path);
  std::string result;
  result.reserve(path.size() + 1 + component.size());
  result = path;
  if (path != "/") result += '/';
  result += component;
  return result;
}

std::string stringByEscapingUnprintables(std::string_view bytes) {
  std::string result;
  while (!bytes.empty()) {
    const auto codePoint = firstCodePoint(bytes);
    const std::string_view character = bytes.substr(0, codePoint ? codePoint->length : 1);
    if (codePoint && isPrintable(codePoint->value)) {
      result += character;
    } else {
      appendEscaped(character, result);
    }
    bytes.remove_prefix(character.size());
  }
  return result;
}

}  // namespace KQ
