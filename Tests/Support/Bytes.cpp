#include "Support/Bytes.h"

namespace KQTest {

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
