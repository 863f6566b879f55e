#include "KQZipFolderTable.h"

#include <algorithm>

#include "KQZipEntryNames.h"

KQZipFolderTable::KQZipFolderTable() : folders_{{root, 0, 0}}, names_(1, '\0'), places_(16, none) {}

KQZipFolderTable::Folder KQZipFolderTable::add(std::string_view path) {
  // What stands together in an archive is in one folder.
  if (path == lastPath_) return last_;
  Folder folder = root;
  for (std::size_t start = 0; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    folder = addIn(folder, path.substr(start, end - start));
    start = end + 1;
  }
  lastPath_ = path;
  last_ = folder;
  return folder;
}

KQZipFolderTable::Folder KQZipFolderTable::addIn(Folder parent, std::string_view name) {
  const std::size_t place = _placeFor(parent, name);
  if (places_[place] != none) return places_[place];
  const auto folder = static_cast<Folder>(folders_.size());
  folders_.push_back({parent, static_cast<std::uint32_t>(name.size()), names_.size()});
  names_.append(name).push_back('\0');
  places_[place] = folder;
  if (folders_.size() * 2 > places_.size()) _grow();
  return folder;
}

KQZipFolderTable::Folder KQZipFolderTable::find(Folder parent, std::string_view name) const {
  return places_[_placeFor(parent, name)];
}

std::string_view KQZipFolderTable::nameOf(Folder folder) const {
  const Entry& entry = folders_[folder];
  return std::string_view(names_).substr(entry.nameAt, entry.nameLength);
}

std::string KQZipFolderTable::pathOf(Folder folder) const {
  std::size_t length = 0;
  for (Folder each = folder; each != root; each = parentOf(each)) length += nameOf(each).size() + 1;
  std::string path(length == 0 ? 0 : length - 1, '/');
  std::size_t end = path.size();
  for (Folder each = folder; each != root; each = parentOf(each)) {
    const std::string_view name = nameOf(each);
    std::copy(name.begin(), name.end(), path.begin() + static_cast<std::ptrdiff_t>(end - name.size()));
    end -= std::min(end, name.size() + 1);
  }
  return path;
}

// Where the folder stands, or the free place where it belongs.
std::size_t KQZipFolderTable::_placeFor(Folder parent, std::string_view name) const {
  const std::size_t mask = places_.size() - 1;
  std::size_t place = (KQZipHashOfName(name) + parent * std::size_t{0x9E3779B1}) & mask;
  while (places_[place] != none) {
    const Folder found = places_[place];
    if (parentOf(found) == parent && nameOf(found) == name) break;
    place = (place + 1) & mask;
  }
  return place;
}

void KQZipFolderTable::_grow() {
  places_.assign(places_.size() * 2, none);
  for (Folder folder = 1; folder < folders_.size(); ++folder)
    places_[_placeFor(parentOf(folder), nameOf(folder))] = folder;
}
