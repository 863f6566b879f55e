#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Support/ErrorExpectations.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

using KQ::NSDate;
using KQ::NSFileAttributes;
using KQ::NSFileManager;
using KQTest::Error;
using KQTest::expectPOSIXCode;
using KQTest::expectPOSIXError;
using KQTest::readFile;
using KQTest::setModificationDate;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;

using namespace std::string_literals;

namespace {

using Paths = std::vector<std::string>;

NSDate date(std::int64_t seconds, std::int64_t nanoseconds = 0) {
  return NSDate(std::chrono::seconds(seconds) + std::chrono::nanoseconds(nanoseconds));
}

std::int64_t nanosecondsOf(NSDate value) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(value.time_since_epoch()).count();
}

struct stat statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
  return status;
}

NSFileAttributes attributesOf(const std::string& path) {
  Error error;
  const std::optional<NSFileAttributes> attributes = NSFileManager::attributesOfItemAtPath(path, &error);
  EXPECT_EQ(nullptr, error);
  EXPECT_TRUE(attributes.has_value());
  return attributes.value_or(NSFileAttributes());
}

NSFileAttributes withDate(NSDate value) {
  NSFileAttributes attributes;
  attributes.NSFileModificationDate = value;
  return attributes;
}

// Everything that a walk yields, and its error.
Paths walk(const std::string& root, Error* error = nullptr) {
  KQ::NSDirectoryEnumerator enumerator = NSFileManager::enumeratorAtPath(root);
  Paths paths;
  while (const std::optional<std::string> path = enumerator.nextObject()) {
    paths.push_back(*path);
    if (paths.size() > 100000) throw std::runtime_error("the walk does not end");
  }
  EXPECT_FALSE(enumerator.nextObject().has_value()) << "the walk began again";
  if (error != nullptr) *error = enumerator.error();
  return paths;
}

// Paths that no operation may hand to the system.
struct Refused {
  std::string path;
  int code;
};

std::vector<Refused> refusedPaths(const TemporaryDirectory& folder) {
  return {{(folder / "file") + "\0"s, EINVAL},
          {(folder / "file") + "\0more"s, EINVAL},
          {"\0"s, EINVAL},
          {folder / "\xFFname", EILSEQ},
          {folder / "cut\xC3", EILSEQ},
          {folder / "\xED\xA0\x80", EILSEQ}};
}

}  // namespace

// Existence

TEST(NSFileManager, FilesAndFoldersExist) {
  const TemporaryDirectory folder;
  writeFile(folder / "sub/file", "x");
  bool isDirectory = true;
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(folder / "sub/file", &isDirectory));
  EXPECT_FALSE(isDirectory);
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(folder / "sub", &isDirectory));
  EXPECT_TRUE(isDirectory);
  isDirectory = false;
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(folder / "sub/", &isDirectory));
  EXPECT_TRUE(isDirectory);
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(folder / "sub/file"));
}

TEST(NSFileManager, WhatIsMissingDoesNotExistAndIsNoFolder) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  for (const std::string& path : {folder / "missing", folder / "missing/below", folder / "file/below",
                                  folder / std::string(300, 'n')}) {
    bool isDirectory = true;
    EXPECT_FALSE(NSFileManager::fileExistsAtPath(path, &isDirectory)) << path;
    EXPECT_FALSE(isDirectory);
    EXPECT_FALSE(NSFileManager::fileExistsAtPath(path));
  }
}

TEST(NSFileManager, LinksAreFollowedToTellWhetherSomethingExists) {
  const TemporaryDirectory folder;
  writeFile(folder / "sub/file", "x");
  fs::create_symlink("sub", folder / "toFolder");
  fs::create_symlink("sub/file", folder / "toFile");
  fs::create_symlink("missing", folder / "toNothing");
  fs::create_symlink("loop", folder / "loop");
  bool isDirectory = false;
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(folder / "toFolder", &isDirectory));
  EXPECT_TRUE(isDirectory);
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(folder / "toFile", &isDirectory));
  EXPECT_FALSE(isDirectory);
  for (const std::string name : {"toNothing", "loop"}) {
    isDirectory = true;
    EXPECT_FALSE(NSFileManager::fileExistsAtPath(folder / name, &isDirectory)) << name;
    EXPECT_FALSE(isDirectory);
  }
}

