#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/RunningProgram.h"
#include "Support/SourceTree.h"
#include "Support/StoppedProgram.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

const std::string createUsage = "kqzip create [OPTIONS] ARCHIVE SOURCE...";
const std::string anyUsage = "kqzip [OPTIONS] COMMAND";

std::string reason(int code) { return systemReason(code); }

void expectArchive(const std::string& path, const std::vector<GoldenEntry>& entries) {
  expectSameBytes(goldenArchive(entries), readFile(path), path);
}

void expectNothingAt(const std::string& path) { EXPECT_FALSE(fs::exists(fs::symlink_status(path))) << path; }

/// Expects that `create` with these sources fails with this message and makes no archive.
void expectRefused(const SourceTree& folder, const std::vector<std::string>& sources,
                   const std::string& message) {
  std::vector<std::string> arguments{"create", folder / "out.zip"};
  arguments.insert(arguments.end(), sources.begin(), sources.end());
  expectFailed(runTool(arguments), message);
  expectNothingAt(folder / "out.zip");
}

}  // namespace

TEST(ToolCreate, PacksATreeWithoutHiddenItemsLinksAndFoldersByteForByte) {
  const SourceTree folder;
  const std::string large = patternBytes(1048577);
  folder.file("tree/b.txt", "second");
  folder.file("tree/a/z.txt", "below");
  folder.file("tree/B.txt", "");
  folder.file("tree/.hidden", "not packed");
  folder.file("tree/.cache/kept.bin", "packed");
  folder.file("tree/gro\xC3\x9F/u\xCC\x88.bin", large);
  fs::create_directory(folder / "tree/empty");
  fs::create_symlink("b.txt", folder / "tree/link");

  expectDone(runTool({"create", "--exact", folder / "out.zip", folder / "tree"}));

  expectArchive(folder / "out.zip",
                {SourceTree::entry(".cache/kept.bin", "packed"), SourceTree::entry("B.txt", ""),
                 SourceTree::entry("a/z.txt", "below"), SourceTree::entry("b.txt", "second"),
                 SourceTree::entry("gro\xC3\x9F/u\xCC\x88.bin", large)});
}

TEST(ToolCreate, PutsTheFoldersOwnNameInFrontWithKeepParent) {
  const SourceTree folder;
  folder.file("Folder/sub/a.txt", "text");
  fs::create_directory_symlink("Folder", folder / "Link");

  int number = 0;
  for (const std::string option : {"-k", "--keep-parent"}) {
    for (const std::string source : {"Folder", "Folder/", "Link", "Link/"}) {
      SCOPED_TRACE(option + " " + source);
      const std::string archive = folder / (std::to_string(++number) + ".zip");
      expectDone(runTool({"create", "--exact", option, archive, folder / source}));
      expectArchive(archive, {SourceTree::entry(source.substr(0, source.find('/')) + "/sub/a.txt", "text")});
    }
  }
}

TEST(ToolCreate, KeepParentOfADotFolderUsesTheFoldersRealName) {
  const SourceTree folder;
  folder.file("Real/sub/a.txt", "text");

  expectDone(runTool({"create", "--exact", "-k", folder / "1.zip", "."}, folder / "Real"));
  expectDone(runTool({"create", "--exact", "-k", folder / "2.zip", ".."}, folder / "Real/sub"));
  expectDone(runTool({"create", "--exact", "-k", folder / "3.zip", "Real/./"}, folder.path().string()));

  for (const std::string archive : {"1.zip", "2.zip", "3.zip"})
    expectArchive(folder / archive, {SourceTree::entry("Real/sub/a.txt", "text")});
}

TEST(ToolCreate, PacksFilesEachUnderItsLastPathComponent) {
  const SourceTree folder;
  folder.file("x/b.txt", "second");
  folder.file("y/z/a.txt", "first");
  folder.file("y/.hidden", "named, so packed");

  expectDone(runTool({"create", "--exact", "-q", folder / "out.zip", folder / "x/b.txt", folder / "y/z/a.txt",
                      folder / "y/.hidden"}));

  expectArchive(folder / "out.zip",
                {SourceTree::entry(".hidden", "named, so packed"), SourceTree::entry("a.txt", "first"),
                 SourceTree::entry("b.txt", "second")});
}

