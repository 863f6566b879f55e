#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Support/ErrorExpectations.h"
#include "Support/StreamCalls.h"
#include "Support/Surroundings.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryDirectory.h"

using KQ::NSOutputStream;
using KQTest::expectPOSIXCode;
using KQTest::nextFileNumber;
using KQTest::patternBytes;
using KQTest::readFile;
using KQTest::SystemCalls;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;
using KQTest::writeOnce;

using namespace std::string_literals;

namespace {

constexpr std::uint64_t oneMiB = 1048576;

std::shared_ptr<NSOutputStream> openStream(const std::string& path) {
  std::shared_ptr<NSOutputStream> stream = NSOutputStream::outputStreamToFileAtPath(path);
  stream->open();
  return stream;
}

bool takesAll(NSOutputStream& stream, const std::string& bytes) {
  return writeOnce(stream, bytes) == static_cast<std::int64_t>(bytes.size());
}

void expectFailedForGood(NSOutputStream& stream, int code) {
  EXPECT_LT(writeOnce(stream, "x"), 0);
  EXPECT_LT(writeOnce(stream, std::string(oneMiB, 'x')), 0);
  EXPECT_FALSE(stream.flush());
  EXPECT_EQ(KQ::NSStreamStatusError, stream.streamStatus());
  expectPOSIXCode(code, stream.streamError());
  stream.close();
  EXPECT_EQ(KQ::NSStreamStatusError, stream.streamStatus());
  EXPECT_FALSE(stream.flush());
  expectPOSIXCode(code, stream.streamError());
}

// Writes a mixture of small and large pieces; returns what the file should hold.
std::string writeMixture(NSOutputStream& stream, unsigned seed, int count) {
  std::mt19937 generator(seed);
  const std::vector<std::size_t> lengths{0,    1,    2,    4,     8,     30,    46,     511,
                                         4096, 8191, 8192, 65534, 65535, 65536, 100000, 131072};
  std::string expected;
  for (int i = 0; i < count; ++i) {
    const std::string piece = patternBytes(lengths[generator() % lengths.size()], generator() & 0xFFFF);
    EXPECT_TRUE(takesAll(stream, piece));
    expected += piece;
    EXPECT_EQ(expected.size(), stream.NSStreamFileCurrentOffsetKey());
    if (generator() % 10 == 0) {
      EXPECT_TRUE(stream.flush());
    }
  }
  return expected;
}

// No file of this process gets longer than this while the process lives.
void limitFileSize(rlim_t length) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &limit));
  limit.rlim_cur = length;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

void liftFileSizeLimit() {
  rlimit limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &limit));
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

}  // namespace

// Opening and closing

TEST(NSFileOutputStream, OpeningCreatesTheFile) {
  const TemporaryDirectory folder;
  const auto stream = NSOutputStream::outputStreamToFileAtPath(folder / "file");
  ASSERT_TRUE(stream != nullptr);
  EXPECT_EQ(KQ::NSStreamStatusNotOpen, stream->streamStatus());
  EXPECT_FALSE(std::filesystem::exists(folder / "file"));
  stream->open();
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  EXPECT_TRUE(std::filesystem::exists(folder / "file"));
  EXPECT_EQ(0U, stream->NSStreamFileCurrentOffsetKey());
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
  EXPECT_EQ(nullptr, stream->streamError());
  EXPECT_EQ("", readFile(folder / "file"));
}

TEST(NSFileOutputStream, OpeningEmptiesAFileThatExistsAndMakingTheStreamDoesNot) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "a long text that was there before");
  const auto stream = NSOutputStream::outputStreamToFileAtPath(folder / "file");
  EXPECT_EQ("a long text that was there before", readFile(folder / "file"));
  stream->open();
  EXPECT_EQ("", readFile(folder / "file"));
  EXPECT_TRUE(takesAll(*stream, "short"));
  stream->close();
  EXPECT_EQ("short", readFile(folder / "file"));
}

