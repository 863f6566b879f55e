#pragma once

#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>

namespace KQTest {

/// Asks for `length` bytes once; nothing after an error.
inline std::optional<std::string> readOnce(KQ::NSInputStream& stream, std::uint64_t length) {
  std::string bytes(length, '?');
  const std::int64_t count = stream.read(reinterpret_cast<std::uint8_t*>(bytes.data()), length);
  if (count < 0) return std::nullopt;
  EXPECT_LE(static_cast<std::uint64_t>(count), length);
  bytes.resize(static_cast<std::size_t>(count));
  return bytes;
}

/// Offers the bytes once and returns what the stream answers.
inline std::int64_t writeOnce(KQ::NSOutputStream& stream, const std::string& bytes) {
  return stream.write(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

/// The number that the next opened file gets; it grows when a file is left open.
inline int nextFileNumber() {
  const int file = open("/dev/null", O_RDONLY);
  close(file);
  return file;
}

}  // namespace KQTest
