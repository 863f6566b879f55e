#include "StandardOutput.h"

#include <cerrno>
#include <cstddef>
#include <utility>

#include "Message.h"
#include "System.h"

namespace Tool {

namespace {

void writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::ptrdiff_t count = System::write(Stream::Output, bytes);
    const auto code = static_cast<int>(-count);
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (code == EAGAIN) {
      System::waitUntilWritable(Stream::Output);
    } else if (code == EPIPE) {
      throw OutputClosed();
    } else if (code == EBADF) {
      failWithSystemError(code, "standard output", "it is closed, send it to a file or to /dev/null");
    } else {
      failWithSystemError(code, "standard output");
    }
  }
}

}  // namespace

void StandardOutput::writeThrough(std::string_view bytes) {
  flush();
  if (bytes.size() > blockSize) return writeAll(bytes);
  write(bytes);
}

void StandardOutput::flush() {
  // Emptied first: what could not be written is not tried again.
  const std::size_t length = std::exchange(length_, 0);
  writeAll({block_.get(), length});
}

}  // namespace Tool
