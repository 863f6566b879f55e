#include "NSFileManager.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "Internal/NSFileDescriptor.h"
#include "Internal/NSSystem.h"
#include "NSString.h"

namespace KQ {

namespace {

constexpr std::uint16_t permissionsOfNewFolder = 0777;

bool fail(NSErrorSlot slot, int code, const std::string& path) {
  NSStoreError(slot, NSError::errorWithPOSIXCode(code, path));
  return false;
}

NSFileAttributeType typeOf(NSItemType type) {
  switch (type) {
    case NSItemType::File:
      return NSFileTypeRegular;
    case NSItemType::Folder:
      return NSFileTypeDirectory;
    case NSItemType::Link:
      return NSFileTypeSymbolicLink;
    case NSItemType::Socket:
      return NSFileTypeSocket;
    case NSItemType::CharacterDevice:
      return NSFileTypeCharacterSpecial;
    case NSItemType::BlockDevice:
      return NSFileTypeBlockSpecial;
    default:
      return NSFileTypeUnknown;
  }
}

// The date, truncated to the clock's resolution and clamped to its range.
NSDate dateOf(const NSItemStatus& status) {
  using std::chrono::duration_cast;
  using std::chrono::nanoseconds;
  using std::chrono::seconds;
  const auto earliest = std::chrono::ceil<seconds>(NSDate::min().time_since_epoch());
  const auto latest = std::chrono::floor<seconds>(NSDate::max().time_since_epoch());
  const seconds whole(status.seconds);
  const nanoseconds rest(status.nanoseconds);
  if (whole > latest ||
      (whole == latest && rest > duration_cast<nanoseconds>(NSDate::max().time_since_epoch() - latest)))
    return NSDate::max();
  if (whole >= earliest) return NSDate(whole + std::chrono::floor<NSDate::duration>(rest));
  // Less than a second before the first whole second that the clock can hold.
  const nanoseconds before = nanoseconds(seconds(1)) - rest;
  const auto room = duration_cast<nanoseconds>(earliest - NSDate::min().time_since_epoch());
  if (whole < earliest - seconds(1) || before > room) return NSDate::min();
  return NSDate(NSDate::duration(earliest) - std::chrono::ceil<NSDate::duration>(before));
}

int statusOf(const std::string& path, bool followingLink, NSItemStatus* status) {
  return -NSSystem::current().statusAt(NSCurrentFolder, NSSystemPath(path), followingLink, status);
}

bool isFolder(const std::string& path) {
  NSItemStatus status;
  return statusOf(path, true, &status) == 0 && status.type == NSItemType::Folder;
}

// 0, or the error number of the folder's creation.
int createFolder(const std::string& path) {
  return -NSSystem::current().makeFolder(NSCurrentFolder, NSSystemPath(path), permissionsOfNewFolder);
}

int createFolderWithParents(const std::string& path) {
  int code = createFolder(path);
  if (code == ENOENT && !path.empty() && path != "/") {
    code = createFolderWithParents(stringByDeletingLastPathComponent(path));
    if (code == 0) code = createFolder(path);
  }
  // Another process may have created it in the meantime, which is a success too.
  return code == EEXIST && isFolder(path) ? 0 : code;
}

// Follows no link. Not every file system lists the type with the name. Returns 0, or the error number when
// the type cannot be found: a folder taken for a file would be left out with all its contents.
int findWhetherFolder(NSHandle folder, const NSListedItem& item, bool* isFolder) {
  *isFolder = item.type == NSItemType::Folder;
  if (item.type != NSItemType::Unknown) return 0;
  NSItemStatus status;
  const int code = -NSSystem::current().statusAt(folder, item.name.c_str(), false, &status);
  *isFolder = code == 0 && status.type == NSItemType::Folder;
  // An item that has vanished in the meantime fails when it is opened.
  return code == ENOENT ? 0 : code;
}

}  // namespace

bool NSFileManager::fileExistsAtPath(const std::string& path, bool* isDirectory) {
  NSItemStatus status;
  const bool exists = NSCodeForUnusablePath(path) == 0 && statusOf(path, true, &status) == 0;
  if (isDirectory != nullptr) *isDirectory = exists && status.type == NSItemType::Folder;
  return exists;
}

std::optional<NSFileAttributes> NSFileManager::attributesOfItemAtPath(const std::string& path,
                                                                      NSErrorSlot error) {
  NSItemStatus status;
  int code = NSCodeForUnusablePath(path);
  if (code == 0) code = statusOf(path, false, &status);
  if (code != 0) {
    fail(error, code, path);
    return std::nullopt;
  }
  return NSFileAttributes{status.size, dateOf(status), typeOf(status.type), status.permissions};
}

bool NSFileManager::setAttributes(const NSFileAttributes& attributes, const std::string& path,
                                  NSErrorSlot error) {
  int code = NSCodeForUnusablePath(path);
  if (code == 0 && !attributes.NSFileModificationDate) {
    NSItemStatus status;
    code = statusOf(path, true, &status);
  } else if (code == 0) {
    code = -NSSystem::current().setTimeAt(NSCurrentFolder, NSSystemPath(path), true,
                                          NSTimeOfDate(*attributes.NSFileModificationDate));
  }
  return code == 0 || fail(error, code, path);
}

bool NSFileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                          NSErrorSlot error) {
  int code = NSCodeForUnusablePath(path);
  if (code == 0) code = withIntermediateDirectories ? createFolderWithParents(path) : createFolder(path);
  return code == 0 || fail(error, code, path);
}

