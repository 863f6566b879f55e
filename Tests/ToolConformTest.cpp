#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

using Modes = std::map<std::string, unsigned>;

unsigned modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
  return status.st_mode & 07777U;
}

void setMode(const std::string& path, unsigned mode) { ASSERT_EQ(0, chmod(path.c_str(), mode)); }

/// Sets the mask that new files are made with while it exists.
class Mask {
 public:
  explicit Mask(mode_t mask) : previous_(umask(mask)) {}
  ~Mask() { umask(previous_); }
  Mask(const Mask&) = delete;
  Mask& operator=(const Mask&) = delete;

 private:
  mode_t previous_;
};

/// An interoperable archive with one entry of these external attributes and this "version made by".
std::string archiveWith(const std::string& name, std::uint64_t attributes, std::uint64_t madeBy = 0x031E) {
  std::string archive = goldenArchive({SourceTree::entry(name, name.back() == '/' ? "" : "text")});
  const std::size_t header = ArchiveTail(archive).startOfDirectory;
  setNumberAt(archive, header + 4, 2, madeBy);
  setNumberAt(archive, header + 38, 4, attributes);
  return archive;
}

}  // namespace

TEST(ToolConform, CreateMakesTheInteroperableFormOfWhatExactLeaves) {
  const SourceTree folder;
  folder.file("tree/a.txt", "first");
  folder.file("tree/gr\xC3\xBC\xC3\x9F/\xE6\x97\xA5.txt", "second");
  folder.file("tree/z", "");
  setMode(folder / "tree/a.txt", 0755);
  setMode(folder / "tree/z", 0644);
  setMode(folder / "tree/gr\xC3\xBC\xC3\x9F/\xE6\x97\xA5.txt", 0640);
  const std::string exact = goldenArchive({SourceTree::entry("a.txt", "first"),
                                           SourceTree::entry("gr\xC3\xBC\xC3\x9F/\xE6\x97\xA5.txt", "second"),
                                           SourceTree::entry("z", "")});

  expectDone(runTool({"create", "--exact", folder / "exact.zip", folder / "tree"}));
  expectSameBytes(exact, readFile(folder / "exact.zip"));
  expectDone(runTool({"create", folder / "out.zip", folder / "tree"}));
  expectSameBytes(
      interoperableArchive(exact, {{"a.txt", 0755}, {"gr\xC3\xBC\xC3\x9F/\xE6\x97\xA5.txt", 0640}}),
      readFile(folder / "out.zip"));
}

TEST(ToolConform, CreateTakesPermissionsFromTheRightFilesHoweverTheyAreGiven) {
  const SourceTree folder;
  for (const std::string path : {"Real/run", "Real/sub/plain", "other/secret"}) folder.file(path, path);
  setMode(folder / "Real/run", 04751);
  setMode(folder / "Real/sub/plain", 01666);
  setMode(folder / "other/secret", 0400);
  fs::create_symlink("Real/run", folder / "alias");
  const std::string parent = goldenArchive(
      {SourceTree::entry("Real/run", "Real/run"), SourceTree::entry("Real/sub/plain", "Real/sub/plain")});
  const Modes modes{{"Real/run", 0751}, {"Real/sub/plain", 0666}};

  int number = 0;
  const auto expectCreated = [&](std::vector<std::string> arguments, const std::string& directory,
                                 const std::string& expected) {
    const std::string archive = folder / (std::to_string(++number) + ".zip");
    arguments.insert(arguments.begin(), {"create", archive});
    expectDone(runTool(arguments, directory));
    expectSameBytes(expected, readFile(archive));
  };
  const std::string top = folder.path().string();
  for (const std::string source : {"Real", "Real/", "./Real//"}) {
    SCOPED_TRACE(source);
    expectCreated({"-k", source}, top, interoperableArchive(parent, modes));
  }
  expectCreated({"-k", "."}, folder / "Real", interoperableArchive(parent, modes));
  expectCreated({"alias", "other/secret", "Real/sub/plain"}, top,
                interoperableArchive(goldenArchive({SourceTree::entry("alias", "Real/run"),
                                                    SourceTree::entry("plain", "Real/sub/plain"),
                                                    SourceTree::entry("secret", "other/secret")}),
                                     {{"alias", 0751}, {"plain", 0666}, {"secret", 0400}}));
}

