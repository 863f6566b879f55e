#include "NSFoldedString.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace KQ {

namespace {

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char each) { return (each & '\x80') == 0; });
}

std::string foldedASCII(std::string_view text) {
  std::string folded(text);
  for (char& each : folded)
    if (each >= 'A' && each <= 'Z') each = static_cast<char>(each - 'A' + 'a');
  return folded;
}

std::string folded(std::string_view text) {
  if (isASCII(text)) return foldedASCII(text);
  utf8proc_uint8_t* result = nullptr;
  const auto options = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE | UTF8PROC_COMPAT |
                                                      UTF8PROC_CASEFOLD | UTF8PROC_IGNORE);
  const utf8proc_ssize_t length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                               static_cast<utf8proc_ssize_t>(text.size()), &result, options);
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(result, std::free);
  if (length < 0) return std::string(text);
  return {reinterpret_cast<const char*>(result), static_cast<std::size_t>(length)};
}

}  // namespace

std::string NSFoldedName(std::string_view name) {
  std::string result = folded(name);
  const std::size_t last = result.find_last_not_of(" .");
  if (last != std::string::npos) result.resize(last + 1);
  return result;
}

}  // namespace KQ
