// The operating system through its POSIX calls. NSOptionalCalls.h has the calls that only some systems have.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <mutex>
#include <string_view>

#include "NSOptionalCalls.h"
#include "NSSystem.h"

namespace KQ {

namespace {

// No system transfers more in one call, and some fail for larger requests.
constexpr std::uint64_t longestTransfer = 0x40000000;

constexpr int mostPieces = 16;

std::size_t transferLength(std::uint64_t length) {
  return static_cast<std::size_t>(std::min(length, longestTransfer));
}

// Repeats a call that a signal interrupts. Returns its result, or the negative error number.
template <class Call>
auto repeating(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0) return result;
    if (errno != EINTR) return static_cast<decltype(result)>(-errno);
  }
}

int descriptorOf(NSHandle handle) { return handle == NSCurrentFolder ? AT_FDCWD : static_cast<int>(handle); }

int flagsOf(unsigned mode) {
  const bool writes = (mode & NSOpenToWrite) != 0;
  int flags = O_CLOEXEC | (!writes ? O_RDONLY : (mode & NSOpenToRead) != 0 ? O_RDWR : O_WRONLY);
  if ((mode & NSOpenCreating) != 0) flags |= O_CREAT;
  if ((mode & NSOpenNew) != 0) flags |= O_EXCL;
  if ((mode & NSOpenEmptying) != 0) flags |= O_TRUNC;
  if ((mode & NSOpenFolder) != 0) flags |= O_DIRECTORY;
  if ((mode & NSOpenNoLink) != 0) flags |= O_NOFOLLOW;
  if ((mode & NSOpenNotWaiting) != 0) flags |= O_NONBLOCK;
  return flags;
}

NSItemType typeOf(mode_t mode) {
  if (S_ISREG(mode)) return NSItemType::File;
  if (S_ISDIR(mode)) return NSItemType::Folder;
  if (S_ISLNK(mode)) return NSItemType::Link;
  if (S_ISSOCK(mode)) return NSItemType::Socket;
  if (S_ISCHR(mode)) return NSItemType::CharacterDevice;
  if (S_ISBLK(mode)) return NSItemType::BlockDevice;
  if (S_ISFIFO(mode)) return NSItemType::Pipe;
  return NSItemType::Unknown;
}

int take(int result, const struct stat& found, NSItemStatus* status) {
  if (result < 0) return result;
  status->type = typeOf(found.st_mode);
  status->size = static_cast<std::uint64_t>(found.st_size);
  const timespec time = NSModificationTime(found);
  status->seconds = time.tv_sec;
  status->nanoseconds = static_cast<std::int32_t>(time.tv_nsec);
  status->permissions = static_cast<std::uint16_t>(found.st_mode & 07777);
  status->device = static_cast<std::uint64_t>(found.st_dev);
  status->number = static_cast<std::uint64_t>(found.st_ino);
  status->blocks = static_cast<std::uint64_t>(found.st_blocks);
  return 0;
}

// The time of the last access, which does not change, and that of the last change of the contents.
std::array<timespec, 2> timesFor(NSItemTime time) {
  std::array<timespec, 2> times{};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<std::time_t>(time.seconds);
  times[1].tv_nsec = time.nanoseconds;
  return times;
}

class Listing final : public NSFolderListing {
 public:
  explicit Listing(DIR* folder) : folder_(folder) {}
  ~Listing() override { ::closedir(folder_); }
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;

  int next(NSListedItem* item) override {
    for (;;) {
      errno = 0;
      // Safe from any thread: an open folder belongs to one listing.
      const dirent* const entry = ::readdir(folder_);  // NOLINT(concurrency-mt-unsafe)
      if (entry == nullptr && errno == EINTR) continue;
      if (entry == nullptr) return -errno;
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      item->name = name;
      item->type = NSTypeOfEntry(*entry);
      return 1;
    }
  }

 private:
  DIR* folder_;
};

std::atomic<NSSystem*>& replacement() {
  static std::atomic<NSSystem*> system{nullptr};
  return system;
}

}  // namespace

NSSystem::~NSSystem() = default;

