// The tool where a file may not grow any further: it says so, and what it has left.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace {

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
    EXPECT_EQ("kqzip: Failed to write to stream at " + target + " (partial file left at " + target +
                  "; check that there is room for it)\n",
              result.errors);
  }
}

}  // namespace
