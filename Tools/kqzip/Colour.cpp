#include "Colour.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace Tool {

namespace {

// Empty for a variable that is not set. No thread of the tool sets any.
std::string_view environmentVariable(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  return value == nullptr ? std::string_view() : value;
}

}  // namespace

bool isCapableTerminal(int descriptor) {
  const std::string_view kind = environmentVariable("TERM");
  return !kind.empty() && kind != "dumb" && isatty(descriptor) != 0;
}

std::string coloured(const std::string& text, Colour colour, int descriptor) {
  if (!environmentVariable("NO_COLOR").empty() || !isCapableTerminal(descriptor)) return text;
  return (colour == Colour::Red ? "\x1B[31m" : "\x1B[32m") + text + "\x1B[0m";
}

}  // namespace Tool