NSSystem& NSSystem::current() {
  // Never destroyed, so that code that runs at the end of the process can still use it.
  static auto* const own = new NSSystem;
  NSSystem* const other = replacement().load(std::memory_order_acquire);
  return other == nullptr ? *own : *other;
}

NSSystem* NSSystem::replace(NSSystem* system) { return replacement().exchange(system); }

NSHandle NSSystem::open(NSHandle folder, const char* path, unsigned mode, std::uint16_t permissions) {
  return repeating([&] { return ::openat(descriptorOf(folder), path, flagsOf(mode), mode_t{permissions}); });
}

NSHandle NSSystem::openBeneath(NSHandle folder, const char* path, unsigned mode, std::uint16_t permissions) {
  const int created = (mode & NSOpenCreating) != 0 ? permissions : 0;
  return repeating([&] { return NSOpenBeneath(descriptorOf(folder), path, flagsOf(mode), created); });
}

int NSSystem::close(NSHandle file) {
  // Never repeated: after an interruption the descriptor is closed already, and its number may be in use
  // again.
  return ::close(descriptorOf(file)) == 0 || errno == EINTR ? 0 : -errno;
}

bool NSSystem::isSeekable(NSHandle file) {
  return ::lseek(descriptorOf(file), 0, SEEK_CUR) >= 0 || errno != ESPIPE;
}

std::int64_t NSSystem::readAt(NSHandle file, void* buffer, std::uint64_t length, std::uint64_t offset) {
  // The end of the transfer must fit the system's offset too.
  const std::uint64_t most = std::min(length, static_cast<std::uint64_t>(INT64_MAX) - offset);
  return repeating(
      [&] { return ::pread(descriptorOf(file), buffer, transferLength(most), static_cast<off_t>(offset)); });
}

std::int64_t NSSystem::read(NSHandle file, void* buffer, std::uint64_t length) {
  return repeating([&] { return ::read(descriptorOf(file), buffer, transferLength(length)); });
}

std::int64_t NSSystem::writeAt(NSHandle file, const void* buffer, std::uint64_t length,
                               std::uint64_t offset) {
  return repeating([&] {
    return ::pwrite(descriptorOf(file), buffer, transferLength(length), static_cast<off_t>(offset));
  });
}

std::int64_t NSSystem::write(NSHandle file, const NSPiece* pieces, int count) {
  std::array<iovec, mostPieces> vectors{};
  count = std::min(count, mostPieces);
  for (int i = 0; i < count; ++i) {
    vectors[static_cast<std::size_t>(i)] = {const_cast<void*>(pieces[i].bytes),
                                            static_cast<std::size_t>(pieces[i].length)};
  }
  return repeating([&] { return ::writev(descriptorOf(file), vectors.data(), count); });
}

std::int64_t NSSystem::sendAt(NSHandle target, NSHandle source, std::uint64_t length, std::uint64_t offset) {
  const std::uint64_t most = std::min(length, static_cast<std::uint64_t>(INT64_MAX) - offset);
  return repeating(
      [&] { return NSSend(descriptorOf(target), descriptorOf(source), offset, transferLength(most)); });
}

std::int64_t NSSystem::copyAt(NSHandle target, std::uint64_t targetOffset, NSHandle source,
                              std::uint64_t sourceOffset, std::uint64_t length) {
  return repeating([&] {
    return NSCopy(descriptorOf(target), targetOffset, descriptorOf(source), sourceOffset,
                  transferLength(length));
  });
}

int NSSystem::setLength(NSHandle file, std::uint64_t length) {
  return repeating([&] { return ::ftruncate(descriptorOf(file), static_cast<off_t>(length)); });
}

int NSSystem::reserve(NSHandle file, std::uint64_t length) {
  return repeating([&] { return NSReserve(descriptorOf(file), length); });
}

int NSSystem::synchronise(NSHandle file) {
  return repeating([&] { return ::fsync(descriptorOf(file)); });
}

int NSSystem::willReadAll(NSHandle file) { return NSAdviseSequential(descriptorOf(file)); }

int NSSystem::status(NSHandle file, NSItemStatus* status) {
  struct stat found {};
  return take(repeating([&] { return ::fstat(descriptorOf(file), &found); }), found, status);
}

