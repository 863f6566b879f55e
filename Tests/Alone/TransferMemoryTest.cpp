// Blocks of memory for transfers, as the system's allocator sees them.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include "Support/Sanitizers.h"
#include "Support/TemporaryDirectory.h"

// A sanitizer's own operators cannot be replaced.
#if !KQTEST_ADDRESS_SANITIZER && !KQTEST_THREAD_SANITIZER

namespace {

constexpr std::size_t blockSize = 1048576;

std::atomic<int> blocksAlive{0};
std::atomic<int> blocksMade{0};

// In front of what is handed out: how long it is.
constexpr std::size_t prefix = alignof(std::max_align_t);

void* allocate(std::size_t size) {
  auto* const bytes = static_cast<char*>(std::malloc(prefix + size));
  if (bytes == nullptr) throw std::bad_alloc();
  *reinterpret_cast<std::size_t*>(bytes) = size;
  if (size == blockSize) {
    ++blocksAlive;
    ++blocksMade;
  }
  return bytes + prefix;
}

void release(void* memory) {
  if (memory == nullptr) return;
  char* const bytes = static_cast<char*>(memory) - prefix;
  if (*reinterpret_cast<std::size_t*>(bytes) == blockSize) --blocksAlive;
  std::free(bytes);
}

}  // namespace

void* operator new[](std::size_t size) { return allocate(size); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { release(memory); }

namespace {

using KQTest::TemporaryDirectory;

class TransferMemory : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < files; ++i) KQTest::writeFile(folder_ / ("tree/" + std::to_string(i)), "data");
    ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(archive_, folder_ / "tree", false));
    blocksMade = 0;
  }

  static constexpr int files = 20;
  TemporaryDirectory folder_;
  std::string archive_ = folder_ / "a.zip";
};

TEST_F(TransferMemory, PackingManyFilesTakesOneBlockAndGivesItBack) {
  ASSERT_EQ(0, blocksAlive);
  EXPECT_TRUE(KQZipFileWriter::createZipFileAtPath(folder_ / "b.zip", folder_ / "tree", false));
  EXPECT_EQ(1, blocksMade);
  EXPECT_EQ(0, blocksAlive);
}

TEST_F(TransferMemory, ExtractingManyFilesTakesOneBlockAndGivesItBack) {
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(archive_, folder_ / "out"));
  EXPECT_EQ(1, blocksMade);
  EXPECT_EQ(0, blocksAlive);
}

TEST_F(TransferMemory, AFailureGivesTheBlockBack) {
  KQTest::writeFile(folder_ / "out/0/in the way", "");
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(archive_, folder_ / "out"));
  KQZipFileWriter writer;
  writer.addFilePath(folder_ / "tree/0", "0");
  writer.addFilePath(folder_ / "missing", "1");
  EXPECT_FALSE(writer.writeToZipPath(folder_ / "b.zip"));
  EXPECT_GT(blocksMade, 0);
  EXPECT_EQ(0, blocksAlive);
}

TEST_F(TransferMemory, OneEntryTakesABlockAndGivesItBack) {
  const auto reader = KQZipFileReader::initWithZipPath(archive_);
  ASSERT_TRUE(reader);
  EXPECT_TRUE(reader->writeDataForRelativePath("7", folder_ / "seven"));
  EXPECT_EQ(1, blocksMade);
  EXPECT_EQ(0, blocksAlive);
}

// A write may happen inside another's, when the stream of the one is fed by the other's.
TEST_F(TransferMemory, WritesInsideWritesHaveBlocksOfTheirOwnAndGiveThemBack) {
  struct Stream : KQ::NSOutputStream {
    std::int64_t write(const std::uint8_t*, std::uint64_t length) override {
      if (!isInside && length == 4) {
        isInside = true;
        EXPECT_TRUE(KQZipFileWriter::createZipFileAtPath(archive, tree, false));
      }
      return static_cast<std::int64_t>(length);
    }
    bool isInside = false;
    std::string archive;
    std::string tree;
  };
  Stream stream;
  stream.archive = folder_ / "inner.zip";
  stream.tree = folder_ / "tree";
  KQZipFileWriter writer;
  writer.addFilePath(folder_ / "tree/0", "0");
  EXPECT_TRUE(writer.writeToStream(stream));
  EXPECT_TRUE(stream.isInside);
  EXPECT_EQ(KQTest::readFile(archive_), KQTest::readFile(folder_ / "inner.zip"));
  EXPECT_LE(blocksMade, 3);
  EXPECT_EQ(0, blocksAlive);
}

}  // namespace

#endif
