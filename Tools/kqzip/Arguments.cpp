#include "Arguments.h"

#include <algorithm>

namespace Tool {

namespace {

constexpr char mark = '\x01';

bool needsMark(const std::string& argument) {
  return argument == "++" || (!argument.empty() && (argument.front() == '[' || argument.front() == mark));
}

}  // namespace

std::vector<std::string> markedArguments(int count, const char* const* arguments) {
  std::vector<std::string> marked;
  bool onlyPositionals = false;
  for (const char* const* argument = arguments + 1; argument < arguments + count; ++argument) {
    const std::string text = *argument;
    if (!onlyPositionals && text == "--")
      onlyPositionals = true;
    else
      marked.push_back(onlyPositionals || needsMark(text) ? mark + text : text);
  }
  std::reverse(marked.begin(), marked.end());
  return marked;
}

CLI::Option* unmarked(CLI::Option* option) {
  return option->transform(
      [](const std::string& text) { return !text.empty() && text.front() == mark ? text.substr(1) : text; });
}

std::string withoutMarks(std::string_view text) {
  std::string plain(text);
  plain.erase(std::remove(plain.begin(), plain.end(), mark), plain.end());
  return plain;
}

}  // namespace Tool