int NSSystem::statusAt(NSHandle folder, const char* path, bool followingLink, NSItemStatus* status) {
  struct stat found {};
  const int flags = followingLink ? 0 : AT_SYMLINK_NOFOLLOW;
  return take(repeating([&] { return ::fstatat(descriptorOf(folder), path, &found, flags); }), found, status);
}

int NSSystem::setTime(NSHandle file, NSItemTime time) {
  const auto times = timesFor(time);
  return repeating([&] { return ::futimens(descriptorOf(file), times.data()); });
}

int NSSystem::setTimeAt(NSHandle folder, const char* path, bool followingLink, NSItemTime time) {
  const auto times = timesFor(time);
  const int flags = followingLink ? 0 : AT_SYMLINK_NOFOLLOW;
  return repeating([&] { return ::utimensat(descriptorOf(folder), path, times.data(), flags); });
}

int NSSystem::setPermissions(NSHandle file, std::uint16_t permissions) {
  return repeating([&] { return ::fchmod(descriptorOf(file), mode_t{permissions}); });
}

int NSSystem::makeFolder(NSHandle folder, const char* path, std::uint16_t permissions) {
  return repeating([&] { return ::mkdirat(descriptorOf(folder), path, mode_t{permissions}); });
}

int NSSystem::makeLink(const char* target, NSHandle folder, const char* path) {
  return repeating([&] { return ::symlinkat(target, descriptorOf(folder), path); });
}

int NSSystem::readLink(NSHandle folder, const char* path, std::string* target) {
  // The length is not queried first: it may change, and not every file system reports it.
  for (std::size_t capacity = 256;; capacity *= 2) {
    target->resize(capacity);
    const ssize_t length =
        repeating([&] { return ::readlinkat(descriptorOf(folder), path, target->data(), capacity); });
    if (length < 0) return static_cast<int>(length);
    if (static_cast<std::size_t>(length) == capacity) continue;
    target->resize(static_cast<std::size_t>(length));
    return 0;
  }
}

int NSSystem::addName(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath) {
  return repeating([&] { return ::linkat(descriptorOf(folder), path, descriptorOf(newFolder), newPath, 0); });
}

int NSSystem::rename(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath) {
  return repeating([&] { return ::renameat(descriptorOf(folder), path, descriptorOf(newFolder), newPath); });
}

int NSSystem::renameToNew(NSHandle folder, const char* path, NSHandle newFolder, const char* newPath) {
  return repeating(
      [&] { return NSRenameToNew(descriptorOf(folder), path, descriptorOf(newFolder), newPath); });
}

int NSSystem::remove(NSHandle folder, const char* path, bool isFolder) {
  return repeating([&] { return ::unlinkat(descriptorOf(folder), path, isFolder ? AT_REMOVEDIR : 0); });
}

int NSSystem::list(NSHandle folder, std::unique_ptr<NSFolderListing>* listing) {
  DIR* const opened = ::fdopendir(descriptorOf(folder));
  if (opened == nullptr) {
    const int code = errno;
    ::close(descriptorOf(folder));
    return -code;
  }
  *listing = std::make_unique<Listing>(opened);
  return 0;
}

bool NSSystem::localTime(std::time_t seconds, std::tm* parts) {
  return ::localtime_r(&seconds, parts) != nullptr;
}

std::time_t NSSystem::secondsOfLocalTime(std::tm* parts) { return std::mktime(parts); }

void NSSystem::log(const std::string& line) { ::syslog(LOG_USER | LOG_NOTICE, "%s", line.c_str()); }

unsigned NSSystem::processors() { return NSUsableProcessors(); }

std::int64_t NSSystem::process() { return ::getpid(); }

std::uint16_t NSSystem::mask() {
  // Without another way it is changed for a moment, to one that lets nobody else have what is made meanwhile.
  // Two threads that did it at once could leave that one behind.
  static std::mutex oneAtATime;
  const std::lock_guard lock(oneAtATime);
  mode_t mask = 0;
  if (NSMaskWithoutChangingIt(&mask) < 0) {
    mask = ::umask(S_IRWXG | S_IRWXO);
    ::umask(mask);
  }
  return static_cast<std::uint16_t>(mask & 0777);
}

}  // namespace KQ
