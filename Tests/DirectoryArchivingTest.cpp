#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

class DirectoryArchiving : public ::testing::Test {
 protected:
  // The tree "Folder" of a.txt and sub/b.txt, with hidden files and an empty folder.
  void makeUsualTree() const {
    tree_.file("Folder/a.txt", "first");
    tree_.file("Folder/.DS_Store", "hidden");
    tree_.file("Folder/sub/b.txt", "second");
    tree_.file("Folder/sub/.hidden", "hidden");
    fs::create_directory(tree_ / "Folder/empty");
  }

  // The archive of the usual tree, with a prefix in front of its names.
  static std::string usualArchive(const std::string& prefix = {}) {
    return goldenArchive(
        {SourceTree::entry(prefix + "a.txt", "first"), SourceTree::entry(prefix + "sub/b.txt", "second")});
  }

  std::string archiveOf(const std::string& directory, bool keepParentDirectory = false) const {
    const std::string zipPath = tree_ / "out.zip";
    Error error = earlierError();
    const Error before = error;
    EXPECT_TRUE(KQZipFileWriter::createZipFileAtPath(zipPath, directory, keepParentDirectory, &error));
    EXPECT_EQ(before, error);
    return readFile(zipPath);
  }

  // Archiving fails with an error of the platform that names `name`, without an archive or a log line.
  static void expectPlatformFailure(const std::string& zipPath, const std::string& directory, int code,
                                    const std::string& name) {
    LogCapture log;
    const bool existed = fs::exists(fs::symlink_status(zipPath));
    for (const bool keepParentDirectory : {false, true}) {
      Error error = earlierError();
      EXPECT_FALSE(KQZipFileWriter::createZipFileAtPath(zipPath, directory, keepParentDirectory, &error));
      ASSERT_NE(nullptr, error);
      EXPECT_EQ("NSPOSIXErrorDomain", error->domain());
      EXPECT_EQ(code, error->code()) << describe(error);
      EXPECT_NE(std::string::npos, error->localizedDescription().find(name)) << describe(error);
      EXPECT_FALSE(KQZipFileWriter::createZipFileAtPath(zipPath, directory, keepParentDirectory));
    }
    EXPECT_EQ(existed, fs::exists(fs::symlink_status(zipPath))) << "an archive was made";
    EXPECT_EQ(std::vector<std::string>{}, log.lines());
    EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress());
  }

  SourceTree tree_;
};

}  // namespace

TEST_F(DirectoryArchiving, HiddenFilesAndFoldersThemselvesGetNoEntry) {
  makeUsualTree();
  expectSameBytes(usualArchive(), archiveOf(tree_ / "Folder"));
}

TEST_F(DirectoryArchiving, AVisibleFileInAHiddenFolderIsIncluded) {
  tree_.file("Folder/.cache/data.bin", "data");
  tree_.file("Folder/.cache/.x", "hidden");
  tree_.file("Folder/.cache/.deep/.deeper/leaf", "leaf");
  expectSameBytes(goldenArchive({SourceTree::entry(".cache/.deep/.deeper/leaf", "leaf"),
                                 SourceTree::entry(".cache/data.bin", "data")}),
                  archiveOf(tree_ / "Folder"));
}

TEST_F(DirectoryArchiving, OnlyALeadingDotHides) {
  tree_.file("Folder/a.", "1");
  tree_.file("Folder/...", "hidden");
  tree_.file("Folder/..a", "hidden");
  tree_.file("Folder/ .b", "2");
  tree_.file("Folder/b..c", "3");
  expectSameBytes(goldenArchive({SourceTree::entry(" .b", "2"), SourceTree::entry("a.", "1"),
                                 SourceTree::entry("b..c", "3")}),
                  archiveOf(tree_ / "Folder"));
}

TEST_F(DirectoryArchiving, ATreeUnderAHiddenRootIsArchivedLikeAnyOther) {
  tree_.file(".root/a.txt", "a");
  expectSameBytes(goldenArchive({SourceTree::entry(".root/a.txt", "a")}), archiveOf(tree_ / ".root", true));
}

