#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/Bytes.h"
#include "Support/GoldenArchive.h"
#include "Support/OtherPrograms.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

/// A folder with archives in it, in which the tool runs.
class ArchiveFolder {
 public:
  ArchiveFolder() : zone_("UTC0") {}

  /// Puts an archive of these bytes in place and returns its name.
  std::string archive(const std::string& bytes, const std::string& name = "a.zip") const {
    writeFile(folder_ / name, bytes);
    return name;
  }

  std::string archive(const std::vector<LocalRecord>& records) const {
    return archive(archiveBytes(records));
  }

  ProcessResult run(const std::vector<std::string>& arguments) const {
    return runTool(arguments, folder_.path().string());
  }

  std::string operator/(const std::string& path) const { return folder_ / path; }

  /// Every item below `path`, links not followed: folders as "name/", files as "name=contents", and links as
  /// "name->target", in the order of their paths.
  std::vector<std::string> items(const std::string& path) const {
    std::vector<std::string> found;
    const fs::path root = folder_ / path;
    if (!fs::exists(root)) return {"nothing"};
    for (const auto& item : fs::recursive_directory_iterator(root)) {
      const std::string name = item.path().lexically_relative(root).string();
      if (item.is_symlink())
        found.push_back(name + "->" + fs::read_symlink(item.path()).string());
      else
        found.push_back(item.is_directory() ? name + "/" : name + "=" + readFile(item.path()));
    }
    std::sort(found.begin(), found.end());
    return found;
  }

 private:
  TemporaryDirectory folder_;
  TimeZone zone_;
};

using Items = std::vector<std::string>;

const Items nothing{"nothing"};

std::string reason(int code) { return systemReason(code); }

const std::string verifyTells = " (kqzip verify tells all that is wrong)";
const std::string otherProgram = " (another archive program may read it)";
const std::string listShows = " (kqzip list shows what is)";
const std::string moveAway = " (move it away, or extract elsewhere with -C)";

/// How verify says that it found so many problems in a.zip.
std::string problemsFound(std::size_t count) {
  return "a.zip: " + std::to_string(count) + (count == 1 ? " problem" : " problems") +
         " found (kqzip extract gives back what can be read, unchecked)";
}

std::int64_t modificationDate(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
  return status.st_mtime;
}

std::string lines(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += text + "\n";
  return all;
}

std::string hexOf(std::uint32_t value) {
  std::array<char, 9> digits{};
  std::snprintf(digits.data(), digits.size(), "%08x", value);
  return digits.data();
}

/// What plainRecord() has for a date, 2020-06-15 12:34:56 in UTC.
constexpr std::int64_t recordDate = 1592224496;

LocalRecord folderRecord(const std::string& name) { return plainRecord(name, ""); }

LocalRecord withFlags(LocalRecord record, std::uint16_t flags) {
  record.flags = flags;
  return record;
}

}  // namespace

// ---- list ----

TEST(ToolList, PrintsNamesInTheReadersOrder) {
  const ArchiveFolder folder;
  const std::string archive =
      folder.archive({plainRecord("b", "1"), plainRecord("a/c", ""), plainRecord("B", "2"),
                      plainRecord("u\xCC\x88", "3"), plainRecord("\xC3\xBC", "4")});
  expectDone(folder.run({"list", archive}), lines({"B", "a/c", "b", "u\xCC\x88", "\xC3\xBC"}));
}

TEST(ToolList, PrintsANameThatIsThereTwiceOnce) {
  const ArchiveFolder folder;
  const std::string archive =
      folder.archive({plainRecord("a", "1"), plainRecord("b", ""), plainRecord("a", "22")});
  expectDone(folder.run({"list", archive}), "a\nb\n");
  expectDone(folder.run({"list", "-l", archive}),
             "- 2 2020-06-15 12:34:56 a\n"
             "- 0 2020-06-15 12:34:56 b\n");
}

TEST(ToolList, LongShowsTypeSizeAndLocalDateInColumns) {
  const ArchiveFolder folder;
  LocalRecord late = plainRecord("late", std::string(1234, 'x'));
  late.modTime = dosTime(23, 59, 58);
  late.modDate = dosDate(2107, 12, 31);
  const std::string archive = folder.archive({plainRecord("empty", ""), folderRecord("folder/"), late});
  const std::string expected =
      "-    0 2020-06-15 12:34:56 empty\n"
      "d    0 2020-06-15 12:34:56 folder/\n"
      "- 1234 2107-12-31 23:59:58 late\n";
  expectDone(folder.run({"list", "-l", archive}), expected);
  expectDone(folder.run({"list", "--long", archive}), expected);
}

TEST(ToolList, EscapesControlCharactersInvalidBytesAndBackslashes) {
  const ArchiveFolder folder;
  const std::string archive =
      folder.archive({plainRecord("line\nend", ""), plainRecord("\x1B[31m\x7F\xC2\x9B", ""),
                      plainRecord("back\\slash", ""), plainRecord("\\x41", ""),
                      plainRecord("bad\xFFname", ""), plainRecord(std::string("nul\0end", 7), "")});
  expectDone(folder.run({"list", archive}), lines({"\\x1B[31m\\x7F\\xC2\\x9B", "\\\\x41", "back\\\\slash",
                                                   "bad\\xFFname", "line\\x0Aend", "nul\\x00end"}));
}

TEST(ToolList, NullPrintsNamesAsTheyStand) {
  const ArchiveFolder folder;
  const std::string archive = folder.archive(
      {plainRecord("line\nend", ""), plainRecord("back\\slash", ""), plainRecord("bad\xFF", "1")});
  const std::string expected("back\\slash\0bad\xFF\0line\nend\0", 25);
  expectDone(folder.run({"list", "-0", archive}), expected);
  expectDone(folder.run({"list", "--null", archive}), expected);
  expectDone(folder.run({"list", "-0l", archive}), std::string("- 0 2020-06-15 12:34:56 back\\slash\0"
                                                               "- 1 2020-06-15 12:34:56 bad\xFF\0"
                                                               "- 0 2020-06-15 12:34:56 line\nend\0",
                                                               97));
}

TEST(ToolList, AnEmptyNameIsANameLikeAny) {
  const ArchiveFolder folder;
  const std::string archive = folder.archive({plainRecord("", "1"), plainRecord("a", "22")});
  expectDone(folder.run({"list", archive}), "\na\n");
  expectDone(folder.run({"list", "-0", archive}), std::string("\0a\0", 3));
  expectDone(folder.run({"list", "-l", archive}),
             "- 1 2020-06-15 12:34:56 \n"
             "- 2 2020-06-15 12:34:56 a\n");
  const ProcessResult document = folder.run({"list", "--json", archive});
  EXPECT_EQ(0, document.exitStatus) << document.errors;
  EXPECT_NE(std::string::npos, document.output.find("{\"name\":\"\",\"type\":\"file\",\"size\":1,"))
      << document.output;
}

TEST(ToolList, AnEmptyArchiveOfAnyProgramIsEmptyAndWhole) {
  const ArchiveFolder folder;
  fs::create_directory(folder / "tree");
  expectDone(folder.run({"create", "own.zip", "tree"}));
  folder.archive(endRecordBytes(), "other.zip");
  for (const std::string archive : {"own.zip", "other.zip"}) {
    SCOPED_TRACE(archive);
    expectDone(folder.run({"list", archive}));
    expectDone(folder.run({"extract", "-C", "out", archive}));
    EXPECT_EQ(Items{}, folder.items("out"));
    expectDone(folder.run({"verify", archive}), "0 entries, 0 bytes: all right\n");
  }
}