TEST(NSFileOutputStream, AStreamThatWasNeverOpenedLeavesTheFileAlone) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "before");
  NSOutputStream::outputStreamToFileAtPath(folder / "file")->close();
  NSOutputStream::outputStreamToFileAtPath(folder / "file").reset();
  EXPECT_EQ("before", readFile(folder / "file"));
}

TEST(NSFileOutputStream, WritesBeforeOpeningAndAfterClosingFail) {
  const TemporaryDirectory folder;
  const auto stream = NSOutputStream::outputStreamToFileAtPath(folder / "file");
  EXPECT_LT(writeOnce(*stream, "early"), 0);
  stream->open();
  EXPECT_TRUE(takesAll(*stream, "in time"));
  stream->close();
  EXPECT_LT(writeOnce(*stream, "late"), 0);
  EXPECT_LT(writeOnce(*stream, std::string(oneMiB, 'x')), 0);
  stream->close();
  EXPECT_EQ("in time", readFile(folder / "file"));
}

TEST(NSFileOutputStream, ClosingFlushesAndReportsSuccessThroughTheStatus) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  EXPECT_TRUE(takesAll(*stream, "buffered"));
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
  EXPECT_EQ("buffered", readFile(folder / "file"));
}

TEST(NSFileOutputStream, ClosingGivesTheFileBack) {
  const TemporaryDirectory folder;
  const int before = nextFileNumber();
  auto stream = openStream(folder / "file");
  EXPECT_NE(before, nextFileNumber());
  stream->close();
  EXPECT_EQ(before, nextFileNumber());
  stream = openStream(folder / "file");
  stream.reset();
  EXPECT_EQ(before, nextFileNumber());
}

TEST(NSFileOutputStream, TheFileGetsThePermissionsThatTheUsersMaskLeaves) {
  const TemporaryDirectory folder;
  KQTest::inChildProcess([&folder] {
    umask(027);
    openStream(folder / "file")->close();
    struct stat status {};
    ASSERT_EQ(0, stat((folder / "file").c_str(), &status));
    EXPECT_EQ(mode_t{0640}, status.st_mode & 07777);
  });
}

// Writing

TEST(NSFileOutputStream, SmallWritesAreCollectedUntilTheyAreFlushed) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  const SystemCalls calls;
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(takesAll(*stream, "0123456789"));
  EXPECT_EQ(0U, calls.transfers.size());
  EXPECT_EQ(0U, std::filesystem::file_size(folder / "file"));
  EXPECT_EQ(1000U, stream->NSStreamFileCurrentOffsetKey());
  EXPECT_TRUE(stream->flush());
  EXPECT_EQ(1U, calls.transfers.size());
  EXPECT_EQ(1000U, std::filesystem::file_size(folder / "file"));
  EXPECT_EQ(1000U, stream->NSStreamFileCurrentOffsetKey());
}

TEST(NSFileOutputStream, AFlushWithNothingBufferedSucceedsWithoutASystemCall) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  EXPECT_TRUE(takesAll(*stream, "x"));
  EXPECT_TRUE(stream->flush());
  const SystemCalls calls;
  EXPECT_TRUE(stream->flush());
  EXPECT_EQ(0U, calls.transfers.size());
}

TEST(NSFileOutputStream, ManySmallWritesCostFewSystemCalls) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  const std::string expected = patternBytes(2 * oneMiB);
  {
    const SystemCalls calls;
    for (std::size_t i = 0; i < expected.size(); i += 4)
      EXPECT_TRUE(takesAll(*stream, expected.substr(i, 4)));
    EXPECT_LE(calls.transfers.size(), expected.size() / 16384);
  }
  stream->close();
  EXPECT_TRUE(expected == readFile(folder / "file"));
}

