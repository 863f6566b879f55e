#pragma once

#include <KQZip/KQZip.h>

#include <memory>
#include <string>
#include <vector>

namespace Tool {

// What to do next, for the end of a message.

inline constexpr char verifyTellsMore[] = "kqzip verify tells all that is wrong";
inline constexpr char otherProgramNeeded[] = "another archive program may read it";
inline constexpr char checkTheFile[] = "check that it is the right file";
inline constexpr char inTheWay[] = "move it away, or extract elsewhere with -C";

/// The text with remarks behind it, "text (one; another)". Empty remarks are left out.
std::string withRemarks(const std::string& text, const std::vector<std::string>& remarks);

/// What to do about an error of the system; empty where there is nothing to be said in general.
std::string adviceFor(int code);

/// The same for an error of the library.
std::string adviceFor(const std::shared_ptr<const KQ::NSError>& error);

}  // namespace Tool