TEST(ToolList, TensOfThousandsOfNamesComeInBlocksAndWhole) {
  const ArchiveFolder folder;
  std::string bytes;
  std::string expected;
  for (int i = 100000; i < 130000; ++i) {
    const std::string name = "name-" + std::to_string(i);
    bytes += plainRecord(name, "").bytes();
    expected += name + "\n";
  }
  const ProcessResult result = folder.run({"list", folder.archive(bytes + endRecordBytes())});
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ("", result.errors);
  EXPECT_TRUE(expected == result.output);
}

// ---- cat ----

TEST(ToolCat, WritesAnEntrysBytesAndNothingElse) {
  const ArchiveFolder folder;
  const std::string large = patternBytes(3 * 1048576 + 1);
  const std::string archive =
      folder.archive({plainRecord("a", "text\n"), plainRecord("dir/large", large), plainRecord("empty", ""),
                      plainRecord("bad\xFF", "raw"), plainRecord("a", "later")});
  expectDone(folder.run({"cat", archive, "a"}), "later");
  expectDone(folder.run({"cat", archive, "empty"}));
  expectDone(folder.run({"cat", archive, "bad\xFF"}), "raw");
  const ProcessResult result = folder.run({"cat", archive, "dir/large"});
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ("", result.errors);
  expectSameBytes(large, result.output);
}

TEST(ToolCat, AFolderIsAnErrorThatSaysWhoGivesIt) {
  const ArchiveFolder folder;
  const std::string archive = folder.archive({plainRecord("dir/a", "text"), folderRecord("made/")});
  const std::string extractGives = " is a folder (kqzip extract gives it with all below it)";
  for (const std::string name : {"dir", "dir/", "made"})
    expectFailed(folder.run({"cat", archive, name}), "a.zip: \"" + name + "\"" + extractGives);
  expectFailed(folder.run({"cat", archive, "di"}), "a.zip: \"di\" is not in the archive" + listShows);
}

TEST(ToolCat, ANameThatIsNotThereIsAnError) {
  const ArchiveFolder folder;
  const std::string archive = folder.archive({plainRecord("dir/a", "text")});
  expectFailed(folder.run({"cat", archive, "a"}), "a.zip: \"a\" is not in the archive" + listShows);
  expectFailed(folder.run({"cat", archive, ""}), "a.zip: \"\" is not in the archive" + listShows);
  expectFailed(folder.run({"cat", archive, "dir/\n"}),
               "a.zip: \"dir/\\x0A\" is not in the archive" + listShows);
}

// ---- extract ----

TEST(ToolExtract, GivesATreeBackAsItWas) {
  const ArchiveFolder folder;
  const std::vector<std::pair<std::string, std::string>> files{
      {"empty", ""},
      {"one", "1"},
      {"a/b/c/deep", "deep"},
      {"a/1MiB", patternBytes(1048576)},
      {"a/more", patternBytes(3 * 1048576 + 1)},
      {"gro\xC3\x9F/u\xCC\x88/\xE6\x97\xA5\xE6\x9C\xAC", "names"},
      {"back\\slash and 'quotes' \"too\"", "odd"},
      {"line\nend", "odder"}};
  std::int64_t date = 1000000000;
  for (const auto& [name, contents] : files) {
    writeFile(folder / ("tree/" + name), contents);
    setModificationDate(folder / ("tree/" + name), date += 86400);
  }
  expectDone(folder.run({"create", "a.zip", "tree"}));
  expectDone(folder.run({"verify", "-q", "a.zip"}));

  expectDone(folder.run({"extract", "-C", "new/folders", "a.zip"}));

  EXPECT_EQ(folder.items("tree"), folder.items("new/folders"));
  for (const auto& [name, contents] : files) {
    EXPECT_EQ(modificationDate(folder / ("tree/" + name)), modificationDate(folder / ("new/folders/" + name)))
        << name;
  }
}

TEST(ToolExtract, GoesToTheCurrentFolderUnlessTold) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a", "text")});
  fs::create_directory(folder / "here");
  expectDone(runTool({"extract", "../a.zip"}, folder / "here"));
  EXPECT_EQ(Items{"a=text"}, folder.items("here"));
  fs::create_directory(folder / "[there]");
  expectDone(folder.run({"extract", "a.zip", "--directory", "[there]"}));
  EXPECT_EQ(Items{"a=text"}, folder.items("[there]"));
}

TEST(ToolExtract, ANameWithASlashAtItsEndIsAFolderAndAnEmptyFileAFile) {
  const ArchiveFolder folder;
  const std::string archive =
      folder.archive({folderRecord("full/"), plainRecord("full/a", "text"), folderRecord("bare/"),
                      plainRecord("file", ""), folderRecord("./")});
  expectDone(folder.run({"extract", "-C", "out", archive}));
  EXPECT_EQ((Items{"bare/", "file=", "full/", "full/a=text"}), folder.items("out"));
  // Set behind the folder's contents, which would change it.
  for (const std::string path : {"out", "out/full", "out/full/a", "out/bare", "out/file"})
    EXPECT_EQ(recordDate, modificationDate(folder / path)) << path;
}

TEST(ToolExtract, ReplacesFilesAndNotWhatTheirOtherNamesShow) {
  const ArchiveFolder folder;
  writeFile(folder / "other", "longer than what replaces it");
  fs::create_directory(folder / "out");
  fs::create_hard_link(folder / "other", folder / "out/a");
  writeFile(folder / "out/closed", "old");
  fs::permissions(folder / "out/closed", fs::perms::owner_read);
  writeFile(folder / "out/stays", "stays");
  folder.archive({plainRecord("a", "new"), plainRecord("closed", "")});

  expectDone(folder.run({"extract", "-C", "out", "a.zip"}));

  EXPECT_EQ((Items{"a=new", "closed=", "stays=stays"}), folder.items("out"));
  EXPECT_EQ("longer than what replaces it", readFile(folder / "other"));
}

TEST(ToolExtract, OfSeveralEntriesWithOneTargetTheLastCounts) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a", "1"), plainRecord("b//c", "old"), plainRecord("a", "2"),
                  plainRecord("A", "3"), plainRecord("./b/c", "new")});
  expectDone(folder.run({"extract", "-C", "out", "a.zip"}));
  EXPECT_EQ((Items{"A=3", "a=2", "b/", "b/c=new"}), folder.items("out"));
}

TEST(ToolExtract, TakesOnlyThePathsAskedFor) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("dir/a", "1"), plainRecord("dir/sub/b", "2"), folderRecord("dir/empty/"),
                  plainRecord("directory", "3"), plainRecord("[x,y]", "4")});
  const auto extracted = [&](const std::vector<std::string>& paths) {
    fs::remove_all(folder / "out");
    std::vector<std::string> arguments{"extract", "-C", "out", "a.zip"};
    arguments.insert(arguments.end(), paths.begin(), paths.end());
    expectDone(folder.run(arguments));
    return folder.items("out");
  };
  EXPECT_EQ((Items{"dir/", "dir/a=1"}), extracted({"dir/a"}));
  const Items wholeFolder{"dir/", "dir/a=1", "dir/empty/", "dir/sub/", "dir/sub/b=2"};
  EXPECT_EQ(wholeFolder, extracted({"dir"}));
  EXPECT_EQ(wholeFolder, extracted({"dir/"}));
  EXPECT_EQ((Items{"dir/", "dir/sub/", "dir/sub/b=2", "directory=3"}), extracted({"directory", "dir/sub/"}));
  EXPECT_EQ((Items{"dir/", "dir/empty/"}), extracted({"dir/empty"}));
  EXPECT_EQ(Items{"[x,y]=4"}, extracted({"[x,y]"}));
}

