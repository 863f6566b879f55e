// Every system call that the library makes fails once, in every way, through every operation. Afterwards
// either the operation says that it failed, or its result is complete and right to the byte, or the case is
// one of the few that are named below.

#include <KQZip/KQZip.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/LogCapture.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

// How a call goes wrong. A short one is carried out with half of the bytes that were asked for.
constexpr int shortTransfer = -1;
constexpr std::array<int, 6> faults{ENOSPC, EIO, EINTR, EACCES, EMFILE, shortTransfer};

// Records the calls that the library makes on this thread, and lets one of them go wrong.
struct Interposer {
  std::vector<std::string> calls;
  std::size_t failAt = 0;  // The number of the call, from 1; 0 for none.
  int fault = 0;
  bool typesAreUnknown = false;                           // Folders tell names alone, as some disks do.
  std::vector<std::pair<off_t, std::string>> replaced{};  // What pwrite() wrote over, and where.

  static Interposer*& active() {
    static thread_local Interposer* interposer = nullptr;
    return interposer;
  }
};

// The fault for the call that is about to be made; nothing when it is to be made as it is.
std::optional<int> faultFor(const char* name) {
  Interposer* const interposer = Interposer::active();
  if (interposer == nullptr) return std::nullopt;
  interposer->calls.emplace_back(name);
  if (interposer->calls.size() != interposer->failAt) return std::nullopt;
  return interposer->fault;
}

template <class Function>
Function* systemFunction(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// A call that either fails or is made; there is no half of it.
template <class Call>
auto whole(const char* name, Call call) -> decltype(call()) {
  const auto fault = faultFor(name);
  if (!fault || *fault == shortTransfer) return call();
  errno = *fault;
  return static_cast<decltype(call())>(-1);
}

// A transfer of `length` bytes, which may also be made in part.
template <class Call>
ssize_t transfer(const char* name, std::size_t length, Call call) {
  const auto fault = faultFor(name);
  if (!fault) return call(length);
  if (*fault == shortTransfer) return call(length > 1 ? length / 2 : length);
  errno = *fault;
  return -1;
}

// What a close that fails may mean: half of what was written never reaches the disk, whatever its order. A
// file that was written in place keeps what it had there.
void loseWhatWasWritten(int file) {
  static auto* const write = systemFunction<ssize_t(int, const void*, size_t, off_t)>("pwrite");
  static auto* const statusOf = systemFunction<int(int, struct stat*)>("fstat");
  const int mode = fcntl(file, F_GETFL) & O_ACCMODE;
  struct stat status {};
  if (mode == O_WRONLY && (statusOf(file, &status) != 0 || ftruncate(file, status.st_size / 2) != 0)) abort();
  if (mode != O_RDWR) return;
  const auto& replaced = Interposer::active()->replaced;
  for (std::size_t i = 0; i < replaced.size(); i += 2) {
    const auto& [offset, bytes] = replaced[i];
    if (write(file, bytes.data(), bytes.size(), offset) != static_cast<ssize_t>(bytes.size())) abort();
  }
}

}  // namespace

