#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Support/ErrorExpectations.h"
#include "Support/SparseFile.h"
#include "Support/StreamCalls.h"
#include "Support/Surroundings.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryDirectory.h"

using KQ::NSInputStream;
using KQTest::expectPOSIXCode;
using KQTest::nextFileNumber;
using KQTest::patternBytes;
using KQTest::readOnce;
using KQTest::sparseFile;
using KQTest::SystemCalls;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;

using namespace std::string_literals;

namespace {

constexpr std::uint64_t oneMiB = 1048576;

std::shared_ptr<NSInputStream> openStream(const std::string& path) {
  std::shared_ptr<NSInputStream> stream = NSInputStream::inputStreamWithFileAtPath(path);
  if (!stream) throw std::runtime_error("no stream for " + path);
  stream->open();
  return stream;
}

std::int64_t countOfRead(NSInputStream& stream) {
  std::uint8_t byte = 0;
  return stream.read(&byte, 1);
}

// What a read at `offset` of a file with these contents has to deliver.
std::string slice(const std::string& contents, std::uint64_t offset, std::uint64_t length) {
  return offset >= contents.size() ? std::string() : contents.substr(offset, length);
}

// Makes `count` random jumps and reads and compares each with the contents.
void compareRandomAccess(NSInputStream& stream, const std::string& contents, int count, unsigned seed) {
  std::mt19937 generator(seed);
  const std::vector<std::uint64_t> lengths{0,   1,   2,    4,     8,     30,    46,
                                           500, 512, 4096, 65535, 65536, 65537, 100000};
  std::uint64_t offset = stream.NSStreamFileCurrentOffsetKey().value();
  for (int i = 0; i < count; ++i) {
    const unsigned choice = generator() % 4;
    if (choice == 0) offset = generator() % (contents.size() + 1000);
    if (choice == 1) offset += generator() % 2000;
    if (choice <= 1) {
      ASSERT_TRUE(stream.setNSStreamFileCurrentOffsetKey(offset));
    }
    ASSERT_EQ(offset, stream.NSStreamFileCurrentOffsetKey());
    const std::uint64_t length = lengths[generator() % lengths.size()];
    const std::optional<std::string> bytes = readOnce(stream, length);
    ASSERT_TRUE(bytes.has_value());
    ASSERT_TRUE(slice(contents, offset, length) == *bytes) << offset << " " << length;
    offset += bytes->size();
  }
}

void writeAt(const std::string& path, std::uint64_t offset, const std::string& bytes) {
  const int file = open(path.c_str(), O_WRONLY);
  ASSERT_GE(file, 0);
  EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
            pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset)));
  close(file);
}

bool isInside(const SystemCalls::Transfer& transfer, const std::string& memory) {
  const auto* const begin = memory.data();
  return std::all_of(transfer.pieces.begin(), transfer.pieces.end(), [&](const SystemCalls::Piece& piece) {
    const auto* const address = static_cast<const char*>(piece.address);
    return address >= begin && address + piece.length <= begin + memory.size();
  });
}

}  // namespace

// Making and opening

TEST(NSFileInputStream, NoneIsMadeForAMissingFile) {
  const TemporaryDirectory folder;
  EXPECT_EQ(nullptr, NSInputStream::inputStreamWithFileAtPath(folder / "missing"));
  EXPECT_EQ(nullptr, NSInputStream::inputStreamWithFileAtPath(folder / "missing/file"));
}

TEST(NSFileInputStream, NoneIsMadeForAPathThroughAFile) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  EXPECT_EQ(nullptr, NSInputStream::inputStreamWithFileAtPath(folder / "file/below"));
}

TEST(NSFileInputStream, NoneIsMadeForAFileThatMayNotBeRead) {
  const TemporaryDirectory folder;
  writeFile(folder / "secret", "x");
  writeFile(folder / "open", "x");
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  std::filesystem::permissions(folder / "secret", std::filesystem::perms::none);
  std::filesystem::permissions(folder / "open", std::filesystem::perms(0644));
  KQTest::inUnprivilegedChildProcess([&folder] {
    EXPECT_EQ(nullptr, NSInputStream::inputStreamWithFileAtPath(folder / "secret"));
    EXPECT_NE(nullptr, NSInputStream::inputStreamWithFileAtPath(folder / "open"));
  });
}

