#pragma once

#include <string>

#include "System.h"

namespace Tool {

/// What a colour says.
enum class Colour {
  Red,   ///< Something is wrong.
  Green  ///< Everything is right.
};

/// Whether the stream is a terminal that can do more than print line after line: `TERM`
/// says so and is not "dumb".
bool isCapableTerminal(Stream stream);

/// The text in this colour for the stream. As it stands where the stream is no capable
/// terminal, and where the environment has a NO_COLOR that is not empty.
std::string coloured(const std::string& text, Colour colour, Stream stream);

}  // namespace Tool