TEST(ToolConform, CreateOfAnEmptyFolderMakesAnInteroperableArchiveWithoutEntries) {
  const SourceTree folder;
  fs::create_directory(folder / "tree");
  expectDone(runTool({"create", folder / "out.zip", folder / "tree"}));
  expectSameBytes(interoperableArchive(goldenArchive({})), readFile(folder / "out.zip"));
  expectDone(runTool({"list", folder / "out.zip"}));
}

TEST(ToolConform, BothFormsAreVerifiedListedAndExtractedAlike) {
  const SourceTree folder;
  folder.file("tree/a.txt", "first");
  folder.file("tree/\xC3\xBC/b", patternBytes(100000));
  expectDone(runTool({"create", "--verify", folder / "interoperable.zip", folder / "tree"}));
  expectDone(runTool({"create", "--exact", "--verify", folder / "exact.zip", folder / "tree"}));
  for (const std::string archive : {"interoperable.zip", "exact.zip"}) {
    SCOPED_TRACE(archive);
    expectDone(runTool({"verify", folder / archive}), "2 entries, 100005 bytes: all right\n");
    expectDone(runTool({"list", "-l", folder / archive}),
               "-      5 2020-09-13 12:26:40 a.txt\n- 100000 2020-09-13 12:26:40 \xC3\xBC/b\n");
    expectDone(runTool({"extract", "-C", folder / ("out of " + archive), folder / archive}));
    EXPECT_EQ("first", readFile(folder / ("out of " + archive + "/a.txt")));
    expectSameBytes(patternBytes(100000), readFile(folder / ("out of " + archive + "/\xC3\xBC/b")));
  }
}

TEST(ToolConform, MakesAnArchiveInteroperableOnceAndThenLeavesItAlone) {
  const SourceTree folder;
  const std::string exact =
      goldenArchive({SourceTree::entry("a", "text"), SourceTree::entry("\xC3\xBC/", "")});
  writeFile(folder / "a.zip", exact);
  expectDone(runTool({"conform", folder / "a.zip"}));
  expectSameBytes(interoperableArchive(exact), readFile(folder / "a.zip"));
  setModificationDate(folder / "a.zip", 1000000000);
  expectDone(runTool({"conform", folder / "a.zip"}));
  expectSameBytes(interoperableArchive(exact), readFile(folder / "a.zip"));
  struct stat status {};
  ASSERT_EQ(0, stat((folder / "a.zip").c_str(), &status));
  EXPECT_EQ(1000000000, status.st_mtime);
}

TEST(ToolConform, FinishesWhatWasInterruptedAndKeepsThePermissionsThatAreThere) {
  const SourceTree folder;
  const std::string exact =
      goldenArchive({SourceTree::entry("a", "text"), SourceTree::entry("b", ""), SourceTree::entry("c", "")});
  const std::string whole = interoperableArchive(exact, {{"a", 0755}});
  const std::size_t middle = ArchiveTail(exact).startOfDirectory + 100;
  writeFile(folder / "a.zip", whole.substr(0, middle) + exact.substr(middle));
  expectDone(runTool({"verify", folder / "a.zip"}), "3 entries, 4 bytes: all right\n");
  expectDone(runTool({"conform", folder / "a.zip"}));
  expectSameBytes(whole, readFile(folder / "a.zip"));
}

TEST(ToolConform, WhatKQZipDidNotWriteIsRefusedInOneLineAndLeftAsItIs) {
  const TemporaryDirectory folder;
  const std::string foreign = archiveBytes({plainRecord("a", "text")});
  writeFile(folder / "a.zip", foreign);
  expectFailed(runTool({"conform", folder / "a.zip"}),
               (folder / "a.zip") +
                   " cannot be made interoperable: it does not end with the records that KQZip writes (kqzip "
                   "verify tells whether it is damaged)");
  EXPECT_EQ(foreign, readFile(folder / "a.zip"));
  expectFailed(runTool({"conform", folder / "missing"}), (folder / "missing") + systemReason(ENOENT));
  expectFailed(runTool({"conform", folder.path().string()}),
               folder.path().string() + ": " + std::strerror(EISDIR) + " (kqzip create packs a folder)");
  ASSERT_EQ(0, mkfifo((folder / "pipe").c_str(), 0600));
  expectFailed(runTool({"conform", folder / "pipe"}),
               "\"" + (folder / "pipe") + "\" is not a regular file (copy it to one)");
  expectFailed(runTool({"conform", ""}), "the archive's name is empty (give the path of an archive)");
  writeFile(folder / "bad\xFF", foreign);
  expectFailed(runTool({"conform", folder / "bad\xFF"}), (folder / "bad\\xFF") + systemReason(EILSEQ));
}

