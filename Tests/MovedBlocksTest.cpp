// After its first block a file is copied by the system itself, where it can: into an archive and out of it.
// Where the library is built for a system that cannot, block after block is read and written.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/SourceTree.h"
#include "Support/SystemCalls.h"
#include "Support/TestStreams.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t block = 1048576;
constexpr std::uint64_t rest = 4321;
constexpr std::uint64_t length = 4 * block + rest;

constexpr bool systemMoves = KQZIP_SYSTEM_MOVES_BYTES;

// What the system moves of all copies of the large file together.
constexpr std::uint64_t movedOf(std::uint64_t copies) { return systemMoves ? copies * (length - block) : 0; }

// Tells where a copy of the large file takes the next block after its first: the system moves it, or it is
// read after the first was written.
class NextBlocks {
 public:
  bool begins(const SystemCalls::Transfer& transfer) {
    if (systemMoves) return transfer.isMove();
    if (transfer.isWrite && transfer.asked() >= block) firstIsWritten_ = true;
    return firstIsWritten_ && !transfer.isWrite && transfer.asked() >= rest;
  }

 private:
  bool firstIsWritten_ = false;
};

class MovedBlocks : public ::testing::Test {
 protected:
  MovedBlocks() {
    tree_.file("tree/a large file", data_);
    tree_.file("tree/b small", "behind it");
    whole_ =
        goldenArchive({SourceTree::entry("a large file", data_), SourceTree::entry("b small", "behind it")});
  }

  bool pack() const { return KQZipFileWriter::createZipFileAtPath(archive_, tree_ / "tree", false); }

  // Extracts the large file, in front of which the archive has a header and behind which it has another.
  bool extract() const {
    const auto reader = KQZipFileReader::initWithZipPath(archive_);
    return reader && reader->writeDataForRelativePath("a large file", target_);
  }

  // The same by way of its header.
  bool exportFile() const {
    const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(archive_);
    if (!stream) return false;
    stream->open();
    std::uint32_t signature = 0;
    if (!KQZipReadBlock32(*stream, &signature)) return false;
    const auto header = KQZipFileLocalHeader::initWithStream(*stream);
    return header && header->exportFileToPath(target_, *stream);
  }

  using Copy = std::function<bool()>;

  // Both ways to extract.
  std::vector<Copy> extractions() const {
    return {[this] { return extract(); }, [this] { return exportFile(); }};
  }

  void expectPacked() const { expectSameBytes(whole_, readFile(archive_)); }

  // Extracts in both ways.
  void expectExtracted() const {
    for (const Copy& copy : extractions()) {
      fs::remove(target_);
      ASSERT_TRUE(copy());
      expectSameBytes(data_, readFile(target_));
    }
  }

  template <class Which>
  static std::uint64_t bytesOf(const SystemCalls& calls, Which which) {
    std::uint64_t sum = 0;
    for (const SystemCalls::Transfer& transfer : calls.transfers) {
      if (which(transfer) && transfer.result > 0) sum += static_cast<std::uint64_t>(transfer.result);
    }
    return sum;
  }

  static std::uint64_t bytesMoved(const SystemCalls& calls) {
    return bytesOf(calls, [](const SystemCalls::Transfer& transfer) { return transfer.isMove(); });
  }

  static std::uint64_t bytesRead(const SystemCalls& calls) {
    return bytesOf(calls, [](const SystemCalls::Transfer& transfer) { return !transfer.isWrite; });
  }

  // Runs `copy` in a progress that is cancelled before the block of that number after the first, from 0.
  static void cancelBeforeBlock(std::size_t number, const Copy& copy) {
    const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
    progress->becomeCurrentWithPendingUnitCount(1);
    {
      SystemCalls calls;
      NextBlocks next;
      std::size_t blocks = 0;
      calls.beforeTransfer = [&](const SystemCalls::Transfer& transfer) {
        if (next.begins(transfer) && blocks++ == number) progress->cancel();
      };
      EXPECT_FALSE(copy());
      EXPECT_EQ(number + 1, blocks) << "it goes on";
    }
    progress->resignCurrent();
  }

  SourceTree tree_;
  std::string data_ = patternBytes(length);
  std::string whole_;
  std::string archive_ = tree_ / "a.zip";
  std::string target_ = tree_ / "out";
};

}  // namespace

TEST_F(MovedBlocks, OnlyTheFirstBlockOfAFileIsBroughtIntoMemoryToBeCopied) {
  {
    const SystemCalls calls;
    ASSERT_TRUE(pack());
    EXPECT_EQ(movedOf(1), bytesMoved(calls));
    EXPECT_EQ(2 * (length + 9) - movedOf(1), bytesRead(calls))
        << "for the CRC, and the first block and the small file again";
  }
  expectPacked();
  for (const Copy& copy : extractions()) {
    const SystemCalls calls;
    ASSERT_TRUE(copy());
    EXPECT_EQ(movedOf(1), bytesMoved(calls));
  }
  expectExtracted();
}

TEST_F(MovedBlocks, AFileOfOneBlockOrLessIsNotLeftToTheSystem) {
  for (const std::uint64_t size : {std::uint64_t{1}, block - 1, block}) {
    SCOPED_TRACE(size);
    data_ = patternBytes(size);
    tree_.file("tree/a large file", data_);
    fs::remove(archive_);
    const SystemCalls calls;
    ASSERT_TRUE(pack());
    expectExtracted();
    EXPECT_EQ(0U, bytesMoved(calls));
  }
}

TEST_F(MovedBlocks, MovesThatAreShortOrInterruptedLoseNothing) {
  SystemCalls calls;
  calls.longestTransfer = 70001;
  calls.interruptEveryOther = true;
  ASSERT_TRUE(pack());
  expectPacked();
  expectExtracted();
  EXPECT_EQ(movedOf(3), bytesMoved(calls));
}

