#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "KQExport.h"

namespace KQ {

class NSError;

/// One argument of stringWithFormat(), as text. An absent object reads "(null)".
class KQZIP_EXPORT NSFormatArgument {
 public:
  // Implicit by design: a list of arguments then reads like the call of a formatting function.
  NSFormatArgument(std::string text);                             ///< The string itself.
  NSFormatArgument(const char* text);                             ///< The string itself.
  NSFormatArgument(const std::optional<std::string>& text);       ///< A string or nothing.
  NSFormatArgument(const std::shared_ptr<const NSError>& error);  ///< An error's description or nothing.
  /// A number in decimal digits.
  static NSFormatArgument decimal(std::uint64_t number);
  /// A number in lower-case hexadecimal digits, without a prefix or leading zeros.
  static NSFormatArgument hexadecimal(std::uint64_t number);
  /// An object's address.
  static NSFormatArgument identity(const void* object);

  /// The text that replaces the placeholder.
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/// `format` with its placeholders "%@", "%llu", "%x" and "%p" replaced by the arguments, left to right. Each
/// placeholder needs one argument. Placeholders inside arguments are not replaced.
KQZIP_EXPORT std::string stringWithFormat(std::string_view format,
                                          std::initializer_list<NSFormatArgument> arguments);

}  // namespace KQ
