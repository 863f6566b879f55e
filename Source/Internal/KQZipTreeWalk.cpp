#include "KQZipTreeWalk.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "../Platform/Internal/NSFileDescriptor.h"
#include "../Platform/NSString.h"
#include "KQZipError.h"
#include "KQZipNamePattern.h"

namespace {

using Entry = KQZipPackingEntry;
using Why = KQZipLeftOut::Why;

constexpr std::uint16_t permissionBits = 0777;
constexpr std::size_t longestName = 0xFFFF;

constexpr auto isHidden = "it is hidden";
constexpr auto isExcluded = "it is excluded";
constexpr auto isNotIncluded = "not included";
constexpr auto isLink = "it is a link";
constexpr auto isFolder = "it is a folder";
constexpr auto isSpecial = "it is no file, folder or link";

bool matchesAny(std::string_view name, const std::vector<std::string>& patterns) {
  return std::any_of(patterns.begin(), patterns.end(), [name](const std::string& pattern) {
    return KQZipMatchesPatternOrIsBelow(name, pattern);
  });
}

// In the order of whole names, in which a folder's "/" counts.
bool isBefore(const std::string& left, bool leftIsFolder, const std::string& right, bool rightIsFolder) {
  const std::size_t common = std::min(left.size(), right.size());
  const int order = left.compare(0, common, right, 0, common);
  if (order != 0) return order < 0;
  const auto byteAt = [common](const std::string& name, bool isFolderName) {
    if (name.size() > common) return static_cast<int>(static_cast<unsigned char>(name[common]));
    return isFolderName ? '/' : -1;
  };
  return byteAt(left, leftIsFolder) < byteAt(right, rightIsFolder);
}

}  // namespace

KQZipTreeWalk::KQZipTreeWalk(KQZipPackingEntries& found, const KQZipPackingOptions& options, bool measuring,
                             const KQ::NSProgress* progress)
    : found_(found),
      isExact_(options.form == KQZipForm::Exact),
      measuring_(measuring),
      atOnce_(options.failingAtOnce),
      progress_(progress) {}

bool KQZipTreeWalk::add(std::uint32_t source, KQ::NSErrorSlot error) {
  source_ = source;
  error_ = error;
  switch (found_.sources[source].kind) {
    case KQZipPackingSource::Kind::Tree:
      return _addTree();
    case KQZipPackingSource::Kind::Item:
      return _addItem();
    default:
      _addGiven();
      return true;
  }
}

bool KQZipTreeWalk::_addTree() {
  const KQZipPackingSource& tree = found_.sources[source_];
  options_ = &tree.more->rare->tree;
  std::string root(tree.name);
  if (matchesAny(root, options_->excluding)) {
    _leaveOut(root, Why::Chosen, isExcluded);
    return true;
  }
  const bool isIncluded = options_->including.empty() || matchesAny(root, options_->including);
  if (!root.empty()) root += '/';
  if (const int code = KQ::NSCodeForUnusablePath(std::string(tree.path)); code != 0)
    return _leaveOutFailed(root, code);
  if (!_enter(std::move(root), true, isIncluded)) return false;
  while (!folders_.empty()) {
    if (folders_.back().items.empty()) {
      folders_.pop_back();
      continue;
    }
    if (progress_ != nullptr && progress_->isCancelled())
      return KQZipFail(error_, KQZipErrorCancelled, "Cancelled by user.");
    Item item = std::move(folders_.back().items.back());
    folders_.back().items.pop_back();
    if (!_visit(std::move(item))) return false;
  }
  return true;
}

bool KQZipTreeWalk::_addItem() {
  const KQZipPackingSource& item = found_.sources[source_];
  const std::string path(item.path);
  const bool follows = item.links == KQZipLinks::Follow;
  KQ::NSItemStatus status;
  int code = KQ::NSCodeForUnusablePath(path);
  if (code == 0)
    code = -KQ::NSSystem::current().statusAt(KQ::NSCurrentFolder, KQ::NSSystemPath(path), follows, &status);
  if (code != 0) return found_.leaveOutFailed(path, code, atOnce_, error_);
  switch (status.type) {
    case KQ::NSItemType::File:
      _add(item.name, follows ? Entry::Kind::LinkedFile : Entry::Kind::File).length = status.size;
      break;
    case KQ::NSItemType::Folder:
      if (isExact_)
        found_.leaveOut(path, Why::Chosen, isFolder);
      else
        _addFolder(std::string(item.name) + '/', status);
      break;
    case KQ::NSItemType::Link:
      if (isExact_ || item.links == KQZipLinks::LeaveOut)
        found_.leaveOut(path, Why::Chosen, isLink);
      else
        _add(item.name, Entry::Kind::Link).length = status.size;
      break;
    default:
      found_.leaveOut(path, Why::Special, isSpecial);
  }
  return true;
}