TEST_F(DirectoryArchiving, KeepingTheParentPutsTheFoldersNameInFront) {
  makeUsualTree();
  expectSameBytes(usualArchive("Folder/"), archiveOf(tree_ / "Folder", true));
}

TEST_F(DirectoryArchiving, ATrailingSlashChangesNothing) {
  makeUsualTree();
  expectSameBytes(usualArchive("Folder/"), archiveOf(tree_ / "Folder/", true));
  fs::remove(tree_ / "out.zip");
  expectSameBytes(usualArchive(), archiveOf(tree_ / "Folder/", false));
}

TEST_F(DirectoryArchiving, OnlyTheLastComponentOfTheFolderIsKept) {
  tree_.file("outer/inner/a.txt", "a");
  expectSameBytes(goldenArchive({SourceTree::entry("inner/a.txt", "a")}),
                  archiveOf(tree_ / "outer/inner", true));
}

TEST_F(DirectoryArchiving, ARelativeFolderIsTakenFromTheCurrentDirectory) {
  makeUsualTree();
  inChildProcess([this] {
    ASSERT_EQ(0, chdir(tree_.path().c_str()));
    ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath("relative.zip", "Folder", true));
    expectSameBytes(usualArchive("Folder/"), readFile(tree_ / "relative.zip"));
  });
}

TEST_F(DirectoryArchiving, TheEmptyPathIsTheCurrentDirectoryAndHasNoNameToKeep) {
  makeUsualTree();
  inChildProcess([this] {
    ASSERT_EQ(0, chdir((tree_ / "Folder").c_str()));
    for (const bool keepParentDirectory : {false, true}) {
      ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath("../empty-path.zip", "", keepParentDirectory));
      expectSameBytes(usualArchive(), readFile("../empty-path.zip"));
      fs::remove("../empty-path.zip");
    }
  });
}

TEST_F(DirectoryArchiving, ADotAsTheFolderIsKeptAsADot) {
  makeUsualTree();
  inChildProcess([this] {
    ASSERT_EQ(0, chdir((tree_ / "Folder").c_str()));
    ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath("../dot.zip", ".", true));
    expectSameBytes(usualArchive("./"), readFile("../dot.zip"));
    ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath("../nothing-kept.zip", ".", false));
    expectSameBytes(usualArchive(), readFile("../nothing-kept.zip"));
  });
}

TEST_F(DirectoryArchiving, SymbolicLinksAreNotArchivedWhateverTheyPointTo) {
  makeUsualTree();
  tree_.file("outside/secret.txt", "secret");
  fs::create_symlink("a.txt", tree_ / "Folder/to-a-file");
  fs::create_symlink("../outside/secret.txt", tree_ / "Folder/to-a-file-outside");
  fs::create_directory_symlink("sub", tree_ / "Folder/to-a-folder");
  fs::create_directory_symlink(tree_ / "outside", tree_ / "Folder/sub/to-a-folder-outside");
  fs::create_directory_symlink(".", tree_ / "Folder/sub/to-itself");
  fs::create_symlink("nothing", tree_ / "Folder/to-nothing");
  expectSameBytes(usualArchive(), archiveOf(tree_ / "Folder"));
}

TEST_F(DirectoryArchiving, ALinkGivenAsTheFolderIsFollowedAndKeepsItsOwnName) {
  makeUsualTree();
  fs::create_directory_symlink("Folder", tree_ / "Link");
  expectSameBytes(usualArchive("Link/"), archiveOf(tree_ / "Link", true));
}

TEST_F(DirectoryArchiving, SpecialFilesAreSkippedAndNeverOpened) {
  makeUsualTree();
  ASSERT_EQ(0, mkfifo((tree_ / "Folder/pipe").c_str(), 0666));
  inChildProcess([this] {
    // The path of a socket must be short.
    ASSERT_EQ(0, chdir((tree_ / "Folder").c_str()));
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "socket");
    ASSERT_EQ(0, bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    // Opening a pipe that nobody writes to would wait for ever; then the alarm ends this process.
    alarm(30);
    expectSameBytes(usualArchive(), archiveOf(tree_ / "Folder"));
  });
}

