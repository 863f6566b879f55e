// Real disks with too little room: nothing is called written or extracted that is not whole.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/SmallDisk.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

const std::uint64_t page = 4096;

class SmallDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = reasonAgainstSmallDisks();
    if (!reason.empty()) GTEST_SKIP() << reason;
    fs::create_directory(disk_);
    std::vector<GoldenEntry> entries;
    // The last one is still in the stream's buffer when everything is written.
    for (const std::string& contents : {std::string("small"), patternBytes(9000), std::string(),
                                        patternBytes(200000, 2), patternBytes(30000, 3)}) {
      const std::string name = std::to_string(entries.size());
      tree_.file("tree/" + name, contents);
      entries.push_back(SourceTree::entry(name, contents));
    }
    whole_ = goldenArchive(entries);
  }

  // Disks from one page to one on which everything has room; around the last that has not, every one.
  std::set<std::uint64_t> sizes() const {
    const std::uint64_t pages = whole_.size() / page + 1;
    std::set<std::uint64_t> sizes{2 * pages * page};
    for (std::uint64_t count = 1; count <= pages + 2; count += count + 4 < pages ? 5 : 1)
      sizes.insert(count * page);
    return sizes;
  }

  // On each disk `write` either succeeds, and then the archive is whole, or fails.
  template <class Write>
  void expectNeverWrittenUnlessWhole(Write write) const {
    inChildProcess([&] {
      std::size_t failures = 0;
      for (const std::uint64_t size : sizes()) {
        SCOPED_TRACE("disk of " + std::to_string(size));
        ASSERT_EQ("", mountSmallDisk(disk_, size));
        const bool written = write(disk_ + "/a.zip");
        const std::string bytes = readFile(disk_ + "/a.zip");
        if (written)
          expectSameBytes(whole_, bytes);
        else
          expectSameBytes(whole_.substr(0, bytes.size()), bytes, "what is there is a part of the archive");
        EXPECT_TRUE(written || size < 2 * whole_.size());
        if (!written) ++failures;
      }
      EXPECT_GE(failures, 10U);
    });
  }

  SourceTree tree_;
  std::string disk_ = tree_ / "disk";
  std::string whole_;
};

TEST_F(SmallDisk, TheLibraryNeverCallsAnArchiveWrittenThatIsNotWhole) {
  expectNeverWrittenUnlessWhole([this](const std::string& archive) {
    const LogCapture log;
    Error error;
    const bool written = KQZipFileWriter::createZipFileAtPath(archive, tree_ / "tree", false, &error);
    if (!written) expectError(error, -51, "Error writing file");
    return written;
  });
}

TEST_F(SmallDisk, TheToolNeverCallsAnArchiveWrittenThatIsNotWhole) {
  expectNeverWrittenUnlessWhole([this](const std::string& archive) {
    const ProcessResult result = runTool({"create", "--exact", archive, tree_ / "tree"});
    if (result.exitStatus == 0)
      expectDone(result);
    else
      expectFailed(result, "Error writing file (partial archive left at " + archive +
                               "; remove it before another try; check that there is room for it)");
    return result.exitStatus == 0;
  });
}

TEST_F(SmallDisk, TheToolNeverCallsATreeExtractedThatIsNotWhole) {
  const std::string archive = tree_ / "whole.zip";
  writeFile(archive, whole_);
  inChildProcess([&] {
    for (const std::uint64_t size : sizes()) {
      SCOPED_TRACE("disk of " + std::to_string(size));
      ASSERT_EQ("", mountSmallDisk(disk_, size));
      const ProcessResult result = runTool({"extract", "-C", disk_, archive});
      EXPECT_TRUE(result.exitStatus == 0 || size < 2 * whole_.size());
      if (result.exitStatus != 0) {
        EXPECT_EQ(1, result.exitStatus);
        EXPECT_NE("", result.errors);
        continue;
      }
      for (const char* name : {"0", "1", "2", "3", "4"})
        expectSameBytes(readFile(tree_ / ("tree/" + std::string(name))), readFile(disk_ + "/" + name), name);
    }
  });
}

}  // namespace