extern "C" int openat(int folder, const char* path, int flags, ...) {
  static auto* const real = systemFunction<int(int, const char*, int, ...)>("openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return whole("open", [&] { return real(folder, path, flags, mode); });
}

extern "C" int close(int file) {
  static auto* const real = systemFunction<int(int)>("close");
  const auto fault = faultFor("close");
  const bool fails = fault && *fault != shortTransfer;
  if (fails && *fault != EINTR) loseWhatWasWritten(file);
  // The file is gone whatever the system says.
  const int result = real(file);
  if (!fails) return result;
  errno = *fault;
  return -1;
}

extern "C" ssize_t read(int file, void* buffer, size_t length) {
  static auto* const real = systemFunction<ssize_t(int, void*, size_t)>("read");
  return transfer("read", length, [&](std::size_t part) { return real(file, buffer, part); });
}

extern "C" ssize_t pread(int file, void* buffer, size_t length, off_t offset) {
  static auto* const real = systemFunction<ssize_t(int, void*, size_t, off_t)>("pread");
  return transfer("pread", length, [&](std::size_t part) { return real(file, buffer, part, offset); });
}

extern "C" ssize_t writev(int file, const iovec* pieces, int count) {
  static auto* const real = systemFunction<ssize_t(int, const iovec*, int)>("writev");
  std::size_t length = 0;
  for (int i = 0; i < count; ++i) length += pieces[i].iov_len;
  return transfer("writev", length, [&](std::size_t part) {
    std::vector<iovec> parts(pieces, pieces + count);
    for (iovec& piece : parts) {
      piece.iov_len = std::min(piece.iov_len, part);
      part -= piece.iov_len;
    }
    return real(file, parts.data(), count);
  });
}

extern "C" ssize_t pwrite(int file, const void* buffer, size_t length, off_t offset) {
  static auto* const real = systemFunction<ssize_t(int, const void*, size_t, off_t)>("pwrite");
  static auto* const realRead = systemFunction<ssize_t(int, void*, size_t, off_t)>("pread");
  return transfer("pwrite", length, [&](std::size_t part) {
    if (Interposer* const interposer = Interposer::active()) {
      std::string bytes(part, '\0');
      if (realRead(file, bytes.data(), part, offset) != static_cast<ssize_t>(part)) abort();
      interposer->replaced.emplace_back(offset, bytes);
    }
    return real(file, buffer, part, offset);
  });
}

extern "C" ssize_t sendfile(int target, int source, off_t* offset, size_t length) noexcept {
  static auto* const real = systemFunction<ssize_t(int, int, off_t*, size_t)>("sendfile");
  return transfer("sendfile", length, [&](std::size_t part) { return real(target, source, offset, part); });
}

extern "C" off_t lseek(int file, off_t offset, int whence) noexcept {
  static auto* const real = systemFunction<off_t(int, off_t, int)>("lseek");
  return whole("lseek", [&] { return real(file, offset, whence); });
}

extern "C" int fstat(int file, struct stat* status) noexcept {
  static auto* const real = systemFunction<int(int, struct stat*)>("fstat");
  return whole("fstat", [&] { return real(file, status); });
}

extern "C" int fstatat(int folder, const char* path, struct stat* status, int flags) noexcept {
  static auto* const real = systemFunction<int(int, const char*, struct stat*, int)>("fstatat");
  return whole((flags & AT_SYMLINK_NOFOLLOW) != 0 ? "lstat" : "stat",
               [&] { return real(folder, path, status, flags); });
}

extern "C" int mkdirat(int folder, const char* path, mode_t mode) noexcept {
  static auto* const real = systemFunction<int(int, const char*, mode_t)>("mkdirat");
  return whole("mkdir", [&] { return real(folder, path, mode); });
}

extern "C" int utimensat(int folder, const char* path, const timespec* times, int flags) noexcept {
  static auto* const real = systemFunction<int(int, const char*, const timespec*, int)>("utimensat");
  return whole("utimensat", [&] { return real(folder, path, times, flags); });
}

extern "C" DIR* fdopendir(int file) {
  static auto* const real = systemFunction<DIR*(int)>("fdopendir");
  const auto fault = faultFor("fdopendir");
  // It never waits, so no signal interrupts it.
  if (!fault || *fault == shortTransfer || *fault == EINTR) return real(file);
  errno = *fault;
  return nullptr;
}

extern "C" dirent* readdir(DIR* folder) {
  static auto* const real = systemFunction<dirent*(DIR*)>("readdir");
  const auto fault = faultFor("readdir");
  if (fault && *fault != shortTransfer) {
    errno = *fault;
    return nullptr;
  }
  dirent* const entry = real(folder);
  const Interposer* const interposer = Interposer::active();
  if (entry != nullptr && interposer != nullptr && interposer->typesAreUnknown) entry->d_type = DT_UNKNOWN;
  return entry;
}

namespace {

// The calls above.
const std::set<std::string> wrappedCalls{"openat",  "close",     "read",      "pread",  "writev",
                                         "pwrite",  "sendfile",  "lseek",     "fstat",  "mkdirat",
                                         "fstatat", "utimensat", "fdopendir", "readdir"};

// The calls that only jobs on a whole archive make.
const std::set<std::string> otherCalls{"copy_file_range",   "fallocate",  "fchmod",   "fsync",
                                       "ftruncate",         "futimens",   "getpid",   "linkat",
                                       "posix_fadvise",     "readlinkat", "renameat", "renameat2",
                                       "sched_getaffinity", "symlinkat",  "syscall",  "unlinkat"};

// Whether this is a function of another library that either makes no system call or reports no failure of
// one.
bool makesNoCallThatMayFail(const std::string& name) {
  static const std::set<std::string> others{// Memory and text.
                                            "bcmp", "calloc", "free", "malloc", "memchr", "memcmp", "memcpy",
                                            "memmove", "memset", "strcmp", "strlen",
                                            // Time, threads and checksums.
                                            "crc32", "localtime_r", "mktime", "pthread_mutex_lock",
                                            "pthread_mutex_unlock", "sched_yield",
                                            // The log.
                                            "fwrite", "stderr", "syslog",
                                            // Open folders.
                                            "closedir", "dirfd"};
  // C++'s own files would make calls behind our backs.
  for (const char* const file : {"10filesystem", "filebuf", "fstream"}) {
    if (name.find(file) != std::string::npos) return false;
  }
  return others.count(name) == 1 || name[0] == '_' || name.rfind("utf8proc_", 0) == 0;
}

// What an operation leaves behind, to be compared in full. Nothing when it said that it failed.
using Outcome = std::optional<std::map<std::string, std::string>>;

// What a fault may be answered with although the result is not complete. Each has its condition; there are no
// others.
struct Leniency {
  const char* name;
  const char* call;  // The call that must have failed.
  // Whether the result is what this leniency allows, given the complete one.
  std::function<bool(const std::map<std::string, std::string>& result,
                     const std::map<std::string, std::string>& complete)>
      allows;
};

struct Operation {
  std::function<void()> prepare;  // Runs without faults before each attempt.
  std::function<Outcome()> run;   // Must not make system calls of its own that the library does not make.
  std::function<Outcome(const Outcome&)>
      inspect;  // Runs without faults; completes the outcome from the disk.
  std::vector<Leniency> leniencies;
  bool typesAreUnknown = false;  // Whether names in folders come without their types.
};

std::set<std::string> openDescriptors() {
  std::set<std::string> descriptors;
  for (const auto& item : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const fs::path target = fs::read_symlink(item.path(), gone);
    if (!gone && target.string().find("/proc/") == std::string::npos)
      descriptors.insert(item.path().filename().string() + " " + target.string());
  }
  return descriptors;
}

std::map<std::string, std::string> treeAt(const fs::path& root) {
  std::map<std::string, std::string> tree;
  if (!fs::exists(root)) return tree;
  for (const auto& item : fs::recursive_directory_iterator(root)) {
    const std::string name = fs::relative(item.path(), root).string();
    tree[name] = item.is_directory() ? "folder" : "file " + KQTest::readFile(item.path());
  }
  return tree;
}

// Runs the operation without a fault, then once for each call and each fault, and reports what is not
// allowed.
void failEveryCallOnce(const Operation& operation) {
  const KQTest::LogCapture log;
  const auto attempt = [&operation](Interposer& interposer) {
    operation.prepare();
    interposer.typesAreUnknown = operation.typesAreUnknown;
    Interposer::active() = &interposer;
    Outcome outcome = operation.run();
    Interposer::active() = nullptr;
    return operation.inspect(outcome);
  };

  Interposer undisturbed;
  const Outcome complete = attempt(undisturbed);
  ASSERT_TRUE(complete);
  ASSERT_FALSE(undisturbed.calls.empty());

  for (std::size_t k = 1; k <= undisturbed.calls.size(); ++k) {
    for (const int fault : faults) {
      const std::set<std::string> before = openDescriptors();
      Interposer interposer;
      interposer.failAt = k;
      interposer.fault = fault;
      const Outcome outcome = attempt(interposer);
      const std::string& call = undisturbed.calls[k - 1];
      const std::string what = "call " + std::to_string(k) + ", " + call + ", fault " + std::to_string(fault);
      ASSERT_EQ(before, openDescriptors()) << what;
      ASSERT_EQ(nullptr, KQ::NSProgress::currentProgress()) << what;
      if (outcome == complete) continue;
      ASSERT_TRUE(fault != EINTR && fault != shortTransfer) << what << ": must never be visible";
      if (!outcome) continue;
      const bool allowed = std::any_of(operation.leniencies.begin(), operation.leniencies.end(),
                                       [&](const Leniency& leniency) {
                                         return call == leniency.call && leniency.allows(*outcome, *complete);
                                       });
      EXPECT_TRUE(allowed) << what << ": reported as done and not complete";
    }
  }
}

// Every name and content of `part` is in `complete` too.
bool isPartOf(const std::map<std::string, std::string>& part,
              const std::map<std::string, std::string>& complete) {
  return std::all_of(part.begin(), part.end(), [&complete](const auto& item) {
    const auto found = complete.find(item.first);
    return found != complete.end() && found->second == item.second;
  });
}

// A reader whose archive cannot be opened acts like one without bytes.
const Leniency anArchiveThatCannotBeOpenedHasNoEntries{
    "an archive that cannot be opened has no entries", "open",
    [](const auto& result, const auto&) { return result.empty(); }};

// A signature that cannot be read ends the scan; the entries before it are listed.
const Leniency aSignatureThatCannotBeReadEndsTheScan{
    "a signature that cannot be read ends the scan", "pread", [](const auto& result, const auto& complete) {
      return result.size() < complete.size() && isPartOf(result, complete);
    }};

// The archives that `change` makes of one of the entries at a time.
std::set<std::string> archivesWithOneEntry(const std::vector<KQTest::GoldenEntry>& entries,
                                           const std::function<void(KQTest::GoldenEntry&)>& change) {
  std::set<std::string> archives;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    std::vector<KQTest::GoldenEntry> changed = entries;
    change(changed[i]);
    archives.insert(KQTest::goldenArchive(changed));
  }
  return archives;
}

class SystemCallFaults : public ::testing::Test {
 protected:
  SystemCallFaults()
      : SystemCallFaults({{"a.txt", "hello"},
                          {"b/large.bin", KQTest::patternBytes(70000)},
                          {"b/small.bin", KQTest::patternBytes(700, 2)},
                          {"empty", ""}}) {}

  explicit SystemCallFaults(const std::map<std::string, std::string>& files) {
    for (const auto& [name, contents] : files) {
      directory_.file("tree/" + name, contents);
      entries_.push_back(KQTest::SourceTree::entry(name, contents));
    }
    EXPECT_TRUE(KQZipFileWriter::createZipFileAtPath(archive_, directory_ / "tree", false));
    KQTest::expectSameBytes(KQTest::goldenArchive(entries_), KQTest::readFile(archive_));
  }

  // Allows the archives that `change` makes of one entry.
  Leniency oneEntry(const char* name, const char* call,
                    const std::function<void(KQTest::GoldenEntry&)>& change) const {
    return {name, call, [archives = archivesWithOneEntry(entries_, change)](const auto& result, const auto&) {
              return archives.count(result.at("archive")) == 1;
            }};
  }

  // Makes the thread's progress the test's own around `body`, as a caller does.
  static bool withProgress(const std::function<bool()>& body) {
    const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
    progress->becomeCurrentWithPendingUnitCount(1);
    const bool result = body();
    progress->resignCurrent();
    return result;
  }

  // Packs the tree; what is left is the archive. Besides `leniencies` it has those that every source has.
  Operation packing(std::vector<Leniency> leniencies) const {
    const std::vector<Leniency> ofEverySource{
        oneEntry("a source that cannot be read ends its copy like the end of the file", "pread",
                 [](KQTest::GoldenEntry& entry) { entry.data.clear(); }),
        oneEntry("size and date that cannot be read for the local header are zero there", "lstat",
                 [](KQTest::GoldenEntry& entry) {
                   entry.localSize = 0;
                   entry.localTime = 0;
                   entry.localDate = 0;
                 }),
        oneEntry("a size that cannot be read for the central header is zero there", "lstat",
                 [](KQTest::GoldenEntry& entry) { entry.centralSize = 0; })};
    leniencies.insert(leniencies.end(), ofEverySource.begin(), ofEverySource.end());
    const std::string target = directory_ / "packed.zip";
    return {[target] { fs::remove(target); },
            [this, target]() -> Outcome {
              std::shared_ptr<const KQ::NSError> error;
              const bool packed = withProgress([&] {
                return KQZipFileWriter::createZipFileAtPath(target, directory_ / "tree", false, &error);
              });
              if (!packed) return std::nullopt;
              return std::map<std::string, std::string>{};
            },
            [target](const Outcome& outcome) -> Outcome {
              if (!outcome) return std::nullopt;
              return std::map<std::string, std::string>{{"archive", KQTest::readFile(target)}};
            },
            std::move(leniencies)};
  }

  // Extracts the archive; what is left are the files.
  Operation extracting(std::vector<Leniency> leniencies) const {
    const std::string target = directory_ / "out/deeper";
    return {[this] { fs::remove_all(directory_ / "out"); },
            [this, target]() -> Outcome {
              std::shared_ptr<const KQ::NSError> error;
              const bool extracted =
                  withProgress([&] { return KQZipFileReader::unzipFileAtPath(archive_, target, &error); });
              if (!extracted) return std::nullopt;
              return std::map<std::string, std::string>{};
            },
            [target](const Outcome& outcome) -> Outcome {
              if (!outcome) return std::nullopt;
              return treeAt(target);
            },
            std::move(leniencies)};
  }

  KQTest::SourceTree directory_;
  std::vector<KQTest::GoldenEntry> entries_;
  std::string archive_ = directory_ / "archive.zip";
};

// A file of several blocks, behind the first of which the system copies by itself.
class LargeFileFaults : public SystemCallFaults {
 protected:
  static constexpr std::size_t block = 1048576;

  LargeFileFaults() : SystemCallFaults({{"large", KQTest::patternBytes(block + 70000)}}) {}
};

TEST_F(SystemCallFaults, EveryCallOfTheLibraryIsOneThatCanFailHere) {
  const KQTest::ProcessResult result =
      KQTest::runProcess({"nm", "--dynamic", "--undefined-only", "--format=posix", KQZIP_SHARED_LIBRARY});
  ASSERT_EQ(0, result.exitStatus) << result.errors;
  std::size_t found = 0;
  std::istringstream lines(result.output);
  for (std::string name; lines >> name; lines.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
    name.resize(std::min(name.find('@'), name.size()));
    found += wrappedCalls.count(name);
    EXPECT_TRUE(wrappedCalls.count(name) == 1 || otherCalls.count(name) == 1 || makesNoCallThatMayFail(name))
        << name;
  }
  // The failure of what the library does not call would test nothing.
  EXPECT_EQ(wrappedCalls.size(), found);
}

TEST_F(SystemCallFaults, PackingATreeFailsOrWritesTheWholeArchive) {
  Operation operation =
      packing({oneEntry("a source that cannot be read ends its CRC like the end of the file", "pread",
                        [](KQTest::GoldenEntry& entry) { entry.crc = 0; })});
  failEveryCallOnce(operation);
  operation.typesAreUnknown = true;
  failEveryCallOnce(operation);
}

TEST_F(SystemCallFaults, OpeningAnArchiveFailsOrListsEveryEntry) {
  failEveryCallOnce({[] {},
                     [&]() -> Outcome {
                       const auto reader = KQZipFileReader::initWithZipPath(archive_);
                       if (!reader) return std::nullopt;
                       std::map<std::string, std::string> listed;
                       for (const std::string& path : reader->relativePaths())
                         listed[path] = std::to_string(*reader->attributesForRelativePath(path)->NSFileSize);
                       return listed;
                     },
                     [](const Outcome& outcome) { return outcome; },
                     {anArchiveThatCannotBeOpenedHasNoEntries, aSignatureThatCannotBeReadEndsTheScan}});
}

TEST_F(SystemCallFaults, ReadingAnEntryGivesNothingOrEveryByte) {
  const auto reader = KQZipFileReader::initWithZipPath(archive_);
  ASSERT_TRUE(reader);
  for (const char* path : {"a.txt", "b/large.bin"}) {
    SCOPED_TRACE(path);
    failEveryCallOnce(
        {[] {},
         [&]() -> Outcome {
           const auto data = reader->dataForRelativePath(path);
           if (!data) return std::nullopt;
           return std::map<std::string, std::string>{
               {path, std::string(reinterpret_cast<const char*>(data->bytes()), data->length())}};
         },
         [](const Outcome& outcome) { return outcome; },
         // The buffer has the entry's length whatever the one read delivered.
         {{"a read that fails yields a buffer of the declared length, zeros where it failed", "pread",
           [path](const auto& result, const auto& complete) {
             std::string bytes = complete.at(path);
             const auto differing =
                 std::mismatch(bytes.begin(), bytes.end(), result.at(path).begin(), result.at(path).end());
             std::fill(differing.first, bytes.end(), '\0');
             return bytes == result.at(path);
           }}}});
  }
}

TEST_F(SystemCallFaults, ExtractingAnArchiveFailsOrGivesEveryFileBack) {
  const auto withoutOneFolder = [](const auto& result, const auto& complete) {
    return result.size() + 1 == complete.size() && isPartOf(result, complete);
  };
  failEveryCallOnce(
      extracting({anArchiveThatCannotBeOpenedHasNoEntries,
                  aSignatureThatCannotBeReadEndsTheScan,
                  {"a folder that cannot be created for an entry without data is passed over", "mkdir",
                   withoutOneFolder},
                  {"a folder that cannot be found again for an entry without data is passed over", "stat",
                   withoutOneFolder}}));
}

TEST_F(SystemCallFaults, ExportingAnEntryFailsOrWritesAllOfIt) {
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(archive_);
  ASSERT_TRUE(stream);
  stream->open();
  std::vector<std::shared_ptr<KQZipFileLocalHeader>> headers;
  for (int i = 0; i < 3; ++i) {
    std::uint32_t signature = 0;
    ASSERT_TRUE(KQZipReadBlock32(*stream, &signature));
    headers.push_back(KQZipFileLocalHeader::initWithStream(*stream));
    ASSERT_TRUE(headers.back());
  }
  for (const auto& header : headers) {
    SCOPED_TRACE(*header->fileName());
    const std::string target = directory_ / "exported";
    failEveryCallOnce({[&] { fs::remove(target); },
                       [&]() -> Outcome {
                         const auto input = KQ::NSInputStream::inputStreamWithFileAtPath(archive_);
                         if (!input) return std::nullopt;
                         input->open();
                         std::shared_ptr<const KQ::NSError> error;
                         const bool exported =
                             withProgress([&] { return header->exportFileToPath(target, *input, &error); });
                         if (!exported) return std::nullopt;
                         return std::map<std::string, std::string>{};
                       },
                       [&](const Outcome& outcome) -> Outcome {
                         if (!outcome) return std::nullopt;
                         const auto date =
                             KQ::NSFileManager::attributesOfItemAtPath(target)->NSFileModificationDate;
                         return std::map<std::string, std::string>{
                             {"data", KQTest::readFile(target)},
                             {"date", std::to_string(std::chrono::system_clock::to_time_t(*date))}};
                       },
                       {}});
  }
}

TEST_F(SystemCallFaults, WritingToAPathFailsOrWritesTheWholeArchive) {
  const std::string target = directory_ / "written.zip";
  failEveryCallOnce({[&] { fs::remove(target); },
                     [&]() -> Outcome {
                       KQZipFileWriter writer;
                       std::shared_ptr<const KQ::NSError> error;
                       if (!withProgress([&] { return writer.writeToZipPath(target, &error); }))
                         return std::nullopt;
                       return std::map<std::string, std::string>{};
                     },
                     [&](const Outcome& outcome) -> Outcome {
                       if (!outcome) return std::nullopt;
                       return std::map<std::string, std::string>{{"archive", KQTest::readFile(target)}};
                     },
                     {}});
}

TEST_F(SystemCallFaults, MakingAnArchiveInteroperableFailsAndCanBeRepeatedOrIsDone) {
  entries_.insert(entries_.begin() + 1, KQTest::SourceTree::entry("\xC3\xA9/", ""));
  entries_.push_back(KQTest::SourceTree::entry("\xC3\xBC", "umlaut"));
  const std::string exact = KQTest::goldenArchive(entries_);
  const std::string interoperable = KQTest::interoperableArchive(exact);
  const auto contents = [this] {
    std::map<std::string, std::string> read;
    const auto reader = KQZipFileReader::initWithZipPath(archive_);
    if (!reader) return read;
    for (const std::string& path : reader->relativePaths())
      read[path] = KQTest::bytesOf(reader->dataForRelativePath(path)).value_or("no data");
    return read;
  };
  KQTest::writeFile(archive_, exact);
  const std::map<std::string, std::string> before = contents();
  ASSERT_EQ(entries_.size(), before.size());
  failEveryCallOnce({[&] { KQTest::writeFile(archive_, exact); },
                     [&]() -> Outcome {
                       std::shared_ptr<const KQ::NSError> error;
                       const bool made = KQZipMakeArchiveInteroperable(archive_, &error);
                       EXPECT_EQ(made, error == nullptr);
                       if (!made) return std::nullopt;
                       return std::map<std::string, std::string>{};
                     },
                     [&](const Outcome& outcome) -> Outcome {
                       if (outcome)
                         return std::map<std::string, std::string>{{"archive", KQTest::readFile(archive_)}};
                       EXPECT_TRUE(before == contents()) << "an entry cannot be read";
                       EXPECT_TRUE(KQZipMakeArchiveInteroperable(archive_)) << "it cannot be repeated";
                       KQTest::expectSameBytes(interoperable, KQTest::readFile(archive_));
                       return std::nullopt;
                     },
                     {}});
  KQTest::expectSameBytes(interoperable, KQTest::readFile(archive_), "what the last call made");
}

TEST_F(LargeFileFaults, PackingAFileOfSeveralBlocksFailsOrWritesTheWholeArchive) {
  const auto crcOfTheFirst = [this](std::size_t length) {
    return oneEntry("a source that cannot be read ends its CRC like the end of the file", "pread",
                    [length](KQTest::GoldenEntry& entry) {
                      entry.crc = KQTest::crcOf(KQTest::patternBytes(block + 70000).substr(0, length));
                    });
  };
  failEveryCallOnce(packing({crcOfTheFirst(0), crcOfTheFirst(block)}));
}

TEST_F(LargeFileFaults, ExtractingAFileOfSeveralBlocksFailsOrGivesItBack) {
  failEveryCallOnce(
      extracting({anArchiveThatCannotBeOpenedHasNoEntries, aSignatureThatCannotBeReadEndsTheScan}));
}

}  // namespace