TEST_F(DirectoryArchiving, ATreeWithoutVisibleFilesGivesAnArchiveWithoutEntries) {
  fs::create_directories(tree_ / "Folder/empty/emptier");
  expectSameBytes(goldenArchive({}), archiveOf(tree_ / "Folder"));

  fs::remove(tree_ / "out.zip");
  tree_.file("Folder/.hidden", "hidden");
  tree_.file("Folder/empty/.hidden", "hidden");
  expectSameBytes(goldenArchive({}), archiveOf(tree_ / "Folder", true));
}

TEST_F(DirectoryArchiving, EntriesFollowTheOrderOfTheirWholePathsAndNotOfTheWalk) {
  // A walk meets the folder "a" in front of "a b" and "a.txt".
  tree_.file("Folder/a/z.txt", "4");
  tree_.file("Folder/a.txt", "3");
  tree_.file("Folder/a b.txt", "2");
  tree_.file("Folder/B.txt", "1");
  expectSameBytes(goldenArchive({SourceTree::entry("B.txt", "1"), SourceTree::entry("a b.txt", "2"),
                                 SourceTree::entry("a.txt", "3"), SourceTree::entry("a/z.txt", "4")}),
                  archiveOf(tree_ / "Folder"));
}

TEST_F(DirectoryArchiving, AnArchiveInsideTheTreeIsNotAmongItsOwnEntries) {
  makeUsualTree();
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(tree_ / "Folder/sub/self.zip", tree_ / "Folder", false));
  const std::string first = readFile(tree_ / "Folder/sub/self.zip");
  expectSameBytes(usualArchive(), first);

  // An archive that stands there already is a file like any other.
  setModificationDate(tree_ / "Folder/sub/self.zip", SourceTree::date);
  expectSameBytes(
      goldenArchive({SourceTree::entry("a.txt", "first"), SourceTree::entry("sub/b.txt", "second"),
                     SourceTree::entry("sub/self.zip", first)}),
      archiveOf(tree_ / "Folder"));
}

TEST_F(DirectoryArchiving, AnExistingZipPathIsRefusedAndLeftUntouched) {
  makeUsualTree();
  const std::string zipPath = tree_.file("taken.zip", "precious");
  LogCapture log;
  Error error = earlierError();
  EXPECT_FALSE(KQZipFileWriter::createZipFileAtPath(zipPath, tree_ / "Folder", false, &error));
  expectError(error, -1, "Could not write to zip path " + zipPath);
  EXPECT_EQ(std::vector<std::string>{"failed writing to path: " + zipPath + " " + describe(error)},
            log.lines());
  EXPECT_EQ("precious", readFile(zipPath));
}

TEST_F(DirectoryArchiving, TheZipPathIsLookedAtOnlyAfterTheWalk) {
  // Both are wrong: the folder's error comes first and nothing is said about the path.
  const std::string zipPath = tree_.file("taken.zip", "precious");
  expectPlatformFailure(zipPath, tree_ / "missing", ENOENT, tree_ / "missing");
  expectPlatformFailure(tree_ / "no/parent.zip", tree_ / "missing", ENOENT, tree_ / "missing");
  EXPECT_EQ("precious", readFile(zipPath));
}

TEST_F(DirectoryArchiving, AZipPathWithoutAParentIsRefused) {
  makeUsualTree();
  LogCapture log;
  const std::string zipPath = tree_ / "missing/out.zip";
  Error error;
  EXPECT_FALSE(KQZipFileWriter::createZipFileAtPath(zipPath, tree_ / "Folder", false, &error));
  expectError(error, -1,
              "Could not write to zip path " + zipPath + " because parent directory doesn't exist");
  EXPECT_FALSE(KQZipFileWriter::createZipFileAtPath(zipPath, tree_ / "Folder", false));
  EXPECT_EQ((std::vector<std::string>{"failed writing to path: " + zipPath + " " + describe(error),
                                      "failed writing to path: " + zipPath + " (null)"}),
            log.lines());
  EXPECT_FALSE(fs::exists(tree_ / "missing"));
}

