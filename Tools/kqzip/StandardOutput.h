#pragma once

#include <string>
#include <string_view>

namespace Tool {

/// Thrown when whoever read standard output has gone. The rest of the output is not needed any more, which
/// is no failure.
class OutputClosed {};

/// Standard output, written in blocks. What was written has only reached it after flush(). Both fail with
/// OutputClosed, or with a Failure for any other error.
class StandardOutput {
 public:
  StandardOutput() = default;
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;

  void write(std::string_view bytes);
  void flush();

 private:
  std::string block_;
};

}  // namespace Tool
