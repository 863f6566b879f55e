#include "Support/NamedPipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>

namespace KQTest {

NamedPipe::NamedPipe(const std::string& path) {
  if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("cannot make a named pipe");
  // Opened at once and without blocking, so that the writer never waits for a reader.
  descriptor_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor_ < 0) throw std::runtime_error("cannot open a named pipe");
}

NamedPipe::~NamedPipe() { close(descriptor_); }

std::string NamedPipe::read(std::size_t length) {
  std::string bytes;
  std::array<char, 65536> buffer{};
  // Only a writer that never comes makes this wait in vain.
  const int patience = 600000;
  while (bytes.size() < length) {
    pollfd polled{descriptor_, POLLIN, 0};
    if (poll(&polled, 1, patience) == 0) throw std::runtime_error("nobody writes into the named pipe");
    const ssize_t count = ::read(descriptor_, buffer.data(), std::min(buffer.size(), length - bytes.size()));
    if (count > 0) bytes.append(buffer.data(), static_cast<std::size_t>(count));
    if (count == 0) break;
  }
  return bytes;
}

std::string NamedPipe::readToEnd() { return read(SIZE_MAX); }

}  // namespace KQTest