TEST(ToolExtract, APathThatIsNotInTheArchiveIsAnErrorBeforeAnythingIsWritten) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a", "1"), plainRecord("dir/b", "2")});
  for (const std::string path : {"missing", "a/", "di", "dir/b/", "/a", "", "A"}) {
    expectFailed(folder.run({"extract", "-C", "out", "a.zip", "a", path}),
                 "a.zip: \"" + path + "\" is not in the archive" + listShows);
    EXPECT_EQ(nothing, folder.items("out"));
  }
}

TEST(ToolExtract, ANameThatWouldLeaveTheFolderIsRefusedBeforeAnythingIsWritten) {
  const ArchiveFolder folder;
  const std::vector<std::pair<std::string, std::string>> hostile{{"../out2/x", "has a \"..\" component"},
                                                                 {"a/../../x", "has a \"..\" component"},
                                                                 {"a/..", "has a \"..\" component"},
                                                                 {"..", "has a \"..\" component"},
                                                                 {"../", "has a \"..\" component"},
                                                                 {"/tmp/x", "is absolute"},
                                                                 {"//x", "is absolute"},
                                                                 {"/", "is absolute"},
                                                                 {"", "is empty"}};
  for (const auto& [name, why] : hostile) {
    SCOPED_TRACE(name);
    folder.archive({plainRecord("good", "1"), plainRecord(name, "2"), plainRecord("also good", "3")});
    const std::string message =
        "unsafe name \"" + name + "\": it " + why + " (--unsafe-paths takes names as they stand)";
    expectFailed(folder.run({"extract", "-C", "out", "a.zip"}), message);
    // The archive is refused, whatever is asked for.
    expectFailed(folder.run({"extract", "-C", "out", "a.zip", "good"}), message);
    EXPECT_EQ(nothing, folder.items("out"));
  }
}

TEST(ToolExtract, NamesThatOnlyLookLikeLeavingAreTaken) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("..a", "1"), plainRecord("a..", "2"), plainRecord(".../x", "3"),
                  plainRecord("./c", "4"), plainRecord(".hidden", "5"), plainRecord("a\\..\\b", "6")});
  expectDone(folder.run({"extract", "-C", "out", "a.zip"}));
  EXPECT_EQ((Items{".../", ".../x=3", "..a=1", ".hidden=5", "a..=2", "a\\..\\b=6", "c=4"}),
            folder.items("out"));
}

TEST(ToolExtract, ANulInANameIsRefusedEvenWithUnsafePaths) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("good", "1"), plainRecord(std::string("a\0b", 3), "2")});
  const std::string message = "unsafe name \"a\\x00b\": it has a NUL (kqzip cat gives the other entries)";
  expectFailed(folder.run({"extract", "-C", "out", "a.zip"}), message);
  expectFailed(folder.run({"extract", "-C", "out", "--unsafe-paths", "a.zip"}), message);
  EXPECT_EQ(nothing, folder.items("out"));
}

TEST(ToolExtract, UnsafePathsTakesNamesAsTheyStand) {
  const ArchiveFolder folder;
  folder.archive(
      {plainRecord("../beside", "1"), plainRecord("a/../../above", "2"), plainRecord("/abs/x", "3")});
  expectDone(folder.run({"extract", "-C", "deep/out", "--unsafe-paths", "a.zip"}));
  EXPECT_EQ((Items{"above=2", "beside=1", "out/", "out/a/", "out/abs/", "out/abs/x=3"}),
            folder.items("deep"));
}

// What is said of an entry that a link stands in the way of.
static std::string notThroughLink(const std::string& name) {
  return "a.zip: \"" + name + "\" cannot be unpacked: out/link is reached through a symbolic link" + moveAway;
}

TEST(ToolExtract, DoesNotWriteThroughALinkThatLeadsOut) {
  const ArchiveFolder folder;
  fs::create_directories(folder / "outside");
  writeFile(folder / "outside/file", "untouched");
  const std::vector<std::pair<std::string, std::string>> ways{
      {"link/new", "../outside"},        // a folder above the entry
      {"link/deep/new", "../outside"},   // and one above that
      {"link/", "../outside"},           // a folder
      {"link/new", "../out/../outside"}  // by a detour through the folder
  };
  for (const auto& [name, target] : ways) {
    SCOPED_TRACE(name + " -> " + target);
    fs::remove_all(folder / "out");
    fs::create_directory(folder / "out");
    fs::create_symlink(target, folder / "out/link");
    folder.archive({plainRecord(name, name.back() == '/' ? "" : "hostile")});
    expectFailed(folder.run({"extract", "-C", "out", "a.zip"}), notThroughLink(name));
    EXPECT_EQ(Items{"link->" + target}, folder.items("out"));
    EXPECT_EQ(Items{"file=untouched"}, folder.items("outside"));
  }
}

TEST(ToolExtract, ReplacesALinkInAFilesOwnPlaceAndNotWhatItLeadsTo) {
  const ArchiveFolder folder;
  writeFile(folder / "outside/file", "untouched");
  folder.archive({plainRecord("link", "new")});
  for (const std::string target : {"../outside/file", "../outside/new", "nowhere"}) {
    fs::remove_all(folder / "out");
    fs::create_directory(folder / "out");
    fs::create_symlink(target, folder / "out/link");
    expectDone(folder.run({"extract", "-C", "out", "a.zip"}));
    EXPECT_EQ(Items{"link=new"}, folder.items("out"));
    EXPECT_EQ(Items{"file=untouched"}, folder.items("outside"));
  }
}

TEST(ToolExtract, AFolderWhoseNameOnlyBeginsLikeTheDestinationsIsOutside) {
  const ArchiveFolder folder;
  fs::create_directories(folder / "out");
  fs::create_directories(folder / "outside");
  fs::create_symlink("../outside", folder / "out/link");
  folder.archive({plainRecord("link/a", "hostile")});
  expectFailed(folder.run({"extract", "-C", "out", "a.zip"}), notThroughLink("link/a"));
  EXPECT_EQ(Items{}, folder.items("outside"));
}

TEST(ToolExtract, FollowsNoLinkThatIsThereEvenOneThatStaysInside) {
  const ArchiveFolder folder;
  fs::create_directories(folder / "out/real");
  fs::create_directory_symlink("real", folder / "out/link");
  writeFile(folder / "out/file", "old");
  fs::create_symlink("file", folder / "out/alias");
  folder.archive({plainRecord("link/a", "1"), plainRecord("alias", "new")});
  expectFailed(folder.run({"extract", "-C", "out", "a.zip"}), notThroughLink("link/a"));
  EXPECT_EQ((Items{"alias=new", "file=old", "link->real", "real/"}), folder.items("out"));
  expectDone(folder.run({"extract", "-C", "out", "--unsafe-paths", "a.zip"}));
  EXPECT_EQ((Items{"alias=new", "file=old", "link->real", "real/", "real/a=1"}), folder.items("out"));
}

TEST(ToolExtract, TheDestinationItselfMayBeALink) {
  const ArchiveFolder folder;
  fs::create_directories(folder / "real");
  fs::create_directory_symlink("real", folder / "out");
  folder.archive({plainRecord("dir/a", "1")});
  expectDone(folder.run({"extract", "-C", "out", "a.zip"}));
  EXPECT_EQ((Items{"dir/", "dir/a=1"}), folder.items("real"));
}

TEST(ToolExtract, UnsafePathsFollowsLinksToFoldersAndReplacesOthers) {
  const ArchiveFolder folder;
  fs::create_directories(folder / "outside");
  fs::create_directories(folder / "out");
  writeFile(folder / "outside/file", "old");
  fs::create_directory_symlink("../outside", folder / "out/link");
  fs::create_symlink("../outside/file", folder / "out/alias");
  folder.archive({plainRecord("link/new", "1"), plainRecord("alias", "2")});
  expectDone(folder.run({"extract", "-C", "out", "--unsafe-paths", "a.zip"}));
  EXPECT_EQ((Items{"file=old", "new=1"}), folder.items("outside"));
  EXPECT_EQ((Items{"alias=2", "link->../outside"}), folder.items("out"));
}

