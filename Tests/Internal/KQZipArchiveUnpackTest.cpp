// What KQZipArchive::unpack() gives back, leaves out and never touches.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/RecordBytes.h"
#include "Support/ScriptedSystem.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

using KQTest::CentralHeaderFields;
using KQTest::Error;
using KQTest::errorText;
using KQTest::LocalHeaderFields;
using KQTest::patternBytes;
using KQTest::readFile;
using KQTest::ScriptedSystem;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;
using Lines = std::vector<std::string>;

constexpr unsigned regularFile = 0100000;
constexpr unsigned symbolicLink = 0120000;
constexpr unsigned folderMode = 0040000;

/// The process's mask while it exists.
class FileMask {
 public:
  explicit FileMask(mode_t mask) : before_(::umask(mask)) {}
  ~FileMask() { ::umask(before_); }
  FileMask(const FileMask&) = delete;
  FileMask& operator=(const FileMask&) = delete;

 private:
  mode_t before_;
};

/// An entry of an archive that is made by hand.
struct Made {
  std::string name;
  std::string data{};
  unsigned mode = regularFile | 0644;
  std::string stored{};  ///< The data that the archive has in their place, of the same length.
};

Made file(const std::string& name, const std::string& data, unsigned permissions = 0644) {
  return {name, data, regularFile | permissions};
}
Made folder(const std::string& name, unsigned permissions = 0755) {
  return {name, "", folderMode | permissions};
}
Made link(const std::string& name, const std::string& target) { return {name, target, symbolicLink | 0777}; }
Made damaged(const std::string& name, const std::string& data) {
  std::string other = data;
  other[other.size() / 2] = static_cast<char>(other[other.size() / 2] ^ 1);
  return {name, data, regularFile | 0644, other};
}

std::string archiveOf(const std::vector<Made>& entries) {
  std::string records;
  std::string directory;
  for (const Made& each : entries) {
    const auto size = static_cast<std::uint32_t>(each.data.size());
    directory += CentralHeaderFields{.versionNeeded = 10,
                                     .flags = 0x0800,
                                     .modTime = 0x645C,
                                     .modDate = 0x50CF,
                                     .crc32 = KQTest::crcOf(each.data),
                                     .compressedSize = size,
                                     .uncompressedSize = size,
                                     .externalFileAttributes = each.mode << 16,
                                     .offsetOfLocalHeader = static_cast<std::uint32_t>(records.size()),
                                     .name = each.name}
                     .bytes();
    records += LocalHeaderFields{.versionNeeded = 10,
                                 .flags = 0x0800,
                                 .modTime = 0x645C,
                                 .modDate = 0x50CF,
                                 .crc32 = KQTest::crcOf(each.data),
                                 .compressedSize = size,
                                 .uncompressedSize = size,
                                 .name = each.name}
                   .bytes() +
               (each.stored.empty() ? each.data : each.stored);
  }
  return records + directory +
         KQTest::EndRecords{.count = entries.size(), .size = directory.size(), .start = records.size()}
             .classicRecord();
}

const std::string large = patternBytes(1048576 + 77, 5);

/// Contents that can be read in a message.
std::string shown(const std::string& contents) {
  if (contents.size() < 100) return contents;
  return contents == large ? "large" : std::to_string(contents.size()) + " other bytes";
}

/// A folder with an archive, and the folder "out" that it is unpacked into.
class Unpacked {
 public:
  explicit Unpacked(const std::vector<Made>& entries) : Unpacked(archiveOf(entries)) {}
  explicit Unpacked(const std::string& archive) { writeFile(*this / "a.zip", archive); }

  std::string operator/(const std::string& path) const { return place_ / path; }

  bool unpack(const KQZipUnpackOptions& options) {
    error = nullptr;
    const auto archive = KQZipArchive::open(*this / "a.zip", &error);
    return archive && archive->unpack(*this / "out", options, report, &error);
  }

