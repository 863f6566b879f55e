#pragma once

#include <cstddef>
#include <memory>
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

  void write(std::string_view bytes) {
    if (bytes.size() > blockSize - length_) return writeThrough(bytes);
    length_ += bytes.copy(block_.get() + length_, bytes.size());
  }

  void flush();

 private:
  static constexpr std::size_t blockSize = 65536;

  void writeThrough(std::string_view bytes);

  std::unique_ptr<char[]> block_{new char[blockSize]};
  std::size_t length_ = 0;
};

}  // namespace Tool
