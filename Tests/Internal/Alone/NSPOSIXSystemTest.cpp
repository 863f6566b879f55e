// The system by its POSIX calls. Every function of the C library that it calls is defined here, so that a
// test can let it fail or be interrupted.

#include <KQZip/Platform/Internal/NSSystem.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

using namespace KQ;
using namespace KQTest;
namespace fs = std::filesystem;

namespace {

// While one exists, calls of one function go as it says.
class Script {
 public:
  explicit Script(std::string function) : function_(std::move(function)) { active() = this; }
  ~Script() { active() = nullptr; }
  Script(const Script&) = delete;
  Script& operator=(const Script&) = delete;

  int interruptions = 0;     // So many calls are interrupted,
  int code = 0;              // then each fails with this,
  std::int64_t answer = -1;  // or returns this and does nothing.
  int calls = 0;             // How many there were,
  std::uint64_t length = 0;  // and how many bytes the last asked for.

  static Script*& active() {
    static Script* script = nullptr;
    return script;
  }

  bool concerns(const char* function) const { return function_ == function; }

  // Null for a pointer, and -1 for a number.
  template <class Result>
  static Result failure() {
    if constexpr (std::is_pointer_v<Result>)
      return nullptr;
    else
      return -1;
  }

  template <class Call>
  auto perform(std::uint64_t asked, Call call) -> decltype(call()) {
    using Result = decltype(call());
    ++calls;
    length = asked;
    if (calls <= interruptions || code != 0) {
      errno = calls <= interruptions ? EINTR : code;
      return failure<Result>();
    }
    if constexpr (!std::is_pointer_v<Result>) {
      if (answer >= 0) return static_cast<Result>(answer);
    }
    return call();
  }

