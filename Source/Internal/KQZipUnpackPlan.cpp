#include "KQZipUnpackPlan.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

#include "../Platform/Internal/NSFoldedString.h"
#include "../Platform/NSString.h"
#include "KQZipEntryNames.h"
#include "KQZipError.h"

namespace {

// A path that no system takes whole. What is deeper could be made folder by folder, but hardly be reached.
constexpr std::size_t longestPath = 4095;

std::string_view takePart(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('/'), rest.size());
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return part;
}

std::string quoted(std::string_view name) { return '"' + KQ::stringByEscapingUnprintables(name) + '"'; }

bool climbs(std::string_view name) {
  while (!name.empty())
    if (takePart(name) == "..") return true;
  return false;
}

// Of a path that continues another one: equal for names that some file system holds for the same.
std::uint64_t keyOf(std::uint64_t parent, std::string_view name) {
  const std::uint64_t hash = KQZipHashOfName(KQ::NSFoldedName(name));
  return (parent ^ hash) * 0x9E3779B97F4A7C15U + (parent >> 29U);
}

}  // namespace

KQZipProblem KQZipProblemOfWriting(std::string name, const std::shared_ptr<const KQ::NSError>& error) {
  const std::string reason = error ? error->localizedDescription() : std::string("unknown reason");
  return {KQZipProblemKind::NotWritten, std::move(name),
          KQ::stringWithFormat("cannot be unpacked: %@", {reason}), error};
}

void KQZipTargetPath::set(std::string_view name, std::size_t stripped) {
  path_ = KQZipCanonicalName(name, room_);
  while (!path_.empty() && path_.front() == '/') path_.remove_prefix(1);
  for (std::size_t i = 0; i < stripped && !path_.empty(); ++i) takePart(path_);
  while (!path_.empty() && path_.back() == '/') path_.remove_suffix(1);
  const std::size_t slash = path_.rfind('/');
  nameAt_ = slash == std::string_view::npos ? 0 : slash + 1;
}

KQZipUnpackPlan::KQZipUnpackPlan(const KQZipArchiveState& archive, const KQZipUnpackOptions& options,
                                 KQZipFolderTable& folders)
    : archive_(archive),
      options_(options),
      table_(folders),
      chosen_(options.paths),
      excluded_(options.excluded) {}

bool KQZipUnpackPlan::make(KQ::NSErrorSlot error) {
  if (!_refuseUnsafeNames(error)) return false;
  _showNames();
  for (std::uint32_t place = 0; place < archive_.index.size(); ++place) _addEntry(place);
  _makeFolderKeys();
  _leaveOutFilesInTheWay(files_);
  _leaveOutFilesInTheWay(links_);
  _findTwins();
  _sortOut();
  return true;
}

void KQZipUnpackPlan::findTarget(std::uint32_t place, KQZipTargetPath* target) const {
  target->set(_nameAt(place, &target->roomForName()), options_.strippedComponents);
}

std::string KQZipUnpackPlan::nameAt(std::uint32_t place) const {
  std::string room;
  return std::string(_nameAt(place, &room));
}

std::string KQZipUnpackPlan::whyLinkLeavesFolder(KQZipFolderTable::Folder folder, std::string_view target,
                                                 std::vector<std::string>* climbsAfter) const {
  if (target.empty()) return "is a symbolic link to nothing";
  if (target.front() == '/') return "is a symbolic link with an absolute target";
  // The way that the target takes from the link's folder, as it would be without links.
  std::vector<std::pair<Key, std::string>> way;
  for (auto each = folder; each != KQZipFolderTable::root; each = table_.parentOf(each))
    way.emplace_back(folderKeys_[each], table_.nameOf(each));
  std::reverse(way.begin(), way.end());
  std::size_t ownParts = way.size();
  while (!target.empty()) {
    const std::string_view part = takePart(target);
    if (part.empty() || part == ".") continue;
    if (part != "..") {
      way.emplace_back(keyOf(way.empty() ? folderKeys_[0] : way.back().first, part), part);
      continue;
    }
    if (way.empty()) return "is a symbolic link that leads out of the folder";
    // What the target itself has named may be a link; the folders that the link is in are none.
    if (way.size() > ownParts) {
      if (linkKeys_.count(way.back().first) != 0)
        return "is a symbolic link whose target goes through another one and up again";
      std::string path;
      for (const auto& each : way) path = KQ::stringByAppendingPathComponent(path, each.second);
      climbsAfter->push_back(std::move(path));
    }
    way.pop_back();
    ownParts = std::min(ownParts, way.size());
  }
  return {};
}