TEST(ToolExtract, AFileWhereAFolderIsNeededIsNamedAndTheRestGivenBack) {
  const ArchiveFolder folder;
  const std::vector<std::tuple<std::vector<LocalRecord>, std::string, Items>> collisions{
      {{plainRecord("a", "1"), plainRecord("a/b", "2")}, "a", {"a/", "a/b=2"}},
      {{plainRecord("a/b/c", "1"), plainRecord("./a", "")}, "./a", {"a/", "a/b/", "a/b/c=1"}},
      {{folderRecord("a/"), plainRecord("a", "1")}, "a", {"a/"}},
      {{plainRecord("a", ""), folderRecord("a/")}, "a", {"a/"}}};
  for (const auto& [records, name, items] : collisions) {
    fs::remove_all(folder / "out");
    folder.archive(records);
    expectFailed(
        folder.run({"extract", "-C", "out", "a.zip"}),
        "a.zip: \"" + name + "\" is a file where other entries need a folder (kqzip cat gives its data)");
    EXPECT_EQ(items, folder.items("out"));
  }
}

TEST(ToolExtract, WhatStandsInTheWayIsAnError) {
  const ArchiveFolder folder;
  writeFile(folder / "out/file", "in the way");
  fs::create_directories(folder / "out/folder");
  ASSERT_EQ(0, mkfifo((folder / "out/fifo").c_str(), 0600));

  const std::vector<std::pair<std::string, std::string>> refused{
      {"file/a", std::string("out/file: ") + std::strerror(ENOTDIR)},
      {"file/", std::string("out/file: ") + std::strerror(ENOTDIR)},
      {"folder", std::string("out/folder: ") + std::strerror(EISDIR)},
      {"fifo", "out/fifo is in the way and is not a regular file"}};
  for (const auto& [name, message] : refused) {
    folder.archive({plainRecord(name, name.back() == '/' ? "" : "1")});
    expectFailed(folder.run({"extract", "-C", "out", "a.zip"}),
                 "a.zip: \"" + name + "\" cannot be unpacked: " + message + moveAway);
  }
  folder.archive({plainRecord("a", "1")});
  expectFailed(folder.run({"extract", "-C", "out/file", "a.zip"}),
               std::string("out/file: ") + std::strerror(ENOTDIR) + " (choose another folder with -C)");
  EXPECT_EQ("in the way", readFile(folder / "out/file"));
}

TEST(ToolExtract, AFullDiskIsAnErrorThatLeavesNoPartialFile) {
  const ArchiveFolder folder;
  folder.archive(
      {plainRecord("a", "whole"), plainRecord("large", patternBytes(300000)), plainRecord("z", "whole too")});
  inChildProcess([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{100000, 100000};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    expectFailed(folder.run({"extract", "-C", "out", "a.zip"}),
                 std::string("a.zip: \"large\" cannot be unpacked: out/large: ") + std::strerror(EFBIG) +
                     " (check that there is room for it)");
  });
  EXPECT_EQ((Items{"a=whole", "z=whole too"}), folder.items("out"));
}

TEST(ToolExtract, EntriesThatCannotBeExtractedAreNamedAndTheRestIsGivenBack) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("bad\xFF", "1"), plainRecord("good", "2"), plainRecord("folder/", "data"),
                  withFlags(plainRecord("secret", "3"), 1), plainRecord("last", "4")});
  // A name that is no UTF-8 is one of code page 437.
  const Items rest{"bad\xC2\xA0=1", "good=2", "last=4"};
  expectFailed(
      folder.run({"extract", "-C", "out", "a.zip"}),
      "a.zip: \"folder/\" is a folder, but has data (and 1 more left out; kqzip cat gives its data)");
  EXPECT_EQ(rest, folder.items("out"));
  expectFailed(folder.run({"extract", "-C", "out", "a.zip", "secret"}),
               "a.zip: \"secret\" is encrypted" + otherProgram);
  expectFailed(folder.run({"extract", "-C", "out", "a.zip", "folder"}),
               "a.zip: \"folder/\" is a folder, but has data (kqzip cat gives its data)");
  expectDone(folder.run({"extract", "-C", "out", "a.zip", "good"}));
  EXPECT_EQ(rest, folder.items("out"));
}

TEST(ToolExtract, WhatDoesNotMatchItsCRCIsNamedAndLeftOutOrKept) {
  const ArchiveFolder folder;
  std::string bytes =
      archiveBytes({plainRecord("a", "good"), plainRecord("b", "some data"), plainRecord("c", "3")});
  bytes.replace(bytes.find("some data"), 9, "same data");
  folder.archive(bytes);
  const std::string start = "a.zip: \"b\" CRC-32 is ";
  for (const std::string threads : {"1", "2"}) {
    fs::remove_all(folder / "out");
    const ProcessResult result = folder.run({"extract", "-j", threads, "-C", "out", "a.zip"});
    EXPECT_EQ(1, result.exitStatus);
    EXPECT_EQ("kqzip: " + start, result.errors.substr(0, 7 + start.size()));
    EXPECT_EQ((Items{"a=good", "c=3"}), folder.items("out"));
  }
  EXPECT_EQ(1, folder.run({"extract", "--keep-damaged", "-C", "out", "a.zip"}).exitStatus);
  EXPECT_EQ((Items{"a=good", "b=same data", "c=3"}), folder.items("out"));
  const ProcessResult cat = folder.run({"cat", "a.zip", "b"});
  EXPECT_EQ(1, cat.exitStatus);
  EXPECT_EQ("same data", cat.output);
}

TEST(ToolExtract, TreatsFilesThatAreThereAsItIsTold) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a", "new"), plainRecord("b", "2")});
  const auto after = [&](const std::vector<std::string>& options, int status) {
    fs::remove_all(folder / "out");
    writeFile(folder / "out/a", "old");
    std::vector<std::string> arguments{"extract", "-C", "out", "a.zip"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    EXPECT_EQ(status, folder.run(arguments).exitStatus);
    return folder.items("out");
  };
  EXPECT_EQ((Items{"a=new", "b=2"}), after({}, 0));
  EXPECT_EQ((Items{"a=new", "b=2"}), after({"--existing", "replace"}, 0));
  EXPECT_EQ((Items{"a=old", "b=2"}), after({"--existing", "keep"}, 0));
  EXPECT_EQ((Items{"a=old", "b=2"}), after({"-n"}, 0));
  EXPECT_EQ((Items{"a=old", "b=2"}), after({"--existing", "newer"}, 0));
  EXPECT_EQ((Items{"a=old", "b=2"}), after({"--existing", "fail"}, 1));
  EXPECT_EQ((Items{"a=old"}), after({"--existing", "never"}, 2));
}

TEST(ToolExtract, ChoosesByPatternsAndTakesPartsOffNames) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("v1/a.txt", "1"), plainRecord("v1/d/b.txt", "2"),
                  plainRecord("v1/d/c.bin", "3"), plainRecord("top", "4")});
  expectDone(folder.run({"extract", "--strip-components", "1", "-x", "*/d/b*", "-C", "out", "a.zip"}));
  EXPECT_EQ((Items{"a.txt=1", "d/", "d/c.bin=3"}), folder.items("out"));
  expectDone(folder.run({"extract", "-C", "some", "a.zip", "*.txt", "t?p"}));
  EXPECT_EQ((Items{"top=4", "v1/", "v1/a.txt=1", "v1/d/", "v1/d/b.txt=2"}), folder.items("some"));
}