 private:
  std::string function_;
};

template <class Function>
Function* systemFunction(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <class Call>
auto scripted(const char* name, std::uint64_t length, Call call) -> decltype(call()) {
  Script* const script = Script::active();
  return script != nullptr && script->concerns(name) ? script->perform(length, call) : call();
}

}  // namespace

// Defines a function of the C library that asks the script first.
#define KQ_SCRIPTED(RESULT, NAME, PARAMETERS, ARGUMENTS, LENGTH, ...)                           \
  extern "C" RESULT NAME PARAMETERS __VA_ARGS__ {                                               \
    static auto* const real = systemFunction<RESULT PARAMETERS>(#NAME);                         \
    return scripted(#NAME, static_cast<std::uint64_t>(LENGTH), [&] { return real ARGUMENTS; }); \
  }

KQ_SCRIPTED(int, close, (int file), (file), 0)
KQ_SCRIPTED(off_t, lseek, (int file, off_t offset, int whence), (file, offset, whence), 0, noexcept)
KQ_SCRIPTED(ssize_t, read, (int file, void* buffer, size_t length), (file, buffer, length), length)
KQ_SCRIPTED(ssize_t, pread, (int file, void* buffer, size_t length, off_t offset),
            (file, buffer, length, offset), length)
KQ_SCRIPTED(ssize_t, pwrite, (int file, const void* buffer, size_t length, off_t offset),
            (file, buffer, length, offset), length)
KQ_SCRIPTED(ssize_t, writev, (int file, const iovec* pieces, int count), (file, pieces, count), count)
KQ_SCRIPTED(ssize_t, sendfile, (int target, int source, off_t* offset, size_t length),
            (target, source, offset, length), length, noexcept)
KQ_SCRIPTED(ssize_t, copy_file_range,
            (int source, off_t* from, int target, off_t* to, size_t length, unsigned flags),
            (source, from, target, to, length, flags), length)
KQ_SCRIPTED(int, ftruncate, (int file, off_t length), (file, length), length, noexcept)
KQ_SCRIPTED(int, fallocate, (int file, int mode, off_t offset, off_t length), (file, mode, offset, length),
            length)
KQ_SCRIPTED(int, fsync, (int file), (file), 0)
KQ_SCRIPTED(int, fstat, (int file, struct stat* status), (file, status), 0, noexcept)
KQ_SCRIPTED(int, fstatat, (int folder, const char* path, struct stat* status, int flags),
            (folder, path, status, flags), 0, noexcept)
KQ_SCRIPTED(int, futimens, (int file, const timespec* times), (file, times), 0, noexcept)
KQ_SCRIPTED(int, utimensat, (int folder, const char* path, const timespec* times, int flags),
            (folder, path, times, flags), 0, noexcept)
KQ_SCRIPTED(int, fchmod, (int file, mode_t mode), (file, mode), 0, noexcept)
KQ_SCRIPTED(int, mkdirat, (int folder, const char* path, mode_t mode), (folder, path, mode), 0, noexcept)
KQ_SCRIPTED(int, symlinkat, (const char* target, int folder, const char* path), (target, folder, path), 0,
            noexcept)
KQ_SCRIPTED(ssize_t, readlinkat, (int folder, const char* path, char* buffer, size_t length),
            (folder, path, buffer, length), length, noexcept)
KQ_SCRIPTED(int, linkat, (int folder, const char* path, int newFolder, const char* newPath, int flags),
            (folder, path, newFolder, newPath, flags), 0, noexcept)
KQ_SCRIPTED(int, renameat, (int folder, const char* path, int newFolder, const char* newPath),
            (folder, path, newFolder, newPath), 0, noexcept)
KQ_SCRIPTED(int, renameat2,
            (int folder, const char* path, int newFolder, const char* newPath, unsigned flags),
            (folder, path, newFolder, newPath, flags), 0, noexcept)
KQ_SCRIPTED(int, unlinkat, (int folder, const char* path, int flags), (folder, path, flags), 0, noexcept)
KQ_SCRIPTED(DIR*, fdopendir, (int file), (file), 0)
KQ_SCRIPTED(dirent*, readdir, (DIR * folder), (folder), 0)
KQ_SCRIPTED(int, sched_getaffinity, (pid_t process, size_t size, cpu_set_t* set), (process, size, set), size,
            noexcept)

extern "C" int openat(int folder, const char* path, int flags, ...) {
  static auto* const real = systemFunction<int(int, const char*, int, ...)>("openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return scripted("openat", 0, [&] { return real(folder, path, flags, mode); });
}

// The library calls only openat2() by its number, which has four arguments. Others, of the language's own
// library, may have fewer than are read here, which is known to be harmless.
extern "C" __attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
  static auto* const real = systemFunction<long(long, ...)>("syscall");
  va_list arguments;
  va_start(arguments, number);
  std::array<long, 6> given{};
  const std::size_t count = number == SYS_openat2 ? 4 : given.size();
  for (std::size_t i = 0; i < count; ++i) given[i] = va_arg(arguments, long);
  va_end(arguments);
  return scripted("syscall", 0,
                  [&] { return real(number, given[0], given[1], given[2], given[3], given[4], given[5]); });
}

// It returns the number of its error.
extern "C" int posix_fadvise(int file, off_t offset, off_t length, int advice) noexcept {
  static auto* const real = systemFunction<int(int, off_t, off_t, int)>("posix_fadvise");
  Script* const script = Script::active();
  if (script == nullptr || !script->concerns("posix_fadvise")) return real(file, offset, length, advice);
  ++script->calls;
  return script->code;
}

namespace {

// An operation of the system, the function that it is made of, and a call of it that succeeds once.
struct Operation {
  std::string name;
  std::string function;
  bool isOptional = false;
  std::function<std::int64_t()> run;
};

// Functions of other libraries that the library calls and that either make no system call or report no
// failure of one.
const std::set<std::string> harmless{
    // Memory and text.
    "bcmp", "calloc", "free", "malloc", "memchr", "memcmp", "memcpy", "memmove", "memset", "strcmp", "strlen",
    // Time and the number of the process.
    "getpid", "localtime_r", "mktime", "sched_yield",
    // The log.
    "fwrite", "stderr", "syslog",
    // Folders: what was open is gone, whatever the result.
    "closedir"};

bool isHarmless(const std::string& function) {
  // C++'s own files would make calls behind our backs.
  for (const char* const file : {"10filesystem", "filebuf", "fstream"}) {
    if (function.find(file) != std::string::npos) return false;
  }
  // Threads, checksums, text, and what the compiler calls by itself.
  for (const char* const beginning : {"pthread_", "crc32", "utf8proc_", "_"}) {
    if (function.rfind(beginning, 0) == 0) return true;
  }
  return harmless.count(function) == 1;
}

// What nm says of a library: each object that needs a function, and the function, without its version.
std::vector<std::pair<std::string, std::string>> undefinedIn(const std::string& library,
                                                             const std::vector<std::string>& options) {
  std::vector<std::string> command{"nm", "--undefined-only", "--format=posix", "--print-file-name"};
  command.insert(command.end(), options.begin(), options.end());
  command.push_back(library);
  const ProcessResult result = runProcess(command);
  EXPECT_EQ(0, result.exitStatus) << result.errors;
  std::vector<std::pair<std::string, std::string>> needed;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t colon = line.find(": ");
    std::string function = line.substr(colon + 2, line.find(' ', colon + 2) - colon - 2);
    function.resize(std::min(function.find('@'), function.size()));
    needed.emplace_back(line.substr(0, colon), function);
  }
  return needed;
}

class NSPOSIXSystem : public ::testing::Test {
 protected:
  NSPOSIXSystem() {
    writeFile(directory_ / "file", "0123456789");
    fs::create_directory(directory_ / "folder");
    fs::create_symlink("file", directory_ / "link");
    root_ = open("", NSOpenToRead | NSOpenFolder);
    source_ = open("file", NSOpenToRead);
    target_ = open("target", NSOpenToRead | NSOpenToWrite | NSOpenCreating);
  }
  ~NSPOSIXSystem() override {
    for (const NSHandle file : {root_, source_, target_}) EXPECT_EQ(0, system_.close(file));
  }

  // Opens something in the test's folder, for good.
  NSHandle open(const std::string& name, unsigned mode) {
    const NSHandle opened = system_.open(NSCurrentFolder, (directory_ / name).c_str(), mode, 0666);
    EXPECT_LE(0, opened) << name;
    return opened;
  }

  // What becomes of an attempt to open; what was opened is closed.
  std::int64_t attempt(NSHandle opened) { return opened < 0 ? opened : system_.close(opened); }

  // Every operation that may fail, except close().
  std::vector<Operation> operations() {
    return {
        {"open", "openat", false, [&] { return attempt(system_.open(root_, "file", NSOpenToRead, 0)); }},
        {"openBeneath", "syscall", true,
         [&] { return attempt(system_.openBeneath(root_, "file", NSOpenToRead, 0)); }},
        {"readAt", "pread", false, [&] { return system_.readAt(source_, buffer_.data(), 4, 2); }},
        {"read", "read", false, [&] { return system_.read(source_, buffer_.data(), 4); }},
        {"writeAt", "pwrite", false, [&] { return system_.writeAt(target_, "abc", 3, 0); }},
        {"write", "writev", false,
         [&] {
           const NSPiece piece{"abc", 3};
           return system_.write(target_, &piece, 1);
         }},
        {"sendAt", "sendfile", true, [&] { return system_.sendAt(target_, source_, 4, 2); }},
        {"copyAt", "copy_file_range", true, [&] { return system_.copyAt(target_, 20, source_, 2, 4); }},
        {"setLength", "ftruncate", false, [&] { return system_.setLength(target_, 5); }},
        {"reserve", "fallocate", true, [&] { return system_.reserve(target_, 5000); }},
        {"synchronise", "fsync", false, [&] { return system_.synchronise(target_); }},
        {"status", "fstat", false, [&] { return system_.status(source_, &status_); }},
        {"statusAt", "fstatat", false, [&] { return system_.statusAt(root_, "link", true, &status_); }},
        {"setTime", "futimens", false,
         [&] {
           return system_.setTime(target_, {1, 2});
         }},
        {"setTimeAt", "utimensat", false,
         [&] {
           return system_.setTimeAt(root_, "target", true, {1, 2});
         }},
        {"setPermissions", "fchmod", false, [&] { return system_.setPermissions(target_, 0600); }},
        {"makeFolder", "mkdirat", false, [&] { return system_.makeFolder(root_, "made", 0777); }},
        {"makeLink", "symlinkat", false, [&] { return system_.makeLink("anything", root_, "made link"); }},
        {"readLink", "readlinkat", false, [&] { return system_.readLink(root_, "link", &text_); }},
        {"addName", "linkat", false, [&] { return system_.addName(root_, "file", root_, "second"); }},
        {"rename", "renameat", false, [&] { return system_.rename(root_, "second", root_, "third"); }},
        {"renameToNew", "renameat2", true,
         [&] { return system_.renameToNew(root_, "third", root_, "fourth"); }},
        {"remove", "unlinkat", false, [&] { return system_.remove(root_, "made", true); }},
        {"next", "readdir", false,
         [&] {
           std::unique_ptr<NSFolderListing> listing;
           NSListedItem item;
           EXPECT_EQ(0, system_.list(open("", NSOpenToRead | NSOpenFolder), &listing));
           return listing->next(&item);
         }},
    };
  }

  // The names in a folder.
  std::map<std::string, NSItemType> listed(const std::string& name) {
    std::map<std::string, NSItemType> items;
    std::unique_ptr<NSFolderListing> listing;
    EXPECT_EQ(0, system_.list(open(name, NSOpenToRead | NSOpenFolder), &listing));
    int result = 0;
    for (NSListedItem item; (result = listing->next(&item)) > 0;)
      EXPECT_TRUE(items.emplace(item.name, item.type).second) << item.name << " comes twice";
    EXPECT_EQ(0, result);
    return items;
  }

  NSItemStatus statusOf(const std::string& name, bool followingLink = false) {
    NSItemStatus status;
    EXPECT_EQ(0, system_.statusAt(root_, name.c_str(), followingLink, &status)) << name;
    return status;
  }

  NSSystem system_;
  TemporaryDirectory directory_;
  NSHandle root_ = -1;
  NSHandle source_ = -1;
  NSHandle target_ = -1;
  std::array<char, 64> buffer_{};
  NSItemStatus status_;
  std::string text_;
};

TEST_F(NSPOSIXSystem, EveryCallThatASignalInterruptsIsRepeated) {
  for (const Operation& operation : operations()) {
    SCOPED_TRACE(operation.name);
    Script script(operation.function);
    script.interruptions = 3;
    const std::int64_t result = operation.run();
    if (operation.isOptional && result == -ENOSYS) continue;
    EXPECT_LE(0, result);
    EXPECT_LE(4, script.calls);
  }
}

TEST_F(NSPOSIXSystem, EveryFailureIsTheNegativeOfItsNumberAndNothingIsRepeated) {
  for (const Operation& operation : operations()) {
    for (const int code : {EIO, ENOSPC, EACCES, EMFILE, EAGAIN}) {
      SCOPED_TRACE(operation.name + " " + std::to_string(code));
      Script script(operation.function);
      script.code = code;
      const std::int64_t result = operation.run();
      if (operation.isOptional && result == -ENOSYS && script.calls == 0) continue;
      EXPECT_EQ(-code, result);
      EXPECT_EQ(1, script.calls);
    }
  }
}

TEST_F(NSPOSIXSystem, AnOperationThatTheSystemDoesNotHaveSaysSo) {
  for (const Operation& operation : operations()) {
    if (!operation.isOptional) continue;
    SCOPED_TRACE(operation.name);
    Script script(operation.function);
    script.code = ENOSYS;
    EXPECT_EQ(-ENOSYS, operation.run());
  }
  const std::vector<std::pair<std::string, int>> refusals{
      {"openBeneath", EPERM}, {"reserve", EOPNOTSUPP}, {"renameToNew", EINVAL}};
  for (const auto& [name, code] : refusals) {
    SCOPED_TRACE(name);
    const std::vector<Operation> all = operations();
    const auto operation = std::find_if(all.begin(), all.end(), [&wanted = name](const Operation& candidate) {
      return candidate.name == wanted;
    });
    ASSERT_NE(all.end(), operation);
    Script script(operation->function);
    script.code = code;
    EXPECT_EQ(-ENOSYS, operation->run()) << "what cannot do it answers otherwise";
  }
}

TEST_F(NSPOSIXSystem, EveryCallThatTheLibraryImportsIsOneThatFailsHere) {
  // These neither wait nor fail by an interruption, or have tests of their own.
  std::set<std::string> failing{"close",         "fdopendir",         "lseek", "open",
                                "posix_fadvise", "sched_getaffinity", "umask"};
  std::set<std::string> mayBeMissing{"open", "posix_fadvise", "sched_getaffinity"};
  for (const Operation& operation : operations()) {
    failing.insert(operation.function);
    // What is there may still fail: only a call that is never made shows that it was not built.
    Script script(operation.function);
    if (operation.isOptional && operation.run() == -ENOSYS && script.calls == 0)
      mayBeMissing.insert(operation.function);
  }
  std::set<std::string> imported;
  for (const auto& [object, function] : undefinedIn(KQZIP_SHARED_LIBRARY, {"--dynamic"})) {
    imported.insert(function);
    EXPECT_TRUE(failing.count(function) == 1 || isHarmless(function)) << function;
  }
  // The failure of what the library does not call would test nothing.
  for (const std::string& function : failing)
    EXPECT_TRUE(imported.count(function) == 1 || mayBeMissing.count(function) == 1) << function;
}

TEST_F(NSPOSIXSystem, NoOtherUnitOfTheLibraryCallsTheSystem) {
  std::set<std::string> calling;
  for (const auto& [object, function] : undefinedIn(KQZIP_STATIC_LIBRARY, {})) {
    const bool isOfTheSystem = object.find("NSPOSIXSystem.") != std::string::npos ||
                               object.find("NSOptionalCalls.") != std::string::npos;
    static const std::set<std::string> ofTheSystem{"getpid", "localtime_r", "mktime", "syslog", "closedir"};
    if (isOfTheSystem)
      calling.insert(function);
    else
      EXPECT_TRUE(isHarmless(function) && ofTheSystem.count(function) == 0) << object << " " << function;
  }
  EXPECT_EQ(1U, calling.count("openat")) << "the units are found";
}

TEST_F(NSPOSIXSystem, ACloseIsNeverRepeated) {
  const NSHandle file = open("file", NSOpenToRead);
  {
    Script script("close");
    script.interruptions = 3;
    EXPECT_EQ(0, system_.close(file)) << "the file is closed all the same";
    EXPECT_EQ(1, script.calls);
  }
  {
    Script script("close");
    script.code = EIO;
    EXPECT_EQ(-EIO, system_.close(file));
    EXPECT_EQ(1, script.calls);
  }
  EXPECT_EQ(0, system_.close(file)) << "neither has reached it";
  EXPECT_EQ(-EBADF, system_.close(file));
}

TEST_F(NSPOSIXSystem, OnlyWhatSaysThatItHasNoOffsetsHasNone) {
  std::array<int, 2> ends{};
  ASSERT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
  EXPECT_FALSE(system_.isSeekable(ends[0]));
  EXPECT_TRUE(system_.isSeekable(source_));
  {
    Script script("lseek");
    script.code = EIO;
    EXPECT_TRUE(system_.isSeekable(ends[0]));
  }
  for (const int end : ends) EXPECT_EQ(0, system_.close(end));
}

TEST_F(NSPOSIXSystem, ATransferIsMadeOnceAndTellsWhatItMoved) {
  const std::vector<std::string> transfers{"readAt", "read", "writeAt", "write", "sendAt", "copyAt"};
  for (const Operation& operation : operations()) {
    if (std::find(transfers.begin(), transfers.end(), operation.name) == transfers.end()) continue;
    SCOPED_TRACE(operation.name);
    Script script(operation.function);
    script.answer = 1;
    const std::int64_t result = operation.run();
    if (operation.isOptional && script.calls == 0) continue;
    EXPECT_EQ(1, result);
    EXPECT_EQ(1, script.calls);
  }
}

TEST_F(NSPOSIXSystem, NoCallIsAskedForMoreThanTheSystemTakes) {
  const std::uint64_t much = std::uint64_t{1} << 40;
  const std::uint64_t last = std::numeric_limits<std::int64_t>::max();
  const std::uint64_t most = 0x40000000;
  const std::vector<std::tuple<std::string, std::uint64_t, std::function<void()>>> cases{
      {"pread", most, [&] { system_.readAt(source_, buffer_.data(), much, 0); }},
      {"pread", 5, [&] { system_.readAt(source_, buffer_.data(), much, last - 5); }},
      {"read", most, [&] { system_.read(source_, buffer_.data(), much); }},
      {"pwrite", most, [&] { system_.writeAt(target_, buffer_.data(), much, 0); }},
      {"sendfile", most, [&] { system_.sendAt(target_, source_, much, 0); }},
      {"sendfile", 5, [&] { system_.sendAt(target_, source_, much, last - 5); }},
      {"copy_file_range", most, [&] { system_.copyAt(target_, 0, source_, 0, much); }}};
  for (const auto& [function, expected, run] : cases) {
    SCOPED_TRACE(function);
    Script script(function);
    script.answer = 0;
    run();
    if (script.calls != 0) {
      EXPECT_EQ(expected, script.length);
    }
  }
}

TEST_F(NSPOSIXSystem, PiecesAreWrittenInOrderAndAtMostSixteen) {
  const std::string letters = "abcdefghijklmnopq";
  std::vector<NSPiece> pieces;
  for (const char& letter : letters) pieces.push_back({&letter, 1});
  EXPECT_EQ(16, system_.write(target_, pieces.data(), 17));
  EXPECT_EQ("abcdefghijklmnop", readFile(directory_ / "target"));
}

TEST_F(NSPOSIXSystem, TransfersMoveTheBytesTheyAreAskedFor) {
  EXPECT_EQ(3, system_.readAt(source_, buffer_.data(), 3, 4));
  EXPECT_EQ("456", std::string(buffer_.data(), 3));
  EXPECT_EQ(2, system_.read(source_, buffer_.data(), 2));
  EXPECT_EQ("01", std::string(buffer_.data(), 2));
  EXPECT_EQ(0, system_.readAt(source_, buffer_.data(), 3, 10)) << "the end";
  EXPECT_EQ(4, system_.writeAt(target_, "wxyz", 4, 3));
  EXPECT_EQ(std::string(3, '\0') + "wxyz", readFile(directory_ / "target"));
  EXPECT_EQ(0, system_.setLength(target_, 5));
  EXPECT_EQ(std::string(3, '\0') + "wx", readFile(directory_ / "target"));
}

TEST_F(NSPOSIXSystem, TheSystemCopiesBytesByItselfOrSaysThatItDoesNot) {
  const std::int64_t sent = system_.sendAt(target_, source_, 4, 2);
  EXPECT_TRUE(sent == 4 || sent == -ENOSYS) << sent;
  EXPECT_EQ(sent == 4 ? "2345" : "", readFile(directory_ / "target"));
  const std::int64_t copied = system_.copyAt(target_, 1, source_, 6, 3);
  EXPECT_TRUE(copied == 3 || copied == -ENOSYS) << copied;
  if (copied == 3) {
    EXPECT_EQ("678", readFile(directory_ / "target").substr(1));
  }
  EXPECT_EQ(2, system_.read(source_, buffer_.data(), 2));
  EXPECT_EQ("01", std::string(buffer_.data(), 2)) << "the source stands where it stood";
}

TEST_F(NSPOSIXSystem, RoomIsReservedWithoutChangingTheLength) {
  const int result = system_.reserve(target_, 100000);
  EXPECT_TRUE(result == 0 || result == -ENOSYS) << result;
  ASSERT_EQ(0, system_.status(target_, &status_));
  EXPECT_EQ(0U, status_.size);
  if (result == 0) {
    EXPECT_LE(100000U, status_.blocks * 512);
  }
}

TEST_F(NSPOSIXSystem, TheAdviceToReadAheadIsTakenOrNotHere) {
  const int result = system_.willReadAll(source_);
  EXPECT_TRUE(result == 0 || result == -ENOSYS) << result;
  Script script("posix_fadvise");
  script.code = EINVAL;
  EXPECT_EQ(result == 0 ? -EINVAL : -ENOSYS, system_.willReadAll(source_));
}

TEST_F(NSPOSIXSystem, AFileIsOpenedAsTheModeSays) {
  const auto opened = [&](const char* path, unsigned mode) {
    return attempt(system_.open(root_, path, mode, 0600));
  };
  EXPECT_EQ(-ENOENT, opened("nothing", NSOpenToRead));
  EXPECT_EQ(-ENOENT, opened("nothing", NSOpenToWrite));
  EXPECT_EQ(-EEXIST, opened("file", NSOpenToWrite | NSOpenCreating | NSOpenNew));
  fs::create_symlink("nothing", directory_ / "dangling");
  EXPECT_EQ(-EEXIST, opened("dangling", NSOpenToWrite | NSOpenCreating | NSOpenNew));
  EXPECT_FALSE(fs::exists(directory_ / "nothing"));
  EXPECT_EQ(-ENOTDIR, opened("file", NSOpenToRead | NSOpenFolder));
  EXPECT_EQ(0, opened("folder", NSOpenToRead | NSOpenFolder));
  EXPECT_EQ(0, opened("link", NSOpenToRead));
  EXPECT_EQ(-ELOOP, opened("link", NSOpenToRead | NSOpenNoLink));
  EXPECT_EQ(0, opened("file", NSOpenToWrite));
  EXPECT_EQ("0123456789", readFile(directory_ / "file"));
  EXPECT_EQ(0, opened("file", NSOpenToWrite | NSOpenCreating | NSOpenEmptying));
  EXPECT_EQ("", readFile(directory_ / "file"));
  ASSERT_EQ(0, mkfifo((directory_ / "pipe").c_str(), 0600));
  EXPECT_EQ(0, opened("pipe", NSOpenToRead | NSOpenNotWaiting));
  EXPECT_EQ(-ENXIO, opened("pipe", NSOpenToWrite | NSOpenNotWaiting));
}

TEST_F(NSPOSIXSystem, WhatIsOpenIsNotHandedToOtherPrograms) {
  std::vector<NSHandle> files{root_, source_, target_};
  const NSHandle beneath = system_.openBeneath(root_, "file", NSOpenToRead, 0);
  if (beneath != -ENOSYS) files.push_back(beneath);
  for (const NSHandle file : files) EXPECT_EQ(FD_CLOEXEC, fcntl(static_cast<int>(file), F_GETFD));
  if (beneath >= 0) {
    EXPECT_EQ(0, system_.close(beneath));
  }
}

TEST_F(NSPOSIXSystem, NothingOutsideAFolderIsOpenedBeneathItAndNoLinkIsFollowed) {
  const NSHandle folder = open("folder", NSOpenToRead | NSOpenFolder);
  const auto opened = [&](const std::string& path, unsigned mode = NSOpenToRead) {
    return attempt(system_.openBeneath(folder, path.c_str(), mode, 0600));
  };
  if (opened("nothing") == -ENOSYS) {
    EXPECT_EQ(0, system_.close(folder));
    GTEST_SKIP() << "not here";
  }
  fs::create_directory(directory_ / "folder/deeper");
  writeFile(directory_ / "folder/inside", "inside");
  fs::create_symlink("inside", directory_ / "folder/link to a file");
  fs::create_symlink("deeper", directory_ / "folder/link to a folder");
  fs::create_symlink(directory_ / "file", directory_ / "folder/link out");

  const unsigned making = NSOpenToWrite | NSOpenCreating | NSOpenNew;
  EXPECT_EQ(0, opened("inside"));
  EXPECT_EQ(0, opened("deeper/new", making));
  EXPECT_EQ("", readFile(directory_ / "folder/deeper/new"));
  for (const std::string& path : {std::string("../file"), std::string(".."), std::string("deeper/../../file"),
                                  directory_ / "file", directory_ / "folder/inside"})
    EXPECT_EQ(-EXDEV, opened(path)) << path;
  for (const char* const path : {"link to a file", "link to a folder/new", "link out"})
    EXPECT_EQ(-ELOOP, opened(path)) << path;
  EXPECT_EQ(-EXDEV, opened("../made", making));
  EXPECT_EQ(-ELOOP, opened("link to a folder/made", making));
  EXPECT_EQ(-EEXIST, opened("link out", making));
  EXPECT_FALSE(fs::exists(directory_ / "made"));
  EXPECT_FALSE(fs::exists(directory_ / "folder/deeper/made"));
  EXPECT_EQ(0, system_.close(folder));
}

TEST_F(NSPOSIXSystem, ANewNameReplacesNothing) {
  writeFile(directory_ / "other", "other");
  fs::create_symlink("nothing", directory_ / "dangling");
  const int result = system_.renameToNew(root_, "other", root_, "file");
  if (result == -ENOSYS) GTEST_SKIP() << "not here";
  EXPECT_EQ(-EEXIST, result);
  EXPECT_EQ(-EEXIST, system_.renameToNew(root_, "other", root_, "dangling"));
  EXPECT_EQ("0123456789", readFile(directory_ / "file"));
  EXPECT_EQ("other", readFile(directory_ / "other"));
  EXPECT_EQ(0, system_.renameToNew(root_, "other", root_, "folder/new"));
  EXPECT_EQ("other", readFile(directory_ / "folder/new"));
  EXPECT_FALSE(fs::exists(directory_ / "other"));
}

TEST_F(NSPOSIXSystem, NamesAreAddedReplacedAndRemoved) {
  EXPECT_EQ(-EEXIST, system_.addName(root_, "file", root_, "target"));
  EXPECT_EQ(0, system_.addName(root_, "file", root_, "folder/second"));
  EXPECT_EQ(statusOf("file").number, statusOf("folder/second").number);
  EXPECT_EQ(0, system_.rename(root_, "folder/second", root_, "target"));
  EXPECT_EQ("0123456789", readFile(directory_ / "target")) << "in place of the other";
  EXPECT_EQ(0, system_.remove(root_, "target", false));
  EXPECT_EQ(0, system_.remove(root_, "link", false)) << "the link itself";
  EXPECT_EQ("0123456789", readFile(directory_ / "file"));
  writeFile(directory_ / "folder/file", "");
  EXPECT_EQ(-ENOTEMPTY, system_.remove(root_, "folder", true));
  EXPECT_EQ(-ENOTDIR, system_.remove(root_, "file", true));
  EXPECT_NE(0, system_.remove(root_, "folder", false));
  EXPECT_EQ(0, system_.remove(root_, "folder/file", false));
  EXPECT_EQ(0, system_.remove(root_, "folder", true));
  EXPECT_EQ(1U, listed("").size());
}

TEST_F(NSPOSIXSystem, ALinkIsReadWholeHoweverLongItIs) {
  for (const std::size_t length : {std::size_t{1}, std::size_t{255}, std::size_t{256}, std::size_t{257},
                                   std::size_t{511}, std::size_t{512}, std::size_t{4000}}) {
    const std::string held = std::string(length / 2, 'x') + std::string(length - length / 2, 'y');
    ASSERT_EQ(0, system_.makeLink(held.c_str(), root_, "long")) << length;
    EXPECT_EQ(0, system_.readLink(root_, "long", &text_));
    EXPECT_TRUE(held == text_) << length;
    ASSERT_EQ(0, system_.remove(root_, "long", false));
  }
  EXPECT_EQ(-EINVAL, system_.readLink(root_, "file", &text_));
}

TEST_F(NSPOSIXSystem, AFolderIsListedWithoutItselfAndTheOneAboveIt) {
  EXPECT_TRUE(listed("folder").empty());
  for (const char* const name : {".hidden", "...", "\xC3\xBC", "not UTF-8 \xFF"})
    writeFile(directory_.path() / "folder" / name, "");
  fs::create_directory(directory_ / "folder/inner");
  fs::create_symlink("..", directory_ / "folder/up");
  const std::map<std::string, NSItemType> items = listed("folder");
  std::map<std::string, NSItemType> expected{
      {".hidden", NSItemType::File},        {"...", NSItemType::File},     {"\xC3\xBC", NSItemType::File},
      {"not UTF-8 \xFF", NSItemType::File}, {"inner", NSItemType::Folder}, {"up", NSItemType::Link}};
  ASSERT_EQ(expected.size(), items.size());
  for (const auto& [name, type] : items) {
    ASSERT_EQ(1U, expected.count(name)) << name;
    EXPECT_TRUE(type == expected[name] || type == NSItemType::Unknown) << name;
  }
}

TEST_F(NSPOSIXSystem, AFolderThatCannotBeListedIsClosed) {
  const NSHandle folder = open("folder", NSOpenToRead | NSOpenFolder);
  std::unique_ptr<NSFolderListing> listing;
  {
    Script script("fdopendir");
    script.code = ENOMEM;
    EXPECT_EQ(-ENOMEM, system_.list(folder, &listing));
    EXPECT_EQ(1, script.calls);
  }
  EXPECT_FALSE(listing);
  EXPECT_EQ(-EBADF, system_.close(folder));
  const NSHandle file = open("file", NSOpenToRead);
  EXPECT_EQ(-ENOTDIR, system_.list(file, &listing));
  EXPECT_EQ(-EBADF, system_.close(file));
}

TEST_F(NSPOSIXSystem, AnItemsStatusIsTold) {
  ASSERT_EQ(0, chmod((directory_ / "file").c_str(), 06751));
  setModificationDate(directory_ / "file", -1234567890, 987654321);
  const NSItemStatus file = statusOf("file");
  EXPECT_EQ(NSItemType::File, file.type);
  EXPECT_EQ(10U, file.size);
  EXPECT_EQ(-1234567890, file.seconds);
  EXPECT_EQ(987654321, file.nanoseconds);
  EXPECT_EQ(06751, file.permissions);
  EXPECT_EQ(file.number, statusOf("link", true).number);
  EXPECT_NE(file.number, statusOf("link").number);
  EXPECT_EQ(file.device, statusOf("folder").device);
  EXPECT_EQ(NSItemType::Folder, statusOf("folder").type);
  EXPECT_EQ(NSItemType::Link, statusOf("link").type);
  EXPECT_EQ(NSItemType::CharacterDevice, statusOf("/dev/null").type);
  ASSERT_EQ(0, mkfifo((directory_ / "pipe").c_str(), 0600));
  EXPECT_EQ(NSItemType::Pipe, statusOf("pipe").type);
  ASSERT_EQ(0, system_.status(source_, &status_));
  EXPECT_EQ(file.number, status_.number);
  EXPECT_EQ(-ENOENT, system_.statusAt(root_, "nothing", true, &status_));
}

TEST_F(NSPOSIXSystem, ATimeIsSetToTheNanosecondAndThatOfTheLastAccessStays) {
  struct stat before {};
  ASSERT_EQ(0, stat((directory_ / "target").c_str(), &before));
  EXPECT_EQ(0, system_.setTime(target_, {-5, 123456789}));
  EXPECT_EQ(-5, statusOf("target").seconds);
  EXPECT_EQ(123456789, statusOf("target").nanoseconds);
  struct stat after {};
  ASSERT_EQ(0, stat((directory_ / "target").c_str(), &after));
  EXPECT_EQ(before.st_atim.tv_sec, after.st_atim.tv_sec);
  EXPECT_EQ(before.st_atim.tv_nsec, after.st_atim.tv_nsec);
  EXPECT_EQ(0, system_.setTimeAt(root_, "link", false, {7, 8}));
  EXPECT_EQ(7, statusOf("link").seconds);
  EXPECT_NE(7, statusOf("file").seconds) << "the link itself";
  EXPECT_EQ(0, system_.setTimeAt(root_, "link", true, {9, 10}));
  EXPECT_EQ(9, statusOf("file").seconds);
  EXPECT_EQ(10, statusOf("file").nanoseconds);
}

TEST_F(NSPOSIXSystem, ThePermissionsOfWhatIsMadeAreLessTheMaskAndThoseThatAreSetAreNot) {
  const mode_t before = umask(027);
  EXPECT_EQ(0, attempt(system_.open(root_, "new", NSOpenToWrite | NSOpenCreating, 0666)));
  EXPECT_EQ(0640, statusOf("new").permissions);
  EXPECT_EQ(0, system_.makeFolder(root_, "new folder", 0777));
  EXPECT_EQ(0750, statusOf("new folder").permissions & 0777);
  const NSHandle beneath = system_.openBeneath(root_, "beneath", NSOpenToWrite | NSOpenCreating, 0666);
  if (beneath != -ENOSYS) {
    EXPECT_EQ(0640, statusOf("beneath").permissions);
    EXPECT_EQ(0, system_.close(beneath));
  }
  EXPECT_EQ(0, system_.setPermissions(target_, 0666));
  EXPECT_EQ(0666, statusOf("target").permissions);
  umask(before);
}

TEST_F(NSPOSIXSystem, TheProcessKnowsItsNumberAndItsProcessors) {
  EXPECT_EQ(getpid(), system_.process());
  EXPECT_LE(1U, system_.processors());
  Script script("sched_getaffinity");
  script.code = EINVAL;
  EXPECT_LE(1U, system_.processors());
}

TEST_F(NSPOSIXSystem, AnotherSystemIsUsedUntilItIsTakenAway) {
  NSSystem& own = NSSystem::current();
  EXPECT_EQ(nullptr, NSSystem::replace(&system_));
  EXPECT_EQ(&system_, &NSSystem::current());
  EXPECT_EQ(&system_, NSSystem::replace(nullptr));
  EXPECT_EQ(&own, &NSSystem::current());
}

}  // namespace