TEST(NSFileInputStream, APathWithANULIsRefusedAndNotCutShort) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "x");
  EXPECT_EQ(nullptr, NSInputStream::inputStreamWithFileAtPath((folder / "file") + "\0"s));
  EXPECT_EQ(nullptr, NSInputStream::inputStreamWithFileAtPath((folder / "file") + "\0more"s));
}

TEST(NSFileInputStream, APathThatIsNotUTF8IsRefusedThoughTheFileExists) {
  const TemporaryDirectory folder;
  writeFile(folder / "\xFFname", "x");
  EXPECT_EQ(nullptr, NSInputStream::inputStreamWithFileAtPath(folder / "\xFFname"));
}

TEST(NSFileInputStream, AFolderOpensAndItsReadsFail) {
  const TemporaryDirectory folder;
  for (const std::uint64_t length : {std::uint64_t{1}, oneMiB}) {
    const auto stream = openStream(folder.path().string());
    EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
    EXPECT_FALSE(readOnce(*stream, length).has_value());
    EXPECT_EQ(KQ::NSStreamStatusError, stream->streamStatus());
    expectPOSIXCode(EISDIR, stream->streamError());
  }
}

TEST(NSFileInputStream, TheFileIsOpenedWhenTheStreamIsMade) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  const auto stream = NSInputStream::inputStreamWithFileAtPath(folder / "file");
  ASSERT_TRUE(stream != nullptr);
  std::filesystem::remove(folder / "file");
  stream->open();
  EXPECT_EQ("contents", readOnce(*stream, 100));
}

TEST(NSFileInputStream, ItsStatusFollowsItsLife) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  const auto stream = NSInputStream::inputStreamWithFileAtPath(folder / "file");
  EXPECT_EQ(KQ::NSStreamStatusNotOpen, stream->streamStatus());
  stream->open();
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  EXPECT_EQ("con", readOnce(*stream, 3));
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  EXPECT_EQ("tents", readOnce(*stream, 5));
  EXPECT_EQ("", readOnce(*stream, 5));
  EXPECT_EQ(KQ::NSStreamStatusAtEnd, stream->streamStatus());
  EXPECT_TRUE(stream->setNSStreamFileCurrentOffsetKey(0));
  EXPECT_EQ("c", readOnce(*stream, 1));
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
  EXPECT_EQ(nullptr, stream->streamError());
}

TEST(NSFileInputStream, ReadsBeforeOpeningAndAfterClosingFail) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  const auto stream = NSInputStream::inputStreamWithFileAtPath(folder / "file");
  EXPECT_LT(countOfRead(*stream), 0);
  stream->open();
  EXPECT_EQ(1, countOfRead(*stream));
  stream->close();
  EXPECT_LT(countOfRead(*stream), 0);
  stream->close();
  EXPECT_LT(countOfRead(*stream), 0);
}

TEST(NSFileInputStream, ClosingAfterAFailedReadDoesNotClaimThatEverythingWentWell) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder.path().string());
  EXPECT_LT(countOfRead(*stream), 0);
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusError, stream->streamStatus());
  expectPOSIXCode(EISDIR, stream->streamError());
}

TEST(NSFileInputStream, ClosingAndReleasingGiveTheFileBack) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  const int before = nextFileNumber();
  auto stream = openStream(folder / "file");
  EXPECT_NE(before, nextFileNumber());
  stream->close();
  EXPECT_EQ(before, nextFileNumber());
  stream = openStream(folder / "file");
  stream.reset();
  EXPECT_EQ(before, nextFileNumber());
  stream = NSInputStream::inputStreamWithFileAtPath(folder / "file");
  stream.reset();
  EXPECT_EQ(before, nextFileNumber());
}

// Reading

