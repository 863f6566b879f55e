#pragma once

#include <string>

namespace KQTest {

/// A named pipe and its reading end. Whoever writes into it goes on only as far as it is read, so a test can
/// hold a copy at any byte without waiting for time to pass.
class NamedPipe {
 public:
  explicit NamedPipe(const std::string& path);
  ~NamedPipe();
  NamedPipe(const NamedPipe&) = delete;
  NamedPipe& operator=(const NamedPipe&) = delete;

  /// Reads `length` bytes, less only when every writer has closed the pipe.
  std::string read(std::size_t length);

  /// Reads until every writer has closed the pipe.
  std::string readToEnd();

 private:
  int descriptor_ = -1;
};

}  // namespace KQTest
