#include "PathSelection.h"

namespace Tool {

PathSelection::PathSelection(const std::vector<std::string>& paths) : paths_(paths) {
  for (const std::string& path : paths_) matched_.emplace(path, false);
}

bool PathSelection::includes(std::string_view name) {
  if (paths_.empty()) return true;
  bool included = match(name);
  for (std::size_t slash = name.find('/'); slash != std::string_view::npos;
       slash = name.find('/', slash + 1)) {
    const bool asWritten = match(name.substr(0, slash));
    const bool withSlash = match(name.substr(0, slash + 1));
    included = included || asWritten || withSlash;
  }
  return included;
}

std::optional<std::string> PathSelection::unmatched() const {
  for (const std::string& path : paths_) {
    if (!matched_.at(path)) return path;
  }
  return std::nullopt;
}

bool PathSelection::match(std::string_view path) {
  const auto found = matched_.find(std::string(path));
  if (found == matched_.end()) return false;
  found->second = true;
  return true;
}

}  // namespace Tool
