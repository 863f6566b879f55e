// The tool where a file may not grow any further: it says so, and what it has left.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/Sanitizers.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace {

namespace fs = std::filesystem;

// Runs the tool with files limited to one block of 512 or 1,024 bytes.
KQTest::ProcessResult runLimited(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{"sh", "-c", "ulimit -f 1 && exec \"$@\"", "sh", KQZIP_TOOL};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return KQTest::runProcess(command);
}

TEST(ToolLimits, CreateFailsAndNamesThePartialArchive) {
  const KQTest::TemporaryDirectory directory;
  KQTest::writeFile(directory / "tree/a.bin", KQTest::patternBytes(100000));
  const std::string archive = directory / "a.zip";
  const auto result = runLimited({"create", archive, directory / "tree"});
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("", result.output);
  EXPECT_EQ("kqzip: Error writing file (partial archive left at " + archive +
                "; remove it before another try; check that there is room for it)\n",
            result.errors);
}

// Runs the tool with files limited to `limit` bytes.
KQTest::ProcessResult runLimitedTo(std::uint64_t limit, const std::vector<std::string>& arguments) {
  rlimit before{};
  EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
  rlimit limited = before;
  limited.rlim_cur = static_cast<rlim_t>(limit);
  EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limited));
  const auto result = KQTest::runTool(arguments);
  EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
  return result;
}

// Packs `tree` at each limit in turn. The tool may only succeed where all of the archive is there.
void expectNeverCreatedUnlessWhole(const KQTest::SourceTree& tree, const std::string& whole,
                                   const std::set<std::uint64_t>& limits) {
  KQTest::inChildProcess([&] {
#if KQTEST_THREAD_SANITIZER
    // ThreadSanitizer's own start meets a limit of 0 before the tool can ignore the signal.
    std::signal(SIGXFSZ, SIG_IGN);
#endif
    const std::string archive = tree / "a.zip";
    for (const std::uint64_t limit : limits) {
      SCOPED_TRACE("limit " + std::to_string(limit));
      const auto result = runLimitedTo(limit, {"create", "--exact", archive, tree / "tree"});
      const std::string bytes = KQTest::readFile(archive);
      if (limit >= whole.size()) {
        KQTest::expectDone(result);
        KQTest::expectSameBytes(whole, bytes);
      } else {
        KQTest::expectFailed(result, "Error writing file (partial archive left at " + archive +
                                         "; remove it before another try; check that there is room for it)");
        KQTest::expectSameBytes(whole.substr(0, limit), bytes, "what is there is a part of the archive");
      }
      fs::remove(archive);
    }
  });
}

// Packs files of these contents under the names "0", "1", ... and gives the entries.
std::vector<KQTest::GoldenEntry> filesOf(const KQTest::SourceTree& tree,
                                         const std::vector<std::string>& contents) {
  std::vector<KQTest::GoldenEntry> entries;
  for (const std::string& content : contents) {
    const std::string name = std::to_string(entries.size());
    tree.file("tree/" + name, content);
    entries.push_back(KQTest::SourceTree::entry(name, content));
  }
  return entries;
}

// The place where each field of an archive begins, and the archive's end.
std::vector<std::uint64_t> fieldsOf(const std::vector<KQTest::GoldenEntry>& entries) {
  std::vector<std::uint64_t> edges{0};
  const auto add = [&edges](const std::vector<std::uint64_t>& widths) {
    for (const std::uint64_t width : widths) edges.push_back(edges.back() + width);
  };
  const std::vector<std::uint64_t> zip64Field{2, 2, 24};
  for (const KQTest::GoldenEntry& entry : entries) {
    add({4, 2, 2, 2, 2, 2, 4, 4, 4, 2, 2, entry.name.size()});
    add(zip64Field);
    add({entry.data.size()});
  }
  for (const KQTest::GoldenEntry& entry : entries) {
    add({4, 2, 2, 2, 2, 2, 2, 4, 4, 4, 2, 2, 2, 2, 2, 4, 4, entry.name.size()});
    add(zip64Field);
  }
  add({4, 8, 2, 2, 4, 4, 8, 8, 8, 8});
  add({4, 4, 8, 4});
  add({4, 2, 2, 2, 2, 4, 4, 2});
  return edges;
}

TEST(ToolLimits, CreateNeverSucceedsUnlessASmallArchiveIsWholeAroundEveryField) {
  const KQTest::SourceTree tree;
  const auto entries = filesOf(tree, {"one", "", "three"});
  const std::string whole = KQTest::goldenArchive(entries);
  const std::vector<std::uint64_t> fields = fieldsOf(entries);
  ASSERT_EQ(whole.size(), fields.back());
  std::set<std::uint64_t> limits;
  for (const std::uint64_t edge : fields) {
    for (const std::uint64_t limit : {edge == 0 ? edge : edge - 1, edge, edge + 1}) limits.insert(limit);
  }
  expectNeverCreatedUnlessWhole(tree, whole, limits);
}

TEST(ToolLimits, CreateNeverSucceedsUnlessALargeArchiveIsWholeAroundEveryRecordAndBlock) {
  const KQTest::SourceTree tree;
  const auto entries =
      filesOf(tree, {KQTest::patternBytes(70000), "small", KQTest::patternBytes(1048576 + 100, 2), "last"});
  const std::string whole = KQTest::goldenArchive(entries);
  std::set<std::uint64_t> limits;
  const auto addAround = [&limits](std::uint64_t edge) {
    for (const std::uint64_t limit : {edge == 0 ? edge : edge - 1, edge, edge + 1}) limits.insert(limit);
  };
  std::uint64_t offset = 0;
  for (const KQTest::GoldenEntry& entry : entries) {
    addAround(offset);
    const std::uint64_t data = offset + KQTest::goldenLocalHeader(entry, offset).size();
    addAround(data);
    if (entry.data.size() > 1048576) addAround(data + 1048576);
    offset = data + entry.data.size();
  }
  const std::uint64_t centralHeader = KQTest::goldenCentralHeader(entries[0], 0).size();
  for (std::size_t i = 0; i <= entries.size(); ++i) addAround(offset + i * centralHeader);
  for (const std::uint64_t tail : {42U, 22U, 0U}) addAround(whole.size() - tail);
  expectNeverCreatedUnlessWhole(tree, whole, limits);
}

TEST(ToolLimits, ExtractFailsForASmallFileAndForALargeOne) {
  // The small one only leaves the stream's buffer when the file is closed.
  for (const std::size_t length : {3000U, 100000U}) {
    SCOPED_TRACE(length);
    const KQTest::TemporaryDirectory directory;
    KQTest::writeFile(directory / "tree/a.bin", KQTest::patternBytes(length));
    const std::string archive = directory / "a.zip";
    ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(archive, directory / "tree", false));
    const std::string target = directory / "out/a.bin";
    const auto result = runLimited({"extract", "-C", directory / "out", archive});
    EXPECT_EQ(1, result.exitStatus);
    EXPECT_EQ("kqzip: " + archive + ": \"a.bin\" cannot be unpacked: " + target + ": " +
                  std::strerror(EFBIG) + " (check that there is room for it)\n",
              result.errors);
    EXPECT_FALSE(std::filesystem::exists(target));
  }
}

}  // namespace