TEST(ToolCreate, OneFileAloneIsPackedAsAFile) {
  const SourceTree folder;
  folder.file("x/a.txt", "text");
  expectDone(runTool({"create", "--exact", "out.zip", "x/a.txt"}, folder.path().string()));
  expectArchive(folder / "out.zip", {SourceTree::entry("a.txt", "text")});
}

TEST(ToolCreate, ALinkGivenAsAFilePacksWhatItPointsToUnderItsOwnName) {
  const SourceTree folder;
  folder.file("x/target.txt", "longer than the link itself is");
  fs::create_symlink("x/target.txt", folder / "alias");

  expectDone(runTool({"create", "--exact", folder / "out.zip", folder / "alias"}));

  expectArchive(folder / "out.zip", {SourceTree::entry("alias", "longer than the link itself is")});
}

TEST(ToolCreate, TakesFilesWhoseNamesLookLikeSomethingElse) {
  const SourceTree folder;
  for (const std::string name : {"[a,b]", "[", "++", "-k", "--", "create", "\x01odd"})
    folder.file(name, name);

  expectDone(
      runTool({"create", "--exact", "out.zip", "[a,b]", "[", "++", "create", "\x01odd", "--", "-k", "--"},
              folder.path().string()));

  expectArchive(folder / "out.zip",
                {SourceTree::entry("\x01odd", "\x01odd"), SourceTree::entry("++", "++"),
                 SourceTree::entry("--", "--"), SourceTree::entry("-k", "-k"), SourceTree::entry("[", "["),
                 SourceTree::entry("[a,b]", "[a,b]"), SourceTree::entry("create", "create")});
}

TEST(ToolCreate, TwoFilesWithOneNameAreAnErrorThatNamesBoth) {
  const SourceTree folder;
  const std::string first = folder.file("x/a.txt", "1");
  const std::string second = folder.file("y/a.txt", "2");
  expectRefused(folder, {first, second},
                "\"" + first + "\" and \"" + second +
                    "\" would have the same name, \"a.txt\" (rename one, or pack their folder)");
}

TEST(ToolCreate, WhatDoesNotExistIsAnErrorBeforeAnArchiveIsMade) {
  const SourceTree folder;
  const std::string file = folder.file("a.txt", "text");
  const std::string missing = folder / "missing";
  const std::string dangling = folder / "dangling";
  fs::create_symlink("nowhere", dangling);

  expectRefused(folder, {missing}, missing + reason(ENOENT));
  expectRefused(folder, {"-k", missing}, missing + reason(ENOENT));
  expectRefused(folder, {file, missing}, missing + reason(ENOENT));
  expectRefused(folder, {file, dangling}, dangling + reason(ENOENT));
  expectRefused(folder, {file + "/"}, file + "/" + reason(ENOTDIR));
  expectRefused(folder, {""}, "\"\"" + reason(ENOENT));
}

TEST(ToolCreate, SpecialFilesAreAnErrorBeforeAnArchiveIsMade) {
  const SourceTree folder;
  const std::string file = folder.file("a.txt", "text");
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));

  expectRefused(folder, {fifo}, "\"" + fifo + "\" is not a regular file (leave it out)");
  expectRefused(folder, {file, fifo}, "\"" + fifo + "\" is not a regular file (leave it out)");
  expectRefused(folder, {"/dev/null"}, "\"/dev/null\" is not a regular file (leave it out)");
}