TEST_F(DirectoryArchiving, AFolderThatDoesNotExistFailsWithThePlatformsError) {
  expectPlatformFailure(tree_ / "out.zip", tree_ / "missing", ENOENT, tree_ / "missing");
}

TEST_F(DirectoryArchiving, AFileInsteadOfAFolderFailsWithThePlatformsError) {
  const std::string file = tree_.file("file", "not a folder");
  expectPlatformFailure(tree_ / "out.zip", file, ENOTDIR, file);
}

TEST_F(DirectoryArchiving, ALinkToNothingInsteadOfAFolderFailsWithThePlatformsError) {
  fs::create_symlink("nowhere", tree_ / "link");
  expectPlatformFailure(tree_ / "out.zip", tree_ / "link", ENOENT, tree_ / "link");
}

TEST_F(DirectoryArchiving, AFolderWithANULByteInItsPathIsNotCutShort) {
  makeUsualTree();
  const std::string directory = tree_ / "Folder" + std::string("\0/sub", 5);
  expectPlatformFailure(tree_ / "out.zip", directory, EINVAL, tree_ / "Folder");
}

TEST_F(DirectoryArchiving, AFolderThatMayNotBeReadFailsWithThePlatformsError) {
  makeUsualTree();
  fs::permissions(tree_ / "Folder", fs::perms::none);
  fs::create_directory(tree_ / "target");
  fs::permissions(tree_ / "target", fs::perms::all);
  inUnprivilegedChildProcess([this] {
    expectPlatformFailure(tree_ / "target/out.zip", tree_ / "Folder", EACCES, tree_ / "Folder");
  });
}

TEST_F(DirectoryArchiving, ASubFolderThatMayNotBeReadFailsWithThePlatformsErrorAndMakesNoArchive) {
  makeUsualTree();
  fs::permissions(tree_ / "Folder/sub", fs::perms::none);
  fs::create_directory(tree_ / "target");
  fs::permissions(tree_ / "target", fs::perms::all);
  inUnprivilegedChildProcess([this] {
    expectPlatformFailure(tree_ / "target/out.zip", tree_ / "Folder", EACCES, tree_ / "Folder/sub");
  });
}

TEST_F(DirectoryArchiving, AHiddenSubFolderThatMayNotBeReadFailsTooForItsFilesWouldBeMissing) {
  makeUsualTree();
  fs::create_directory(tree_ / "Folder/.cache");
  fs::permissions(tree_ / "Folder/.cache", fs::perms::none);
  fs::create_directory(tree_ / "target");
  fs::permissions(tree_ / "target", fs::perms::all);
  inUnprivilegedChildProcess([this] {
    expectPlatformFailure(tree_ / "target/out.zip", tree_ / "Folder", EACCES, tree_ / "Folder/.cache");
  });
}

TEST_F(DirectoryArchiving, OfSeveralFoldersThatMayNotBeReadTheLastOneIsReported) {
  makeUsualTree();
  for (const char* name : {"Folder/1-locked", "Folder/2-locked", "Folder/sub/3-locked"}) {
    fs::create_directory(tree_ / name);
    fs::permissions(tree_ / name, fs::perms::none);
  }
  fs::create_directory(tree_ / "target");
  fs::permissions(tree_ / "target", fs::perms::all);
  inUnprivilegedChildProcess([this] {
    expectPlatformFailure(tree_ / "target/out.zip", tree_ / "Folder", EACCES, tree_ / "Folder/sub/3-locked");
  });
}

