#pragma once

#include <cstdint>
#include <string>

namespace KQTest {

/// Expected bytes, built by hand and without the library's own code: little-endian numbers and text.
class Bytes {
 public:
  Bytes& u16(std::uint64_t value) { return number(value, 2); }
  Bytes& u32(std::uint64_t value) { return number(value, 4); }
  Bytes& u64(std::uint64_t value) { return number(value, 8); }
  Bytes& text(const std::string& bytes) {
    bytes_ += bytes;
    return *this;
  }
  operator const std::string&() const { return bytes_; }
  const std::string& string() const { return bytes_; }

 private:
  Bytes& number(std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) bytes_ += static_cast<char>((value >> (8 * i)) & 0xFF);
    return *this;
  }

  std::string bytes_;
};

/// zlib's CRC-32 of the bytes.
std::uint32_t crcOf(const std::string& bytes);

/// Bytes as hexadecimal text, so that a failed comparison can be read.
std::string hex(const std::string& bytes);

}  // namespace KQTest