TEST(NSFileOutputStream, ALargeWriteGoesOutWithWhatIsBufferedInOneCallAndIsNotCopied) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  const std::string large = patternBytes(oneMiB);
  const SystemCalls calls;
  EXPECT_TRUE(takesAll(*stream, "header"));
  EXPECT_TRUE(takesAll(*stream, large));
  ASSERT_EQ(1U, calls.transfers.size());
  ASSERT_EQ(2U, calls.transfers[0].pieces.size());
  EXPECT_EQ(6U, calls.transfers[0].pieces[0].length);
  EXPECT_EQ(large.data(), calls.transfers[0].pieces[1].address);
  EXPECT_EQ(large.size(), calls.transfers[0].pieces[1].length);
  EXPECT_TRUE("header" + large == readFile(folder / "file"));
  EXPECT_EQ(oneMiB + 6, stream->NSStreamFileCurrentOffsetKey());
}

TEST(NSFileOutputStream, ALargeWriteWithNothingBufferedIsOneCallOfItsOwn) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  const std::string large = patternBytes(oneMiB);
  const SystemCalls calls;
  EXPECT_TRUE(takesAll(*stream, large));
  ASSERT_EQ(1U, calls.transfers.size());
  EXPECT_EQ(large.size(), calls.transfers[0].asked());
  EXPECT_TRUE(large == readFile(folder / "file"));
}

TEST(NSFileOutputStream, SmallAndLargeWritesComeOutInOrder) {
  const TemporaryDirectory folder;
  for (unsigned seed = 1; seed <= 5; ++seed) {
    const auto stream = openStream(folder / "file");
    const std::string expected = writeMixture(*stream, seed, 100);
    EXPECT_TRUE(stream->flush());
    EXPECT_TRUE(expected == readFile(folder / "file")) << seed;
    stream->close();
    EXPECT_TRUE(expected == readFile(folder / "file")) << seed;
  }
}

TEST(NSFileOutputStream, AWriteOfNothingTakesNothingAndIsNoError) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  EXPECT_TRUE(takesAll(*stream, "a"));
  EXPECT_EQ(0, stream->write(nullptr, 0));
  EXPECT_EQ(0, writeOnce(*stream, ""));
  EXPECT_EQ(1U, stream->NSStreamFileCurrentOffsetKey());
  EXPECT_TRUE(takesAll(*stream, "b"));
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
  EXPECT_EQ("ab", readFile(folder / "file"));
}

TEST(NSFileOutputStream, TheCallersMemoryMayChangeOnceTheWriteReturned) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  std::string bytes = "first";
  EXPECT_TRUE(takesAll(*stream, bytes));
  bytes = "later";
  stream->close();
  EXPECT_EQ("first", readFile(folder / "file"));
}

TEST(NSFileOutputStream, TheOffsetCannotBeSetAndWritingGoesOn) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  EXPECT_TRUE(takesAll(*stream, "abc"));
  EXPECT_FALSE(stream->setNSStreamFileCurrentOffsetKey(0));
  EXPECT_EQ(3U, stream->NSStreamFileCurrentOffsetKey());
  EXPECT_TRUE(takesAll(*stream, "def"));
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
  EXPECT_EQ("abcdef", readFile(folder / "file"));
}

TEST(NSFileOutputStream, ItKeepsNoBytesInMemoryForItsCaller) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  EXPECT_TRUE(takesAll(*stream, "abc"));
  EXPECT_EQ(nullptr, stream->NSStreamDataWrittenToMemoryStreamKey());
}

// What the system does behind the stream's back

TEST(NSFileOutputStream, SystemWritesThatTakeLessAreRepeated) {
  const TemporaryDirectory folder;
  for (const std::size_t longest : {997U, 4096U, 65535U, 65537U, 100000U}) {
    std::string expected;
    {
      SystemCalls calls;
      calls.longestTransfer = longest;
      const auto stream = openStream(folder / "file");
      expected = writeMixture(*stream, 11, 40);
      EXPECT_TRUE(stream->flush());
      stream->close();
      EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
    }
    EXPECT_TRUE(expected == readFile(folder / "file")) << longest;
  }
}

