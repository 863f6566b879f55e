#include "Support/SmallDisk.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Support/TemporaryDirectory.h"

namespace KQTest {

namespace {

std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

bool writeText(const char* path, const std::string& text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0) return false;
  const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(file);
  return written;
}

// Gives the process mounts of its own; whoever may not do that on the system may in a user namespace.
std::string leaveTheSystemsMounts() {
  const std::string user = std::to_string(geteuid());
  const std::string group = std::to_string(getegid());
  if (unshare(CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return failure("no namespace can be made");
    if (!writeText("/proc/self/setgroups", "deny") ||
        !writeText("/proc/self/uid_map", user + " " + user + " 1") ||
        !writeText("/proc/self/gid_map", group + " " + group + " 1"))
      return failure("the namespace cannot be set up");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return failure("the mounts cannot be made private");
  return {};
}

}  // namespace

std::string mountSmallDisk(const std::string& folder, std::uint64_t bytes) {
  static bool apart = false;
  if (!apart) {
    const std::string reason = leaveTheSystemsMounts();
    if (!reason.empty()) return reason;
    apart = true;
  } else if (umount2(folder.c_str(), 0) != 0 && errno != EINVAL) {
    return failure("the earlier disk cannot be unmounted");
  }
  const std::string options = "size=" + std::to_string(bytes);
  if (mount("disk", folder.c_str(), "tmpfs", 0, options.c_str()) != 0)
    return failure("no disk can be mounted");
  return {};
}

std::string reasonAgainstSmallDisks() {
  const TemporaryDirectory folder;
  std::array<int, 2> answer{};
  if (pipe2(answer.data(), O_CLOEXEC) != 0) return failure("no pipe can be made");
  const pid_t child = fork();
  if (child == 0) {
    const std::string reason = mountSmallDisk(folder.path().string(), 65536);
    const ssize_t written = write(answer[1], reason.data(), reason.size());
    _exit(written == static_cast<ssize_t>(reason.size()) ? 0 : 1);
  }
  close(answer[1]);
  std::array<char, 512> buffer{};
  const ssize_t count = child < 0 ? -1 : read(answer[0], buffer.data(), buffer.size());
  close(answer[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0 || count < 0)
    return "the attempt to mount one failed";
  return {buffer.data(), static_cast<std::size_t>(count)};
}

}  // namespace KQTest
