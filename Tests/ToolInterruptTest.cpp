#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/RunningProgram.h"
#include "Support/SourceTree.h"
#include "Support/SparseFile.h"
#include "Support/StoppedProgram.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;

/// An archive whose only entry takes long to read and no room on the disk.
std::string archiveOfSparseEntry(const std::string& path, const std::string& name, std::uint64_t length) {
  KQTest::writeSparseArchive(path, {}, name, length);
  return path;
}

std::uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

void expectInterrupted(const ProcessResult& result, const std::string& message) {
  EXPECT_EQ(130, result.exitStatus);
  EXPECT_EQ("kqzip: " + message + "\n", result.errors);
}

/// A folder to pack, by a tool that is stopped at a moment that is no chance.
class Packing {
 public:
  Packing() {
    for (const std::string name : {"a", "b", "c"}) {
      const std::string file = folder_.file("tree/" + name, "contents of " + name);
      EXPECT_EQ(0, chmod(file.c_str(), 0644));
      entries_.push_back(SourceTree::entry(name, "contents of " + name));
    }
  }

  std::string archive() const { return folder_ / "out.zip"; }
  std::string exactArchive() const { return goldenArchive(entries_); }

  /// The command line that packs, and stops the tool at a moment of its use of the archive.
  std::vector<std::string> stoppedAt(const FileMoment& moment, const std::string& how) const {
    return KQTest::stoppedAt(archive(), moment, how, toolCommand({"create", archive(), folder_ / "tree"}));
  }

 private:
  SourceTree folder_;
  std::vector<GoldenEntry> entries_;
};

/// What a person and what the system send.
class ToolInterrupt : public testing::TestWithParam<int> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(EachSignal, ToolInterrupt, testing::Values(SIGINT, SIGTERM),
                         [](const auto& signal) { return signal.param == SIGINT ? "SIGINT" : "SIGTERM"; });

TEST_P(ToolInterrupt, CreateInTheMiddleOfALargeFileNamesThePartialArchive) {
  const TemporaryDirectory folder;
  const std::string archive = folder / "out.zip";
  RunningProgram tool(toolCommand({"create", archive, sparseFile(folder / "large", gibibyte)}));
  waitUntil([&] { return sizeOf(archive) > 1048576; });
  tool.send(GetParam());
  const ProcessResult result = tool.finish();
  expectInterrupted(result, "interrupted (partial archive left at " + archive + ")");
  EXPECT_EQ("", result.output);
  EXPECT_GT(sizeOf(archive), 1048576U);
  EXPECT_LT(sizeOf(archive), gibibyte);
}

TEST_P(ToolInterrupt, CreateWhileAChecksumIsComputedNamesThePartialArchive) {
  const TemporaryDirectory folder;
  const std::string archive = folder / "out.zip";
  // The first file shows in the archive before the second one's checksum, which takes minutes.
  writeFile(folder / "tree/a", patternBytes(3000000));
  sparseFile(folder / "tree/b", 256 * gibibyte);
  RunningProgram tool(toolCommand({"create", archive, folder / "tree"}));
  waitUntil([&] { return sizeOf(archive) > 0; });
  tool.send(GetParam());
  expectInterrupted(tool.finish(), "interrupted (partial archive left at " + archive + ")");
  EXPECT_LT(sizeOf(archive), 4000000U);
}

TEST_P(ToolInterrupt, ExtractInTheMiddleOfALargeFileLeavesNoPartialFile) {
  const TemporaryDirectory folder;
  const std::string archive = archiveOfSparseEntry(folder / "a.zip", "dir/large", 16 * gibibyte);
  const std::string target = folder / "out/dir/large";
  RunningProgram tool(toolCommand({"extract", "-C", folder / "out", archive}));
  waitUntil([&] { return sizeOf(target) > 0; });
  tool.send(GetParam());
  expectInterrupted(tool.finish(), "interrupted");
  EXPECT_FALSE(fs::exists(target));
}