  /// What is in "out": "name=contents", "name/", "name -> target".
  Lines items() const {
    Lines lines;
    if (!fs::exists(*this / "out")) return lines;
    for (const auto& each : fs::recursive_directory_iterator(*this / "out")) {
      const std::string name = each.path().lexically_relative(*this / "out").string();
      if (each.is_symlink())
        lines.push_back(name + " -> " + fs::read_symlink(each.path()).string());
      else
        lines.push_back(each.is_directory() ? name + "/" : name + "=" + shown(readFile(each.path())));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  /// The problems, "entry: text".
  Lines problems() const {
    Lines lines;
    for (const KQZipProblem& problem : report.problems())
      lines.push_back(problem.entry.value_or("") + ": " + problem.text);
    return lines;
  }

  /// The entries with problems.
  Lines problemNames() const {
    Lines names;
    for (const KQZipProblem& problem : report.problems()) names.push_back(problem.entry.value_or(""));
    return names;
  }

  unsigned permissionsOf(const std::string& path) const {
    struct stat status {};
    EXPECT_EQ(0, ::lstat((*this / path).c_str(), &status)) << path;
    return status.st_mode & 07777U;
  }

  std::string dateOf(const std::string& path) const {
    struct stat status {};
    EXPECT_EQ(0, ::lstat((*this / path).c_str(), &status)) << path;
    return KQTest::localTime(std::chrono::system_clock::from_time_t(status.st_mtime));
  }

  Error error;
  KQZipReport report;

 private:
  TemporaryDirectory place_;
};

class KQZipArchiveUnpack : public testing::TestWithParam<unsigned> {
 protected:
  KQZipUnpackOptions options_{.threads = GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Threads, KQZipArchiveUnpack, testing::Values(1U, 3U));

TEST_P(KQZipArchiveUnpack, GivesBackFilesFoldersAndLinksWithPermissionsAndDates) {
  const FileMask mask(022);
  Unpacked job({folder("d/", 0750), file("d/a", "alpha", 0600), file("d/e/b", "", 0444), link("d/l", "../c"),
                file("c", large, 0755), folder("empty/", 0500)});
  ASSERT_TRUE(job.unpack(options_)) << errorText(job.error);
  EXPECT_EQ((Lines{"c=large", "d/", "d/a=alpha", "d/e/", "d/e/b=", "d/l -> ../c", "empty/"}), job.items());
  EXPECT_EQ(0750U, job.permissionsOf("out/d"));
  EXPECT_EQ(0755U, job.permissionsOf("out/d/e"));
  EXPECT_EQ(0500U, job.permissionsOf("out/empty"));
  EXPECT_EQ(0600U, job.permissionsOf("out/d/a"));
  EXPECT_EQ(0444U, job.permissionsOf("out/d/e/b"));
  EXPECT_EQ(0755U, job.permissionsOf("out/c"));
  for (const char* const path : {"out/d", "out/d/a", "out/d/e/b", "out/d/l", "out/c", "out/empty"})
    EXPECT_EQ("2020-06-15 12:34:56", job.dateOf(path)) << path;
  EXPECT_EQ(Lines(), job.problems());
  EXPECT_EQ(6U, job.report.entries());
}

TEST_P(KQZipArchiveUnpack, NeverSetsSpecialBitsAndHeedsTheMask) {
  const FileMask mask(027);
  Unpacked job({file("a", "x", 07777), folder("d/", 07777)});
  ASSERT_TRUE(job.unpack(options_)) << errorText(job.error);
  EXPECT_EQ(0750U, job.permissionsOf("out/a"));
  EXPECT_EQ(0750U, job.permissionsOf("out/d"));
}

TEST_P(KQZipArchiveUnpack, NamesWhatDoesNotMatchItsCRCAndGivesTheOthersBack) {
  Unpacked job({file("a", "1"), damaged("b", "22"), damaged("big", large), file("c", "3")});
  EXPECT_FALSE(job.unpack(options_));
  EXPECT_EQ(KQZipErrorProblemsFound, job.error->code());
  EXPECT_EQ((Lines{"a=1", "c=3"}), job.items());
  EXPECT_EQ((Lines{"b", "big"}), job.problemNames());
  EXPECT_EQ(2U, job.report.entriesWithProblems());
  EXPECT_EQ(KQZipProblemKind::Data, job.report.problems()[0].kind);
}

TEST_P(KQZipArchiveUnpack, LeavesAnOldFileInPlaceOfADamagedOne) {
  Unpacked job({damaged("b", "22"), damaged("big", large)});
  writeFile(job / "out/b", "old");
  writeFile(job / "out/big", "old too");
  EXPECT_FALSE(job.unpack(options_));
  EXPECT_EQ((Lines{"b=old", "big=old too"}), job.items());
}

TEST_P(KQZipArchiveUnpack, KeepsWhatIsDamagedIfAsked) {
  const Made small = damaged("b", "22");
  const Made big = damaged("big", large);
  Unpacked job({small, big});
  options_.keepsDamaged = true;
  EXPECT_FALSE(job.unpack(options_));
  EXPECT_EQ((Lines{"b=" + small.stored, "big=" + shown(big.stored)}), job.items());
  EXPECT_EQ((Lines{"b", "big"}), job.problemNames());
}

TEST_P(KQZipArchiveUnpack, ReplacesKeepsOrFailsWhereAFileIsThere) {
  const auto unpackWith = [&](KQZipExisting existing, long long date, bool succeeds) {
    Unpacked job({file("a", "new"), file("big", large), file("other", "o")});
    writeFile(job / "out/a", "old");
    writeFile(job / "out/big", "old");
    KQTest::setModificationDate(job / "out/a", date);
    KQTest::setModificationDate(job / "out/big", date);
    options_.existing = existing;
    EXPECT_EQ(succeeds, job.unpack(options_)) << errorText(job.error);
    return job.items();
  };
  const Lines kept{"a=old", "big=old", "other=o"};
  const Lines replaced{"a=new", "big=large", "other=o"};
  const long long early = 1500000000;
  const long long late = 1700000000;
  EXPECT_EQ(replaced, unpackWith(KQZipExisting::Replace, late, true));
  EXPECT_EQ(kept, unpackWith(KQZipExisting::Keep, early, true));
  EXPECT_EQ(kept, unpackWith(KQZipExisting::KeepNewer, late, true));
  EXPECT_EQ(replaced, unpackWith(KQZipExisting::KeepNewer, early, true));
  EXPECT_EQ(kept, unpackWith(KQZipExisting::Fail, early, false));
}

TEST_P(KQZipArchiveUnpack, NeverReplacesTheArchiveItself) {
  const std::vector<Made> entries{file("a.zip", "not an archive"), file("b", "2")};
  Unpacked job(entries);
  const auto archive = KQZipArchive::open(job / "a.zip");
  ASSERT_TRUE(archive);
  EXPECT_FALSE(archive->unpack(job / "", options_, job.report, &job.error));
  EXPECT_EQ(archiveOf(entries), readFile(job / "a.zip"));
  EXPECT_EQ("2", readFile(job / "b"));
  EXPECT_EQ(Lines{"a.zip: cannot be unpacked: " + (job / "a.zip") + " is the archive itself"},
            job.problems());
}

TEST_P(KQZipArchiveUnpack, RefusesTheWholeArchiveForAnUnsafeNameBeforeAnythingIsWritten) {
  for (const std::string& name : Lines{"/etc/x", "../x", "a/../../x", "a/..", "", std::string("a\0b", 3)}) {
    Unpacked job({file("first", "1"), file(name, "x")});
    EXPECT_FALSE(job.unpack(options_));
    EXPECT_EQ(KQZipErrorUnsafeName, job.error->code()) << name;
    EXPECT_FALSE(fs::exists(job / "out"));
  }
}

TEST_P(KQZipArchiveUnpack, TakesNamesAsTheyStandIfAsked) {
  Unpacked job({file("/top/x", "1"), file("d/../../y", "2"), link("away", "/nowhere")});
  fs::create_directory(job / "out");
  options_.takesNamesAsTheyStand = true;
  EXPECT_TRUE(job.unpack(options_)) << errorText(job.error);
  EXPECT_EQ((Lines{"away -> /nowhere", "d/", "top/", "top/x=1"}), job.items());
  EXPECT_EQ("2", readFile(job / "y"));
}

TEST_P(KQZipArchiveUnpack, MakesOnlyLinksThatStayInside) {
  const std::vector<std::pair<std::string, std::string>> outside{{"l", "/etc"},
                                                                 {"l", "../x"},
                                                                 {"d/l", "../../x"},
                                                                 {"d/l", "x/../../../y"},
                                                                 {"l", "d/up/../../x"},
                                                                 {"l", "disk/../../x"},
                                                                 {"d/l", "./..//../y"},
                                                                 {"l", ""},
                                                                 {"l", std::string("a\0b", 3)},
                                                                 {"l", std::string(5000, 'x')}};
  for (const auto& [name, target] : outside) {
    Unpacked job({folder("d/"), link("d/up", ".."), link(name, target)});
    fs::create_directories(job / "out");
    fs::create_directory_symlink("/", job / "out/disk");
    EXPECT_FALSE(job.unpack(options_)) << target;
    EXPECT_EQ(Lines{name}, job.problemNames()) << target;
    EXPECT_FALSE(fs::is_symlink(job / ("out/" + name))) << target;
  }
  for (const std::string target : {"..", "../d", "x/../y", "../d/../z", ".", "up/x", "missing/../x"}) {
    Unpacked job({folder("d/"), link("d/up", ".."), link("d/l", target)});
    EXPECT_TRUE(job.unpack(options_)) << target << errorText(job.error);
    EXPECT_EQ(target, fs::read_symlink(job / "out/d/l"));
  }
}

TEST_P(KQZipArchiveUnpack, WritesThroughNoLinkThatIsThere) {
  Unpacked job({file("d/a", "1"), file("l", "2"), file("b", "3")});
  fs::create_directory(job / "outside");
  writeFile(job / "outside/kept", "kept");
  fs::create_directory(job / "out");
  fs::create_directory_symlink(job / "outside", job / "out/d");
  fs::create_symlink(job / "outside/kept", job / "out/l");
  EXPECT_FALSE(job.unpack(options_));
  EXPECT_EQ(Lines{"d/a"}, job.problemNames());
  EXPECT_EQ((Lines{"b=3", "d -> " + (job / "outside"), "l=2"}), job.items());
  EXPECT_EQ("kept", readFile(job / "outside/kept"));
  EXPECT_FALSE(fs::exists(job / "outside/a"));
}

TEST_P(KQZipArchiveUnpack, WritesThroughNoLinkThatIsPutInThePlaceOfAFolderMeanwhile) {
  for (const bool isPlain : {false, true}) {
    std::vector<Made> entries;
    for (int i = 0; i < 12; ++i)
      entries.push_back(file("d" + std::to_string(i % 4) + "/sub/f" + std::to_string(i), "x"));
    // Before the first, the second, ... call.
    for (std::size_t k = 1;; ++k) {
      Unpacked job(entries);
      fs::create_directories(job / "outside/sub");
      ScriptedSystem system;
      if (isPlain) system.lackOptionalCalls();
      bool isSwapped = false;
      system.act({.number = k}, [&](const ScriptedSystem::Call&) {
        for (int i = 0; i < 4; ++i) {
          const std::string path = job / ("out/d" + std::to_string(i));
          if (!fs::exists(path)) continue;
          fs::rename(path, job / ("away" + std::to_string(i)));
          fs::create_directory_symlink(job / "outside", path);
        }
        isSwapped = true;
      });
      job.unpack(options_);
      EXPECT_TRUE(fs::is_empty(job / "outside/sub")) << k;
      EXPECT_EQ(1, std::distance(fs::directory_iterator(job / "outside"), {})) << k;
      if (!isSwapped) break;
    }
  }
}

TEST_P(KQZipArchiveUnpack, NamesAFileWhereOtherEntriesNeedAFolder) {
  Unpacked job({file("a", "1"), file("a/b", "2"), file("c", "3")});
  EXPECT_FALSE(job.unpack(options_));
  EXPECT_EQ(Lines{"a: is a file where other entries need a folder"}, job.problems());
  EXPECT_EQ((Lines{"a/", "a/b=2", "c=3"}), job.items());
}

TEST_P(KQZipArchiveUnpack, NamesWhatIsInTheWay) {
  Unpacked job({file("a", "1"), file("b/c", "2"), file("pipe", "3"), file("d", "4")});
  fs::create_directories(job / "out/a");
  writeFile(job / "out/b", "file");
  ASSERT_EQ(0, ::mkfifo((job / "out/pipe").c_str(), 0600));
  EXPECT_FALSE(job.unpack(options_));
  EXPECT_EQ((Lines{"a", "b/c", "pipe"}), job.problemNames());
  EXPECT_EQ("4", readFile(job / "out/d"));
  EXPECT_EQ("file", readFile(job / "out/b"));
}

TEST_P(KQZipArchiveUnpack, LeavesFoldersThatWereThereAsTheyWere) {
  Unpacked job({folder("./", 0500), folder("d/", 0700), file("d/a", "1")});
  fs::create_directories(job / "out/d");
  fs::permissions(job / "out/d", fs::perms(0751));
  fs::permissions(job / "out", fs::perms(0752));
  ASSERT_TRUE(job.unpack(options_)) << errorText(job.error);
  EXPECT_EQ(0751U, job.permissionsOf("out/d"));
  EXPECT_EQ(0752U, job.permissionsOf("out"));
  EXPECT_NE("2020-06-15 12:34:56", job.dateOf("out/d"));
}

TEST_P(KQZipArchiveUnpack, TakesWhatIsAskedForByNamesFoldersAndPatterns) {
  const std::vector<Made> entries{file("dir/a.txt", "1"), file("dir/sub/b.txt", "2"), folder("dir/empty/"),
                                  file("directory", "3"), file("[x,y]", "4"),         file("c.txt", "5")};
  const auto names = [&](const Lines& paths, const Lines& excluded = {}) {
    Unpacked job(entries);
    options_.paths = paths;
    options_.excluded = excluded;
    Lines given;
    options_.onEntry = [&](const KQZipUnpackedEntry& each) { given.push_back(each.path); };
    EXPECT_TRUE(job.unpack(options_)) << errorText(job.error);
    std::sort(given.begin(), given.end());
    return given;
  };
  const Lines all{"[x,y]", "c.txt", "dir/a.txt", "dir/empty", "dir/sub/b.txt", "directory"};
  EXPECT_EQ(all, names({}));
  EXPECT_EQ((Lines{"dir/a.txt", "dir/empty", "dir/sub/b.txt"}), names({"dir"}));
  EXPECT_EQ((Lines{"dir/sub/b.txt", "directory"}), names({"directory", "dir/sub/"}));
  EXPECT_EQ(Lines{"[x,y]"}, names({"[x,y]"}));
  EXPECT_EQ((Lines{"c.txt", "dir/a.txt", "dir/sub/b.txt"}), names({"*.txt"}));
  EXPECT_EQ((Lines{"dir/a.txt", "dir/sub/b.txt"}), names({"dir?*.txt"}));
  EXPECT_EQ(Lines{"c.txt"}, names({"[a-c].txt"}));
  EXPECT_EQ((Lines{"[x,y]", "c.txt", "directory"}), names({}, {"dir"}));
  EXPECT_EQ((Lines{"dir/a.txt"}), names({"*.txt"}, {"c*", "d*s?b"}));
}

TEST_P(KQZipArchiveUnpack, FailsBeforeAnythingIsWrittenForAPathThatAsksForNothing) {
  for (const std::string path : {"missing", "a/", "di", "dir/b/", "/a", "", "A", "x*"}) {
    Unpacked job({file("a", "1"), file("dir/b", "2")});
    options_.paths = {"a", path};
    EXPECT_FALSE(job.unpack(options_));
    EXPECT_EQ("-206 \"" + path + "\" is not in the archive", errorText(job.error));
    EXPECT_FALSE(fs::exists(job / "out"));
  }
}

TEST_P(KQZipArchiveUnpack, TakesPartsOffTheFrontOfNames) {
  Unpacked job({file("v1/a", "1"), file("v1/d/b", "2"), file("top", "3"), folder("v1/"), file("v2/x", "4")});
  options_.strippedComponents = 1;
  EXPECT_TRUE(job.unpack(options_)) << errorText(job.error);
  EXPECT_EQ((Lines{"a=1", "d/", "d/b=2", "x=4"}), job.items());
}

TEST_P(KQZipArchiveUnpack, NamesAllButTheLastOfWhatIsLeftWithOnePath) {
  Unpacked job({file("v1/a", "1"), file("v2/a", "2"), file("v3/a", "3")});
  options_.strippedComponents = 1;
  EXPECT_FALSE(job.unpack(options_));
  EXPECT_EQ((Lines{"v1/a", "v2/a"}), job.problemNames());
  EXPECT_EQ(Lines{"a=3"}, job.items());
}

TEST_P(KQZipArchiveUnpack, DoesNothingInADryRunButToTell) {
  Unpacked job({file("d/a", "1"), link("l", "d"), folder("e/"), file("z", "2")});
  options_.isDryRun = true;
  Lines given;
  options_.onEntry = [&](const KQZipUnpackedEntry& each) { given.push_back(each.path); };
  EXPECT_TRUE(job.unpack(options_)) << errorText(job.error);
  EXPECT_EQ((Lines{"d/a", "l", "e", "z"}), given);
  EXPECT_FALSE(fs::exists(job / "out"));
}

TEST_P(KQZipArchiveUnpack, TellsApartWhatDiffersInCaseOnly) {
  Unpacked job({file("A", "1"), file("a", "2"), file("\xC3\x84", "3"), file("A\xCC\x88", "4"),
                file("D/x", "5"), file("d/x", "6")});
  EXPECT_TRUE(job.unpack(options_)) << errorText(job.error);
  EXPECT_EQ((Lines{"A=1", "A\xCC\x88=4", "D/", "D/x=5", "a=2", "d/", "d/x=6", "\xC3\x84=3"}), job.items());
}

TEST_P(KQZipArchiveUnpack, NamesWhatTheFileSystemHoldsForAnotherEntry) {
  Unpacked job({file("A", "1"), file("a", "2"), file("b", "3")});
  fs::create_directory(job / "out");
  ScriptedSystem system;
  // Like a file system that holds both for the same.
  system.act({.number = 1, .name = "open", .path = job / "out/a"},
             [&](const ScriptedSystem::Call&) { fs::create_hard_link(job / "out/A", job / "out/a"); });
  EXPECT_FALSE(job.unpack(options_));
  EXPECT_EQ(Lines{"a: cannot be unpacked: " + (job / "out/a") +
                  " has the name of another entry to this file system"},
            job.problems());
  EXPECT_EQ("1", readFile(job / "out/A"));
  EXPECT_EQ("3", readFile(job / "out/b"));
}

TEST_P(KQZipArchiveUnpack, MakesFoldersThatAreNobodyElsesUntilAllIsDone) {
  Unpacked job({folder("d/", 0777), file("d/a", "1"), folder("d/e/", 0755), file("d/e/b", "2")});
  ScriptedSystem system;
  system.act({.number = 1, .andLater = true, .name = "write"}, [&](const ScriptedSystem::Call&) {
    for (const char* const path : {"out/d", "out/d/e"})
      EXPECT_TRUE(!fs::exists(job / path) || job.permissionsOf(path) == 0700U) << path;
  });
  EXPECT_TRUE(job.unpack(options_)) << errorText(job.error);
}

TEST_P(KQZipArchiveUnpack, CostsFourCallsASmallFile) {
  const auto callsFor = [&](int count) {
    std::vector<Made> entries;
    for (int i = 0; i < count; ++i) entries.push_back(file("d/f" + std::to_string(i), "contents"));
    Unpacked job(entries);
    const ScriptedSystem system;
    EXPECT_TRUE(job.unpack(options_)) << errorText(job.error);
    return system.count() - system.count("secondsOfLocalTime");
  };
  const std::size_t few = callsFor(100);
  const std::size_t many = callsFor(200);
  // Each thread opens the folder for itself.
  EXPECT_LE(many - few, 400U + 10U);
}

TEST_P(KQZipArchiveUnpack, EndsWhenItIsCancelled) {
  std::vector<Made> entries;
  for (int i = 0; i < 600; ++i) entries.push_back(file("f" + std::to_string(i), "x"));
  entries.push_back(file("big", large));
  Unpacked job(entries);
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
  progress->becomeCurrentWithPendingUnitCount(1);
  options_.onEntry = [&](const KQZipUnpackedEntry&) { progress->cancel(); };
  EXPECT_FALSE(job.unpack(options_));
  progress->resignCurrent();
  EXPECT_EQ("-90 Cancelled by user.", errorText(job.error));
  EXPECT_FALSE(fs::exists(job / "out/big"));
}

TEST_P(KQZipArchiveUnpack, CountsBytes) {
  Unpacked job({file("a", "12345"), file("big", large), link("l", "a")});
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(10);
  progress->becomeCurrentWithPendingUnitCount(10);
  EXPECT_TRUE(job.unpack(options_)) << errorText(job.error);
  progress->resignCurrent();
  EXPECT_TRUE(progress->isFinished());
  EXPECT_EQ(large.size() + 6, job.report.bytes());
}

TEST_P(KQZipArchiveUnpack, GivesBackThroughAHostsStream) {
  const std::string bytes =
      archiveOf({file("a", "1"), file("big", large), link("l", "a"), damaged("x", "y")});
  const auto stream =
      KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()));
  stream->open();
  Unpacked job(std::vector<Made>{});
  const auto archive = KQZipArchive::open(*stream, &job.error);
  ASSERT_TRUE(archive) << errorText(job.error);
  EXPECT_FALSE(archive->unpack(job / "out", options_, job.report, &job.error));
  EXPECT_EQ((Lines{"a=1", "big=large", "l -> a"}), job.items());
  EXPECT_EQ(Lines{"x"}, job.problemNames());
}

// Unpacks over old files while calls fail. Returns the calls.
std::vector<ScriptedSystem::Call> unpackWithFaults(const KQZipUnpackOptions& options,
                                                   const std::function<void(ScriptedSystem&)>& script) {
  const std::vector<Made> entries{folder("d/", 0750), file("d/a", "new a"), file("b", "new b"),
                                  link("l", "b"),     folder("n/", 0755),   file("n/m/c", "new c"),
                                  file("big", large), file("B", "twin")};
  Unpacked job(entries);
  writeFile(job / "out/d/a", "old a");
  writeFile(job / "out/big", "old big");
  std::vector<ScriptedSystem::Call> calls;
  bool isDone = false;
  {
    ScriptedSystem system;
    script(system);
    isDone = job.unpack(options);
    calls = system.calls();
  }
  const Lines whole{"B=twin", "b=new b", "big=large", "d/",         "d/a=new a",
                    "l -> b", "n/",      "n/m/",      "n/m/c=new c"};
  const Lines found = job.items();
  EXPECT_TRUE(isDone || job.error);
  if (isDone) {
    EXPECT_EQ(whole, found);
    EXPECT_EQ(0755U, job.permissionsOf("out/n"));
    EXPECT_EQ("2020-06-15 12:34:56", job.dateOf("out/n"));
    EXPECT_EQ("2020-06-15 12:34:56", job.dateOf("out/big"));
  }
  for (const auto& [path, old, now] : {std::tuple("out/d/a", std::string("old a"), std::string("new a")),
                                       std::tuple("out/big", std::string("old big"), large)}) {
    const std::string contents = readFile(job / path);
    EXPECT_TRUE(contents == old || contents == now) << path;
  }
  return calls;
}

TEST(KQZipArchiveUnpackFaults, NoCallThatFailsIsTakenForASuccessOrCostsAnOldFile) {
  const KQZipUnpackOptions options{.threads = 1};
  const auto calls = unpackWithFaults(options, [](ScriptedSystem&) {});
  // They have no way to say that they failed.
  const std::set<std::string> notFailing{"isSeekable", "process", "processors", "secondsOfLocalTime"};
  for (const int code : {EIO, ENOSPC}) {
    for (std::size_t k = 1; k <= calls.size(); ++k)
      if (notFailing.count(calls[k - 1].name) == 0)
        unpackWithFaults(options, [&](ScriptedSystem& system) { system.fail({.number = k}, code); });
  }
}

TEST(KQZipArchiveUnpackFaults, NeitherDoesAnyOneOfSeveralThreads) {
  const KQZipUnpackOptions options{.threads = 3};
  const std::size_t calls = unpackWithFaults(options, [](ScriptedSystem&) {}).size();
  const auto canFail = [](const ScriptedSystem::Call& call) { return call.name != "secondsOfLocalTime"; };
  std::mt19937 random(7);
  for (int i = 0; i < 60; ++i) {
    unpackWithFaults(options, [&](ScriptedSystem& system) {
      system.fail({.number = 1 + random() % calls, .matches = canFail}, EIO);
      system.halve({.number = 1 + random() % calls});
    });
  }
}

TEST(KQZipArchiveUnpackFaults, AFullDiskLeavesOldFilesAsTheyWere) {
  for (const std::uint64_t room :
       {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{100000}, large.size() + 10})
    for (const unsigned threads : {1U, 3U})
      unpackWithFaults({.threads = threads}, [&](ScriptedSystem& system) { system.limitRoom(room); });
}

}  // namespace