TEST_F(DirectoryArchiving, OfSeveralItemsWithoutReadableAttributesTheLastOneIsReported) {
  makeUsualTree();
  // A folder that may be listed but not entered yields names without attributes.
  tree_.file("Folder/listed/1.txt", "1");
  tree_.file("Folder/listed/2.txt", "2");
  tree_.file("Folder/listed/3.txt", "3");
  fs::permissions(tree_ / "Folder/listed", fs::perms::owner_read | fs::perms::others_read);
  fs::create_directory(tree_ / "target");
  fs::permissions(tree_ / "target", fs::perms::all);
  // Where a folder tells names alone, it cannot be walked without them, and is the one that is named.
  const std::string named = tree_ / (KQZIP_FOLDERS_TELL_TYPES ? "Folder/listed/3.txt" : "Folder/listed:");
  inUnprivilegedChildProcess(
      [this, named] { expectPlatformFailure(tree_ / "target/out.zip", tree_ / "Folder", EACCES, named); });
}

TEST_F(DirectoryArchiving, ANameThatIsNotUTF8FailsTheRunAndIsNamed) {
  makeUsualTree();
  // A file system may refuse such a name itself; then there is nothing to test.
  std::error_code refused;
  fs::create_directory(tree_ / "Folder/broken-folder-\xFF", refused);
  if (refused) GTEST_SKIP() << "the file system takes no names that are not UTF-8";
  expectPlatformFailure(tree_ / "out.zip", tree_ / "Folder", EILSEQ, "broken-folder-");

  writeFile(tree_ / "Folder/sub/broken-file-\xFF.txt", "x");
  // The later of the two in the walk.
  expectPlatformFailure(tree_ / "out.zip", tree_ / "Folder", EILSEQ, "broken-file-");

  fs::remove(tree_ / "Folder/broken-folder-\xFF");
  expectPlatformFailure(tree_ / "out.zip", tree_ / "Folder", EILSEQ, "broken-file-");

  fs::remove(tree_ / "Folder/sub/broken-file-\xFF.txt");
  expectSameBytes(usualArchive(), archiveOf(tree_ / "Folder"));
}

TEST_F(DirectoryArchiving, AVisibleFileInAHiddenFolderWhoseNameIsNotUTF8FailsTheRun) {
  makeUsualTree();
  std::error_code refused;
  fs::create_directory(tree_ / "Folder/.broken-\xFF", refused);
  if (refused) GTEST_SKIP() << "the file system takes no names that are not UTF-8";
  writeFile(tree_ / "Folder/.broken-\xFF/visible", "x");
  expectPlatformFailure(tree_ / "out.zip", tree_ / "Folder", EILSEQ, ".broken-");
}

TEST_F(DirectoryArchiving, WithoutFreeDescriptorsItFailsAndMakesNoArchive) {
  makeUsualTree();
  inChildProcess([this] {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    Error error;
    const bool made =
        KQZipFileWriter::createZipFileAtPath(tree_ / "out.zip", tree_ / "Folder", false, &error);
    limit.rlim_cur = before;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_FALSE(made);
    ASSERT_NE(nullptr, error);
    EXPECT_EQ("NSPOSIXErrorDomain", error->domain());
    EXPECT_EQ(EMFILE, error->code());
    EXPECT_FALSE(fs::exists(tree_ / "out.zip"));
  });
}

TEST_F(DirectoryArchiving, AFileThatMayNotBeReadFailsWhenItIsWritten) {
  makeUsualTree();
  fs::permissions(tree_ / "Folder/sub/b.txt", fs::perms::none);
  fs::create_directory(tree_ / "target");
  fs::permissions(tree_ / "target", fs::perms::all);
  inUnprivilegedChildProcess([this] {
    LogCapture log;
    Error error;
    EXPECT_FALSE(
        KQZipFileWriter::createZipFileAtPath(tree_ / "target/out.zip", tree_ / "Folder", false, &error));
    const std::string source = tree_ / "Folder/sub/b.txt";
    expectError(error, -50, "Can't calculate CRC of " + source);
    EXPECT_EQ((std::vector<std::string>{"failed to calculate crc: failed to open stream at " + source,
                                        "closing stream because writing failed: " + describe(error)}),
              log.lines());
    const GoldenEntry first = SourceTree::entry("a.txt", "first");
    expectSameBytes(goldenLocalHeader(first, 0) + "first", readFile(tree_ / "target/out.zip"));
  });
}

