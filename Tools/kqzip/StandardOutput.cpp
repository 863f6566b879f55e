#include "StandardOutput.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "Message.h"

namespace Tool {

namespace {

constexpr std::size_t blockSize = 65536;

// A terminal or a pipe may have been switched to non-blocking by a program that shares it.
void waitUntilWritable() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  ::poll(&output, 1, -1);
}

void writeThrough(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      waitUntilWritable();
    } else if (errno == EPIPE) {
      throw OutputClosed();
    } else if (errno != EINTR) {
      failWithSystemError(errno, "standard output");
    }
  }
}

}  // namespace

void StandardOutput::write(std::string_view bytes) {
  if (bytes.size() >= blockSize) {
    flush();
    writeThrough(bytes);
    return;
  }
  block_ += bytes;
  if (block_.size() >= blockSize) flush();
}

void StandardOutput::flush() {
  // Emptied first: what could not be written is not tried again.
  const std::string block = std::exchange(block_, {});
  writeThrough(block);
}

}  // namespace Tool
