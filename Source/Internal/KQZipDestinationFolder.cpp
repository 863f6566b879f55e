#include "KQZipDestinationFolder.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "../Platform/Internal/NSFileDescriptor.h"
#include "../Platform/NSFileManager.h"
#include "../Platform/NSString.h"
#include "KQZipError.h"

using KQ::NSSystem;

namespace {

// Until it is settled, a new folder is its maker's alone.
constexpr std::uint16_t permissionsOnTheWay = 0700;
constexpr std::uint16_t permissionsOfAnyFolder = 0777;

// Set-user-id, set-group-id and sticky bits of an archive are left out.
constexpr std::uint16_t settablePermissions = 0777;

bool fail(KQ::NSErrorSlot slot, std::shared_ptr<const KQ::NSError> error) {
  KQ::NSStoreError(slot, std::move(error));
  return false;
}

}  // namespace

KQZipDestinationFolder::Handles::~Handles() {
  for (const Held& each : held_)
    if (each.handle >= 0) NSSystem::current().close(each.handle);
}

KQ::NSHandle KQZipDestinationFolder::Handles::open(Folder folder) {
  if (folder == KQZipFolderTable::root) return destination_.root_;
  ++uses_;
  for (Held& each : held_) {
    if (each.folder != folder) continue;
    each.lastUse = uses_;
    return each.handle;
  }
  const KQ::NSHandle handle = destination_.openFolder(folder);
  if (handle < 0) return handle;
  Held& oldest = *std::min_element(held_.begin(), held_.end(), [](const Held& left, const Held& right) {
    return left.lastUse < right.lastUse;
  });
  if (oldest.handle >= 0) NSSystem::current().close(oldest.handle);
  oldest = {folder, handle, uses_};
  return handle;
}

KQZipDestinationFolder::~KQZipDestinationFolder() {
  if (root_ >= 0) NSSystem::current().close(root_);
}

bool KQZipDestinationFolder::open(const std::string& path, bool makes, KQ::NSErrorSlot error) {
  if (const int code = KQ::NSCodeForUnusablePath(path); code != 0)
    return fail(error, KQ::NSError::errorWithPOSIXCode(code, path));
  path_ = path.empty() ? "." : path;
  const unsigned mode = KQ::NSOpenToRead | KQ::NSOpenFolder;
  root_ = NSSystem::current().open(KQ::NSCurrentFolder, path_.c_str(), mode, 0);
  if (root_ == -ENOENT && makes) {
    const std::string above = KQ::stringByDeletingLastPathComponent(path_);
    if (!KQ::NSFileManager::createDirectoryAtPath(above, true, error)) return false;
    const int made = NSSystem::current().makeFolder(KQ::NSCurrentFolder, path_.c_str(), permissionsOnTheWay);
    if (made == 0) stateAt(KQZipFolderTable::root).step = Step::Made;
    root_ = made == 0 || made == -EEXIST
                ? NSSystem::current().open(KQ::NSCurrentFolder, path_.c_str(), mode, 0)
                : made;
  }
  return root_ >= 0 || fail(error, KQ::NSError::errorWithPOSIXCode(static_cast<int>(-root_), path_));
}

void KQZipDestinationFolder::noteTwin(Folder folder) { stateAt(folder).hasTwin = true; }

bool KQZipDestinationFolder::make(Folder folder, KQ::NSErrorSlot error) {
  std::vector<Folder> missing;
  for (Folder each = folder; each != KQZipFolderTable::root; each = table_.parentOf(each)) {
    const Step step = stateOf(each).step;
    if (step == Step::Was || step == Step::Made) break;
    missing.push_back(each);
  }
  for (; !missing.empty(); missing.pop_back())
    if (!_makeOne(missing.back(), error)) return false;
  return true;
}

KQ::NSHandle KQZipDestinationFolder::openFolder(Folder folder) const {
  const unsigned mode = KQ::NSOpenToRead | KQ::NSOpenFolder;
  if (folder == KQZipFolderTable::root) return NSSystem::current().open(root_, ".", mode, 0);
  if (followsLinks_) return NSSystem::current().open(root_, table_.pathOf(folder).c_str(), mode, 0);
  if (lacksBeneath_.load(std::memory_order_relaxed)) return _openByComponents(folder);
  const KQ::NSHandle handle = NSSystem::current().openBeneath(root_, table_.pathOf(folder).c_str(), mode, 0);
  if (handle != -ENOSYS) return handle;
  lacksBeneath_.store(true, std::memory_order_relaxed);
  return _openByComponents(folder);
}

void KQZipDestinationFolder::settleAs(Folder folder, std::optional<std::uint16_t> permissions,
                                      KQ::NSItemTime time) {
  State& state = stateAt(folder);
  state.hasDate = true;
  state.time = time;
  state.hasPermissions = permissions.has_value();
  state.permissions = permissions.value_or(0) & settablePermissions;
}