TEST(NSFileManager, TheEmptyPathIsTheCurrentFolder) {
  const TemporaryDirectory folder;
  writeFile(folder / "a/file", "x");
  KQTest::inChildProcess([&folder] {
    fs::current_path(folder.path());
    bool isDirectory = false;
    EXPECT_TRUE(NSFileManager::fileExistsAtPath("", &isDirectory));
    EXPECT_TRUE(isDirectory);
    EXPECT_EQ(KQ::NSFileTypeDirectory, attributesOf("").NSFileType);
    EXPECT_EQ((Paths{"a", "a/file"}), walk(""));
    EXPECT_TRUE(NSFileManager::createDirectoryAtPath("", true));
    Error error;
    EXPECT_FALSE(NSFileManager::createDirectoryAtPath("", false, &error));
    expectPOSIXCode(EEXIST, error);
    EXPECT_TRUE(NSFileManager::setAttributes(withDate(date(1000000000)), "", &error));
    EXPECT_EQ(1000000000, statusOf(".").st_mtim.tv_sec);
  });
}

TEST(NSFileManager, PathsThatTheSystemWouldCutShortOrThatAreNotUTF8DoNotExist) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  writeFile(folder / "\xFFname", "x");
  for (const Refused& refused : refusedPaths(folder)) {
    bool isDirectory = true;
    EXPECT_FALSE(NSFileManager::fileExistsAtPath(refused.path, &isDirectory)) << refused.path;
    EXPECT_FALSE(isDirectory);
  }
}

// Attributes

TEST(NSFileManager, AFileHasItsSizeDateAndType) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", std::string(12345, 'x'));
  setModificationDate(folder / "file", 1500000000);
  const NSFileAttributes attributes = attributesOf(folder / "file");
  EXPECT_EQ(12345U, attributes.NSFileSize);
  EXPECT_EQ(date(1500000000), attributes.NSFileModificationDate);
  EXPECT_EQ(KQ::NSFileTypeRegular, attributes.NSFileType);
}

TEST(NSFileManager, ASizeBeyondFourGiBIsReportedWhole) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "");
  const std::uint64_t size = (std::uint64_t{5} << 30) + 7;
  fs::resize_file(folder / "file", size);
  EXPECT_EQ(size, attributesOf(folder / "file").NSFileSize);
}

TEST(NSFileManager, DatesHaveTheWholePrecisionOfTheFileSystem) {
  const TemporaryDirectory folder;
  for (const std::int64_t seconds : {-1000000000, -1, 0, 1, 1500000000}) {
    for (const long nanoseconds : {0L, 1L, 123456789L, 999999999L}) {
      writeFile(folder / "file", "x");
      setModificationDate(folder / "file", seconds, nanoseconds);
      const struct stat status = statusOf(folder / "file");
      const std::optional<NSDate> modified = attributesOf(folder / "file").NSFileModificationDate;
      ASSERT_TRUE(modified.has_value());
      EXPECT_EQ(nanosecondsOf(date(status.st_mtim.tv_sec, status.st_mtim.tv_nsec)), nanosecondsOf(*modified));
    }
  }
}

TEST(NSFileManager, ADateThatCannotBeHeldBecomesTheNearestOneThatCan) {
  const TemporaryDirectory folder;
  const std::int64_t last = INT64_MAX / 1000000000;
  for (const std::int64_t seconds : {last - 1, last, last + 1, std::int64_t{13569465600}, -last + 1, -last,
                                     -last - 1, -last - 2, std::int64_t{-62135596800}}) {
    for (const long nanoseconds : {0L, 500000000L, 999999999L}) {
      writeFile(folder / "file", "x");
      setModificationDate(folder / "file", seconds, nanoseconds);
      // The file system may move the date before the library sees it.
      const struct stat status = statusOf(folder / "file");
      const std::optional<NSDate> modified = attributesOf(folder / "file").NSFileModificationDate;
      ASSERT_TRUE(modified.has_value());
      const auto exact = static_cast<long double>(status.st_mtim.tv_sec) * 1e9L +
                         static_cast<long double>(status.st_mtim.tv_nsec);
      const auto nearest =
          std::clamp(exact, static_cast<long double>(INT64_MIN), static_cast<long double>(INT64_MAX));
      EXPECT_EQ(static_cast<std::int64_t>(nearest), nanosecondsOf(*modified))
          << seconds << " " << nanoseconds;
    }
  }
}