TEST(ToolCreate, WhatMayNotBeReadOrWrittenIsAnErrorAndNeverAnEmptyArchive) {
  const SourceTree folder;
  const std::string file = folder.file("closed.txt", "text");
  folder.file("open.txt", "text");
  folder.file("tree/a.txt", "text");
  folder.file("tree/closed/b.txt", "text");
  folder.file("files/closed.txt", "text");
  fs::create_directory(folder / "closed");
  // Where an unprivileged user may run it.
  fs::copy_file(KQZIP_TOOL, folder / "kqzip");
  fs::permissions(folder / "kqzip", fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
  fs::create_directory(folder / "out");
  fs::permissions(folder / "out", fs::perms::all);
  for (const std::string closed : {"closed.txt", "closed", "tree/closed", "files/closed.txt"})
    fs::permissions(folder / closed, fs::perms::none);

  inUnprivilegedChildProcess([&] {
    const auto expectDenied = [&](const std::string& source, const std::string& named) {
      const std::string archive = folder / "out/out.zip";
      expectFailed(runProcess({folder / "kqzip", "create", archive, folder / source}),
                   folder / named + reason(EACCES));
      expectNothingAt(archive);
    };
    expectDenied("closed.txt", "closed.txt");
    expectDenied("closed", "closed");
    expectDenied("tree", "tree/closed");
    // Within a folder it is the library that finds a file closed.
    const std::string partial = folder / "out/partial.zip";
    expectFailed(runProcess({folder / "kqzip", "create", partial, folder / "files"}),
                 "Can't calculate CRC of " + (folder / "files/closed.txt") + " (partial archive left at " +
                     partial + "; remove it before another try; check that the file can be read)");
    // Nor can it be written.
    expectFailed(runProcess({folder / "kqzip", "create", folder / "out.zip", folder / "open.txt"}),
                 folder.path().string() + reason(EACCES));
  });
}

TEST(ToolCreate, AnExistingArchiveIsRefusedAndLeftAsItIs) {
  const SourceTree folder;
  folder.file("tree/a.txt", "text");
  const std::string archive = folder.file("out.zip", "something else");
  const std::string message =
      "Could not write to zip path " + archive + " (it exists, remove it or choose another name)";

  expectFailed(runTool({"create", archive, folder / "tree"}), message);
  expectFailed(runTool({"create", archive, folder / "tree/a.txt"}), message);
  // The archive itself as its only source.
  expectFailed(runTool({"create", archive, archive}), message);
  EXPECT_EQ("something else", readFile(archive));
}

TEST(ToolCreate, ALinkThatLeadsNowhereIsRefusedAndNotWrittenThrough) {
  const SourceTree folder;
  folder.file("tree/a.txt", "text");
  const std::string archive = folder / "out.zip";
  fs::create_symlink("elsewhere.zip", archive);
  expectFailed(runTool({"create", archive, folder / "tree"}),
               "Could not write to zip path " + archive + " (it exists, remove it or choose another name)");
  EXPECT_TRUE(fs::is_symlink(archive));
  expectNothingAt(folder / "elsewhere.zip");
}

TEST(ToolCreate, WhatComesIntoBeingInPlaceOfTheArchiveIsRefusedAndNotCalledPartial) {
  const SourceTree folder;
  folder.file("tree/a.txt", "text");
  const std::string archive = folder / "out.zip";
  RunningProgram tool(stoppedAt(archive, {0, FileMoment::Call::Open}, stopWhole,
                                toolCommand({"create", archive, folder / "tree"})));
  tool.waitUntilItStops();
  writeFile(archive, "somebody else's");
  tool.send(SIGCONT);
  expectFailed(tool.finish(),
               "Could not write to zip path " + archive + " (it exists, remove it or choose another name)");
  EXPECT_EQ("somebody else's", readFile(archive));
}

TEST(ToolCreate, AnArchiveWithoutAParentFolderIsRefused) {
  const SourceTree folder;
  folder.file("tree/a.txt", "text");
  const std::string archive = folder / "missing/out.zip";
  expectFailed(runTool({"create", archive, folder / "tree"}),
               "Could not write to zip path " + archive +
                   " because parent directory doesn't exist (make that folder first)");
  expectNothingAt(folder / "missing");
}

TEST(ToolCreate, APlaceWhereNoArchiveCanBeIsRefusedWithItsReason) {
  const SourceTree folder;
  folder.file("tree/a.txt", "text");
  const auto expectNoPlace = [&](const std::string& archive, const std::string& why) {
    expectFailed(runTool({"create", archive, folder / "tree"}), archive + why);
  };
  const std::string fileInTheWay = std::string(": ") + std::strerror(ENOTDIR) +
                                   " (a file stands where its folder should be, choose another path)";
  expectNoPlace(folder / "tree/a.txt/out.zip", fileInTheWay);
  expectNoPlace(folder / "tree/a.txt/deeper/out.zip", fileInTheWay);
  expectNoPlace(folder / "tree/a.txt/", fileInTheWay);
  expectNoPlace(folder / (std::string(252, 'x') + ".zip"), reason(ENAMETOOLONG));
  expectNoPlace(folder / "new.zip/",
                std::string(": ") + std::strerror(EISDIR) + " (leave out the slash at its end)");
  expectFailed(runTool({"create", "", folder / "tree"}),
               "the archive's name is empty (give the path of an archive)");
  EXPECT_EQ("text", readFile(folder / "tree/a.txt"));
  EXPECT_EQ(1, std::distance(fs::directory_iterator(folder / ""), fs::directory_iterator()));
}

TEST(ToolCreate, ANameThatIsNotUTF8IsAnErrorThatNamesTheFile) {
  const SourceTree folder;
  folder.file("bad\xFF.txt", "text");
  folder.file("tree/bad\xFE.txt", "text");
  folder.file("folder\xFD/good.txt", "text");
  // The archive must not be in a folder whose own name stands in the way.
  expectRefused(folder, {folder / "bad\xFF.txt"}, (folder / "bad\\xFF.txt") + reason(EILSEQ));
  expectRefused(folder, {folder / "folder\xFD/good.txt"}, (folder / "folder\\xFD/good.txt") + reason(EILSEQ));
  expectRefused(folder, {folder / "tree"}, (folder / "tree/bad\\xFE.txt") + reason(EILSEQ));
  expectFailed(runTool({"create", folder / "out\xFF.zip", folder.file("a.txt", "text")}),
               (folder / "out\\xFF.zip: ") + std::strerror(EILSEQ) + " (choose a name that is UTF-8)");
}

TEST(ToolCreate, AMessageIsOneLineWhateverTheNameHolds) {
  const SourceTree folder;
  const std::string result = runTool({"create", folder / "out.zip", "new\nline\x1B[31m"}).errors;
  EXPECT_EQ("kqzip: new\\x0Aline\\x1B[31m" + reason(ENOENT) + "\n", result);
}

TEST(ToolCreate, APartialArchiveThatAFailureLeavesIsNamed) {
  const SourceTree folder;
  folder.file("tree/a.bin", patternBytes(300000));
  const std::string archive = folder / "out.zip";

  inChildProcess([&] {
    // A disk that is full after 100,000 bytes.
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{100000, 100000};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    expectFailed(runTool({"create", archive, folder / "tree"}),
                 "Error writing file (partial archive left at " + archive +
                     "; remove it before another try; check that there is room for it)");
  });
  EXPECT_LE(fs::file_size(archive), 100000U);
}

TEST(ToolCreate, ClosedStandardStreamsDoNotGetIntoTheArchive) {
  const SourceTree folder;
  folder.file("tree/a.txt", "text");
  expectDone(runProcess({"/bin/sh", "-c", "exec \"$0\" \"$@\" <&- >&- 2>&-", KQZIP_TOOL, "create", "--exact",
                         folder / "out.zip", folder / "tree"}));
  expectArchive(folder / "out.zip", {SourceTree::entry("a.txt", "text")});

  // A message that cannot be printed must not go there either.
  const ProcessResult result = runProcess({"/bin/sh", "-c", "exec \"$0\" \"$@\" <&- >&- 2>&-", KQZIP_TOOL,
                                           "create", folder / "out.zip", folder / "tree"});
  EXPECT_EQ(1, result.exitStatus);
  expectArchive(folder / "out.zip", {SourceTree::entry("a.txt", "text")});
}

TEST(ToolCreate, SourcesThatMakeNoSenseTogetherAreWrongUsage) {
  const SourceTree folder;
  const std::string archive = folder / "out.zip";
  const std::string file = folder.file("a.txt", "text");
  const std::string other = folder.file("b.txt", "text");
  fs::create_directory(folder / "tree");

  const std::string oneFolder = "give one folder alone, or files";
  expectWrongUsage(runTool({"create", archive, folder / "tree", file}), oneFolder, createUsage);
  expectWrongUsage(runTool({"create", archive, file, folder / "tree"}), oneFolder, createUsage);
  expectWrongUsage(runTool({"create", archive, folder / "tree", folder / "tree"}), oneFolder, createUsage);
  const std::string forFolder = "--keep-parent is for a folder";
  expectWrongUsage(runTool({"create", "-k", archive, file}), forFolder, createUsage);
  expectWrongUsage(runTool({"create", "--keep-parent", archive, file, other}), forFolder, createUsage);
  for (const std::string root : {"/", "//", "/..", "/."}) {
    expectWrongUsage(runTool({"create", "-k", archive, root}), "--keep-parent: \"" + root + "\" has no name",
                     createUsage);
  }
  expectNothingAt(archive);
}

TEST(ToolCreate, ArgumentsThatAreMissingOrUnknownAreWrongUsage) {
  const TemporaryDirectory folder;
  const std::string archive = folder / "out.zip";
  expectWrongUsage(runTool({"create"}), "ARCHIVE is required", createUsage);
  expectWrongUsage(runTool({"create", archive}), "SOURCE is required", createUsage);
  expectWrongUsage(runTool({"create", "-x", archive, "/dev"}), "The following argument was not expected: -x",
                   createUsage);
  expectWrongUsage(runTool({"create", "--keep", archive, "/dev"}),
                   "The following argument was not expected: --keep", createUsage);
  const std::string noShortHelp = "there is no option \"-h\" (--help prints the help)";
  expectWrongUsage(runTool({"create", "-h"}), noShortHelp, createUsage);
  expectWrongUsage(runTool({"create", "-h", archive, "/dev"}), noShortHelp, createUsage);
  expectWrongUsage(runTool({"create", "-kh", archive, "/dev"}), noShortHelp, createUsage);
  expectNothingAt(archive);
}

TEST(Tool, WithoutAKnownCommandIsWrongUsage) {
  expectWrongUsage(runTool({}), "a command is required", anyUsage);
  expectWrongUsage(runTool({"pack"}), "there is no command or option \"pack\"", anyUsage);
  expectWrongUsage(runTool({"-v"}), "there is no command or option \"-v\"", anyUsage);
  expectWrongUsage(runTool({""}), "there is no command or option \"\"", anyUsage);
  expectWrongUsage(runTool({"[list]"}), "there is no command or option \"[list]\"", anyUsage);
}

TEST(Tool, PrintsItsVersion) { expectDone(runTool({"--version"}), "kqzip " + projectVersion() + "\n"); }

TEST(Tool, HelpOfTheToolNamesEveryCommand) {
  const ProcessResult result = runTool({"--help"});
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ("", result.errors);
  for (const std::string command : {"create", "conform", "list", "extract", "cat", "verify"})
    EXPECT_NE(std::string::npos, result.output.find("\n  " + command + " ")) << command;
  EXPECT_EQ(result.output, runTool({"-h"}).output);
}

TEST(Tool, HelpOfACommandNamesItsOptionsAndTheExitStatuses) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> optionsOf{
      {"create", {"-k,--keep-parent", "--exact", "-q,--quiet", "ARCHIVE", "SOURCE"}},
      {"conform", {"ARCHIVE"}},
      {"list", {"-l,--long", "-0,--null", "ARCHIVE"}},
      {"extract", {"-C,--directory DIR", "--unsafe-paths", "-q,--quiet", "ARCHIVE", "PATH"}},
      {"cat", {"ARCHIVE", "PATH"}},
      {"verify", {"-q,--quiet", "ARCHIVE"}}};
  for (const auto& [command, options] : optionsOf) {
    SCOPED_TRACE(command);
    const ProcessResult result = runTool({command, "--help"});
    EXPECT_EQ(0, result.exitStatus);
    EXPECT_EQ("", result.errors);
    for (const std::string& option : options)
      EXPECT_NE(std::string::npos, result.output.find("\n  " + option + " ")) << option;
    EXPECT_NE(std::string::npos,
              result.output.find("Exit status: 0 done, 1 failed (a line on standard error says why), 2 wrong "
                                 "usage, 130 interrupted."));
  }
}

TEST(Tool, HelpSaysWhereReadableSizesShow) {
  EXPECT_NE(std::string::npos, runTool({"list", "--help"}).output.find("With --long, sizes in units"));
  EXPECT_EQ(std::string::npos, runTool({"verify", "--help"}).output.find("With --long"));
}

TEST(Tool, TextThatCannotBePrintedIsAFailure) {
  for (const std::string option : {"--help", "--version"}) {
    const ProcessResult result =
        runProcess({"/bin/sh", "-c", "exec \"$0\" \"$1\" >/dev/full", KQZIP_TOOL, option});
    expectFailed(result, "standard output" + reason(ENOSPC));
  }
}