const KQZipIndexRecord& KQZipUnpackPlan::_recordAt(std::uint32_t place) const {
  return archive_.index[archive_.index.inOrder(place)];
}

std::string_view KQZipUnpackPlan::_nameAt(std::uint32_t place, std::string* room) const {
  return archive_.index.name(_recordAt(place), *room);
}

// Before anything is written, and also for entries that nobody asks for: an archive with such a name is made
// to do harm.
bool KQZipUnpackPlan::_refuseUnsafeNames(KQ::NSErrorSlot error) const {
  std::string room;
  for (std::uint32_t place = 0; place < archive_.index.size(); ++place) {
    const std::string_view name = _nameAt(place, &room);
    const char* reason = nullptr;
    if (name.find('\0') != std::string_view::npos) reason = "it has a NUL";
    if (!options_.takesNamesAsTheyStand) {
      if (name.empty()) reason = "it is empty";
      if (!name.empty() && name.front() == '/') reason = "it is absolute";
      if (climbs(name)) reason = "it has a \"..\" component";
    }
    if (reason == nullptr) continue;
    return KQZipFail(error, KQZipErrorUnsafeName,
                     KQ::stringWithFormat("unsafe name %@: %@", {quoted(name), reason}));
  }
  return true;
}

void KQZipUnpackPlan::_showNames() {
  if (chosen_.isEmpty() && excluded_.isEmpty()) return;
  std::string room;
  std::string canonical;
  for (std::uint32_t place = 0; place < archive_.index.size(); ++place) {
    const std::string_view name = KQZipCanonicalName(_nameAt(place, &room), canonical);
    chosen_.show(name);
    excluded_.show(name);
  }
}

void KQZipUnpackPlan::_addEntry(std::uint32_t place) {
  if (!archive_.index.counts(archive_.index.inOrder(place))) return;
  if (!chosen_.isEmpty() || !excluded_.isEmpty()) {
    std::string room;
    std::string canonical;
    const std::string_view name = KQZipCanonicalName(_nameAt(place, &room), canonical);
    if (!chosen_.isEmpty() && !chosen_.asksFor(name)) return;
    if (!excluded_.isEmpty() && excluded_.asksFor(name)) return;
  }
  KQZipTargetPath target;
  findTarget(place, &target);
  const bool isRoot = options_.strippedComponents == 0 && _recordAt(place).kind == KQZipIndexRecord::Folder;
  if (target.path().empty() && !isRoot) return;
  ++entries_;
  if (!_isLeftOut(place, target)) _addItem(place, target);
}

bool KQZipUnpackPlan::_isLeftOut(std::uint32_t place, const KQZipTargetPath& target) {
  const KQZipIndexRecord& record = _recordAt(place);
  const auto refusals = KQZipRefusals(archive_, archive_.index.inOrder(place));
  for (const KQZipFinding& finding : refusals)
    problems_.push_back({place, KQZipProblemOf(finding, archive_.index)});
  if (!refusals.empty()) return true;
  if (record.kind == KQZipIndexRecord::Folder && record.length != 0)
    _leaveOut(place, KQZipProblemKind::NotWritten, "is a folder, but has data");
  else if (target.path().size() > longestPath)
    _leaveOut(place, KQZipProblemKind::NotWritten, "has a name that is too long for a path");
  else
    return false;
  return true;
}

void KQZipUnpackPlan::_addItem(std::uint32_t place, const KQZipTargetPath& target) {
  const KQZipIndexRecord& record = _recordAt(place);
  if (record.kind == KQZipIndexRecord::Folder) {
    folderItems_.push_back({place, table_.add(target.path())});
    return;
  }
  bytes_ += record.length;
  (record.kind == KQZipIndexRecord::Link ? links_ : files_).push_back({place, table_.add(target.folder())});
}

void KQZipUnpackPlan::_leaveOut(std::uint32_t place, KQZipProblemKind kind, const std::string& text) {
  problems_.push_back({place, {kind, nameAt(place), text}});
}