TEST(ToolExtract, PrintsALineForEachEntryIfAskedAndInADryRunDoesNothingElse) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a\nb", "1"), folderRecord("d/"), plainRecord("d/c", "2")});
  expectDone(folder.run({"extract", "--dry-run", "-C", "out", "a.zip"}), "a\\x0Ab\nd/\nd/c\n");
  EXPECT_EQ(nothing, folder.items("out"));
  expectDone(folder.run({"extract", "-v", "-C", "out", "a.zip", "d/c"}), "d/c\n");
  EXPECT_EQ((Items{"d/", "d/c=2"}), folder.items("out"));
  expectDone(folder.run({"extract", "-nv", "-C", "out", "a.zip", "d/c"}), "d/c (kept)\n");
}

TEST(ToolExtract, TakesStandardInputFromAFileAndFromAPipe) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a", "1"), plainRecord("d/b", "2")});
  const std::string tool = KQZIP_TOOL;
  for (const std::string& command : std::vector<std::string>{tool + " extract -C out - < a.zip",
                                                             "cat a.zip | " + tool + " extract -C out -"}) {
    fs::remove_all(folder / "out");
    expectDone(runProcess({"/bin/sh", "-c", command}, folder / ""));
    EXPECT_EQ((Items{"a=1", "d/", "d/b=2"}), folder.items("out"));
  }
  expectDone(runProcess({"/bin/sh", "-c", "cat a.zip | " + tool + " cat - d/b"}, folder / ""), "2");
  // Without its end, what is whole is given back.
  const auto cut =
      runProcess({"/bin/sh", "-c", "head -c 70 a.zip | " + tool + " extract -C cut -"}, folder / "");
  EXPECT_EQ(1, cut.exitStatus);
  EXPECT_EQ((Items{"a=1", "d/", "d/b=2"}), folder.items("cut"));
}

TEST(ToolExtract, NeverReplacesTheArchiveItself) {
  const ArchiveFolder folder;
  const std::string bytes = archiveBytes({plainRecord("a.zip", "no archive"), plainRecord("b", "2")});
  folder.archive(bytes);
  expectFailed(folder.run({"extract", "a.zip"}),
               "a.zip: \"a.zip\" cannot be unpacked: ./a.zip is the archive itself" + moveAway);
  EXPECT_EQ(bytes, readFile(folder / "a.zip"));
  EXPECT_EQ("2", readFile(folder / "b"));
}

TEST(ToolExtract, ANameOfEveryLengthIsTakenOrRefusedByTheSystem) {
  const ArchiveFolder folder;
  folder.archive({plainRecord(std::string(255, 'n'), "1")});
  expectDone(folder.run({"extract", "-C", "out", "a.zip"}));
  EXPECT_EQ(Items{std::string(255, 'n') + "=1"}, folder.items("out"));

  const std::string longest(65535, 'n');
  folder.archive({plainRecord(longest, "1")});
  expectDone(folder.run({"list", "a.zip"}), longest + "\n");
  expectFailed(
      folder.run({"extract", "-C", "out", "a.zip"}),
      "a.zip: \"" + longest + "\" has a name that is too long for a path (kqzip cat gives its data)");
}

// ---- verify ----

TEST(ToolVerify, SaysThatAWholeArchiveIsAllRight) {
  const ArchiveFolder folder;
  folder.archive(
      {plainRecord("a", "12345"), zip64Record("b", std::string(2000000, 'b'), 36), plainRecord("a", "")});
  // The extra field of the second record is not in its central header; only what both say is compared.
  expectDone(folder.run({"verify", "a.zip"}), "3 entries, 2000005 bytes: all right\n");
  expectDone(folder.run({"verify", "-q", "a.zip"}));
  expectDone(folder.run({"verify", "--quiet", "a.zip"}));
  folder.archive({plainRecord("a", "1")});
  expectDone(folder.run({"verify", "a.zip"}), "1 entry, 1 byte: all right\n");
}

TEST(ToolVerify, FindsEveryFlippedBitOfEveryEntrysData) {
  const ArchiveFolder folder;
  const std::vector<std::pair<std::string, std::string>> entries{{"a", "0123"}, {"b/\xC3\xBC", "\xFF"}};
  const std::string honest = archiveBytes({plainRecord("a", "0123"), plainRecord("b/\xC3\xBC", "\xFF")});
  std::size_t dataAt = 0;
  for (const auto& [name, data] : entries) {
    dataAt += 30 + name.size();
    for (std::size_t byte = 0; byte < data.size(); ++byte) {
      for (int bit = 0; bit < 8; ++bit) {
        std::string flipped = honest;
        flipped[dataAt + byte] = static_cast<char>(flipped[dataAt + byte] ^ (1 << bit));
        const std::string crc = hexOf(crcOf(flipped.substr(dataAt, data.size())));
        expectFailed(folder.run({"verify", "-q", folder.archive(flipped)}), problemsFound(1),
                     name + ": CRC-32 is " + crc + ", header says " + hexOf(crcOf(data)) + "\n");
      }
    }
    dataAt += data.size();
  }
}

TEST(ToolVerify, TellsOfEachOfSeveralWrongEntriesInTheArchivesOrder) {
  const ArchiveFolder folder;
  std::string bytes = archiveBytes({plainRecord("same", "x1"), plainRecord("odd\n", "x2"),
                                    plainRecord("fine", "3"), plainRecord("same", "x4")});
  for (std::size_t at = bytes.find('x'); at != std::string::npos; at = bytes.find('x', at)) bytes[at] = 'X';
  folder.archive(bytes);
  const auto line = [](const std::string& name, const std::string& data, const std::string& was) {
    return name + ": CRC-32 is " + hexOf(crcOf(data)) + ", header says " + hexOf(crcOf(was));
  };
  expectFailed(folder.run({"verify", "a.zip"}), problemsFound(3),
               lines({line("same", "X1", "x1"), line("odd\\x0A", "X2", "x2"), line("same", "X4", "x4")}));
}

TEST(ToolVerify, ComparesTheEntriesWithTheCentralDirectory) {
  const ArchiveFolder folder;
  const LocalRecord a = plainRecord("a", "one");
  const LocalRecord b = plainRecord("b", "two");
  const auto offset = static_cast<std::uint32_t>(a.bytes().size());
  const auto expectProblems = [&](const std::string& centrals, const std::vector<std::string>& problems) {
    folder.archive(a.bytes() + b.bytes() + centrals + endRecordBytes());
    expectFailed(folder.run({"verify", "a.zip"}), problemsFound(problems.size()), lines(problems));
  };
  const std::string ofA = centralHeaderBytes(a, 0);
  const std::string ofB = centralHeaderBytes(b, offset);

  expectProblems(ofA, {"b: is not in the central directory"});
  expectProblems("", {"a: is not in the central directory", "b: is not in the central directory"});
  expectProblems(ofA + ofB + ofB, {"b: is in the central directory with offset 34, where it has no entry"});
  expectProblems(ofA + centralHeaderBytes(b, offset + 1),
                 {"b: is in the central directory with offset 35, where it has no entry",
                  "b: is not in the central directory"});
  expectProblems(centralHeaderBytes(plainRecord("A", "one"), 0) + ofB,
                 {"a: has the name \"A\" in the central directory"});
  LocalRecord otherSize = plainRecord("a", "one");
  otherSize.data += "!";
  expectProblems(ofB + centralHeaderBytes(otherSize, 0),
                 {"a: CRC-32 is " + hexOf(crcOf("one!")) + " in the central directory, header says " +
                      hexOf(crcOf("one")),
                  "a: size is 4 in the central directory, header says 3"});
}