NSDirectoryEnumerator NSFileManager::enumeratorAtPath(const std::string& path) {
  return NSDirectoryEnumerator(path);
}

NSDirectoryEnumerator::NSDirectoryEnumerator(std::string root) : root_(std::move(root)), pendingFolder_("") {}

std::optional<std::string> NSDirectoryEnumerator::nextObject() {
  if (pendingFolder_) {
    _enter(*pendingFolder_);
    pendingFolder_.reset();
  }
  while (!folders_.empty() && folders_.back().items.empty()) folders_.pop_back();
  if (folders_.empty()) return std::nullopt;

  Folder& folder = folders_.back();
  std::string relativePath = stringByAppendingPathComponent(folder.relativePath, folder.items.back().name);
  if (folder.items.back().isFolder) pendingFolder_ = relativePath;
  folder.items.pop_back();
  return relativePath;
}

void NSDirectoryEnumerator::_enter(const std::string& relativePath) {
  auto items = _itemsOfFolder(relativePath);
  if (!items) return;
  std::sort(items->begin(), items->end(),
            [](const Item& left, const Item& right) { return left.name > right.name; });
  folders_.push_back({relativePath, std::move(*items)});
}

// The whole folder is read and then closed, so that a deep tree needs only one open folder.
std::optional<std::vector<NSDirectoryEnumerator::Item>> NSDirectoryEnumerator::_itemsOfFolder(
    const std::string& relativePath) {
  const bool isRoot = relativePath.empty();
  const std::string path = isRoot ? root_ : stringByAppendingPathComponent(root_, relativePath);
  // Names below the root are passed as the file system has them, whatever their bytes.
  int code = isRoot ? NSCodeForUnusablePath(path) : 0;
  std::vector<Item> items;
  if (code == 0) code = _readFolder(path, isRoot, &items);
  if (code == 0) return items;
  error_ = NSError::errorWithPOSIXCode(code, path);
  return std::nullopt;
}

// 0, or the error number when the folder could not be read to its end.
int NSDirectoryEnumerator::_readFolder(const std::string& path, bool followingLink,
                                       std::vector<Item>* items) {
  NSSystem& system = NSSystem::current();
  const unsigned mode = NSOpenToRead | NSOpenFolder | (followingLink ? 0U : NSOpenNoLink);
  const NSHandle folder = system.open(NSCurrentFolder, NSSystemPath(path), mode, 0);
  if (folder < 0) return static_cast<int>(-folder);
  std::unique_ptr<NSFolderListing> listing;
  int result = system.list(folder, &listing);
  NSListedItem item;
  while (result >= 0 && (result = listing->next(&item)) > 0) {
    Item found{item.name, false};
    result = -findWhetherFolder(folder, item, &found.isFolder);
    items->push_back(std::move(found));
  }
  return -result;
}

}  // namespace KQ