// What is in memory, or comes from a stream.
void KQZipTreeWalk::_addGiven() {
  const KQZipPackingSource& given = found_.sources[source_];
  switch (given.kind) {
    case KQZipPackingSource::Kind::Data:
      _add(given.name, Entry::Kind::Data).length = given.more->data ? given.more->data->length() : 0;
      break;
    case KQZipPackingSource::Kind::Stream:
      _add(given.name, Entry::Kind::Stream).length = given.more->rare->length;
      break;
    case KQZipPackingSource::Kind::Link:
      if (isExact_)
        found_.leaveOut(std::string(given.name), Why::Chosen, isLink);
      else
        _add(given.name, Entry::Kind::Link).length = given.path.size();
      break;
    default:
      if (isExact_)
        found_.leaveOut(std::string(given.name), Why::Chosen, isFolder);
      else
        _add(found_.names->add(std::string(given.name) + '/'), Entry::Kind::Folder);
  }
}

// Reads the folder at once and closes it again, so that a deep tree needs no more than one open folder.
bool KQZipTreeWalk::_enter(std::string name, bool followingLink, bool isIncluded) {
  KQ::NSSystem& system = KQ::NSSystem::current();
  const unsigned mode = KQ::NSOpenToRead | KQ::NSOpenFolder | (followingLink ? 0U : KQ::NSOpenNoLink);
  const char* const path = KQ::NSSystemPath(_pathOf(name));
  const KQ::NSHandle folder = system.open(KQ::NSCurrentFolder, path, mode, 0);
  KQ::NSItemStatus status;
  const int result = folder < 0 ? system.statusAt(KQ::NSCurrentFolder, path, followingLink, &status)
                                : system.status(folder, &status);
  const bool hasEntry = result >= 0 && status.type == KQ::NSItemType::Folder && isIncluded && !isExact_;
  if (hasEntry && !name.empty()) _addFolder(name, status);
  if (folder < 0) return _leaveOutFailed(name, static_cast<int>(-folder));
  if (result < 0) {
    system.close(folder);
    return _leaveOutFailed(name, -result);
  }
  folders_.push_back({std::move(name), isIncluded, status.device, status.number, {}});
  auto& items = folders_.back().items;
  if (!_list(folder, &items)) return false;
  if (items.empty() && isExact_) _leaveOut(folders_.back().name, Why::Chosen, isFolder);
  std::sort(items.begin(), items.end(), [](const Item& left, const Item& right) {
    return isBefore(right.name, right.type == KQ::NSItemType::Folder, left.name,
                    left.type == KQ::NSItemType::Folder);
  });
  return true;
}

// What was found before a failure is packed.
bool KQZipTreeWalk::_list(KQ::NSHandle folder, std::vector<Item>* items) {
  std::unique_ptr<KQ::NSFolderListing> listing;
  int result = KQ::NSSystem::current().list(folder, &listing);
  KQ::NSListedItem listed;
  while (result >= 0 && (result = listing->next(&listed)) > 0) {
    Item item{listed.name, listed.type, 0};
    if (const int code = _identify(folder, listed, &item); code != 0) {
      if (!_leaveOutFailed(folders_.back().name + item.name, code)) return false;
    } else {
      items->push_back(std::move(item));
    }
  }
  return result >= 0 || _leaveOutFailed(folders_.back().name, -result);
}

// Not every file system tells the type along with the name. 0, or the reason why nothing is known.
int KQZipTreeWalk::_identify(KQ::NSHandle folder, const KQ::NSListedItem& listed, Item* item) const {
  const bool isMeasured = measuring_ && listed.type == KQ::NSItemType::File;
  if (listed.type != KQ::NSItemType::Unknown && !isMeasured) return 0;
  KQ::NSItemStatus status;
  const int code = -KQ::NSSystem::current().statusAt(folder, listed.name.c_str(), false, &status);
  if (code != 0) return code;
  item->type = status.type;
  item->size = status.size;
  return 0;
}