TEST(ToolConform, EveryRefusalSaysWhatToDoNext) {
  const TemporaryDirectory folder;
  const std::string exact = goldenArchive({SourceTree::entry("\xC3\xBC", "text")});
  const std::size_t header = ArchiveTail(exact).startOfDirectory;
  const auto expectRefusal = [&](std::size_t methodAt, const std::string& why) {
    std::string damaged = exact;
    setNumberAt(damaged, methodAt, 2, 8);
    writeFile(folder / "a.zip", damaged);
    expectFailed(runTool({"conform", folder / "a.zip"}), (folder / "a.zip") +
                                                             " cannot be made interoperable: " + why +
                                                             " (kqzip verify tells whether it is damaged)");
    EXPECT_EQ(damaged, readFile(folder / "a.zip"));
  };
  expectRefusal(8, "the entry at offset 0 and its central header differ");
  expectRefusal(header + 10,
                "the central header at offset " + std::to_string(header) + " is not as KQZip writes it");
}

TEST(ToolConform, NeedsExactlyOneArchive) {
  const std::string usage = "kqzip conform [OPTIONS] ARCHIVE";
  expectWrongUsage(runTool({"conform"}), "ARCHIVE is required", usage);
  expectWrongUsage(runTool({"conform", "a", "b"}), "The following argument was not expected: b", usage);
}

TEST(ToolConform, ExtractGivesPermissionsAsFarAsTheMaskAllows) {
  const SourceTree folder;
  const Modes modes{{"all", 0777}, {"plain", 0644}, {"run", 0755}, {"secret", 0600}, {"shut", 0444}};
  for (const auto& [name, mode] : modes) {
    folder.file("tree/" + name, "text");
    setMode(folder / ("tree/" + name), mode);
  }
  expectDone(runTool({"create", folder / "a.zip", folder / "tree"}));
  for (const unsigned mask : {0U, 022U, 027U, 077U}) {
    SCOPED_TRACE(mask);
    const Mask set(mask);
    const std::string out = folder / ("out" + std::to_string(mask));
    // Twice, for a file that may not be written is replaced too.
    for (int i = 0; i < 2; ++i) expectDone(runTool({"extract", "-C", out, folder / "a.zip"}));
    for (const auto& [name, mode] : modes) EXPECT_EQ(mode & ~mask, modeOf(out + "/" + name)) << name;
  }
}

TEST(ToolConform, ExtractOfAnExactArchiveMakesFilesAsTheyWere) {
  const SourceTree folder;
  folder.file("tree/run", "text");
  setMode(folder / "tree/run", 0755);
  expectDone(runTool({"create", "--exact", folder / "a.zip", folder / "tree"}));
  const Mask mask(027);
  expectDone(runTool({"extract", "-C", folder / "out", folder / "a.zip"}));
  EXPECT_EQ(0640U, modeOf(folder / "out/run"));
}

TEST(ToolConform, ExtractFindsPermissionsInADirectoryOfAnyOrder) {
  const TemporaryDirectory folder;
  const Mask mask(0);
  const std::vector<GoldenEntry> entries{SourceTree::entry("a", "1"), SourceTree::entry("b", "2"),
                                         SourceTree::entry("c", "3")};
  const std::string archive = goldenArchive(entries);
  const std::size_t start = ArchiveTail(archive).startOfDirectory;
  constexpr std::size_t length = 46 + 1 + 28;
  const auto header = [&](std::size_t number, unsigned mode) {
    std::string bytes = archive.substr(start + number * length, length);
    setNumberAt(bytes, 38, 4, std::uint64_t{0100000U | mode} << 16);
    return bytes;
  };
  const std::string directory = header(2, 0700) + header(0, 0603) + header(1, 0602);
  writeFile(folder / "a.zip", archive.substr(0, start) + directory + archive.substr(start + 3 * length));
  expectDone(runTool({"extract", "-C", folder / "out", folder / "a.zip"}));
  EXPECT_EQ(0603U, modeOf(folder / "out/a"));
  EXPECT_EQ(0602U, modeOf(folder / "out/b"));
  EXPECT_EQ(0700U, modeOf(folder / "out/c"));
}

