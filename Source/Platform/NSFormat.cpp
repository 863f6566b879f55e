#include "NSFormat.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "NSError.h"

namespace KQ {

static constexpr char absentObject[] = "(null)";

NSFormatArgument::NSFormatArgument(std::string text) : text_(std::move(text)) {}
NSFormatArgument::NSFormatArgument(const char* text) : text_(text) {}
NSFormatArgument::NSFormatArgument(const std::optional<std::string>& text)
    : text_(text.value_or(absentObject)) {}
NSFormatArgument::NSFormatArgument(const std::shared_ptr<const NSError>& error)
    : text_(error ? error->description() : absentObject) {}

NSFormatArgument NSFormatArgument::decimal(std::uint64_t number) { return std::to_string(number); }

NSFormatArgument NSFormatArgument::hexadecimal(std::uint64_t number) {
  std::array<char, 16> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16);
  return std::string(digits.data(), end.ptr);
}

NSFormatArgument NSFormatArgument::identity(const void* object) {
  return "0x" + hexadecimal(reinterpret_cast<std::uintptr_t>(object)).text();
}

std::string stringWithFormat(std::string_view format, std::initializer_list<NSFormatArgument> arguments) {
  static constexpr std::array<std::string_view, 4> placeholders{"%@", "%llu", "%x", "%p"};
  std::string result;
  auto argument = arguments.begin();
  while (!format.empty()) {
    const auto placeholder =
        std::find_if(placeholders.begin(), placeholders.end(),
                     [format](std::string_view text) { return format.starts_with(text); });
    if (placeholder != placeholders.end() && argument != arguments.end()) {
      result += argument->text();
      ++argument;
      format.remove_prefix(placeholder->size());
    } else {
      result += format.front();
      format.remove_prefix(1);
    }
  }
  return result;
}

}  // namespace KQ
