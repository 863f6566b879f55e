#include "Support/Bytes.h"

#include <zlib.h>

namespace KQTest {

std::uint32_t crcOf(const std::string& bytes) {
  return static_cast<std::uint32_t>(
      crc32_z(0, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
}

std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += digits[value >> 4];
    text += digits[value & 15];
    text += ' ';
  }
  return text;
}

}  // namespace KQTest