TEST(NSFileInputStream, AnEmptyFileIsAtItsEndAtOnce) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "");
  const auto stream = openStream(folder / "file");
  EXPECT_EQ("", readOnce(*stream, 10));
  EXPECT_EQ(KQ::NSStreamStatusAtEnd, stream->streamStatus());
  EXPECT_FALSE(stream->hasBytesAvailable());
  EXPECT_EQ(0U, stream->NSStreamFileCurrentOffsetKey());
}

TEST(NSFileInputStream, PiecesOfEverySizeGiveTheWholeFile) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(300001);
  writeFile(folder / "file", contents);
  constexpr std::array<std::uint64_t, 23> lengths{
      1,    2,     3,     7,     8,     30,     511,    512,    513,    1000,   4095,   4096,
      4097, 32768, 65535, 65536, 65537, 100000, 131072, 300000, 300001, 300002, 1048576};
  for (const std::uint64_t length : lengths) {
    const auto stream = openStream(folder / "file");
    std::string whole;
    for (;;) {
      ASSERT_EQ(whole.size(), stream->NSStreamFileCurrentOffsetKey());
      const std::optional<std::string> piece = readOnce(*stream, length);
      ASSERT_TRUE(piece.has_value());
      ASSERT_EQ(slice(contents, whole.size(), length).size(), piece->size()) << length;
      if (piece->empty()) break;
      whole += *piece;
    }
    EXPECT_TRUE(contents == whole) << length;
  }
}

TEST(NSFileInputStream, PiecesOfRandomSizesGiveTheWholeFile) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(2000000, 2);
  writeFile(folder / "file", contents);
  std::mt19937 generator(3);
  for (int round = 0; round < 5; ++round) {
    const auto stream = openStream(folder / "file");
    std::string whole;
    for (std::optional<std::string> piece = ""; whole.size() < contents.size(); whole += *piece) {
      piece = readOnce(*stream, 1 + generator() % (generator() % 3 == 0 ? 150000 : 100));
      ASSERT_TRUE(piece.has_value() && !piece->empty());
    }
    EXPECT_TRUE(contents == whole);
    EXPECT_EQ("", readOnce(*stream, 1));
  }
}

TEST(NSFileInputStream, OneReadDeliversAFileOfAnySizeWhole) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(5 * oneMiB + 3);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  EXPECT_TRUE(contents == readOnce(*stream, contents.size() + 100));
  EXPECT_EQ("", readOnce(*stream, 1));
}

TEST(NSFileInputStream, ALengthThatNoMemoryHoldsReadsWhatTheFileHas) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "0123456789");
  const auto stream = openStream(folder / "file");
  std::string bytes(64, '?');
  EXPECT_EQ(10, stream->read(reinterpret_cast<std::uint8_t*>(bytes.data()), UINT64_MAX));
  EXPECT_EQ("0123456789" + std::string(54, '?'), bytes);
}

TEST(NSFileInputStream, NothingBehindTheBytesReadIsTouched) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "0123456789");
  const auto stream = openStream(folder / "file");
  std::string bytes(64, '?');
  EXPECT_EQ(4, stream->read(reinterpret_cast<std::uint8_t*>(bytes.data()), 4));
  EXPECT_EQ("0123" + std::string(60, '?'), bytes);
}

TEST(NSFileInputStream, AReadOfNothingDeliversNothingAndIsNotTheEnd) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "0123456789");
  const auto stream = openStream(folder / "file");
  EXPECT_EQ(0, stream->read(nullptr, 0));
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  EXPECT_EQ("0123456789", readOnce(*stream, 10));
}

TEST(NSFileInputStream, BytesAreAvailableUntilAReadHasMetTheEnd) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "0123456789");
  const auto stream = openStream(folder / "file");
  EXPECT_TRUE(stream->hasBytesAvailable());
  EXPECT_EQ("01234", readOnce(*stream, 5));
  EXPECT_TRUE(stream->hasBytesAvailable());
  EXPECT_EQ("56789", readOnce(*stream, 5));
  EXPECT_EQ("", readOnce(*stream, 5));
  EXPECT_FALSE(stream->hasBytesAvailable());
  EXPECT_TRUE(stream->setNSStreamFileCurrentOffsetKey(9));
  EXPECT_TRUE(stream->hasBytesAvailable());
  EXPECT_EQ("9", readOnce(*stream, 5));
}