TEST(NSFileManager, EveryKindOfItemHasItsType) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  fs::create_directory(folder / "sub");
  ASSERT_EQ(0, mkfifo((folder / "pipe").c_str(), 0600));
  const int socketFile = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string socketPath = folder / "socket";
  ASSERT_LT(socketPath.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  ASSERT_EQ(0, bind(socketFile, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  close(socketFile);

  EXPECT_EQ(KQ::NSFileTypeRegular, attributesOf(folder / "file").NSFileType);
  EXPECT_EQ(KQ::NSFileTypeDirectory, attributesOf(folder / "sub").NSFileType);
  EXPECT_EQ(KQ::NSFileTypeUnknown, attributesOf(folder / "pipe").NSFileType);
  EXPECT_EQ(KQ::NSFileTypeSocket, attributesOf(folder / "socket").NSFileType);
  EXPECT_EQ(KQ::NSFileTypeCharacterSpecial, attributesOf("/dev/null").NSFileType);
}

TEST(NSFileManager, TheAttributesOfALinkAreItsOwn) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", std::string(5000, 'x'));
  fs::create_symlink("file", folder / "link");
  fs::create_symlink("missing", folder / "toNothing");
  setModificationDate(folder / "file", 1500000000);
  setModificationDate(folder / "link", 1400000000, 5);
  const NSFileAttributes attributes = attributesOf(folder / "link");
  EXPECT_EQ(KQ::NSFileTypeSymbolicLink, attributes.NSFileType);
  EXPECT_EQ(static_cast<std::uint64_t>(statusOf(folder / "link").st_size), attributes.NSFileSize);
  EXPECT_EQ(1400000000, std::chrono::floor<std::chrono::seconds>(*attributes.NSFileModificationDate)
                            .time_since_epoch()
                            .count());
  EXPECT_EQ(KQ::NSFileTypeSymbolicLink, attributesOf(folder / "toNothing").NSFileType);
}

TEST(NSFileManager, WhatIsMissingHasNoAttributesAndAnErrorThatNamesIt) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  Error error;
  EXPECT_FALSE(NSFileManager::attributesOfItemAtPath(folder / "missing", &error).has_value());
  expectPOSIXError(ENOENT, folder / "missing", error);
  EXPECT_FALSE(NSFileManager::attributesOfItemAtPath(folder / "file/below", &error).has_value());
  expectPOSIXError(ENOTDIR, folder / "file/below", error);
  EXPECT_FALSE(NSFileManager::attributesOfItemAtPath(folder / "missing").has_value());
}

TEST(NSFileManager, AnItemInAFolderThatMayNotBeSearchedHasNoAttributes) {
  const TemporaryDirectory folder;
  writeFile(folder / "closed/file", "x");
  fs::permissions(folder.path(), fs::perms(0755));
  fs::permissions(folder / "closed", fs::perms::none);
  KQTest::inUnprivilegedChildProcess([&folder] {
    Error error;
    EXPECT_FALSE(NSFileManager::attributesOfItemAtPath(folder / "closed/file", &error).has_value());
    expectPOSIXError(EACCES, folder / "closed/file", error);
    EXPECT_FALSE(NSFileManager::fileExistsAtPath(folder / "closed/file"));
  });
}

TEST(NSFileManager, ASlotIsNotTouchedBySuccess) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  const Error before = KQTest::earlierError();
  Error slot = before;
  EXPECT_TRUE(NSFileManager::attributesOfItemAtPath(folder / "file", &slot).has_value());
  EXPECT_TRUE(NSFileManager::setAttributes(withDate(date(1)), folder / "file", &slot));
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / "new", false, &slot));
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / "more/below", true, &slot));
  EXPECT_EQ(before, slot);
}