TEST(ToolVerify, TakesFromTheZip64FieldOnlyTheValuesThatAreSaturated) {
  const ArchiveFolder folder;
  const LocalRecord a = plainRecord("a", "one");
  const LocalRecord b = plainRecord("b", "two");
  // Only the offset is in the field, as other programs write it.
  const std::string field = extraFieldBytes(1, Bytes().u64(a.bytes().size()));
  std::string ofB = centralHeaderBytes(b, 0xFFFFFFFF) + field;
  ofB[30] = static_cast<char>(field.size());
  folder.archive(a.bytes() + b.bytes() + centralHeaderBytes(a) + ofB + endRecordBytes());
  expectDone(folder.run({"verify", "a.zip"}), "2 entries, 6 bytes: all right\n");
}

TEST(ToolVerify, ComparesTheLengthInTheHeader) {
  const ArchiveFolder folder;
  LocalRecord record = plainRecord("a", "12345");
  record.size = 0xFFFFFFFF;
  record.extra = zip64FieldBytes(6, 5);
  folder.archive({record});
  expectFailed(folder.run({"verify", "a.zip"}), problemsFound(1), "a: has 5 bytes, header says 6\n");
}

TEST(ToolVerify, TellsOfBytesBehindTheEnd) {
  const ArchiveFolder folder;
  const std::string whole = archiveBytes({plainRecord("a", "1")});
  const std::string tail =
      "unknown bytes behind the end of the archive, from offset " + std::to_string(whole.size()) + "\n";
  for (const std::string& appended :
       {std::string("x"), std::string(100, '\0'), plainRecord("b", "2").bytes(), whole}) {
    folder.archive(whole + appended);
    expectFailed(folder.run({"verify", "a.zip"}), problemsFound(1), tail);
    // All that is this archive's is whole.
    expectDone(folder.run({"list", "a.zip"}), "a\n");
    expectDone(folder.run({"cat", "a.zip", "a"}), "1");
  }
}

TEST(ToolVerify, AnEncryptedEntryCannotBeVerified) {
  const ArchiveFolder folder;
  folder.archive({withFlags(plainRecord("secret", "1"), 1), plainRecord("b", "2")});
  expectFailed(folder.run({"verify", "a.zip"}), "a.zip: 1 problem found" + otherProgram,
               "secret: is encrypted\n");
  expectFailed(folder.run({"cat", "a.zip", "secret"}),
               "a.zip: secret is not given back: is encrypted" + otherProgram);
  expectDone(folder.run({"list", "a.zip"}), "b\nsecret\n");
}

// ---- what is no archive ----

TEST(ToolRead, AnArchiveThatCannotBeOpenedIsAnErrorOfEveryCommand) {
  const ArchiveFolder folder;
  fs::create_directory(folder / "folder");
  ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
  writeFile(folder / "file", "");
  writeFile(folder / "bad\xFF", "");
  const std::vector<std::pair<std::string, std::string>> archives{
      {"missing", "missing" + reason(ENOENT)},
      {"file/a.zip", "file/a.zip" + reason(ENOTDIR)},
      {"folder", std::string("folder: ") + std::strerror(EISDIR) + " (kqzip create packs a folder)"},
      {"fifo", "\"fifo\" is not a regular file (copy it to one)"},
      {"bad\xFF", "bad\\xFF" + reason(EILSEQ)},
      {"missing\xFF", "missing\\xFF" + reason(ENOENT)},
      {"", "the archive's name is empty (give the path of an archive)"}};
  for (const auto& [archive, message] : archives) {
    SCOPED_TRACE(archive);
    expectFailed(folder.run({"list", archive}), message);
    expectFailed(folder.run({"extract", "-C", "out", archive}), message);
    expectFailed(folder.run({"cat", archive, "a"}), message);
    expectFailed(folder.run({"verify", archive}), message);
    EXPECT_EQ(nothing, folder.items("out"));
  }
}

TEST(ToolRead, AnArchiveThatMayNotBeReadIsAnError) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a", "1")});
  fs::permissions(folder / "", fs::perms::all);
  fs::permissions(folder / "a.zip", fs::perms::none);
  fs::copy_file(KQZIP_TOOL, folder / "kqzip");
  fs::permissions(folder / "kqzip", fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
  inUnprivilegedChildProcess([&] {
    const std::string archive = folder / "a.zip";
    expectFailed(runProcess({folder / "kqzip", "list", archive}), archive + reason(EACCES));
  });
}

TEST(ToolRead, WhatDoesNotBeginWithARecordIsAClearError) {
  const ArchiveFolder folder;
  folder.archive("%PDF-1.7 and more");
  expectFailed(folder.run({"list", "a.zip"}),
               "a.zip: this is no archive, or something stands in front of it: unknown signature 46445025 at "
               "offset 0 (check that it is the right file)");
  folder.archive("#!/bin/sh\n" + archiveBytes({plainRecord("a", "1")}));
  expectDone(folder.run({"extract", "-C", "out", "a.zip"}));
  EXPECT_EQ(Items{"a=1"}, folder.items("out"));
}

TEST(ToolRead, AFileThatIsEmptyOrTooShortToBeAnArchiveSaysSo) {
  const ArchiveFolder folder;
  const std::string check = " (check that it is the right file)";
  for (const auto& [bytes, text] : std::vector<std::pair<std::string, std::string>>{
           {"", "the file is empty"}, {"hi\n", "the archive ends early, at offset 3"}}) {
    folder.archive(bytes);
    expectFailed(folder.run({"list", "a.zip"}), "a.zip: " + text + check);
    expectFailed(folder.run({"extract", "a.zip"}), "a.zip is no archive" + check);
    expectFailed(folder.run({"cat", "a.zip", "a"}), "a.zip is no archive" + check);
    expectFailed(folder.run({"verify", "a.zip"}), "a.zip: 1 problem found" + check, text + "\n");
  }
}

TEST(ToolVerify, PromisesNothingFromAnArchiveWithoutAWholeEntry) {
  const ArchiveFolder folder;
  folder.archive(plainRecord("a", "12345").bytes().substr(0, 33));
  expectFailed(folder.run({"verify", "a.zip"}),
               "a.zip: 1 problem found (no entry can be read back, get the archive again)",
               "a: ends after 2 of 5 bytes\n");
}

TEST(ToolRead, ACompressedEntryIsNamedAndTheOthersAreGivenBack) {
  const ArchiveFolder folder;
  LocalRecord compressed = plainRecord("dir/deflated", "\x4B\x04");
  compressed.compression = 8;
  folder.archive({plainRecord("a", "1"), compressed, plainRecord("z", "2")});
  const std::string message =
      "a.zip: \"dir/deflated\" is compressed; only stored entries can be read" + otherProgram;
  expectFailed(folder.run({"list", "a.zip"}), message, "a\n");
  expectFailed(folder.run({"extract", "-C", "out", "a.zip"}), message);
  EXPECT_EQ((Items{"a=1", "z=2"}), folder.items("out"));
  expectDone(folder.run({"cat", "a.zip", "z"}), "2");
  expectFailed(folder.run({"verify", "a.zip"}), "a.zip: 1 problem found" + otherProgram,
               "dir/deflated: is compressed; only stored entries can be read\n");
}