TEST(NSFileInputStream, AskingForAvailableBytesMovesNothing) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(200000);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  std::string whole;
  for (std::optional<std::string> piece = "x"; !piece->empty(); whole += *piece) {
    const std::optional<std::uint64_t> offset = stream->NSStreamFileCurrentOffsetKey();
    EXPECT_TRUE(stream->hasBytesAvailable() || whole.size() == contents.size());
    EXPECT_EQ(offset, stream->NSStreamFileCurrentOffsetKey());
    piece = readOnce(*stream, 9999);
    ASSERT_TRUE(piece.has_value());
  }
  EXPECT_TRUE(contents == whole);
}

// Offsets

TEST(NSFileInputStream, TheOffsetStartsAtZeroAndCountsWhatWasRead) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", patternBytes(1000));
  const auto stream = openStream(folder / "file");
  EXPECT_EQ(0U, stream->NSStreamFileCurrentOffsetKey());
  readOnce(*stream, 30);
  EXPECT_EQ(30U, stream->NSStreamFileCurrentOffsetKey());
  readOnce(*stream, 10000);
  EXPECT_EQ(1000U, stream->NSStreamFileCurrentOffsetKey());
  readOnce(*stream, 1);
  EXPECT_EQ(1000U, stream->NSStreamFileCurrentOffsetKey());
}

TEST(NSFileInputStream, RandomJumpsAndReadsAgreeWithTheFile) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(400000, 5);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  compareRandomAccess(*stream, contents, 4000, 6);
}

TEST(NSFileInputStream, AnOffsetBeyondTheEndIsAcceptedAndReadsMeetTheEnd) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "0123456789");
  const auto stream = openStream(folder / "file");
  for (const std::uint64_t offset :
       {std::uint64_t{10}, std::uint64_t{11}, std::uint64_t{1} << 40,
        static_cast<std::uint64_t>(INT64_MAX) - 10, static_cast<std::uint64_t>(INT64_MAX)}) {
    for (const std::uint64_t length : {std::uint64_t{1}, std::uint64_t{100}, oneMiB}) {
      ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(offset)) << offset;
      EXPECT_EQ(offset, stream->NSStreamFileCurrentOffsetKey());
      EXPECT_EQ("", readOnce(*stream, length)) << offset << " " << length;
      EXPECT_EQ(offset, stream->NSStreamFileCurrentOffsetKey());
      EXPECT_FALSE(stream->hasBytesAvailable());
    }
  }
  EXPECT_EQ(nullptr, stream->streamError());
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(8));
  EXPECT_EQ("89", readOnce(*stream, 10));
}

TEST(NSFileInputStream, AnOffsetThatDoesNotFitTheSystemsIsRefusedAndThePositionKept) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "0123456789");
  for (const std::uint64_t offset : {std::uint64_t{1} << 63, UINT64_MAX}) {
    const auto stream = openStream(folder / "file");
    EXPECT_EQ("012", readOnce(*stream, 3));
    EXPECT_EQ(nullptr, stream->streamError());
    EXPECT_FALSE(stream->setNSStreamFileCurrentOffsetKey(offset));
    ASSERT_TRUE(stream->streamError() != nullptr);
    EXPECT_EQ("NSPOSIXErrorDomain", stream->streamError()->domain());
    EXPECT_EQ(3U, stream->NSStreamFileCurrentOffsetKey());
    EXPECT_EQ("3456789", readOnce(*stream, 100));
  }
}

TEST(NSFileInputStream, SettingTheOffsetAfterTheEndWasMetReachesWhatWasAppendedSince) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "0123456789");
  const auto stream = openStream(folder / "file");
  EXPECT_EQ("0123456789", readOnce(*stream, 20));
  EXPECT_EQ("", readOnce(*stream, 20));
  writeAt(folder / "file", 10, "appended");
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(10));
  EXPECT_TRUE(stream->hasBytesAvailable());
  EXPECT_EQ("appended", readOnce(*stream, 20));
}