TEST(NSFileManager, EveryOperationRefusesPathsThatTheSystemWouldCutShortOrThatAreNotUTF8) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  writeFile(folder / "\xFFname", "x");
  setModificationDate(folder / "file", 1500000000);
  for (const Refused& refused : refusedPaths(folder)) {
    Error error;
    EXPECT_FALSE(NSFileManager::attributesOfItemAtPath(refused.path, &error).has_value());
    expectPOSIXCode(refused.code, error);
    error.reset();
    EXPECT_FALSE(NSFileManager::setAttributes(withDate(date(1)), refused.path, &error));
    expectPOSIXCode(refused.code, error);
    error.reset();
    EXPECT_FALSE(NSFileManager::setAttributes({}, refused.path, &error));
    expectPOSIXCode(refused.code, error);
    for (const bool withIntermediates : {false, true}) {
      error.reset();
      EXPECT_FALSE(NSFileManager::createDirectoryAtPath(refused.path, withIntermediates, &error));
      expectPOSIXCode(refused.code, error);
    }
    error.reset();
    EXPECT_EQ(Paths{}, walk(refused.path, &error));
    expectPOSIXCode(refused.code, error);
  }
  EXPECT_EQ(1500000000, statusOf(folder / "file").st_mtim.tv_sec);
  EXPECT_EQ(2, std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()));
}

TEST(NSFileManager, AMessageShowsWhatARefusedPathHides) {
  Error error;
  EXPECT_FALSE(NSFileManager::attributesOfItemAtPath("a\0b"s, &error).has_value());
  expectPOSIXError(EINVAL, "a\\x00b", error);
}

// Setting attributes

TEST(NSFileManager, SettingADateKeepsAllThatTheFileSystemCanHold) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  writeFile(folder / "other", "x");
  for (const std::int64_t seconds : {-1000000000, -1, 0, 315532800, 1500000000}) {
    for (const long nanoseconds : {0L, 1L, 123456789L, 999999999L}) {
      Error error;
      ASSERT_TRUE(
          NSFileManager::setAttributes(withDate(date(seconds, nanoseconds)), folder / "file", &error));
      setModificationDate(folder / "other", seconds, nanoseconds);
      const struct stat expected = statusOf(folder / "other");
      const struct stat status = statusOf(folder / "file");
      EXPECT_EQ(expected.st_mtim.tv_sec, status.st_mtim.tv_sec);
      EXPECT_EQ(expected.st_mtim.tv_nsec, status.st_mtim.tv_nsec);
    }
  }
}

TEST(NSFileManager, AttributesHaveThePermissionsOfTheItemItself) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  fs::create_symlink("file", folder / "link");
  for (const mode_t mode : {0000U, 0640U, 0777U, 04755U, 03711U}) {
    ASSERT_EQ(0, ::chmod((folder / "file").c_str(), mode));
    const auto attributes = NSFileManager::attributesOfItemAtPath(folder / "file");
    ASSERT_TRUE(attributes);
    EXPECT_EQ(std::optional<std::uint16_t>(mode), attributes->NSFilePosixPermissions);
  }
  const auto attributes = NSFileManager::attributesOfItemAtPath(folder / "link");
  ASSERT_TRUE(attributes);
  EXPECT_EQ(std::optional<std::uint16_t>(0777), attributes->NSFilePosixPermissions);
}

TEST(NSFileManager, SettingADateChangesNothingElse) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  fs::permissions(folder / "file", fs::perms(0640));
  const timespec times[2] = {{1111111111, 0}, {1222222222, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (folder / "file").c_str(), times, 0));
  NSFileAttributes attributes = withDate(date(1333333333));
  attributes.NSFileSize = 3;
  attributes.NSFileType = KQ::NSFileTypeDirectory;
  attributes.NSFilePosixPermissions = 0777;
  EXPECT_TRUE(NSFileManager::setAttributes(attributes, folder / "file"));
  const struct stat status = statusOf(folder / "file");
  EXPECT_EQ(1333333333, status.st_mtim.tv_sec);
  EXPECT_EQ(1111111111, status.st_atim.tv_sec);
  EXPECT_EQ(8, status.st_size);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(mode_t{0640}, status.st_mode & 07777);
}

TEST(NSFileManager, ADateIsSetOnWhatALinkPointsTo) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  fs::create_symlink("file", folder / "link");
  setModificationDate(folder / "link", 1400000000);
  EXPECT_TRUE(NSFileManager::setAttributes(withDate(date(1500000000)), folder / "link"));
  EXPECT_EQ(1500000000, statusOf(folder / "file").st_mtim.tv_sec);
  EXPECT_EQ(1400000000, statusOf(folder / "link").st_mtim.tv_sec);
}