TEST(NSFileOutputStream, SystemWritesOfOneByteStillWriteEverythingOnce) {
  const TemporaryDirectory folder;
  const std::string large = patternBytes(70000);
  {
    SystemCalls calls;
    calls.longestTransfer = 1;
    const auto stream = openStream(folder / "file");
    EXPECT_TRUE(takesAll(*stream, "header"));
    EXPECT_TRUE(takesAll(*stream, large));
    EXPECT_TRUE(takesAll(*stream, "tail"));
    stream->close();
    EXPECT_EQ(large.size() + 10, calls.bytesMoved());
  }
  EXPECT_TRUE("header" + large + "tail" == readFile(folder / "file"));
}

TEST(NSFileOutputStream, InterruptedSystemWritesAreInvisible) {
  const TemporaryDirectory folder;
  std::string expected;
  {
    SystemCalls calls;
    calls.interruptEveryOther = true;
    calls.longestTransfer = 20000;
    const auto stream = openStream(folder / "file");
    expected = writeMixture(*stream, 12, 40);
    EXPECT_TRUE(stream->flush());
    EXPECT_GE(calls.interruptions, 10U);
    EXPECT_EQ(nullptr, stream->streamError());
    stream->close();
  }
  EXPECT_TRUE(expected == readFile(folder / "file"));
}

// Failures

TEST(NSFileOutputStream, AFileThatCannotBeCreatedShowsAtTheFirstWrite) {
  const TemporaryDirectory folder;
  const auto stream = NSOutputStream::outputStreamToFileAtPath(folder / "missing/file");
  ASSERT_TRUE(stream != nullptr);
  stream->open();
  EXPECT_EQ(KQ::NSStreamStatusError, stream->streamStatus());
  EXPECT_LT(writeOnce(*stream, "x"), 0);
  expectFailedForGood(*stream, ENOENT);
  EXPECT_FALSE(std::filesystem::exists(folder / "missing"));
}

TEST(NSFileOutputStream, AFolderCannotBeWrittenTo) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder.path().string());
  EXPECT_LT(writeOnce(*stream, "x"), 0);
  expectFailedForGood(*stream, EISDIR);
}

TEST(NSFileOutputStream, AFileThatMayNotBeWrittenShowsAtTheFirstWriteAndStays) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "before");
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  std::filesystem::permissions(folder / "file", std::filesystem::perms(0444));
  KQTest::inUnprivilegedChildProcess([&folder] {
    const auto stream = openStream(folder / "file");
    EXPECT_LT(writeOnce(*stream, "x"), 0);
    expectFailedForGood(*stream, EACCES);
  });
  EXPECT_EQ("before", readFile(folder / "file"));
}

TEST(NSFileOutputStream, APathWithANULIsRefusedAndNotCutShort) {
  const TemporaryDirectory folder;
  const auto stream = openStream((folder / "file") + "\0more"s);
  EXPECT_LT(writeOnce(*stream, "x"), 0);
  expectFailedForGood(*stream, EINVAL);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(NSFileOutputStream, APathThatIsNotUTF8IsRefused) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "\xFFname");
  EXPECT_LT(writeOnce(*stream, "x"), 0);
  expectFailedForGood(*stream, EILSEQ);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(NSFileOutputStream, AFullDiskFailsALargeWriteForGood) {
  const TemporaryDirectory folder;
  KQTest::inChildProcess([&folder] {
    const auto stream = openStream(folder / "file");
    limitFileSize(100000);
    const std::string bytes = patternBytes(80000);
    EXPECT_TRUE(takesAll(*stream, bytes));
    EXPECT_TRUE(stream->flush());
    EXPECT_LT(writeOnce(*stream, bytes), 0);
    liftFileSizeLimit();
    expectFailedForGood(*stream, EFBIG);
    EXPECT_LE(std::filesystem::file_size(folder / "file"), 100000U);
  });
}

