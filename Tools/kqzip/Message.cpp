#include "Message.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "Advice.h"
#include "Colour.h"
#include "System.h"

namespace Tool {

void failWithSystemError(int code, const std::string& path) {
  failWithSystemError(code, path, adviceFor(code));
}

void failWithSystemError(int code, const std::string& path, const std::string& advice) {
  const std::string shown = path.empty() ? inQuotes(path) : path;
  const std::string text = KQ::NSError::errorWithPOSIXCode(code, shown)->localizedDescription();
  throw Failure(withRemarks(text, {advice}));
}

void failWithError(const std::shared_ptr<const KQ::NSError>& error, const std::string& otherwise,
                   const std::vector<std::string>& remarks) {
  std::vector<std::string> all = remarks;
  all.push_back(adviceFor(error));
  throw Failure(withRemarks(errorText(error, otherwise), all));
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

std::string rightAligned(const std::string& text, std::size_t width) {
  return std::string(std::max(width, text.size()) - text.size(), ' ') + text;
}

std::string readableSize(std::uint64_t bytes) {
  static constexpr std::array<const char*, 6> units = {" KiB", " MiB", " GiB", " TiB", " PiB", " EiB"};
  // What would be rounded up to 1024 is 1 of the next unit.
  constexpr double limit = 1023.95;
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  for (; value >= limit && unit + 1 < units.size(); ++unit) value /= 1024;
  const std::string tenths = std::to_string(std::llround(value * 10));
  return tenths.substr(0, tenths.size() - 1) + "." + tenths.back() + units[unit];
}

void printToStandardError(const std::string& text) {
  // Nobody is left to hear that it failed.
  static_cast<void>(System::write(Stream::Errors, text));
}

void printMessage(const std::string& text) {
  printToStandardError(coloured("kqzip:", Colour::Red, Stream::Errors) + " " +
                       KQ::stringByEscapingUnprintables(text) + "\n");
}

}  // namespace Tool
