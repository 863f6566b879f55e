#include "Message.h"

#include <unistd.h>

#include <algorithm>

namespace Tool {

void failWithSystemError(int code, const std::string& path) {
  throw Failure(KQ::NSError::errorWithPOSIXCode(code, path)->localizedDescription());
}

std::string errorText(const std::shared_ptr<const KQ::NSError>& error, const std::string& otherwise) {
  return error ? error->localizedDescription() : otherwise;
}

std::string escapedName(std::string_view name) {
  std::string doubled;
  for (const char character : name) {
    if (character == '\\') doubled += '\\';
    doubled += character;
  }
  return KQ::stringByEscapingUnprintables(doubled);
}

std::string inQuotes(std::string_view name) {
  std::string text(1, '"');
  return text.append(escapedName(name)).append(1, '"');
}

std::string counted(std::uint64_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string padded(std::uint64_t number, std::size_t width, char fill) {
  const std::string digits = std::to_string(number);
  return std::string(std::max(width, digits.size()) - digits.size(), fill) + digits;
}

std::string hexadecimal(std::uint32_t value) {
  std::string digits;
  for (int shift = 28; shift >= 0; shift -= 4) digits += "0123456789abcdef"[(value >> shift) & 15U];
  return digits;
}

void printToStandardError(const std::string& text) {
  // Nobody is left to hear that it failed.
  [[maybe_unused]] const ssize_t count = ::write(STDERR_FILENO, text.data(), text.size());
}

void printMessage(const std::string& text) {
  printToStandardError("kqzip: " + KQ::stringByEscapingUnprintables(text) + "\n");
}

}  // namespace Tool
