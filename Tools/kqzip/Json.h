#pragma once

#include <cstdint>
#include <string_view>

#include "StandardOutput.h"

namespace Tool {

/// Writes one JSON document in UTF-8 to standard output, piece by piece as it is told, each object of an
/// array on a line of its own. The caller begins and ends what there is in the right order; the punctuation
/// is written here. Control characters, DEL and those of U+0080 to U+009F are always escaped.
class Json {
 public:
  explicit Json(StandardOutput& output) : output_(output) {}

  /// The document itself, or an object of the array that is open.
  void beginObject();
  /// Behind the document's end stands a line end.
  void endObject();

  /// A member of the object that is open.
  void beginArray(std::string_view key);
  void endArray();

  /// A text that is valid UTF-8.
  void addText(std::string_view key, std::string_view text);

  /// A name of any bytes. One that is not valid UTF-8 is shown as `list` prints it, and a second member, its
  /// key with "Bytes" behind it, has all bytes in hexadecimal.
  void addName(std::string_view key, std::string_view name);

  void addNumber(std::string_view key, std::uint64_t number);
  void addFlag(std::string_view key, bool flag);
  void addNull(std::string_view key);

 private:
  void beginMember(std::string_view key);
  void writeString(std::string_view text);

  StandardOutput& output_;
  int depth_ = 0;
  bool isFirst_ = true;
};

}  // namespace Tool
