#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace Tool {

/// The arguments of the program, last first as CLI11 wants them, and marked where CLI11 would read more into
/// one than stands there: it takes "[a,b]" for a list, "++" for the end of a command, and what follows a
/// second positional behind "--" for options again. Any of these may be the name of a file.
std::vector<std::string> markedArguments(int count, const char* const* arguments);

/// Lets the option's values have their marks taken off.
CLI::Option* unmarked(CLI::Option* option);

/// A text of CLI11's without marks.
std::string withoutMarks(std::string_view text);

}  // namespace Tool
