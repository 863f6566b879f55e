#include "Colour.h"

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

bool isCapableTerminal(Stream stream) {
  const std::string_view kind = environmentVariable("TERM");
  return !kind.empty() && kind != "dumb" && System::isTerminal(stream);
}

std::string coloured(const std::string& text, Colour colour, Stream stream) {
  if (!environmentVariable("NO_COLOR").empty() || !isCapableTerminal(stream)) return text;
  return (colour == Colour::Red ? "\x1B[31m" : "\x1B[32m") + text + "\x1B[0m";
}

}  // namespace Tool