TEST(NSFileOutputStream, AFullDiskShowsWhenWhatIsBufferedIsFlushed) {
  const TemporaryDirectory folder;
  KQTest::inChildProcess([&folder] {
    const auto stream = openStream(folder / "file");
    limitFileSize(10);
    EXPECT_TRUE(takesAll(*stream, "more than ten bytes"));
    EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
    EXPECT_FALSE(stream->flush());
    liftFileSizeLimit();
    expectFailedForGood(*stream, EFBIG);
  });
}

TEST(NSFileOutputStream, AFullDiskShowsInTheStatusWhenTheStreamIsClosed) {
  const TemporaryDirectory folder;
  KQTest::inChildProcess([&folder] {
    const auto stream = openStream(folder / "file");
    limitFileSize(10);
    EXPECT_TRUE(takesAll(*stream, "more than ten bytes"));
    stream->close();
    EXPECT_EQ(KQ::NSStreamStatusError, stream->streamStatus());
    expectPOSIXCode(EFBIG, stream->streamError());
    EXPECT_FALSE(stream->flush());
  });
}

TEST(NSFileOutputStream, AFullDiskFailsSomeSmallWriteAndEveryOneAfterIt) {
  const TemporaryDirectory folder;
  KQTest::inChildProcess([&folder] {
    const auto stream = openStream(folder / "file");
    limitFileSize(10);
    bool failed = false;
    std::uint64_t accepted = 0;
    for (int i = 0; i < 100000; ++i) {
      const bool taken = takesAll(*stream, "12345678");
      ASSERT_FALSE(failed && taken) << i;
      failed = failed || !taken;
      accepted += taken ? 8 : 0;
      ASSERT_EQ(accepted, stream->NSStreamFileCurrentOffsetKey());
    }
    EXPECT_TRUE(failed);
    expectFailedForGood(*stream, EFBIG);
  });
}

TEST(NSFileOutputStream, ADeviceWithoutRoomFailsTheFlush) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "the system has no device that is always full";
  const auto stream = openStream("/dev/full");
  EXPECT_TRUE(takesAll(*stream, "x"));
  EXPECT_FALSE(stream->flush());
  expectFailedForGood(*stream, ENOSPC);
}

TEST(NSFileOutputStream, AFailingSystemWriteIsReportedWhicheverItIs) {
  const TemporaryDirectory folder;
  const std::string large = patternBytes(100000);
  for (std::size_t number = 1; number <= 10; ++number) {
    const auto stream = openStream(folder / "file");
    SystemCalls calls;
    calls.longestTransfer = 10001;
    calls.failAt = number;
    calls.failWith = ENOSPC;
    EXPECT_TRUE(takesAll(*stream, "header"));
    EXPECT_LT(writeOnce(*stream, large), 0) << number;
    // The system would take bytes again; what is lost would leave a hole before them.
    expectFailedForGood(*stream, ENOSPC);
    EXPECT_EQ(number, calls.transfers.size()) << "the system was asked again after a failure";
  }
}

TEST(NSFileOutputStream, ASystemThatTakesNothingEndsInAnErrorAndNotInALoop) {
  const TemporaryDirectory folder;
  const auto stream = openStream(folder / "file");
  SystemCalls calls;
  calls.longestTransfer = 0;
  EXPECT_TRUE(takesAll(*stream, "header"));
  EXPECT_FALSE(stream->flush());
  EXPECT_EQ(KQ::NSStreamStatusError, stream->streamStatus());
  EXPECT_TRUE(stream->streamError() != nullptr);
}

TEST(NSFileOutputStream, AFailedCloseOfTheFileShowsInTheStatus) {
  const TemporaryDirectory folder;
  const int number = nextFileNumber();
  const auto stream = openStream(folder / "file");
  ASSERT_NE(number, nextFileNumber());
  // Taken away from under the stream, so that its own close fails.
  ASSERT_EQ(0, close(number));
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusError, stream->streamStatus());
  expectPOSIXCode(EBADF, stream->streamError());
}