TEST(ToolRead, AnEntryWhoseSizeStandsBehindItsDataIsNamed) {
  const ArchiveFolder folder;
  const std::string text = " has its size behind its data, in a data descriptor, which cannot be read";
  // Sizes 0 in the header, then data, then the descriptor.
  LocalRecord streamed = withFlags(plainRecord("streamed", "data"), 8);
  streamed.size = 0;
  folder.archive(plainRecord("a", "1").bytes() + streamed.bytes() + "PK\x07\x08" + std::string(12, '\0'));
  expectFailed(folder.run({"list", "a.zip"}), "a.zip: \"streamed\"" + text + otherProgram, "a\n");

  // Sizes in both places: the data can be told from what follows.
  const std::string descriptor = Bytes().u32(0x08074B50).u32(KQTest::crcOf("data")).u32(4).u32(4);
  folder.archive(withFlags(plainRecord("both", "data"), 8).bytes() + descriptor);
  expectFailed(folder.run({"list", "a.zip"}), "a.zip: \"both\"" + text + otherProgram, "both\n");
  expectDone(folder.run({"cat", "a.zip", "both"}), "data");

  // The flag alone does no harm.
  folder.archive({withFlags(plainRecord("flagged", "data"), 8), withFlags(plainRecord("empty", ""), 8)});
  expectDone(folder.run({"list", "a.zip"}), "empty\nflagged\n");
}

// ---- archives that are damaged ----

namespace {

struct CutEntry {
  std::string name;
  std::string data;
  std::size_t end;  ///< Bytes of the archive up to the end of the entry's data.
};

/// A small archive with an entry of each kind, and where its entries end. Its tail has either every record
/// that the library writes, or the end record alone.
struct CutArchive {
  std::string bytes;
  std::vector<CutEntry> entries;

  explicit CutArchive(bool hasWholeTail) {
    const std::vector<LocalRecord> records{zip64Record("z", "123"), plainRecord("d/e", ""),
                                           plainRecord("\xC3\xB8", "45")};
    std::string centrals;
    for (const LocalRecord& record : records) {
      centrals += centralHeaderBytes(record, static_cast<std::uint32_t>(bytes.size()));
      bytes += record.bytes();
      entries.push_back({record.name, record.data, bytes.size()});
    }
    bytes += hasWholeTail ? centrals + goldenEndRecords(records.size(), bytes.size(), centrals.size())
                          : endRecordBytes();
  }

  std::vector<CutEntry> wholeBefore(std::size_t cut) const {
    std::vector<CutEntry> whole;
    for (const CutEntry& entry : entries) {
      if (entry.end <= cut) whole.push_back(entry);
    }
    return whole;
  }
};

/// Calls `check` for the archive cut before each of its bytes, and whole.
void atEveryCut(bool hasWholeTail, const std::function<void(const ArchiveFolder&, const std::string&,
                                                            const CutArchive&, std::size_t)>& check) {
  const ArchiveFolder folder;
  const CutArchive archive(hasWholeTail);
  for (std::size_t cut = 0; cut <= archive.bytes.size(); ++cut) {
    SCOPED_TRACE("cut at byte " + std::to_string(cut));
    check(folder, folder.archive(archive.bytes.substr(0, cut)), archive, cut);
    if (testing::Test::HasFailure()) return;
  }
}

void expectStatusAtCut(const ProcessResult& result, const CutArchive& archive, std::size_t cut) {
  const bool isWhole = cut == archive.bytes.size();
  EXPECT_EQ(isWhole ? 0 : 1, result.exitStatus);
  EXPECT_EQ(isWhole ? 0 : 1, std::count(result.errors.begin(), result.errors.end(), '\n')) << result.errors;
}

}  // namespace

TEST(ToolCutArchive, ListsAtEveryCutTheEntriesThatAreWholeBeforeIt) {
  atEveryCut(true, [](const ArchiveFolder& folder, const std::string& path, const CutArchive& archive,
                      std::size_t cut) {
    std::vector<std::string> names;
    for (const CutEntry& entry : archive.wholeBefore(cut)) names.push_back(entry.name);
    std::sort(names.begin(), names.end());
    const ProcessResult result = folder.run({"list", path});
    EXPECT_EQ(lines(names), result.output);
    expectStatusAtCut(result, archive, cut);
  });
}

TEST(ToolCutArchive, ExtractsAtEveryCutTheEntriesThatAreWholeBeforeIt) {
  atEveryCut(true, [](const ArchiveFolder& folder, const std::string& path, const CutArchive& archive,
                      std::size_t cut) {
    Items expected;
    for (const CutEntry& entry : archive.wholeBefore(cut)) {
      if (entry.name == "d/e") expected.push_back("d/");
      expected.push_back(entry.name + "=" + entry.data);
    }
    std::sort(expected.begin(), expected.end());
    fs::remove_all(folder / "out");
    const ProcessResult result = folder.run({"extract", "-C", "out", path});
    // Where there is no record at all, not even the folder is made.
    EXPECT_EQ(expected.empty() && !fs::exists(folder / "out") ? nothing : expected, folder.items("out"));
    expectStatusAtCut(result, archive, cut);
  });
}

TEST(ToolCutArchive, CatsAtEveryCutTheEntryThatIsWholeBeforeIt) {
  atEveryCut(true, [](const ArchiveFolder& folder, const std::string& path, const CutArchive& archive,
                      std::size_t cut) {
    const CutEntry& last = archive.entries.back();
    const ProcessResult result = folder.run({"cat", path, last.name});
    if (cut >= last.end) {
      expectDone(result, last.data);
    } else {
      EXPECT_EQ(1, result.exitStatus);
      EXPECT_EQ("", result.output);
      const bool isNone = result.errors == "kqzip: a.zip is no archive (check that it is the right file)\n";
      const bool isNamed = result.errors.find(
                               "kqzip: a.zip: \"\xC3\xB8\" is not in the archive as far as it can "
                               "be read: ") == 0;
      EXPECT_TRUE(isNamed || (isNone && archive.wholeBefore(cut).empty())) << result.errors;
    }
  });
}

TEST(ToolCutArchive, VerifiesNoArchiveThatIsCut) {
  atEveryCut(true, [](const ArchiveFolder& folder, const std::string& path, const CutArchive& archive,
                      std::size_t cut) {
    const ProcessResult result = folder.run({"verify", path});
    expectStatusAtCut(result, archive, cut);
    EXPECT_EQ(1, std::count(result.output.begin(), result.output.end(), '\n')) << result.output;
  });
}

TEST(ToolCutArchive, SaysWhichEntryIsNotWhole) {
  const ArchiveFolder folder;
  const std::string bytes = plainRecord("a", "1").bytes() + zip64Record("dir/b", "12345").bytes();
  const std::size_t second = 32;
  const std::size_t name = second + 30;
  const std::size_t extra = name + 5;
  const std::size_t data = extra + 28;
  ASSERT_EQ(data + 5, bytes.size());
  const std::vector<std::pair<std::size_t, std::string>> cuts{
      {second, "the archive ends early, at offset 32"},
      {second + 2, "the archive ends early, at offset 34"},
      {second + 4, "the archive ends early, inside the header of an entry at offset 32"},
      {name, "the archive ends early, inside the header of an entry at offset 32"},
      {extra - 1, "the archive ends early, inside the header of an entry at offset 32"},
      {extra, "\"dir/b\" ends inside its header"},
      {data - 1, "\"dir/b\" ends inside its header"},
      {data, "\"dir/b\" ends after 0 of 5 bytes"},
      {data + 4, "\"dir/b\" ends after 4 of 5 bytes"},
      {data + 5, "the archive ends early, at offset 100"}};
  for (const auto& [cut, message] : cuts) {
    folder.archive(bytes.substr(0, cut));
    expectFailed(folder.run({"list", "a.zip"}), "a.zip: " + message + verifyTells,
                 cut == bytes.size() ? "a\ndir/b\n" : "a\n");
  }
  folder.archive(bytes.substr(0, data + 4));
  expectFailed(folder.run({"verify", "a.zip"}), problemsFound(1), "dir/b: ends after 4 of 5 bytes\n");
}

