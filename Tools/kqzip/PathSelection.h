#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Tool {

/// The entries that a list of paths asks for: those of these names, and everything below the folders of these
/// names, given with or without a "/" at the end. An empty list asks for every entry.
class PathSelection {
 public:
  explicit PathSelection(const std::vector<std::string>& paths);

  /// Whether the entry is asked for. Remembers which paths did.
  bool includes(std::string_view name);

  /// The first path that has asked for no entry so far.
  std::optional<std::string> unmatched() const;

 private:
  bool match(std::string_view path);

  std::vector<std::string> paths_;
  std::unordered_map<std::string, bool> matched_;
};

}  // namespace Tool