TEST(NSFileManager, ADateIsSetOnAFolder) {
  const TemporaryDirectory folder;
  fs::create_directory(folder / "sub");
  EXPECT_TRUE(NSFileManager::setAttributes(withDate(date(1500000000)), folder / "sub"));
  EXPECT_EQ(1500000000, statusOf(folder / "sub").st_mtim.tv_sec);
}

TEST(NSFileManager, SettingADateOnWhatIsMissingFailsWithAnErrorThatNamesIt) {
  const TemporaryDirectory folder;
  Error error;
  EXPECT_FALSE(NSFileManager::setAttributes(withDate(date(1)), folder / "missing", &error));
  expectPOSIXError(ENOENT, folder / "missing", error);
  EXPECT_FALSE(NSFileManager::setAttributes(withDate(date(1)), folder / "missing"));
  EXPECT_FALSE(fs::exists(folder / "missing"));
}

TEST(NSFileManager, WithoutADateSettingOnlyTestsThatTheItemExists) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  setModificationDate(folder / "file", 1500000000, 7);
  const struct stat before = statusOf(folder / "file");
  NSFileAttributes attributes;
  attributes.NSFileSize = 3;
  EXPECT_TRUE(NSFileManager::setAttributes(attributes, folder / "file"));
  EXPECT_EQ("contents", readFile(folder / "file"));
  EXPECT_EQ(before.st_mtim.tv_sec, statusOf(folder / "file").st_mtim.tv_sec);
  EXPECT_EQ(before.st_mtim.tv_nsec, statusOf(folder / "file").st_mtim.tv_nsec);

  Error error;
  EXPECT_FALSE(NSFileManager::setAttributes(attributes, folder / "missing", &error));
  expectPOSIXError(ENOENT, folder / "missing", error);
}

TEST(NSFileManager, ADateThatWasReadCanBeSetAgain) {
  const TemporaryDirectory folder;
  writeFile(folder / "from", "x");
  writeFile(folder / "to", "x");
  setModificationDate(folder / "from", -123456, 987654321);
  EXPECT_TRUE(NSFileManager::setAttributes(attributesOf(folder / "from"), folder / "to"));
  EXPECT_EQ(attributesOf(folder / "from").NSFileModificationDate,
            attributesOf(folder / "to").NSFileModificationDate);
}

// Making folders

TEST(NSFileManager, AFolderIsMadeInAFolderThatExists) {
  const TemporaryDirectory folder;
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / "plain", false));
  EXPECT_TRUE(fs::is_directory(folder / "plain"));
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / "slash/", false));
  EXPECT_TRUE(fs::is_directory(folder / "slash"));
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / "simple", true));
  EXPECT_TRUE(fs::is_directory(folder / "simple"));
}

TEST(NSFileManager, MissingParentsAreMadeOnlyWhenAskedFor) {
  const TemporaryDirectory folder;
  Error error;
  EXPECT_FALSE(NSFileManager::createDirectoryAtPath(folder / "a/b/c", false, &error));
  expectPOSIXError(ENOENT, folder / "a/b/c", error);
  EXPECT_FALSE(fs::exists(folder / "a"));
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / "a/b/c", true));
  EXPECT_TRUE(fs::is_directory(folder / "a/b/c"));
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / "d/e/", true));
  EXPECT_TRUE(fs::is_directory(folder / "d/e"));
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / "f//g", true));
  EXPECT_TRUE(fs::is_directory(folder / "f/g"));
}

TEST(NSFileManager, RelativePathsAreMadeInTheCurrentFolder) {
  const TemporaryDirectory folder;
  KQTest::inChildProcess([&folder] {
    fs::current_path(folder.path());
    EXPECT_TRUE(NSFileManager::createDirectoryAtPath("a/b", true));
    EXPECT_TRUE(NSFileManager::createDirectoryAtPath("c", false));
  });
  EXPECT_TRUE(fs::is_directory(folder / "a/b"));
  EXPECT_TRUE(fs::is_directory(folder / "c"));
}