TEST(NSFileInputStream, OffsetsBeyondFourGiBReachTheirBytes) {
  const TemporaryDirectory folder;
  const std::uint64_t size = (std::uint64_t{5} << 30) + 100;
  sparseFile(folder / "file", size);
  writeAt(folder / "file", size - 6, "behind");
  writeAt(folder / "file", (std::uint64_t{1} << 32) - 3, "across");
  const auto stream = openStream(folder / "file");
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(size - 6));
  EXPECT_EQ("behind", readOnce(*stream, 10));
  EXPECT_EQ(size, stream->NSStreamFileCurrentOffsetKey());
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey((std::uint64_t{1} << 32) - 3));
  EXPECT_EQ("acr", readOnce(*stream, 3));
  EXPECT_EQ("oss", readOnce(*stream, 3));
}

// What the system does behind the stream's back

TEST(NSFileInputStream, SystemReadsThatReturnLessAreRepeated) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(200000);
  writeFile(folder / "file", contents);
  for (const std::size_t longest : {997U, 4096U, 65535U, 65537U}) {
    const auto stream = openStream(folder / "file");
    SystemCalls calls;
    calls.longestTransfer = longest;
    EXPECT_TRUE(contents == readOnce(*stream, contents.size() + 1)) << longest;
    EXPECT_GE(calls.transfers.size(), contents.size() / longest);
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(0));
    std::string whole;
    while (whole.size() < contents.size()) {
      const std::optional<std::string> piece = readOnce(*stream, 3000);
      ASSERT_TRUE(piece.has_value());
      ASSERT_EQ(slice(contents, whole.size(), 3000).size(), piece->size());
      whole += *piece;
    }
    EXPECT_TRUE(contents == whole) << longest;
  }
}

TEST(NSFileInputStream, SystemReadsOfOneByteStillFillARequest) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(3000);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  SystemCalls calls;
  calls.longestTransfer = 1;
  EXPECT_EQ(slice(contents, 0, 30), readOnce(*stream, 30));
  EXPECT_EQ(slice(contents, 30, 2970), readOnce(*stream, 5000));
}

TEST(NSFileInputStream, InterruptedSystemReadsAreInvisible) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(200000);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  SystemCalls calls;
  calls.interruptEveryOther = true;
  EXPECT_EQ(slice(contents, 0, 100), readOnce(*stream, 100));
  EXPECT_TRUE(slice(contents, 100, 150000) == readOnce(*stream, 150000));
  EXPECT_TRUE(slice(contents, 150100, 100000) == readOnce(*stream, 100000));
  EXPECT_GE(calls.interruptions, 3U);
  EXPECT_EQ(nullptr, stream->streamError());
}

TEST(NSFileInputStream, RandomAccessSurvivesShortAndInterruptedSystemReads) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(150000, 7);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  SystemCalls calls;
  calls.longestTransfer = 5000;
  calls.interruptEveryOther = true;
  compareRandomAccess(*stream, contents, 500, 8);
}

TEST(NSFileInputStream, AFailingSystemReadFailsTheReadWhicheverItIs) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(100000);
  writeFile(folder / "file", contents);
  for (std::size_t number = 1; number <= 10; ++number) {
    const auto stream = openStream(folder / "file");
    SystemCalls calls;
    calls.longestTransfer = 10000;
    calls.failAt = number;
    calls.failWith = ENXIO;
    EXPECT_FALSE(readOnce(*stream, contents.size()).has_value()) << number;
    EXPECT_EQ(KQ::NSStreamStatusError, stream->streamStatus());
    expectPOSIXCode(ENXIO, stream->streamError());
  }
}

TEST(NSFileInputStream, AFailingSystemReadFailsASmallReadToo) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", patternBytes(1000));
  const auto stream = openStream(folder / "file");
  SystemCalls calls;
  calls.failAt = 1;
  EXPECT_FALSE(readOnce(*stream, 4).has_value());
  expectPOSIXCode(EIO, stream->streamError());
}