TEST(ToolConform, ExtractNeverSetsMoreThanPermissionsAndOnlyThoseOfUnix) {
  const SourceTree folder;
  const Mask mask(0);
  struct Case {
    std::string name;
    std::uint64_t attributes;
    std::uint64_t madeBy;
    unsigned expected;
  };
  const std::uint64_t unixHost = 0x031E;
  const std::vector<Case> cases{{"f", 0107755U << 16, unixHost, 0755},
                                {"f", 0100755U << 16, 0x131E, 0755},
                                {"f", 0000711U << 16, unixHost, 0711},
                                {"f", 0100755U << 16, 0x001E, 0666},
                                {"f", 0100755U << 16, 0x0A1E, 0666},
                                {"f", 0040755U << 16, unixHost, 0666},
                                {"f", 0100000U << 16, unixHost, 0},
                                {"f", 0104000U << 16, unixHost, 0},
                                {"f", 0x01, unixHost, 0666},
                                {"f", 0x20, unixHost, 0666},
                                {"d/", 0047711U << 16, unixHost, 0711},
                                {"d/", (0040500U << 16) | 0x10, unixHost, 0500},
                                {"d/", 0100700U << 16, unixHost, 0777},
                                {"d/", 0x10, unixHost, 0777}};
  int number = 0;
  for (const Case& each : cases) {
    SCOPED_TRACE(++number);
    const std::string archive = folder / "a.zip";
    writeFile(archive, archiveWith(each.name, each.attributes, each.madeBy));
    const std::string out = folder / std::to_string(number);
    expectDone(runTool({"extract", "-C", out, archive}));
    EXPECT_EQ(each.expected, modeOf(out + "/" + each.name.substr(0, 1)));
  }
}

TEST(ToolConform, ExtractFillsAFolderBeforeItMayNoLongerBeEntered) {
  const SourceTree folder;
  const std::string exact = goldenArchive({SourceTree::entry("d/", ""), SourceTree::entry("d/e/", ""),
                                           SourceTree::entry("d/e/f", "text"), SourceTree::entry("d/g", "")});
  writeFile(folder / "a.zip",
            interoperableArchive(exact, {{"d/", 0400}, {"d/e/", 0100}, {"d/e/f", 0400}, {"d/g", 0440}}));
  fs::create_directory(folder / "out");
  fs::permissions(folder / "out", fs::perms::all);
  fs::permissions(folder.path(), fs::perms::all);
  fs::permissions(folder / "a.zip", fs::perms::all);
  fs::copy_file(KQZIP_TOOL, folder / "kqzip");
  fs::permissions(folder / "kqzip", fs::perms::all);
  const Mask mask(022);
  inUnprivilegedChildProcess([&] {
    expectDone(runProcess({folder / "kqzip", "extract", "-C", folder / "out", folder / "a.zip"}));
    EXPECT_EQ(0400U, modeOf(folder / "out/d"));
    fs::permissions(folder / "out/d", fs::perms::owner_all);
    EXPECT_EQ(0440U, modeOf(folder / "out/d/g"));
    EXPECT_EQ(0100U, modeOf(folder / "out/d/e"));
    EXPECT_EQ(0400U, modeOf(folder / "out/d/e/f"));
    EXPECT_EQ("text", readFile(folder / "out/d/e/f"));
    struct stat status {};
    ASSERT_EQ(0, stat((folder / "out/d/e").c_str(), &status));
    EXPECT_EQ(SourceTree::date, status.st_mtime);
    // So that it can be removed by whoever made it.
    fs::permissions(folder / "out/d/e", fs::perms::owner_all);
    fs::remove_all(folder / "out/d");
  });
}

TEST(ToolConform, AnEntryOfADamagedArchiveThatHasNoCentralHeaderIsExtractedWithoutPermissions) {
  const SourceTree folder;
  const std::string whole =
      interoperableArchive(goldenArchive({SourceTree::entry("a", "text")}), {{"a", 0711}});
  const std::string path = folder / "a.zip";
  writeFile(path, whole.substr(0, ArchiveTail(whole).startOfDirectory));
  const Mask mask(022);
  expectFailed(runTool({"extract", "-C", folder / "out", path}),
               path + ": the archive ends early, at offset " + std::to_string(fs::file_size(path)) +
                   " (kqzip verify tells all that is wrong)");
  EXPECT_EQ(0644U, modeOf(folder / "out/a"));
}