TEST(NSFileManager, AFolderThatExistsIsASuccessOnlyWithIntermediates) {
  const TemporaryDirectory folder;
  writeFile(folder / "sub/file", "x");
  fs::create_symlink("sub", folder / "link");
  for (const std::string name : {"sub", "sub/", "link"}) {
    Error error;
    EXPECT_TRUE(NSFileManager::createDirectoryAtPath(folder / name, true, &error)) << name;
    EXPECT_EQ(nullptr, error);
    EXPECT_FALSE(NSFileManager::createDirectoryAtPath(folder / name, false, &error)) << name;
    expectPOSIXError(EEXIST, folder / name, error);
  }
  EXPECT_EQ("x", readFile(folder / "sub/file"));
}

TEST(NSFileManager, AFileInTheWayIsAnError) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  fs::create_symlink("missing", folder / "toNothing");
  for (const bool withIntermediates : {false, true}) {
    Error error;
    EXPECT_FALSE(NSFileManager::createDirectoryAtPath(folder / "file", withIntermediates, &error));
    expectPOSIXError(EEXIST, folder / "file", error);
    EXPECT_FALSE(NSFileManager::createDirectoryAtPath(folder / "file/below", withIntermediates, &error));
    expectPOSIXError(ENOTDIR, folder / "file/below", error);
    EXPECT_FALSE(NSFileManager::createDirectoryAtPath(folder / "toNothing", withIntermediates, &error));
    expectPOSIXError(EEXIST, folder / "toNothing", error);
  }
  EXPECT_EQ("contents", readFile(folder / "file"));
}

TEST(NSFileManager, AFolderThatMayNotBeWrittenToTakesNoNewFolder) {
  const TemporaryDirectory folder;
  fs::permissions(folder.path(), fs::perms(0755));
  KQTest::inUnprivilegedChildProcess([&folder] {
    if (access(folder.path().c_str(), W_OK) == 0) {
      // Not started by root: the folder is this user's own.
      ASSERT_EQ(0, chmod(folder.path().c_str(), 0555));
    }
    for (const bool withIntermediates : {false, true}) {
      Error error;
      EXPECT_FALSE(NSFileManager::createDirectoryAtPath(folder / "new", withIntermediates, &error));
      expectPOSIXError(EACCES, folder / "new", error);
    }
  });
}

TEST(NSFileManager, SeveralThreadsMakeTheSameFoldersAtOnce) {
  const TemporaryDirectory folder;
  for (int round = 0; round < 20; ++round) {
    const std::string path = folder / (std::to_string(round) + "/a/b/c/d/e");
    std::vector<std::thread> threads;
    std::vector<int> made(4, 0);
    for (int& result : made) {
      threads.emplace_back(
          [&path, &result] { result = NSFileManager::createDirectoryAtPath(path, true) ? 1 : 0; });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::vector<int>(4, 1), made);
    EXPECT_TRUE(fs::is_directory(path));
  }
}

// Deep enumeration

TEST(NSFileManager, AWalkYieldsEverythingBelowAFolderInOrder) {
  const TemporaryDirectory folder;
  for (const std::string name : {"b.txt", "a/2", "a/1", "a/deep/er/file", "a.txt", "B", ".hidden",
                                 ".hiddenFolder/.x", "a-b/file", "caf\xC3\xA9", "cafe\xCC\x81", "z"}) {
    writeFile(folder / name, name);
  }
  fs::create_directory(folder / "empty");
  Error error;
  EXPECT_EQ((Paths{".hidden", ".hiddenFolder", ".hiddenFolder/.x", "B", "a", "a/1", "a/2", "a/deep",
                   "a/deep/er", "a/deep/er/file", "a-b", "a-b/file", "a.txt", "b.txt", "cafe\xCC\x81",
                   "caf\xC3\xA9", "empty", "z"}),
            walk(folder.path().string(), &error));
  EXPECT_EQ(nullptr, error);
}

TEST(NSFileManager, ATrailingSlashOfTheRootDoesNotChangeAWalk) {
  const TemporaryDirectory folder;
  writeFile(folder / "a/file", "x");
  EXPECT_EQ((Paths{"a", "a/file"}), walk(folder.path().string() + "/"));
  EXPECT_EQ((Paths{"a", "a/file"}), walk(folder.path().string() + "//"));
}