TEST_F(DirectoryArchiving, AWriterTakesTheContentsOfSeveralFoldersAndFilesBeside) {
  makeUsualTree();
  tree_.file("Other/a.txt", "another first");
  tree_.file("Other/c.txt", "third");
  KQZipFileWriter writer;
  Error error = earlierError();
  const Error before = error;
  EXPECT_TRUE(writer.addContentsOfDirectory(tree_ / "Folder", false, &error));
  EXPECT_TRUE(writer.addContentsOfDirectory(tree_ / "Folder", true, &error));
  EXPECT_TRUE(writer.addContentsOfDirectory(tree_ / "Other", false, &error));
  writer.addFilePath(tree_ / "Other/c.txt", "d");
  EXPECT_TRUE(writer.writeToZipPath(tree_ / "out.zip", &error));
  EXPECT_EQ(before, error);
  expectSameBytes(
      goldenArchive({SourceTree::entry("Folder/a.txt", "first"),
                     SourceTree::entry("Folder/sub/b.txt", "second"),
                     SourceTree::entry("a.txt", "another first"), SourceTree::entry("c.txt", "third"),
                     SourceTree::entry("d", "third"), SourceTree::entry("sub/b.txt", "second")}),
      readFile(tree_ / "out.zip"));
}

TEST_F(DirectoryArchiving, AddingAFolderThatCannotBeReadFailsAndAddsTheRest) {
  makeUsualTree();
  KQZipFileWriter writer;
  Error error;
  EXPECT_FALSE(writer.addContentsOfDirectory(tree_ / "missing", false, &error));
  ASSERT_NE(nullptr, error);
  EXPECT_EQ("NSPOSIXErrorDomain", error->domain());
  EXPECT_EQ(ENOENT, error->code());
  EXPECT_FALSE(writer.addContentsOfDirectory(tree_ / "missing", false));
  tree_.file("Folder/not \xFF UTF-8", "x");
  EXPECT_FALSE(writer.addContentsOfDirectory(tree_ / "Folder", false, &error));
  EXPECT_EQ(EILSEQ, error->code());
  EXPECT_TRUE(writer.writeToZipPath(tree_ / "out.zip"));
  expectSameBytes(usualArchive(), readFile(tree_ / "out.zip"));
}

TEST_F(DirectoryArchiving, TheWritersProgressIsAChildOfTheCallers) {
  makeUsualTree();
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(10);
  all->becomeCurrentWithPendingUnitCount(7);
  EXPECT_TRUE(KQZipFileWriter::createZipFileAtPath(tree_ / "out.zip", tree_ / "Folder", false));
  EXPECT_EQ(7, all->completedUnitCount());
  EXPECT_EQ(all, KQ::NSProgress::currentProgress());
  all->resignCurrent();
  EXPECT_EQ(7, all->completedUnitCount());
  EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress());
}

TEST_F(DirectoryArchiving, CancellingTheCallersProgressCancelsTheWriter) {
  makeUsualTree();
  LogCapture log;
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->cancel();
  all->becomeCurrentWithPendingUnitCount(1);
  Error error;
  EXPECT_FALSE(KQZipFileWriter::createZipFileAtPath(tree_ / "out.zip", tree_ / "Folder", false, &error));
  all->resignCurrent();
  expectError(error, -90, "Cancelled by user.");
  EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress());
  EXPECT_EQ(std::vector<std::string>{"closing stream because writing failed: " + describe(error)},
            log.lines());
  EXPECT_EQ("", readFile(tree_ / "out.zip")) << "the archive that was begun stays";
}

TEST_F(DirectoryArchiving, ADeepTreeIsArchivedWhole) {
  std::string name;
  std::vector<GoldenEntry> entries;
  for (int depth = 0; depth < 60; ++depth) {
    name += "folder/";
    tree_.file("Folder/" + name + "leaf", std::to_string(depth));
    // "folder/" sorts in front of "leaf" at each level, so the deepest leaf comes first.
    entries.insert(entries.begin(), SourceTree::entry(name + "leaf", std::to_string(depth)));
  }
  expectSameBytes(goldenArchive(entries), archiveOf(tree_ / "Folder"));
}