TEST(ToolCutArchive, ACutInTheCentralDirectoryIsSaidToBeThere) {
  const ArchiveFolder folder;
  const LocalRecord a = plainRecord("a", "1");
  folder.archive(a.bytes() + centralHeaderBytes(a).substr(0, 46));
  expectFailed(folder.run({"list", "a.zip"}),
               "a.zip: the archive ends early, inside its central directory, at offset 32" + verifyTells,
               "a\n");
}

TEST(ToolDamagedArchive, WhatStandsBeforeAndAfterUnknownBytesIsGivenBack) {
  const ArchiveFolder folder;
  folder.archive(plainRecord("a", "1").bytes() + plainRecord("d/b", "2").bytes() + "JUNK" +
                 plainRecord("c", "3").bytes());
  expectFailed(folder.run({"list", "a.zip"}), "a.zip: unknown signature 4b4e554a at offset 66" + verifyTells,
               "a\nd/b\n");
  const std::string message = "a.zip: unknown bytes from offset 66 to offset 70" + verifyTells;
  expectFailed(folder.run({"extract", "-C", "out", "a.zip"}), message);
  EXPECT_EQ((Items{"a=1", "c=3", "d/", "d/b=2"}), folder.items("out"));
  expectFailed(folder.run({"extract", "-C", "out", "a.zip", "a"}), message);
  expectDone(folder.run({"cat", "a.zip", "d/b"}), "2");
  expectDone(folder.run({"cat", "a.zip", "c"}), "3");
  expectFailed(folder.run({"verify", "a.zip"}), problemsFound(1),
               "unknown signature 4b4e554a at offset 66\n");
}

TEST(ToolDamagedArchive, LengthsThatLieAreNoHarm) {
  const ArchiveFolder folder;
  for (const std::uint64_t length :
       {std::uint64_t{1} << 40, std::uint64_t{1} << 62, (std::uint64_t{1} << 63) - 100,
        std::uint64_t{1} << 63, UINT64_MAX, UINT64_MAX - 100}) {
    SCOPED_TRACE(length);
    LocalRecord liar = plainRecord("liar", "12345");
    liar.size = 0xFFFFFFFF;
    liar.extra = zip64FieldBytes(length, length);
    folder.archive({plainRecord("a", "1"), liar, plainRecord("b", "2")});
    for (const std::string command : {"list", "verify"}) {
      const ProcessResult result = folder.run({command, "a.zip"});
      EXPECT_EQ(1, result.exitStatus);
      EXPECT_NE(std::string::npos, (result.output + result.errors).find("liar"));
    }
    expectDone(folder.run({"cat", "a.zip", "a"}), "1");
  }
}

TEST(ToolDamagedArchive, ExtraFieldsThatDoNotFitTheirHeaderAreNamed) {
  const ArchiveFolder folder;
  LocalRecord record = plainRecord("odd", "12345");
  record.extra = extraFieldBytes(0x7777, "", 3);
  folder.archive({plainRecord("a", "1"), record, plainRecord("b", "2")});
  expectFailed(folder.run({"list", "a.zip"}),
               "a.zip: \"odd\" has extra fields that do not fit its header" + verifyTells, "a\n");
}

TEST(ToolArchive, TheTailsRecordsAreTakenInAnyOrder) {
  const ArchiveFolder folder;
  const LocalRecord a = plainRecord("a", "1");
  const std::string zip64End = Bytes().u32(0x06064b50).u64(44 + 5).text(std::string(44, '\0')).text("extra");
  const std::string locator = Bytes().u32(0x07064b50).text(std::string(16, '\0'));
  const std::string signature = Bytes().u32(0x05054b50).u16(3).text("sig");
  std::string end = endRecordBytes();
  end[20] = 7;
  end += "comment";
  const std::vector<std::string> tails{centralHeaderBytes(a) + signature + zip64End + locator + end,
                                       end + locator + zip64End + signature + centralHeaderBytes(a),
                                       locator + end + centralHeaderBytes(a) + zip64End};
  for (const std::string& tail : tails) {
    folder.archive(a.bytes() + tail);
    expectDone(folder.run({"list", "a.zip"}), "a\n");
    expectDone(folder.run({"verify", "a.zip"}), "1 entry, 1 byte: all right\n");
  }
}

TEST(ToolRead, ArgumentsThatAreMissingOrTooManyAreWrongUsage) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a", "1")});
  const std::string list = "kqzip list [OPTIONS] ARCHIVE";
  const std::string extract = "kqzip extract [OPTIONS] ARCHIVE [PATH...]";
  const std::string cat = "kqzip cat [OPTIONS] ARCHIVE PATH";
  const std::string verify = "kqzip verify [OPTIONS] ARCHIVE";
  const auto unexpected = [](const std::string& what) {
    return "The following argument was not expected: " + what;
  };
  expectWrongUsage(folder.run({"list"}), "ARCHIVE is required", list);
  expectWrongUsage(folder.run({"extract"}), "ARCHIVE is required", extract);
  expectWrongUsage(folder.run({"cat"}), "ARCHIVE is required", cat);
  expectWrongUsage(folder.run({"cat", "a.zip"}), "PATH is required", cat);
  expectWrongUsage(folder.run({"verify"}), "ARCHIVE is required", verify);
  expectWrongUsage(folder.run({"list", "a.zip", "b.zip"}), unexpected("b.zip"), list);
  expectWrongUsage(folder.run({"cat", "a.zip", "a", "b"}), unexpected("b"), cat);
  expectWrongUsage(folder.run({"verify", "a.zip", "b.zip"}), unexpected("b.zip"), verify);
  expectWrongUsage(folder.run({"list", "-q", "a.zip"}), unexpected("-q"), list);
  expectWrongUsage(folder.run({"cat", "-q", "a.zip", "a"}), unexpected("-q"), cat);
  expectWrongUsage(folder.run({"verify", "-C", "a.zip"}), unexpected("-C"), verify);
  expectWrongUsage(folder.run({"extract", "a.zip", "-C"}), "--directory: 1 required DIR missing", extract);
}

TEST(ToolRead, OutputThatCannotBeWrittenIsAnError) {
  const ArchiveFolder folder;
  folder.archive({plainRecord("a", patternBytes(200000))});
  const auto run = [&](const std::string& redirection, const std::vector<std::string>& arguments) {
    std::vector<std::string> command{"/bin/sh", "-c", "exec \"$0\" \"$@\" " + redirection, KQZIP_TOOL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return runProcess(command, folder / "");
  };
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"list", "a.zip"}, {"cat", "a.zip", "a"}, {"verify", "a.zip"}}) {
    expectFailed(run(">/dev/full", arguments), "standard output" + reason(ENOSPC));
    expectFailed(run(">&-", arguments), std::string("standard output: ") + std::strerror(EBADF) +
                                            " (it is closed, send it to a file or to /dev/null)");
  }
}

TEST(ToolRead, ReadsWhatAnotherProgramStored) {
  const ArchiveFolder folder;
  if (!isHere("zip")) GTEST_SKIP() << "zip is not on this machine";
  writeFile(folder / "tree/dir/a", "text");
  writeFile(folder / "tree/empty", "");
  writeFile(folder / "tree/large", patternBytes(1500000));
  fs::create_directory(folder / "tree/bare");
  ASSERT_EQ(0, runOtherProgram({"zip", "-0qr", "../a.zip", "."}, folder / "tree").exitStatus);

  expectDone(folder.run({"list", "a.zip"}), lines({"bare/", "dir/", "dir/a", "empty", "large"}));
  expectDone(folder.run({"extract", "-C", "out", "a.zip"}));
  EXPECT_EQ(folder.items("tree"), folder.items("out"));
  expectDone(folder.run({"verify", "a.zip"}), "5 entries, 1500004 bytes: all right\n");
}