TEST(NSFileManager, AWalkOfAnEmptyFolderYieldsNothingWithoutAnError) {
  const TemporaryDirectory folder;
  Error error;
  EXPECT_EQ(Paths{}, walk(folder.path().string(), &error));
  EXPECT_EQ(nullptr, error);
}

TEST(NSFileManager, AWalkYieldsLinksAndDoesNotFollowThem) {
  const TemporaryDirectory folder;
  const TemporaryDirectory other;
  writeFile(folder / "a/file", "x");
  writeFile(other / "outside", "x");
  fs::create_directory_symlink(other.path(), folder / "toFolder");
  fs::create_symlink("a/file", folder / "toFile");
  fs::create_symlink("missing", folder / "toNothing");
  fs::create_directory_symlink("..", folder / "a/up");
  fs::create_symlink("loop", folder / "loop");
  Error error;
  EXPECT_EQ((Paths{"a", "a/file", "a/up", "loop", "toFile", "toFolder", "toNothing"}),
            walk(folder.path().string(), &error));
  EXPECT_EQ(nullptr, error);
}

TEST(NSFileManager, AWalkYieldsWhatIsNeitherFileNorFolder) {
  const TemporaryDirectory folder;
  ASSERT_EQ(0, mkfifo((folder / "pipe").c_str(), 0600));
  EXPECT_EQ(Paths{"pipe"}, walk(folder.path().string()));
}

TEST(NSFileManager, ALinkGivenAsTheRootIsFollowed) {
  const TemporaryDirectory folder;
  writeFile(folder / "real/a/file", "x");
  fs::create_directory_symlink("real", folder / "link");
  Error error;
  EXPECT_EQ((Paths{"a", "a/file"}), walk(folder / "link", &error));
  EXPECT_EQ(nullptr, error);
}

TEST(NSFileManager, AMissingRootIsReported) {
  const TemporaryDirectory folder;
  Error error;
  EXPECT_EQ(Paths{}, walk(folder / "missing", &error));
  expectPOSIXError(ENOENT, folder / "missing", error);
}

TEST(NSFileManager, AFileAsTheRootIsReported) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  Error error;
  EXPECT_EQ(Paths{}, walk(folder / "file", &error));
  expectPOSIXError(ENOTDIR, folder / "file", error);
}

TEST(NSFileManager, AFolderThatMayNotBeReadIsReportedAndTheRestIsWalked) {
  const TemporaryDirectory folder;
  writeFile(folder / "a/file", "x");
  writeFile(folder / "closed/file", "x");
  writeFile(folder / "z/file", "x");
  fs::permissions(folder.path(), fs::perms(0755));
  fs::permissions(folder / "a", fs::perms(0755));
  fs::permissions(folder / "z", fs::perms(0755));
  fs::permissions(folder / "closed", fs::perms::none);
  KQTest::inUnprivilegedChildProcess([&folder] {
    Error error;
    EXPECT_EQ((Paths{"a", "a/file", "closed", "z", "z/file"}), walk(folder.path().string(), &error));
    expectPOSIXError(EACCES, folder / "closed", error);
  });
}

TEST(NSFileManager, TheErrorIsThatOfTheLastFolderThatCouldNotBeRead) {
  const TemporaryDirectory folder;
  for (const std::string name : {"first", "second"}) {
    fs::create_directory(folder / name);
    fs::permissions(folder / name, fs::perms::none);
  }
  fs::permissions(folder.path(), fs::perms(0755));
  KQTest::inUnprivilegedChildProcess([&folder] {
    Error error;
    EXPECT_EQ((Paths{"first", "second"}), walk(folder.path().string(), &error));
    expectPOSIXError(EACCES, folder / "second", error);
  });
}

TEST(NSFileManager, ARootThatMayNotBeReadIsReported) {
  const TemporaryDirectory folder;
  writeFile(folder / "closed/file", "x");
  fs::permissions(folder.path(), fs::perms(0755));
  fs::permissions(folder / "closed", fs::perms::none);
  KQTest::inUnprivilegedChildProcess([&folder] {
    Error error;
    EXPECT_EQ(Paths{}, walk(folder / "closed", &error));
    expectPOSIXError(EACCES, folder / "closed", error);
  });
}

