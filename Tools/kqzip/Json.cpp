#include "Json.h"

#include <KQZip/KQZip.h>

#include <string>

#include "Message.h"

namespace Tool {

namespace {

constexpr char digits[] = "0123456789abcdef";

std::string hexadecimalBytes(std::string_view bytes) {
  std::string text;
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    text += {digits[byte >> 4U], digits[byte & 15U]};
  }
  return text;
}

std::string escape(unsigned char character) {
  return {'\\', 'u', '0', '0', digits[character >> 4U], digits[character & 15U]};
}

// Appends the character that begins at `i`, or its escape, and returns its last byte's place.
std::size_t appendCharacter(std::string& literal, std::string_view text, std::size_t i) {
  const auto byte = static_cast<unsigned char>(text[i]);
  // The characters from U+0080 to U+00BF are this byte and one that is their own number.
  const bool isTwoBytes = byte == 0xC2 && i + 1 < text.size();
  const auto next = static_cast<unsigned char>(isTwoBytes ? text[i + 1] : 0);
  if (isTwoBytes && next < 0xA0) {
    literal += escape(next);
    return i + 1;
  }
  if (byte < 0x20 || byte == 0x7F) {
    literal += escape(byte);
    return i;
  }
  if (byte == '"' || byte == '\\') literal += '\\';
  literal += text[i];
  return i;
}

}  // namespace

void Json::beginObject() {
  if (depth_ > 0) output_.write(isFirst_ ? "\n" : ",\n");
  output_.write("{");
  ++depth_;
  isFirst_ = true;
}

void Json::endObject() {
  output_.write(--depth_ == 0 ? "}\n" : "}");
  isFirst_ = false;
}

void Json::beginArray(std::string_view key) {
  beginMember(key);
  output_.write("[");
  isFirst_ = true;
}

void Json::endArray() {
  output_.write(isFirst_ ? "]" : "\n]");
  isFirst_ = false;
}

void Json::addText(std::string_view key, std::string_view text) {
  beginMember(key);
  writeString(text);
}

void Json::addName(std::string_view key, std::string_view name) {
  if (KQ::isValidUTF8(name)) return addText(key, name);
  addText(key, escapedName(name));
  addText(std::string(key) + "Bytes", hexadecimalBytes(name));
}

void Json::addNumber(std::string_view key, std::uint64_t number) {
  beginMember(key);
  output_.write(std::to_string(number));
}

void Json::addFlag(std::string_view key, bool flag) {
  beginMember(key);
  output_.write(flag ? "true" : "false");
}

void Json::addNull(std::string_view key) {
  beginMember(key);
  output_.write("null");
}

void Json::beginMember(std::string_view key) {
  if (!isFirst_) output_.write(",");
  isFirst_ = false;
  writeString(key);
  output_.write(":");
}

void Json::writeString(std::string_view text) {
  std::string literal(1, '"');
  for (std::size_t i = 0; i < text.size(); ++i) i = appendCharacter(literal, text, i);
  output_.write(literal += '"');
}

}  // namespace Tool
