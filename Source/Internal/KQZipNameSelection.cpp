#include "KQZipNameSelection.h"

#include <algorithm>

#include "KQZipEntryNames.h"
#include "KQZipNamePattern.h"

namespace {

// What stands for the "/" in front of an absolute name. No part of a name has one.
constexpr std::string_view absolutePart = "/";

std::string_view takePart(std::string_view& rest) {
  const std::size_t end = !rest.empty() && rest.front() == '/' ? 0 : std::min(rest.find('/'), rest.size());
  const std::string_view part = end == 0 ? absolutePart : rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return part;
}

}  // namespace

KQZipNameSelection::KQZipNameSelection(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    std::string room;
    std::string_view rest = KQZipCanonicalName(path, room);
    const bool isFolder = !rest.empty() && rest.back() == '/';
    KQZipFolderTable::Folder place = KQZipFolderTable::root;
    while (!rest.empty()) place = names_.addIn(place, takePart(rest));
    paths_.push_back({path, place, isFolder, path.find_first_of("*?[\\") != std::string::npos});
    asked_.resize(names_.size(), Asked::No);
    if (place != KQZipFolderTable::root && asked_[place] != Asked::Any)
      asked_[place] = isFolder ? Asked::AsFolder : Asked::Any;
  }
  seen_.resize(names_.size(), Seen::No);
}

void KQZipNameSelection::show(std::string_view name) {
  if (!isEmpty()) _matchesName(name);
}

bool KQZipNameSelection::asksFor(std::string_view name) {
  bool isAsked = _matchesName(name);
  for (Path& path : paths_) {
    if (!path.isPattern || _isName(path)) continue;
    if (!KQZipMatchesPatternOrIsBelow(name, path.text)) continue;
    path.isMatched = true;
    isAsked = true;
  }
  return isAsked;
}

std::vector<std::string> KQZipNameSelection::unmatched() const {
  std::vector<std::string> texts;
  for (const Path& path : paths_)
    if (!path.isMatched && !_isName(path)) texts.push_back(path.text);
  return texts;
}

bool KQZipNameSelection::_isName(const Path& path) const {
  if (path.place == KQZipFolderTable::root) return false;
  return seen_[path.place] == Seen::AsFolder || (!path.isFolder && seen_[path.place] == Seen::AsFile);
}

// Whether a path is the name, or that of a folder that it is in. Goes down the table part by part, so that a
// name of many parts costs no more than its length.
bool KQZipNameSelection::_matchesName(std::string_view name) {
  bool isAsked = false;
  KQZipFolderTable::Folder place = KQZipFolderTable::root;
  while (!name.empty()) {
    const std::size_t lengthBefore = name.size();
    const std::string_view part = takePart(name);
    place = names_.find(place, part);
    if (place == KQZipFolderTable::none) break;
    const bool isFolder = lengthBefore > part.size();
    if (isFolder)
      seen_[place] = Seen::AsFolder;
    else if (seen_[place] == Seen::No)
      seen_[place] = Seen::AsFile;
    isAsked = isAsked || asked_[place] == Asked::Any || (isFolder && asked_[place] == Asked::AsFolder);
  }
  return isAsked;
}