// What reading costs

TEST(NSFileInputStream, MovingTheOffsetCostsNoSystemCall) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", patternBytes(300000));
  const auto stream = openStream(folder / "file");
  readOnce(*stream, 4);
  const SystemCalls calls;
  for (std::uint64_t offset = 0; offset < 400000; offset += 777)
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(offset));
  EXPECT_EQ(0U, calls.transfers.size());
  EXPECT_EQ(0U, calls.seeks);
}

TEST(NSFileInputStream, ReadingInsideTheBufferCostsNoSystemCall) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(300000);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  SystemCalls calls;
  readOnce(*stream, 4);
  ASSERT_EQ(1U, calls.transfers.size());
  ASSERT_EQ(0, calls.transfers[0].offset);
  const auto buffered = static_cast<std::uint64_t>(calls.transfers[0].result);
  ASSERT_GE(buffered, 100U);
  calls.reset();
  std::mt19937 generator(9);
  for (int i = 0; i < 500; ++i) {
    const std::uint64_t offset = generator() % buffered;
    const std::uint64_t length = generator() % (buffered - offset + 1);
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(offset));
    ASSERT_TRUE(slice(contents, offset, length) == readOnce(*stream, length));
  }
  EXPECT_EQ(0U, calls.transfers.size());
  EXPECT_EQ(0U, calls.seeks);
}

TEST(NSFileInputStream, SmallSequentialReadsCostFewSystemCalls) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(4 * oneMiB);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  const SystemCalls calls;
  std::string whole;
  for (std::optional<std::string> piece = "x"; !piece->empty(); whole += *piece)
    piece = readOnce(*stream, 46);
  EXPECT_TRUE(contents == whole);
  EXPECT_LE(calls.transfers.size(), contents.size() / 32768 + 16);
  EXPECT_EQ(contents.size(), calls.bytesMoved()) << "bytes were read twice";
}

TEST(NSFileInputStream, AScanThatJumpsOverLargeDataReadsOnlyALittleOfIt) {
  const TemporaryDirectory folder;
  constexpr std::uint64_t records = 100;
  constexpr std::uint64_t stride = 60 + oneMiB;
  sparseFile(folder / "file", records * stride);
  for (std::uint64_t i = 0; i < records; ++i)
    writeAt(folder / "file", i * stride, "PK\3\4" + std::to_string(i));
  const auto stream = openStream(folder / "file");
  const SystemCalls calls;
  for (std::uint64_t i = 0; i < records; ++i) {
    ASSERT_EQ("PK\3\4", readOnce(*stream, 4));
    const std::optional<std::string> header = readOnce(*stream, 26);
    ASSERT_EQ(std::to_string(i), std::string(header->c_str()));
    ASSERT_EQ(30U, readOnce(*stream, 30)->size());
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey((i + 1) * stride));
  }
  EXPECT_LE(calls.transfers.size(), records * 2);
  EXPECT_LE(calls.bytesMoved(), records * 4096);
}

TEST(NSFileInputStream, AScanOverSmallDataCostsByTheBufferAndNotByTheJump) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(2 * oneMiB);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  const SystemCalls calls;
  for (std::uint64_t offset = 0; offset + 30 <= contents.size(); offset += 130) {
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(offset));
    ASSERT_EQ(contents.substr(offset, 30), readOnce(*stream, 30));
  }
  EXPECT_LE(calls.transfers.size(), contents.size() / 16384 + 16);
}

TEST(NSFileInputStream, AJumpReadsOnlyALittleAfterSequentialReadingToo) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(4 * oneMiB);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  for (int i = 0; i < 50000; ++i) readOnce(*stream, 20);
  const SystemCalls calls;
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(3 * oneMiB));
  EXPECT_EQ(contents.substr(3 * oneMiB, 20), readOnce(*stream, 20));
  EXPECT_EQ(1U, calls.transfers.size());
  EXPECT_LE(calls.bytesMoved(), 4096U);
}

