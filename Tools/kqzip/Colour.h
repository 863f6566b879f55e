#pragma once

#include <string>

namespace Tool {

/// What a colour says.
enum class Colour {
  Red,   ///< Something is wrong.
  Green  ///< Everything is right.
};

/// Whether the stream of this descriptor is a terminal that can do more than print line after line: `TERM`
/// says so and is not "dumb".
bool isCapableTerminal(int descriptor);

/// The text in this colour for the stream of this descriptor. As it stands where the stream is no capable
/// terminal, and where the environment has a NO_COLOR that is not empty.
std::string coloured(const std::string& text, Colour colour, int descriptor);

}  // namespace Tool