TEST_P(ToolInterrupt, VerifyInTheMiddleOfALargeEntryEnds) {
  const TemporaryDirectory folder;
  // The first line is printed before the large entry is read, which takes minutes.
  LocalRecord wrong = plainRecord("wrong", "x");
  std::string bytes = wrong.bytes();
  bytes.back() = 'y';
  LocalRecord large = plainRecord("large", "");
  large.size = 0xFFFFFFFF;
  large.extra = zip64FieldBytes(256 * gibibyte, 256 * gibibyte);
  writeFile(folder / "a.zip", bytes + large.header());
  fs::resize_file(folder / "a.zip", bytes.size() + large.header().size() + 256 * gibibyte);
  RunningProgram tool(toolCommand({"verify", folder / "a.zip"}));
  tool.waitForOutput();
  tool.send(GetParam());
  const ProcessResult result = tool.finish();
  expectInterrupted(result, "interrupted");
  EXPECT_EQ(0U, result.output.find("wrong: CRC-32 is "));
}

TEST_P(ToolInterrupt, CatEndsAtOnceThoughNobodyReads) {
  const TemporaryDirectory folder;
  RunningProgram tool(
      toolCommand({"cat", archiveOfSparseEntry(folder / "a.zip", "large", gibibyte), "large"}));
  tool.waitForOutput();
  tool.send(GetParam());
  expectInterrupted(tool.finish(), "interrupted");
}

TEST_P(ToolInterrupt, ListEndsAtOnceThoughNobodyReads) {
  const TemporaryDirectory folder;
  std::string bytes;
  for (int i = 0; i < 100; ++i) bytes += plainRecord(std::to_string(i) + std::string(60000, 'n'), "").bytes();
  writeFile(folder / "a.zip", bytes + endRecordBytes());
  RunningProgram tool(toolCommand({"list", folder / "a.zip"}));
  tool.waitForOutput();
  tool.send(GetParam());
  // A reader would let the list go on to its end in the meantime.
  tool.waitUntilItEnds();
  expectInterrupted(tool.finish(), "interrupted");
}

TEST_P(ToolInterrupt, ASecondSignalEndsWhatDoesNotEndByItself) {
  const TemporaryDirectory folder;
  // More lines than a pipe holds that nobody reads: verify waits for ever.
  std::string bytes;
  for (int i = 0; i < 100; ++i) {
    bytes += plainRecord(std::to_string(i) + std::string(60000, 'n'), "x").bytes();
    bytes.back() = 'y';
  }
  writeFile(folder / "a.zip", bytes + endRecordBytes());
  RunningProgram tool(toolCommand({"verify", folder / "a.zip"}));
  // The first line is in the pipe, and of the second what there was room for.
  tool.waitForOutput(60100);
  tool.sendUntilItEnds(GetParam());
  expectInterrupted(tool.finish(), "interrupted");
}

TEST(ToolInterruptions, BetweenPackingAndConformingTheExactArchiveIsLeft) {
  const Packing packing;
  const auto behindTheArchive = static_cast<std::int64_t>(packing.exactArchive().size());
  // When the archive is about to be opened to be read back, and when it has been read to its end.
  for (const FileMoment& moment :
       std::vector<FileMoment>{{1, FileMoment::Call::Open}, {2, FileMoment::Call::Read, behindTheArchive}}) {
    SCOPED_TRACE(moment.opens);
    expectInterrupted(
        runProcess(packing.stoppedAt(moment, stopForSIGINT)),
        "interrupted (archive left unchecked and as with --exact at " + packing.archive() + ")");
    expectSameBytes(packing.exactArchive(), readFile(packing.archive()));
    expectDone(runTool({"verify", "-q", packing.archive()}));
    expectDone(runTool({"conform", packing.archive()}));
    expectSameBytes(interoperableArchive(packing.exactArchive()), readFile(packing.archive()));
    fs::remove(packing.archive());
  }
}

