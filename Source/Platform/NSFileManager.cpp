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

#include "Internal/NSSystem.h"
#include "NSString.h"

namespace KQ {

namespace {

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
  using std::chrono::nanoseconds;
  using std::chrono::seconds;
  // Taken apart towards zero, so that neither part leaves the range before the whole does.
  const bool before1970 = time.tv_sec < 0;
  const seconds whole(time.tv_sec + (before1970 ? 1 : 0));
  const nanoseconds rest = nanoseconds(time.tv_nsec) - (before1970 ? seconds(1) : seconds(0));
  const nanoseconds earliest = NSDate::min().time_since_epoch();
  const nanoseconds latest = NSDate::max().time_since_epoch();
  const auto earliestWhole = duration_cast<seconds>(earliest);
  const auto latestWhole = duration_cast<seconds>(latest);
  if (whole > latestWhole || (whole == latestWhole && rest > latest - latestWhole)) return NSDate::max();
  if (whole < earliestWhole || (whole == earliestWhole && rest < earliest - earliestWhole))
    return NSDate::min();
  return NSDate(whole + rest);
}

timespec timeOf(NSDate date) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(date);
  timespec time{};
  time.tv_sec = whole.time_since_epoch().count();
  time.tv_nsec = std::chrono::duration_cast<std::chrono::nanoseconds>(date - whole).count();
  return time;
}

bool statusOf(const std::string& path, struct stat* status) {
  return NSRepeatingInterrupted([&] { return ::stat(NSSystemPath(path), status); }) == 0;
}

bool isFolder(const std::string& path) {
  struct stat status {};
  return statusOf(path, &status) && S_ISDIR(status.st_mode);
}

// 0, or the reason why the folder could not be made.
int createFolder(const std::string& path) {
  return NSRepeatingInterrupted([&] { return ::mkdir(NSSystemPath(path), 0777); }) == 0 ? 0 : errno;
}

int createFolderWithParents(const std::string& path) {
  int code = createFolder(path);
  if (code == ENOENT && !path.empty() && path != "/") {
    code = createFolderWithParents(stringByDeletingLastPathComponent(path));
    if (code == 0) code = createFolder(path);
  }
  // Somebody else may have made it in the meantime, which is as good.
  return code == EEXIST && isFolder(path) ? 0 : code;
}

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using OpenFolder = std::unique_ptr<DIR, CloseFolder>;

// Empty, with the reason in `errno`, when the folder cannot be opened.
OpenFolder openFolder(const std::string& path, bool followingLinks) {
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followingLinks ? 0 : O_NOFOLLOW);
  const int descriptor = NSRepeatingInterrupted([&] { return ::open(NSSystemPath(path), flags); });
  if (descriptor < 0) return nullptr;
  OpenFolder folder(::fdopendir(descriptor));
  if (!folder) {
    const int code = errno;
    ::close(descriptor);
    errno = code;
  }
  return folder;
}

// Null at the end, with `errno` 0, and on an error.
const dirent* nextEntry(DIR* folder) {
  const dirent* entry = nullptr;
  do {
    errno = 0;
    // Safe from any thread: the open folder belongs to one walk.
    entry = ::readdir(folder);  // NOLINT(concurrency-mt-unsafe)
  } while (entry == nullptr && errno == EINTR);
  return entry;
}

// Links are not followed. Not every file system tells the type along with the name. 0, or the reason why the
// type cannot be found: a folder that is taken for a file would be left out with all that is in it.
int findWhetherFolder(DIR* folder, const dirent& entry, bool* isFolder) {
  *isFolder = entry.d_type == DT_DIR;
  if (entry.d_type != DT_UNKNOWN) return 0;
  struct stat status {};
  const int result = NSRepeatingInterrupted(
      [&] { return ::fstatat(::dirfd(folder), entry.d_name, &status, AT_SYMLINK_NOFOLLOW); });
  *isFolder = result == 0 && S_ISDIR(status.st_mode);
  // What has vanished meanwhile is told of by whoever opens it.
  return result == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace

bool NSFileManager::fileExistsAtPath(const std::string& path, bool* isDirectory) {
  struct stat status {};
  const bool exists = NSCodeForUnusablePath(path) == 0 && statusOf(path, &status);
  if (isDirectory != nullptr) *isDirectory = exists && S_ISDIR(status.st_mode);
  return exists;
}

std::optional<NSFileAttributes> NSFileManager::attributesOfItemAtPath(const std::string& path,
                                                                      NSErrorSlot error) {
  struct stat status {};
  int code = NSCodeForUnusablePath(path);
  if (code == 0 && NSRepeatingInterrupted([&] { return ::lstat(NSSystemPath(path), &status); }) != 0)
    code = errno;
  if (code != 0) {
    fail(error, code, path);
    return std::nullopt;
  }
  return NSFileAttributes{static_cast<std::uint64_t>(status.st_size), dateOf(status.st_mtim),
                          typeOf(status.st_mode), static_cast<std::uint16_t>(status.st_mode & 07777)};
}

bool NSFileManager::setAttributes(const NSFileAttributes& attributes, const std::string& path,
                                  NSErrorSlot error) {
  if (const int code = NSCodeForUnusablePath(path); code != 0) return fail(error, code, path);
  if (!attributes.NSFileModificationDate) {
    struct stat status {};
    return statusOf(path, &status) || fail(error, errno, path);
  }
  timespec unchanged{};
  unchanged.tv_nsec = UTIME_OMIT;
  const std::array<timespec, 2> times{unchanged, timeOf(*attributes.NSFileModificationDate)};
  const int result =
      NSRepeatingInterrupted([&] { return ::utimensat(AT_FDCWD, NSSystemPath(path), times.data(), 0); });
  return result == 0 || fail(error, errno, path);
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
  // Names below the root are as the file system has them, whatever their bytes.
  int code = isRoot ? NSCodeForUnusablePath(path) : 0;
  const OpenFolder folder = code == 0 ? openFolder(path, isRoot) : nullptr;
  if (code == 0 && !folder) code = errno;

  std::vector<Item> items;
  while (code == 0) {
    const dirent* const entry = nextEntry(folder.get());
    if (entry == nullptr) {
      code = errno;
      break;
    }
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    Item item{std::string(name), false};
    code = findWhetherFolder(folder.get(), *entry, &item.isFolder);
    if (code == 0) items.push_back(std::move(item));
  }
  if (code == 0) return items;
  error_ = NSError::errorWithPOSIXCode(code, path);
  return std::nullopt;
}

}  // namespace KQ