TEST(NSFileManager, AFolderThatVanishesDuringAWalkIsReportedAndTheRestIsWalked) {
  const TemporaryDirectory folder;
  writeFile(folder / "a/file", "x");
  writeFile(folder / "z/file", "x");
  KQ::NSDirectoryEnumerator enumerator = NSFileManager::enumeratorAtPath(folder.path().string());
  EXPECT_EQ("a", enumerator.nextObject());
  EXPECT_EQ(nullptr, enumerator.error());
  fs::remove_all(folder / "a");
  EXPECT_EQ("z", enumerator.nextObject());
  expectPOSIXError(ENOENT, folder / "a", enumerator.error());
  EXPECT_EQ("z/file", enumerator.nextObject());
  EXPECT_EQ(std::nullopt, enumerator.nextObject());
}

TEST(NSFileManager, AFolderThatBecomesALinkDuringAWalkIsNotFollowed) {
  const TemporaryDirectory folder;
  const TemporaryDirectory other;
  writeFile(folder / "a/file", "x");
  writeFile(other / "outside", "x");
  KQ::NSDirectoryEnumerator enumerator = NSFileManager::enumeratorAtPath(folder.path().string());
  EXPECT_EQ("a", enumerator.nextObject());
  fs::remove_all(folder / "a");
  fs::create_directory_symlink(other.path(), folder / "a");
  EXPECT_EQ(std::nullopt, enumerator.nextObject());
}

TEST(NSFileManager, NamesThatAreNotUTF8AreYieldedAsTheyAreStored) {
  const TemporaryDirectory folder;
  writeFile(folder / "a\nb", "x");
  writeFile(folder /
                "\xFF\xFE"
                "folder/\x80",
            "x");
  writeFile(folder / "latin\xE9", "x");
  Error error;
  EXPECT_EQ((Paths{"a\nb", "latin\xE9",
                   "\xFF\xFE"
                   "folder",
                   "\xFF\xFE"
                   "folder/\x80"}),
            walk(folder.path().string(), &error));
  EXPECT_EQ(nullptr, error);
}

TEST(NSFileManager, ALargeFolderIsYieldedInTheOrderOfItsNamesBytes) {
  const TemporaryDirectory folder;
  Paths expected;
  for (int i = 0; i < 3000; ++i) {
    expected.push_back("file" + std::to_string(i * 7919 % 100003));
    writeFile(folder / expected.back(), "");
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, walk(folder.path().string()));
}

TEST(NSFileManager, ADeepTreeIsWalkedWithFewOpenFiles) {
  const TemporaryDirectory folder;
  std::string path;
  Paths expected;
  for (int depth = 0; depth < 200; ++depth) {
    path += path.empty() ? "d" : "/d";
    expected.push_back(path);
  }
  fs::create_directories(folder / path);
  KQTest::inChildProcess([&] {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = 50;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    Error error;
    EXPECT_EQ(expected, walk(folder.path().string(), &error));
    EXPECT_EQ(nullptr, error);
  });
}

TEST(NSFileManager, AWalkGivesItsFilesBack) {
  const TemporaryDirectory folder;
  writeFile(folder / "a/b/file", "x");
  const auto nextFileNumber = [] {
    const int file = open("/dev/null", O_RDONLY);
    close(file);
    return file;
  };
  const int before = nextFileNumber();
  walk(folder.path().string());
  EXPECT_EQ(before, nextFileNumber());
  {
    KQ::NSDirectoryEnumerator enumerator = NSFileManager::enumeratorAtPath(folder.path().string());
    EXPECT_EQ("a", enumerator.nextObject());
    EXPECT_EQ("a/b", enumerator.nextObject());
  }
  EXPECT_EQ(before, nextFileNumber());
}

TEST(NSFileManager, TwoWalksDoNotDisturbEachOther) {
  const TemporaryDirectory folder;
  writeFile(folder / "a/file", "x");
  KQ::NSDirectoryEnumerator first = NSFileManager::enumeratorAtPath(folder.path().string());
  KQ::NSDirectoryEnumerator second = NSFileManager::enumeratorAtPath(folder.path().string());
  EXPECT_EQ("a", first.nextObject());
  EXPECT_EQ("a", second.nextObject());
  EXPECT_EQ("a/file", first.nextObject());
  EXPECT_EQ("a/file", second.nextObject());
}
