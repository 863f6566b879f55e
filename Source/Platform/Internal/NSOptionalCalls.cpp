#include "NSOptionalCalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <system_error>
#include <thread>

#ifdef KQZIP_HAS_SENDFILE
#include <sys/sendfile.h>
#endif
#ifdef KQZIP_HAS_OPENAT2
#include <linux/openat2.h>
#include <sys/syscall.h>
#endif
#ifdef KQZIP_HAS_RENAMEAT2
#include <cstdio>
#endif
#ifdef KQZIP_HAS_SCHED_GETAFFINITY
#include <sched.h>
#endif

namespace KQ {

[[maybe_unused]] static int notHere() {
  errno = ENOSYS;
  return -1;
}

#ifdef KQZIP_HAS_OPENAT2
int NSOpenBeneath(int folder, const char* path, int flags, int permissions) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags);
  how.mode = static_cast<std::uint64_t>(permissions);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  const auto result = static_cast<int>(::syscall(SYS_openat2, folder, path, &how, sizeof how));
  // A filter of system calls may refuse an unknown one with another error number.
  if (result < 0 && errno == EPERM) errno = ENOSYS;
  return result;
}
#else
int NSOpenBeneath(int /*folder*/, const char* /*path*/, int /*flags*/, int /*permissions*/) {
  return notHere();
}
#endif

#ifdef KQZIP_HAS_SENDFILE
ssize_t NSSend(int target, int source, std::uint64_t offset, std::size_t length) {
  auto position = static_cast<off_t>(offset);
  return ::sendfile(target, source, &position, length);
}
#else
ssize_t NSSend(int /*target*/, int /*source*/, std::uint64_t /*offset*/, std::size_t /*length*/) {
  return notHere();
}
#endif

#ifdef KQZIP_HAS_COPY_FILE_RANGE
ssize_t NSCopy(int target, std::uint64_t targetOffset, int source, std::uint64_t sourceOffset,
               std::size_t length) {
  auto from = static_cast<off_t>(sourceOffset);
  auto to = static_cast<off_t>(targetOffset);
  return ::copy_file_range(source, &from, target, &to, length, 0);
}
#else
ssize_t NSCopy(int /*target*/, std::uint64_t /*targetOffset*/, int /*source*/, std::uint64_t /*sourceOffset*/,
               std::size_t /*length*/) {
  return notHere();
}
#endif

#ifdef KQZIP_HAS_FALLOCATE
int NSReserve(int file, std::uint64_t length) {
  const int result = ::fallocate(file, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length));
  // A file system that cannot do it counts as a system that cannot.
  if (result < 0 && errno == EOPNOTSUPP) errno = ENOSYS;
  return result;
}
#else
int NSReserve(int /*file*/, std::uint64_t /*length*/) { return notHere(); }
#endif

#ifdef KQZIP_HAS_POSIX_FADVISE
int NSAdviseSequential(int file) { return -::posix_fadvise(file, 0, 0, POSIX_FADV_SEQUENTIAL); }
#else
int NSAdviseSequential(int /*file*/) { return -ENOSYS; }
#endif

#ifdef KQZIP_HAS_RENAMEAT2
int NSRenameToNew(int folder, const char* path, int newFolder, const char* newPath) {
  const int result = ::renameat2(folder, path, newFolder, newPath, RENAME_NOREPLACE);
  // The answer of a file system that cannot do it.
  if (result < 0 && errno == EINVAL) errno = ENOSYS;
  return result;
}
#else
int NSRenameToNew(int /*folder*/, const char* /*path*/, int /*newFolder*/, const char* /*newPath*/) {
  return notHere();
}
#endif

unsigned NSUsableProcessors() {
#ifdef KQZIP_HAS_SCHED_GETAFFINITY
  cpu_set_t usable;
  CPU_ZERO(&usable);
  if (::sched_getaffinity(0, sizeof usable, &usable) == 0)
    return std::max(1U, static_cast<unsigned>(CPU_COUNT(&usable)));
#endif
  return std::max(1U, std::thread::hardware_concurrency());
}

#ifdef KQZIP_HAS_PROC_STATUS
int NSMaskWithoutChangingIt(mode_t* mask) {
  // A line "Umask:\t0022" stands near the start.
  std::array<char, 1024> text{};
  const int file = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  if (file < 0) return -1;
  const ssize_t length = ::read(file, text.data(), text.size());
  ::close(file);
  const std::string_view lines(text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  static constexpr std::string_view label = "\nUmask:\t";
  const std::size_t at = lines.find(label);
  if (at == std::string_view::npos) return notHere();
  const char* const digits = lines.data() + at + label.size();
  unsigned value = 0;
  const auto end = std::from_chars(digits, lines.data() + lines.size(), value, 8);
  if (end.ec != std::errc() || value > 0777) return notHere();
  *mask = value;
  return 0;
}
#else
int NSMaskWithoutChangingIt(mode_t* /*mask*/) { return notHere(); }
#endif

timespec NSModificationTime(const struct stat& status) {
#ifdef KQZIP_HAS_ST_MTIMESPEC
  return status.st_mtimespec;
#else
  return status.st_mtim;
#endif
}

NSItemType NSTypeOfEntry([[maybe_unused]] const dirent& entry) {
#ifdef KQZIP_HAS_D_TYPE
  switch (entry.d_type) {
    case DT_REG:
      return NSItemType::File;
    case DT_DIR:
      return NSItemType::Folder;
    case DT_LNK:
      return NSItemType::Link;
    case DT_SOCK:
      return NSItemType::Socket;
    case DT_CHR:
      return NSItemType::CharacterDevice;
    case DT_BLK:
      return NSItemType::BlockDevice;
    case DT_FIFO:
      return NSItemType::Pipe;
    default:
      break;
  }
#endif
  return NSItemType::Unknown;
}

}  // namespace KQ