bool KQZipTreeWalk::_visit(Item item) {
  std::string name = folders_.back().name + item.name;
  bool isIncluded = folders_.back().isIncluded;
  if (!_isChosen(item, name, &isIncluded)) return true;
  if (!KQ::isValidUTF8(item.name)) return _leaveOutFailed(name, EILSEQ);
  if (name.size() >= longestName) return _leaveOutFailed(name, ENAMETOOLONG);
  switch (item.type) {
    case KQ::NSItemType::File:
      _add(found_.names->add(name), Entry::Kind::File).length = item.size;
      return true;
    case KQ::NSItemType::Folder:
      return _enter(name + '/', false, isIncluded);
    case KQ::NSItemType::Link:
      return _visitLink(&item, name, isIncluded);
    default:
      _leaveOut(name, Why::Special, isSpecial);
      return true;
  }
}

bool KQZipTreeWalk::_visitLink(Item* item, const std::string& name, bool isIncluded) {
  if (isExact_ || options_->links == KQZipLinks::LeaveOut) {
    _leaveOut(name, Why::Chosen, isLink);
    return true;
  }
  if (options_->links == KQZipLinks::Keep) {
    _add(found_.names->add(name), Entry::Kind::Link);
    return true;
  }
  KQ::NSItemStatus status;
  const int code =
      -KQ::NSSystem::current().statusAt(KQ::NSCurrentFolder, _pathOf(name).c_str(), true, &status);
  if (code != 0) return _leaveOutFailed(name, code);
  item->type = status.type;
  if (status.type == KQ::NSItemType::Folder)
    return _isCircle(status) ? _leaveOutFailed(name, ELOOP) : _enter(name + '/', true, isIncluded);
  if (status.type == KQ::NSItemType::File) {
    if (isIncluded)
      _add(found_.names->add(name), Entry::Kind::LinkedFile).length = status.size;
    else
      _leaveOut(name, Why::Chosen, isNotIncluded);
    return true;
  }
  _leaveOut(name, Why::Special, isSpecial);
  return true;
}

// Whether the item is packed, or visited for what is below it.
bool KQZipTreeWalk::_isChosen(const Item& item, const std::string& name, bool* isIncluded) {
  const bool isFolderItself = item.type == KQ::NSItemType::Folder;
  // The exact form leaves hidden files out, but not what hidden folders hold.
  const bool takesHidden = isExact_ ? isFolderItself : options_->hidden;
  const char* reason = nullptr;
  if (item.name.front() == '.' && !takesHidden) reason = isHidden;
  if (reason == nullptr && matchesAny(name, options_->excluding)) reason = isExcluded;
  *isIncluded = *isIncluded || matchesAny(name, options_->including);
  const bool mayHoldIncluded =
      isFolderItself || (item.type == KQ::NSItemType::Link && options_->links == KQZipLinks::Follow);
  if (reason == nullptr && !*isIncluded && !mayHoldIncluded) reason = isNotIncluded;
  if (reason != nullptr) _leaveOut(name, Why::Chosen, reason);
  return reason == nullptr;
}

bool KQZipTreeWalk::_isCircle(const KQ::NSItemStatus& status) const {
  return std::any_of(folders_.begin(), folders_.end(), [&status](const Folder& folder) {
    return folder.device == status.device && folder.number == status.number;
  });
}

void KQZipTreeWalk::_addFolder(const std::string& name, const KQ::NSItemStatus& status) {
  KQZipPackingEntry& entry = _add(found_.names->add(name), Entry::Kind::Folder);
  const KQZipEntryAttributes& attributes = found_.attributesOf(entry);
  if (!attributes.date) entry.seconds = status.seconds;
  if (!attributes.permissions) entry.permissions = status.permissions & permissionBits;
}

KQZipPackingEntry& KQZipTreeWalk::_add(std::string_view name, KQZipPackingEntry::Kind kind) {
  KQZipPackingEntry& entry = found_.entries.emplace_back();
  entry.setName(name);
  entry.source = source_;
  entry.kind = kind;
  const KQZipEntryAttributes& attributes = found_.attributesOf(entry);
  if (attributes.date)
    entry.seconds = std::chrono::floor<std::chrono::seconds>(*attributes.date).time_since_epoch().count();
  if (attributes.permissions) entry.permissions = *attributes.permissions & permissionBits;
  return entry;
}

void KQZipTreeWalk::_leaveOut(const std::string& name, KQZipLeftOut::Why why, const char* reason) {
  found_.leaveOut(_pathOf(name), why, reason);
}

bool KQZipTreeWalk::_leaveOutFailed(const std::string& name, int code) {
  return found_.leaveOutFailed(_pathOf(name), code, atOnce_, error_);
}

const std::string& KQZipTreeWalk::_pathOf(const std::string& name) {
  KQZipPackingEntry entry;
  entry.setName(name);
  entry.source = source_;
  found_.getPath(entry, &path_);
  return path_;
}