TEST_F(MovedBlocks, WhereTheSystemDoesNotMoveBytesTheyAreReadAndWritten) {
  SystemCalls calls;
  calls.cannotMove = true;
  ASSERT_TRUE(pack());
  expectPacked();
  expectExtracted();
  EXPECT_EQ(0U, bytesMoved(calls));
}

TEST_F(MovedBlocks, AfterAMoveThatFailsTheRestIsReadAndWritten) {
  if (!systemMoves) GTEST_SKIP() << "nothing is moved";
  ASSERT_TRUE(pack());
  std::vector<Copy> copies = extractions();
  copies.push_back([this] { return fs::remove(archive_), pack(); });
  for (const Copy& copy : copies) {
    for (std::size_t number = 0; number < 5; ++number) {
      fs::remove(target_);
      SystemCalls calls;
      // A part of a block is moved before the one that fails.
      calls.longestTransfer = block / 2 + 1;
      std::size_t moves = 0;
      calls.beforeTransfer = [&](const SystemCalls::Transfer& transfer) {
        if (transfer.isMove() && moves++ == number) calls.failAt = calls.transfers.size() + 1;
      };
      EXPECT_TRUE(copy());
      EXPECT_NE(0U, calls.failAt) << number;
      expectPacked();
      if (fs::exists(target_)) expectSameBytes(data_, readFile(target_));
    }
  }
}

TEST_F(MovedBlocks, ACopyIsCancelledBetweenTwoBlocks) {
  const LogCapture log;
  const std::uint64_t headerLength = goldenLocalHeader(SourceTree::entry("a large file", data_), 0).size();
  for (std::size_t number = 0; number < 3; ++number) {
    fs::remove(archive_);
    cancelBeforeBlock(number, [&] { return pack(); });
    // The first block, those that came before, and the one that was being moved, but not one that was read.
    const std::uint64_t blocks = number + (systemMoves ? 2 : 1);
    expectSameBytes(whole_.substr(0, headerLength + blocks * block), readFile(archive_));
  }
  fs::remove(archive_);
  ASSERT_TRUE(pack());
  for (const Copy& copy : extractions()) {
    for (std::size_t number = 0; number < 3; ++number) {
      cancelBeforeBlock(number, copy);
      expectSameBytes(data_.substr(0, (number + 2) * block), readFile(target_));
    }
  }
}

TEST_F(MovedBlocks, EveryBlockCountsIntoTheProgress) {
  std::vector<Copy> copies = extractions();
  copies.insert(copies.begin(), [this] { return pack(); });
  for (const Copy& copy : copies) {
    const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
    progress->becomeCurrentWithPendingUnitCount(1);
    std::vector<double> fractions;
    {
      SystemCalls calls;
      NextBlocks next;
      calls.beforeTransfer = [&](const SystemCalls::Transfer& transfer) {
        if (next.begins(transfer)) fractions.push_back(progress->fractionCompleted());
      };
      EXPECT_TRUE(copy());
    }
    progress->resignCurrent();
    EXPECT_EQ(1.0, progress->fractionCompleted());
    ASSERT_LE(4U, fractions.size());
    for (std::size_t i = 1; i < 4; ++i) EXPECT_LT(fractions[i - 1], fractions[i]) << i;
  }
}

TEST_F(MovedBlocks, ASourceThatHasBecomeShorterEndsTheCopy) {
  {
    SystemCalls calls;
    NextBlocks next;
    std::size_t blocks = 0;
    calls.beforeTransfer = [&](const SystemCalls::Transfer& transfer) {
      if (next.begins(transfer) && blocks++ == 1)
        fs::resize_file(tree_ / "tree/a large file", 2 * block + 99);
    };
    EXPECT_TRUE(pack());
  }
  const std::string archive = readFile(archive_);
  const std::uint64_t header = goldenLocalHeader(SourceTree::entry("a large file", data_), 0).size();
  ASSERT_LT(header + 2 * block + 103, archive.size());
  expectSameBytes(data_.substr(0, 2 * block + 99), archive.substr(header, 2 * block + 99));
  EXPECT_EQ("PK\x03\x04", archive.substr(header + 2 * block + 99, 4)) << "the next entry follows";
}

TEST_F(MovedBlocks, AnArchiveThatHasBecomeShorterEndsTheExtraction) {
  ASSERT_TRUE(pack());
  const std::string archive = readFile(archive_);
  for (const Copy& copy : extractions()) {
    writeFile(archive_, archive);
    SystemCalls calls;
    NextBlocks next;
    std::size_t blocks = 0;
    calls.beforeTransfer = [&](const SystemCalls::Transfer& transfer) {
      if (next.begins(transfer) && blocks++ == 1) fs::resize_file(archive_, 2 * block + 99);
    };
    EXPECT_TRUE(copy()) << "as where the archive ends early from the start";
    const std::uint64_t header = goldenLocalHeader(SourceTree::entry("a large file", data_), 0).size();
    expectSameBytes(data_.substr(0, 2 * block + 99 - header), readFile(target_));
  }
}

TEST_F(MovedBlocks, ACopyToAStreamOfAHostIsReadAndWritten) {
  KQZipFileWriter writer;
  ASSERT_TRUE(writer.addContentsOfDirectory(tree_ / "tree", false));
  TestOutputStream stream;
  {
    const SystemCalls calls;
    ASSERT_TRUE(writer.writeToStream(stream));
    EXPECT_EQ(0U, bytesMoved(calls));
  }
  expectSameBytes(whole_, stream.bytes);
}