std::map<KQZipFolderTable::Folder, std::shared_ptr<const KQ::NSError>> KQZipDestinationFolder::settle() {
  std::map<Folder, std::shared_ptr<const KQ::NSError>> failures;
  std::optional<std::uint16_t> mask;
  // What is inside comes first: it cannot be reached any more through a folder that may not be entered.
  for (std::size_t folder = states_.size(); folder-- > 0;) {
    if (states_[folder].step != Step::Made) continue;
    if (!mask) mask = NSSystem::current().mask();
    const auto number = static_cast<Folder>(folder);
    if (const int result = _settleOne(number, *mask); result < 0)
      failures.emplace(number, errorFor(result, number));
    states_[folder].step = Step::Was;
  }
  return failures;
}

std::string KQZipDestinationFolder::shownPath(Folder folder, std::string_view name) const {
  const std::string above = KQ::stringByAppendingPathComponent(path_, table_.pathOf(folder));
  return KQ::stringByAppendingPathComponent(above, name);
}

std::string KQZipDestinationFolder::temporaryName() {
  return ".kqzip-" + std::to_string(NSSystem::current().process()) + "-" +
         std::to_string(temporaries_.fetch_add(1, std::memory_order_relaxed));
}

std::shared_ptr<const KQ::NSError> KQZipDestinationFolder::errorFor(std::int64_t result, Folder folder,
                                                                    std::string_view name) const {
  const std::string shown = shownPath(folder, name);
  if (result == -ELOOP)
    return KQZipMakeError(KQZipErrorInTheWay,
                          KQ::stringWithFormat("%@ is reached through a symbolic link", {shown}));
  return KQ::NSError::errorWithPOSIXCode(static_cast<int>(-result), shown);
}

KQZipDestinationFolder::State& KQZipDestinationFolder::stateAt(Folder folder) {
  if (folder >= states_.size()) states_.resize(table_.size());
  return states_[folder];
}

// Whose parent is there.
bool KQZipDestinationFolder::_makeOne(Folder folder, KQ::NSErrorSlot error) {
  const Folder parent = table_.parentOf(folder);
  const KQ::NSHandle above = handles_.open(parent);
  const int result =
      above < 0 ? static_cast<int>(above)
                : NSSystem::current().makeFolder(above, table_.nameOf(folder).data(), permissionsOnTheWay);
  if (result == 0) {
    stateAt(folder).step = Step::Made;
  } else if (result == -EEXIST) {
    if (!_takeExisting(folder, error)) return false;
    stateAt(folder).step = Step::Was;
  } else {
    return fail(error, errorFor(result, folder));
  }
  return _isToldApart(folder, error);
}

bool KQZipDestinationFolder::_takeExisting(Folder folder, KQ::NSErrorSlot error) {
  const KQ::NSHandle handle = handles_.open(folder);
  if (handle < 0) return fail(error, errorFor(handle, folder));
  return true;
}

// Whether the folder is not the same as its twin, in a file system that holds their names for equal.
bool KQZipDestinationFolder::_isToldApart(Folder folder, KQ::NSErrorSlot error) {
  if (!stateOf(folder).hasTwin) return true;
  const KQ::NSHandle handle = handles_.open(folder);
  KQ::NSItemStatus status;
  const int result = handle < 0 ? static_cast<int>(handle) : NSSystem::current().status(handle, &status);
  const KQZipItemIdentity identity{status.device, status.number};
  const auto same = twins_.find(identity);
  if (result >= 0 && same == twins_.end()) {
    twins_.emplace(identity, folder);
    return true;
  }
  stateAt(folder).step = Step::Unknown;
  if (result < 0) return fail(error, errorFor(result, folder));
  return fail(error, KQZipMakeError(KQZipErrorInTheWay,
                                    KQ::stringWithFormat("%@ is the same as %@ to this file system",
                                                         {shownPath(folder), shownPath(same->second)})));
}

KQ::NSHandle KQZipDestinationFolder::_openByComponents(Folder folder) const {
  std::vector<Folder> way;
  for (Folder each = folder; each != KQZipFolderTable::root; each = table_.parentOf(each))
    way.push_back(each);
  KQ::NSHandle above = root_;
  for (; !way.empty(); way.pop_back()) {
    const KQ::NSHandle handle = NSSystem::current().open(
        above, table_.nameOf(way.back()).data(), KQ::NSOpenToRead | KQ::NSOpenFolder | KQ::NSOpenNoLink, 0);
    if (above != root_) NSSystem::current().close(above);
    if (handle < 0) return handle;
    above = handle;
  }
  return above;
}

int KQZipDestinationFolder::_settleOne(Folder folder, std::uint16_t mask) {
  const State& state = states_[folder];
  const KQ::NSHandle handle = handles_.open(folder);
  if (handle < 0) return static_cast<int>(handle);
  const int dated = state.hasDate ? NSSystem::current().setTime(handle, state.time) : 0;
  const std::uint16_t asked = state.hasPermissions ? state.permissions : permissionsOfAnyFolder;
  const auto permissions = static_cast<std::uint16_t>(asked & ~mask);
  if (permissions == permissionsOnTheWay) return dated;
  const int permitted = NSSystem::current().setPermissions(handle, permissions);
  return dated < 0 ? dated : permitted;
}
