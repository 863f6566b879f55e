#include "StandardOutput.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "Message.h"

namespace Tool {

namespace {

// A terminal or a pipe may have been switched to non-blocking by a program that shares it.
void waitUntilWritable() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  ::poll(&output, 1, -1);
}

void writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      waitUntilWritable();
    } else if (errno == EPIPE) {
      throw OutputClosed();
    } else if (errno == EBADF) {
      failWithSystemError(errno, "standard output", "it is closed, send it to a file or to /dev/null");
    } else if (errno != EINTR) {
      failWithSystemError(errno, "standard output");
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