void KQZipUnpackPlan::_makeFolderKeys() {
  folderKeys_.assign(1, 0);
  folderKeys_.reserve(table_.size());
  for (KQZipFolderTable::Folder folder = 1; folder < table_.size(); ++folder)
    folderKeys_.push_back(keyOf(folderKeys_[table_.parentOf(folder)], table_.nameOf(folder)));
}

void KQZipUnpackPlan::_leaveOutFilesInTheWay(std::vector<KQZipUnpackItem>& items) {
  KQZipTargetPath target;
  for (KQZipUnpackItem& item : items) {
    findTarget(item.place, &target);
    item.isLeftOut = table_.find(item.folder, target.name()) != KQZipFolderTable::none;
    if (!item.isLeftOut) continue;
    _leaveOut(item.place, KQZipProblemKind::NotWritten, "is a file where other entries need a folder");
  }
}

std::vector<KQZipUnpackPlan::Named> KQZipUnpackPlan::_namesInUse() {
  std::vector<Named> names;
  names.reserve(table_.size() + files_.size() + links_.size());
  for (KQZipFolderTable::Folder folder = 1; folder < table_.size(); ++folder)
    names.push_back({folderKeys_[folder], folder, folder, Named::Folder});
  KQZipTargetPath target;
  const auto add = [&](const std::vector<KQZipUnpackItem>& items, auto kind) {
    for (std::uint32_t i = 0; i < items.size(); ++i) {
      if (items[i].isLeftOut) continue;
      findTarget(items[i].place, &target);
      names.push_back({keyOf(folderKeys_[items[i].folder], target.name()),
                       items[i].folder * 31 + KQZipHashOfName(target.name()), i, kind});
    }
  };
  add(files_, Named::File);
  add(links_, Named::Link);
  return names;
}

// Names that some file system may hold for the same, and names that are the same since parts of them were
// taken off.
void KQZipUnpackPlan::_findTwins() {
  std::vector<Named> names = _namesInUse();
  const auto order = [](const Named& left, const Named& right) {
    return std::tie(left.key, left.hash, left.kind, left.number) <
           std::tie(right.key, right.hash, right.kind, right.number);
  };
  std::sort(names.begin(), names.end(), order);
  for (std::size_t i = 0; i < names.size();) {
    std::size_t end = i + 1;
    while (end < names.size() && names[end].key == names[i].key) ++end;
    if (end - i > 1) _settleTwins(&names[i], &names[i] + (end - i));
    i = end;
  }
}

void KQZipUnpackPlan::_settleTwins(const Named* first, const Named* last) {
  const auto itemOf = [this](const Named& named) -> KQZipUnpackItem& {
    return named.kind == Named::File ? files_[named.number] : links_[named.number];
  };
  KQZipTargetPath own;
  KQZipTargetPath other;
  for (const Named* each = first; each != last; ++each) {
    if (each->kind == Named::Folder) {
      twins_.push_back(each->number);
      continue;
    }
    KQZipUnpackItem& item = itemOf(*each);
    item.isAlone = true;
    // Equal names stand together. The last one counts, as among entries.
    for (const Named* next = each + 1; next != last && next->hash == each->hash; ++next) {
      if (next->kind == Named::Folder || itemOf(*next).folder != item.folder) continue;
      findTarget(item.place, &own);
      findTarget(itemOf(*next).place, &other);
      if (own.name() != other.name()) continue;
      KQZipUnpackItem& before = item.place < itemOf(*next).place ? item : itemOf(*next);
      if (!std::exchange(before.isLeftOut, true))
        _leaveOut(before.place, KQZipProblemKind::NotWritten,
                  "has the same path as a later entry, which counts");
      break;
    }
  }
}

// Takes out what is left out, and files that are written alone.
void KQZipUnpackPlan::_sortOut() {
  const auto isLeftOut = [](const KQZipUnpackItem& item) { return item.isLeftOut; };
  std::erase_if(files_, isLeftOut);
  std::erase_if(links_, isLeftOut);
  std::copy_if(files_.begin(), files_.end(), std::back_inserter(filesAlone_),
               [](const KQZipUnpackItem& item) { return item.isAlone; });
  std::erase_if(files_, [](const KQZipUnpackItem& item) { return item.isAlone; });
  KQZipTargetPath target;
  for (const KQZipUnpackItem& item : links_) {
    findTarget(item.place, &target);
    linkKeys_.insert(keyOf(folderKeys_[item.folder], target.name()));
  }
}