TEST(NSFileInputStream, ALargeReadGoesStraightIntoTheCallersMemory) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(3 * oneMiB);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  std::string memory(oneMiB, '?');
  const SystemCalls calls;
  ASSERT_EQ(static_cast<std::int64_t>(oneMiB),
            stream->read(reinterpret_cast<std::uint8_t*>(memory.data()), oneMiB));
  EXPECT_TRUE(contents.substr(0, oneMiB) == memory);
  ASSERT_EQ(1U, calls.transfers.size());
  EXPECT_TRUE(isInside(calls.transfers[0], memory));
}

TEST(NSFileInputStream, ALargeReadTakesWhatIsBufferedAndReadsTheRestInPlace) {
  const TemporaryDirectory folder;
  const std::string contents = patternBytes(3 * oneMiB);
  writeFile(folder / "file", contents);
  const auto stream = openStream(folder / "file");
  std::string memory(oneMiB, '?');
  SystemCalls calls;
  ASSERT_EQ(contents.substr(0, 4), readOnce(*stream, 4));
  const std::uint64_t buffered = calls.bytesMoved();
  calls.reset();
  ASSERT_EQ(static_cast<std::int64_t>(oneMiB),
            stream->read(reinterpret_cast<std::uint8_t*>(memory.data()), oneMiB));
  EXPECT_TRUE(contents.substr(4, oneMiB) == memory);
  ASSERT_EQ(1U, calls.transfers.size());
  EXPECT_TRUE(isInside(calls.transfers[0], memory));
  EXPECT_EQ(oneMiB + 4 - buffered, calls.bytesMoved()) << "bytes were read twice";
}

// What is not a file

TEST(NSFileInputStream, APipeIsReadWholeHoweverSmallItsPiecesAre) {
  const TemporaryDirectory folder;
  const std::string path = folder / "pipe";
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  const std::string contents = patternBytes(300000);
  std::thread writer([&] {
    const int pipe = open(path.c_str(), O_WRONLY);
    for (std::size_t i = 0; i < contents.size(); i += 1000) {
      if (write(pipe, contents.data() + i, 1000) != 1000) break;
    }
    close(pipe);
  });
  const auto stream = openStream(path);
  EXPECT_EQ(contents.substr(0, 30), readOnce(*stream, 30));
  EXPECT_TRUE(contents.substr(30, 200000) == readOnce(*stream, 200000));
  EXPECT_TRUE(stream->hasBytesAvailable());
  EXPECT_TRUE(contents.substr(200030) == readOnce(*stream, 200000));
  EXPECT_EQ("", readOnce(*stream, 1));
  EXPECT_FALSE(stream->hasBytesAvailable());
  writer.join();
}

TEST(NSFileInputStream, APipeCannotBeMovedBackAndIsReadOnWhereItStands) {
  const TemporaryDirectory folder;
  const std::string path = folder / "pipe";
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  std::thread writer([&path] {
    const int pipe = open(path.c_str(), O_WRONLY);
    EXPECT_EQ(20, write(pipe, "0123456789abcdefghij", 20));
    close(pipe);
  });
  const auto stream = openStream(path);
  writer.join();
  EXPECT_EQ("01234", readOnce(*stream, 5));
  EXPECT_FALSE(stream->setNSStreamFileCurrentOffsetKey(0));
  ASSERT_TRUE(stream->streamError() != nullptr);
  EXPECT_EQ("56789abcdefghij", readOnce(*stream, 100));
}

TEST(NSFileInputStream, ASymbolicLinkIsFollowed) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "contents");
  std::filesystem::create_symlink("file", folder / "link");
  EXPECT_EQ("contents", readOnce(*openStream(folder / "link"), 100));
}

TEST(NSFileInputStream, ARelativePathStartsAtTheCurrentFolder) {
  const TemporaryDirectory folder;
  writeFile(folder / "sub/file", "contents");
  KQTest::inChildProcess([&folder] {
    std::filesystem::current_path(folder.path());
    EXPECT_EQ("contents", readOnce(*openStream("sub/file"), 100));
  });
}