TEST(ToolInterruptions, OnceConformingHasBegunItIsCarriedOut) {
  const Packing packing;
  // When the archive is about to be opened to see what is to be changed, and to be changed.
  for (const int opens : {2, 3}) {
    SCOPED_TRACE(opens);
    RunningProgram tool(packing.stoppedAt({opens, FileMoment::Call::Open}, stopWhole));
    tool.waitUntilItStops();
    tool.send(SIGINT);
    tool.send(SIGCONT);
    expectDone(tool.finish());
    expectSameBytes(interoperableArchive(packing.exactArchive()), readFile(packing.archive()));
    fs::remove(packing.archive());
  }
}

TEST(ToolInterruptions, ASignalThatTheParentIgnoresStillInterrupts) {
  const TemporaryDirectory folder;
  const std::string archive = folder / "out.zip";
  writeFile(folder / "tree/a", patternBytes(3000000));
  sparseFile(folder / "tree/b", 256 * gibibyte);
  RunningProgram tool(
      {"/bin/sh", "-c", "trap '' INT; exec \"$0\" \"$@\"", KQZIP_TOOL, "create", archive, folder / "tree"});
  waitUntil([&] { return sizeOf(archive) > 0; });
  tool.send(SIGINT);
  expectInterrupted(tool.finish(), "interrupted (partial archive left at " + archive + ")");
}

TEST(ToolClosedOutput, EndsCatAndListQuietly) {
  const TemporaryDirectory folder;
  const std::string archive = archiveOfSparseEntry(folder / "a.zip", "large", gibibyte);
  std::string names;
  for (int i = 0; i < 100; ++i) names += plainRecord(std::to_string(i) + std::string(60000, 'n'), "").bytes();
  writeFile(folder / "b.zip", names + endRecordBytes());
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"cat", archive, "large"}, {"list", folder / "b.zip"}}) {
    RunningProgram tool(toolCommand(arguments));
    tool.waitForOutput();
    tool.closeOutput();
    const ProcessResult result = tool.finish();
    EXPECT_EQ(0, result.exitStatus);
    EXPECT_EQ("", result.errors);
  }
}

TEST(ToolClosedOutput, DoesNotKeepVerifyFromItsAnswer) {
  const TemporaryDirectory folder;
  std::string bytes = plainRecord("wrong", "x").bytes();
  bytes.back() = 'y';
  writeFile(folder / "a.zip", bytes + plainRecord("b", "2").bytes() + endRecordBytes());
  RunningProgram tool(toolCommand({"verify", folder / "a.zip"}));
  tool.closeOutput();
  const ProcessResult result = tool.finish();
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("kqzip: " + (folder / "a.zip") +
                ": 3 problems found (kqzip extract gives back what can be read, unchecked)\n",
            result.errors);
}

TEST(ToolArchiveCutWhileItIsRead, ExtractSaysThatTheFileIsShortAndLeavesNoneOfIt) {
  const TemporaryDirectory folder;
  const std::string archive = archiveOfSparseEntry(folder / "a.zip", "large", 16 * gibibyte);
  const std::string target = folder / "out/large";
  RunningProgram tool(toolCommand({"extract", "-C", folder / "out", archive}));
  waitUntil([&] { return sizeOf(target) > 0; });
  fs::resize_file(archive, 100);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(1, result.exitStatus);
  const std::regex message("kqzip: " + archive + ": \"large\" ends after [0-9]+ of " +
                           std::to_string(16 * gibibyte) +
                           " bytes \\(kqzip verify tells all that is wrong\\)\n");
  EXPECT_TRUE(std::regex_match(result.errors, message)) << result.errors;
  EXPECT_FALSE(fs::exists(target));
}

TEST(ToolArchiveCutWhileItIsRead, CatSaysThatTheEntryEndsEarly) {
  const TemporaryDirectory folder;
  const std::string archive = archiveOfSparseEntry(folder / "a.zip", "large", 16 * gibibyte);
  RunningProgram tool(toolCommand({"cat", archive, "large"}));
  tool.waitForOutput();
  fs::resize_file(archive, 100);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("kqzip: " + archive + ": large is not given back: ends after " +
                std::to_string(result.output.size()) + " of " + std::to_string(16 * gibibyte) +
                " bytes (kqzip verify tells all that is wrong)\n",
            result.errors);
}
