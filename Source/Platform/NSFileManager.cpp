#include "NSFileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <string_view>
#include <utility>

#include "NSString.h"
#include "NSSystem.h"

namespace KQ {

namespace {

// Fails with what `errno` says, or with the path itself when the system cannot be given it.
bool fail(NSErrorSlot slot, int code, const std::string& path) {
  NSStoreError(slot, NSError::errorWithPOSIXCode(code, path));
  return false;
}

NSFileAttributeType typeOf(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return NSFileTypeRegular;
    case S_IFDIR:
      return NSFileTypeDirectory;
    case S_IFLNK:
      return NSFileTypeSymbolicLink;
    case S_IFSOCK:
      return NSFileTypeSocket;
    case S_IFCHR:
      return NSFileTypeCharacterSpecial;
    case S_IFBLK:
      return NSFileTypeBlockSpecial;
    default:
      return NSFileTypeUnknown;
  }
}

NSDate dateOf(const timespec& time) {
  using std::chrono::duration_cast;
  using std::chrono::seconds;
  // One second of room on each side for the nanoseconds.
  const auto earliest = duration_cast<seconds>(NSDate::min().time_since_epoch()).count() + 1;
  const auto latest = duration_cast<seconds>(NSDate::max().time_since_epoch()).count() - 1;
  const seconds whole(std::clamp<std::int64_t>(time.tv_sec, earliest, latest));
  return NSDate(whole + std::chrono::nanoseconds(time.tv_nsec));
}

timespec timeOf(NSDate date) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(date);
  timespec time{};
  time.tv_sec = whole.time_since_epoch().count();
  time.tv_nsec = std::chrono::duration_cast<std::chrono::nanoseconds>(date - whole).count();
  return time;
}

bool isFolder(const std::string& path) {
  struct stat status {};
  return ::stat(NSSystemPath(path), &status) == 0 && S_ISDIR(status.st_mode);
}

// 0, or the reason why the folder could not be made.
int createFolder(const std::string& path) { return ::mkdir(NSSystemPath(path), 0777) == 0 ? 0 : errno; }

int createFolderWithParents(const std::string& path) {
  int code = createFolder(path);
  if (code == ENOENT && !path.empty() && path != "/") {
    code = createFolderWithParents(stringByDeletingLastPathComponent(path));
    if (code == 0) code = createFolder(path);
  }
  // Somebody else may have made it in the meantime, which is as good.
  return code == EEXIST && isFolder(path) ? 0 : code;
}

}  // namespace

bool NSFileManager::fileExistsAtPath(const std::string& path, bool* isDirectory) {
  struct stat status {};
  const bool exists = NSCodeForUnusablePath(path) == 0 && ::stat(NSSystemPath(path), &status) == 0;
  if (isDirectory != nullptr) *isDirectory = exists && S_ISDIR(status.st_mode);
  return exists;
}

std::optional<NSFileAttributes> NSFileManager::attributesOfItemAtPath(const std::string& path,
                                                                      NSErrorSlot error) {
  struct stat status {};
  int code = NSCodeForUnusablePath(path);
  if (code == 0 && ::lstat(NSSystemPath(path), &status) != 0) code = errno;
  if (code != 0) {
    fail(error, code, path);
    return std::nullopt;
  }
  return NSFileAttributes{static_cast<std::uint64_t>(status.st_size), dateOf(status.st_mtim),
                          typeOf(status.st_mode)};
}

bool NSFileManager::setAttributes(const NSFileAttributes& attributes, const std::string& path,
                                  NSErrorSlot error) {
  if (const int code = NSCodeForUnusablePath(path); code != 0) return fail(error, code, path);
  timespec unchanged{};
  unchanged.tv_nsec = UTIME_OMIT;
  const timespec modified =
      attributes.NSFileModificationDate ? timeOf(*attributes.NSFileModificationDate) : unchanged;
  const std::array<timespec, 2> times{unchanged, modified};
  if (::utimensat(AT_FDCWD, NSSystemPath(path), times.data(), 0) != 0) return fail(error, errno, path);
  return true;
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

// The folder is read at once and closed again, so that a deep tree needs no more than one open folder.
std::optional<std::vector<NSDirectoryEnumerator::Item>> NSDirectoryEnumerator::_itemsOfFolder(
    const std::string& relativePath) {
  const bool isRoot = relativePath.empty();
  const std::string path = isRoot ? root_ : stringByAppendingPathComponent(root_, relativePath);
  const auto failed = [&](int code) {
    error_ = NSError::errorWithPOSIXCode(code, path);
    return std::nullopt;
  };
  // Names below the root are as the file system has them, whatever their bytes.
  if (const int code = isRoot ? NSCodeForUnusablePath(path) : 0; code != 0) return failed(code);

  const int followsLinks = isRoot ? 0 : O_NOFOLLOW;
  const int descriptor = ::open(NSSystemPath(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC | followsLinks);
  if (descriptor < 0) return failed(errno);
  DIR* const folder = ::fdopendir(descriptor);
  if (folder == nullptr) {
    const int code = errno;
    ::close(descriptor);
    return failed(code);
  }

  std::vector<Item> items;
  int code = 0;
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(folder);
    if (entry == nullptr) {
      code = errno;
      break;
    }
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    bool isFolderItself = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat status {};
      isFolderItself =
          ::fstatat(descriptor, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
    }
    items.push_back({std::string(name), isFolderItself});
  }
  ::closedir(folder);
  if (code != 0) return failed(code);
  return items;
}

}  // namespace KQ
