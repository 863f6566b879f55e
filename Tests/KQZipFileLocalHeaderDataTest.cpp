#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Support/EntryRecords.h"
#include "Support/Sanitizers.h"
#include "Support/SystemCalls.h"

using KQTest::contentsOf;
using KQTest::dosDate;
using KQTest::dosTime;
using KQTest::earlierError;
using KQTest::Error;
using KQTest::expectKQZipError;
using KQTest::expectSameBytes;
using KQTest::LocalHeaderFields;
using KQTest::LogCapture;
using KQTest::mebibyte;
using KQTest::OuterProgress;
using KQTest::patternBytes;
using KQTest::readFile;
using KQTest::StreamBehindSignature;
using KQTest::SystemCalls;
using KQTest::TemporaryDirectory;
using KQTest::TestInputStream;
using KQTest::TimeZone;
using KQTest::writeFile;
using KQTest::zip64FieldBytes;

namespace {

using Lines = std::vector<std::string>;
using Lengths = std::vector<std::uint64_t>;

std::shared_ptr<KQ::NSProgress> currentProgress() { return KQ::NSProgress::currentProgress(); }

// A record in an archive with other bytes before and behind it.
struct Archive {
  explicit Archive(const std::string& entryData) : Archive(entryData, entryData.size()) {}

  // The header declares `length` bytes of data, whatever follows it.
  Archive(const std::string& entryData, std::uint64_t length) : data(entryData) {
    LocalHeaderFields fields;
    fields.name = "entry";
    fields.modDate = dosDate(1999, 12, 31);
    fields.modTime = dosTime(23, 58, 56);
    fields.extra = zip64FieldBytes(length, length, 7);
    const std::string before = "before!" + fields.bytes();
    dataOffset = before.size();
    bytes = before + data;
    TestInputStream stream(bytes);
    stream.position = 11;
    header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
    EXPECT_NE(nullptr, header);
    EXPECT_EQ(dataOffset, header->offsetOfDataInArchive());
  }

  std::string data;
  std::uint64_t dataOffset = 0;
  std::string bytes;
  std::shared_ptr<KQZipFileLocalHeader> header;
};

// A header whose data begins at the archive's first byte and that declares `length` bytes of it.
std::shared_ptr<KQZipFileLocalHeader> headerDeclaring(std::uint64_t length) {
  auto header = std::make_shared<KQZipFileLocalHeader>();
  auto field = std::make_shared<KQZipExtraFieldZip64ExtendedInfo>();
  field->setCompressedSize(length);
  header->addExtraField(field);
  header->setModDate(dosDate(1999, 12, 31));
  return header;
}

const long long entryDate = 946684736;  // 1999-12-31 23:58:56 UTC

struct FileDate {
  long long seconds = 0;
  long nanoseconds = 0;
  bool operator==(const FileDate&) const = default;
};

void PrintTo(const FileDate& date, std::ostream* stream) {
  *stream << date.seconds << "+" << date.nanoseconds;
}

FileDate dateOfFile(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
#ifdef __APPLE__
  return {status.st_mtimespec.tv_sec, status.st_mtimespec.tv_nsec};
#else
  return {status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
#endif
}

std::uint64_t peakMemory() {
  rusage usage{};
  EXPECT_EQ(0, getrusage(RUSAGE_SELF, &usage));
#ifdef __APPLE__
  return static_cast<std::uint64_t>(usage.ru_maxrss);
#else
  return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
#endif
}

// Limits what the calling process may do while it exists, so that its report is not under the limit.
class SoftLimit {
 public:
  SoftLimit(int resource, rlim_t limit) : resource_(resource) {
    EXPECT_EQ(0, getrlimit(static_cast<Resource>(resource_), &previous_));
    rlimit limited = previous_;
    limited.rlim_cur = limit;
    EXPECT_EQ(0, setrlimit(static_cast<Resource>(resource_), &limited));
  }
  ~SoftLimit() { setrlimit(static_cast<Resource>(resource_), &previous_); }
  SoftLimit(const SoftLimit&) = delete;
  SoftLimit& operator=(const SoftLimit&) = delete;

 private:
#if defined(__GLIBC__)
  using Resource = __rlimit_resource;
#else
  using Resource = int;
#endif
  int resource_;
  rlimit previous_{};
};

}  // namespace

// In memory

TEST(KQZipFileLocalHeaderData, TheDataIsReadWholeWithOneRead) {
  for (const std::uint64_t size : {std::uint64_t{1}, std::uint64_t{10}, 3 * mebibyte + 1}) {
    SCOPED_TRACE(size);
    const Archive archive(patternBytes(size));
    TestInputStream stream(archive.bytes + "behind");
    stream.position = 3;
    const auto data = archive.header->unarchivedDataWithStream(stream);
    ASSERT_NE(nullptr, data);
    expectSameBytes(archive.data, contentsOf(data));
    EXPECT_EQ(Lengths{size}, stream.reads);
    EXPECT_EQ(Lengths{archive.dataOffset}, stream.offsetsSet);
    EXPECT_EQ(archive.dataOffset + size, stream.position);
  }
}

TEST(KQZipFileLocalHeaderData, TheDataIsReadFromARealFileAgainAndAgain) {
  const TemporaryDirectory folder;
  const Archive archive(patternBytes(2 * mebibyte + 3));
  writeFile(folder / "archive", archive.bytes + "behind");
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
  ASSERT_NE(nullptr, stream);
  stream->open();
  for (int round = 0; round < 3; ++round) {
    const auto data = archive.header->unarchivedDataWithStream(*stream);
    ASSERT_NE(nullptr, data);
    expectSameBytes(archive.data, contentsOf(data));
    EXPECT_EQ(archive.dataOffset + archive.data.size(), stream->NSStreamFileCurrentOffsetKey());
  }
}

TEST(KQZipFileLocalHeaderData, The32BitLengthCountsWhereThereIsNoZip64Field) {
  LocalHeaderFields fields;
  fields.name = "entry";
  fields.compressedSize = 5;
  fields.uncompressedSize = 9;
  StreamBehindSignature stream(fields.bytes() + "0123456789");
  const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  EXPECT_EQ("01234", contentsOf(header->unarchivedDataWithStream(stream)));
}

TEST(KQZipFileLocalHeaderData, NothingOfTheArchiveStreamIsOpenedOrClosed) {
  class Guarded : public TestInputStream {
   public:
    using TestInputStream::TestInputStream;
    void open() override { ++calls; }
    void close() override { ++calls; }
    int calls = 0;
  };
  const TemporaryDirectory folder;
  const Archive archive("0123456789");
  Guarded stream(archive.bytes);
  EXPECT_NE(nullptr, archive.header->unarchivedDataWithStream(stream));
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ(0, stream.calls);
}

TEST(KQZipFileLocalHeaderData, ADamagedEntryIsHandedOutAsItStands) {
  Archive archive("0123456789");
  archive.header->setCrc32(0xBADBAD);
  const LogCapture log;
  TestInputStream stream(archive.bytes);
  EXPECT_EQ("0123456789", contentsOf(archive.header->unarchivedDataWithStream(stream)));
  EXPECT_EQ(Lines(), log.lines()) << "the CRC is not checked";
}

TEST(KQZipFileLocalHeaderData, AnArchiveThatEndsEarlyGivesABufferOfFullLengthWithZeros) {
  const Archive archive("0123456789", 100000);
  TestInputStream stream(archive.bytes);
  const auto data = archive.header->unarchivedDataWithStream(stream);
  ASSERT_NE(nullptr, data);
  expectSameBytes("0123456789" + std::string(99990, '\0'), contentsOf(data));
  EXPECT_EQ(1u, stream.reads.size()) << "the missing bytes are not asked for again";
}

TEST(KQZipFileLocalHeaderData, APartialReadIsNotCompleted) {
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  stream.longestRead = 4;
  EXPECT_EQ(std::string("0123\0\0\0\0\0\0", 10),
            contentsOf(archive.header->unarchivedDataWithStream(stream)));
  EXPECT_EQ(Lengths{10}, stream.reads);
}

TEST(KQZipFileLocalHeaderData, AReadThatFailsGivesABufferOfFullLength) {
  const LogCapture log;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  stream.failAtRead = 1;
  const auto data = archive.header->unarchivedDataWithStream(stream);
  ASSERT_NE(nullptr, data);
  EXPECT_EQ(10u, data->length());
  EXPECT_EQ(std::string(10, '\0'), contentsOf(data));
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipFileLocalHeaderData, AReadThatGivesNothingGivesNothing) {
  const Archive archive("", 10);
  TestInputStream stream(archive.bytes);
  EXPECT_EQ(nullptr, archive.header->unarchivedDataWithStream(stream));
  EXPECT_EQ(Lengths{10}, stream.reads);
}

TEST(KQZipFileLocalHeaderData, AnEntryWithoutDataGivesNothing) {
  const Archive archive("", 0);
  TestInputStream stream(archive.bytes + "behind");
  EXPECT_EQ(nullptr, archive.header->unarchivedDataWithStream(stream));
  EXPECT_EQ(archive.dataOffset, stream.position);
}

TEST(KQZipFileLocalHeaderData, ARefusedSeekIsIgnoredAndTheReadRunsFromWhereTheStreamStands) {
  const LogCapture log;
  const Archive archive("0123456789");
  TestInputStream stream("an altogether different stream");
  stream.position = 3;
  stream.refuseOffsets = true;
  stream.error = earlierError();
  EXPECT_EQ("altogether", contentsOf(archive.header->unarchivedDataWithStream(stream)));
  EXPECT_EQ(Lengths{archive.dataOffset}, stream.offsetsSet);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipFileLocalHeaderData, ALengthThatNoMemoryCanHoldGivesNothing) {
  const TemporaryDirectory folder;
  writeFile(folder / "archive", "0123456789");
  for (const std::uint64_t length : {UINT64_MAX, UINT64_MAX - 1, std::uint64_t{1} << 63,
                                     (std::uint64_t{1} << 63) - 1, std::uint64_t{1} << 62}) {
    SCOPED_TRACE(length);
    const auto header = headerDeclaring(length);
    const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
    ASSERT_NE(nullptr, stream);
    stream->open();
    EXPECT_EQ(nullptr, header->unarchivedDataWithStream(*stream));
  }
}

TEST(KQZipFileLocalHeaderData, ALengthBeyondTheProcesssLimitOfMemoryGivesNothing) {
  if (KQTEST_ADDRESS_SANITIZER || KQTEST_THREAD_SANITIZER)
    GTEST_SKIP() << "a sanitizer's own memory does not fit under a limit";
  KQTest::inChildProcess([] {
    const auto header = headerDeclaring(std::uint64_t{1} << 38);
    TestInputStream stream("0123456789");
    std::shared_ptr<const KQ::NSData> data;
    {
      const SoftLimit limit(RLIMIT_AS, std::uint64_t{1} << 37);
      data = header->unarchivedDataWithStream(stream);
    }
    EXPECT_EQ(nullptr, data);
  });
}

TEST(KQZipFileLocalHeaderData, AHugeDeclaredLengthInASmallFileCostsNoMemory) {
  if (KQTEST_ADDRESS_SANITIZER || KQTEST_THREAD_SANITIZER)
    GTEST_SKIP() << "a sanitizer keeps records of every byte that is allocated";
  const TemporaryDirectory folder;
  writeFile(folder / "archive", "0123456789");
  const std::uint64_t length = 8192 * mebibyte;
  const auto header = headerDeclaring(length);
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
  ASSERT_NE(nullptr, stream);
  stream->open();
  const std::uint64_t before = peakMemory();
  const auto data = header->unarchivedDataWithStream(*stream);
  // A system may refuse to promise so much; then there is nothing, which is as well.
  if (data) {
    ASSERT_EQ(length, data->length());
    EXPECT_EQ(0, std::memcmp("0123456789", data->bytes(), 10));
    for (const std::uint64_t place : {std::uint64_t{10}, length / 2, length - 1})
      EXPECT_EQ(0, data->bytes()[place]) << place;
  }
  EXPECT_GT(before + 64 * mebibyte, peakMemory());
}

TEST(KQZipFileLocalHeaderData, TheDataIsNotCopiedASecondTime) {
  if (KQTEST_ADDRESS_SANITIZER || KQTEST_THREAD_SANITIZER)
    GTEST_SKIP() << "a sanitizer keeps records of every byte that is allocated";
  KQTest::inChildProcess([] {
    class Zeros : public KQ::NSInputStream {
     public:
      std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override {
        std::memset(buffer, 'z', maxLength);
        return static_cast<std::int64_t>(maxLength);
      }
      bool hasBytesAvailable() override { return true; }
    };
    const std::uint64_t length = 64 * mebibyte;
    const auto header = headerDeclaring(length);
    Zeros stream;
    const std::uint64_t before = peakMemory();
    const auto data = header->unarchivedDataWithStream(stream);
    ASSERT_NE(nullptr, data);
    EXPECT_EQ('z', data->bytes()[length - 1]);
    EXPECT_GT(before + length + length / 2, peakMemory());
  });
}

TEST(KQZipFileLocalHeaderData, ThreadsWithStreamsOfTheirOwnReadOneHeaderAtOnce) {
  const TemporaryDirectory folder;
  const Archive archive(patternBytes(100000));
  writeFile(folder / "archive", archive.bytes);
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
      stream->open();
      const std::string target = folder / std::to_string(number);
      if (contentsOf(archive.header->unarchivedDataWithStream(*stream)) == archive.data &&
          archive.header->exportFileToPath(target, *stream) && readFile(target) == archive.data)
        ++right;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(4, right);
}

// To a file

TEST(KQZipFileLocalHeaderData, AnExportWritesTheBytesAndSetsTheDate) {
  const TimeZone zone("UTC0");
  const LogCapture log;
  const TemporaryDirectory folder;
  const OuterProgress outer;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes + "behind");
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream, &error));
  EXPECT_EQ("0123456789", readFile(folder / "target"));
  EXPECT_EQ((FileDate{entryDate, 0}), dateOfFile(folder / "target"));
  EXPECT_EQ(Lengths{archive.dataOffset}, stream.offsetsSet);
  EXPECT_EQ(Lengths{10}, stream.reads);
  EXPECT_EQ(archive.dataOffset + 10, stream.position) << "the stream stands at the end of the data";
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_TRUE(outer.isCurrent());
}

TEST(KQZipFileLocalHeaderData, TheExportedDateIsTheOneOfTheLocalTimeZone) {
  const TemporaryDirectory folder;
  const Archive archive("0123456789");
  const struct {
    const char* zone;
    long long date;
  } cases[] = {{"UTC0", entryDate}, {"IST-5:30", entryDate - 19800}, {"NST3:30", entryDate + 12600}};
  for (const auto& [name, date] : cases) {
    SCOPED_TRACE(name);
    const TimeZone zone(name);
    TestInputStream stream(archive.bytes);
    EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
    EXPECT_EQ((FileDate{date, 0}), dateOfFile(folder / "target"));
  }
}

TEST(KQZipFileLocalHeaderData, AnExportFromARealFileLeavesItsStreamBehindTheData) {
  const TemporaryDirectory folder;
  const Archive archive(patternBytes(3 * mebibyte + 1));
  writeFile(folder / "archive", archive.bytes + "behind");
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
  ASSERT_NE(nullptr, stream);
  stream->open();
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", *stream));
  expectSameBytes(archive.data, readFile(folder / "target"));
  EXPECT_EQ(archive.dataOffset + archive.data.size(), stream->NSStreamFileCurrentOffsetKey());
  std::array<std::uint8_t, 6> behind{};
  EXPECT_EQ(6, stream->read(behind.data(), behind.size()));
  EXPECT_EQ("behind", std::string(behind.begin(), behind.end()));
}

TEST(KQZipFileLocalHeaderData, DataIsExportedInBlocksOfOneMebibyteAndCounted) {
  const TemporaryDirectory folder;
  const OuterProgress outer;
  const Archive archive(patternBytes(3 * mebibyte + 1));
  TestInputStream stream(archive.bytes);
  std::vector<std::int64_t> counts;
  std::shared_ptr<KQ::NSProgress> progress;
  stream.beforeRead = [&](std::size_t) {
    EXPECT_FALSE(outer.isCurrent());
    progress = currentProgress();
    ASSERT_NE(nullptr, progress);
    counts.push_back(progress->completedUnitCount());
    EXPECT_EQ(3145729, progress->totalUnitCount());
    EXPECT_TRUE(progress->isCancellable());
    EXPECT_FALSE(progress->isPausable());
    EXPECT_EQ("NSProgressKindFile", progress->kind());
  };
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
  expectSameBytes(archive.data, readFile(folder / "target"));
  EXPECT_EQ((Lengths{mebibyte, mebibyte, mebibyte, 1}), stream.reads);
  EXPECT_EQ((std::vector<std::int64_t>{0, 1048576, 2097152, 3145728}), counts);
  ASSERT_NE(nullptr, progress);
  EXPECT_EQ(3145729, progress->completedUnitCount());
  EXPECT_TRUE(progress->isFinished());
  EXPECT_EQ(1, outer->completedUnitCount()) << "the export was a child of what was current";
  EXPECT_TRUE(outer.isCurrent());
}

TEST(KQZipFileLocalHeaderData, TheFourBlocksOfAnEntryAreFourWritesFromOneBuffer) {
  const TemporaryDirectory folder;
  const Archive archive(patternBytes(3 * mebibyte + 1));
  TestInputStream stream(archive.bytes);
  const SystemCalls calls;
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
  ASSERT_EQ(4u, calls.transfers.size());
  for (std::size_t block = 0; block < 4; ++block)
    EXPECT_EQ(block < 3 ? mebibyte : 1, calls.transfers[block].asked()) << block;
  for (std::size_t block = 1; block < 3; ++block)
    EXPECT_EQ(calls.transfers[0].pieces.back().address, calls.transfers[block].pieces.back().address);
}

TEST(KQZipFileLocalHeaderData, AProgressMadeDuringAnExportIsWorthItsWholeTotal) {
  const TemporaryDirectory folder;
  const OuterProgress outer;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  stream.beforeRead = [&](std::size_t) {
    const auto progress = currentProgress();
    KQ::NSProgress::progressWithTotalUnitCount(7)->setCompletedUnitCount(7);
    EXPECT_EQ(10, progress->completedUnitCount());
  };
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ(1u, stream.reads.size());
}

TEST(KQZipFileLocalHeaderData, ExactlyOneBlockIsOneRead) {
  const TemporaryDirectory folder;
  for (const std::uint64_t size : {mebibyte - 1, mebibyte, 2 * mebibyte}) {
    SCOPED_TRACE(size);
    const Archive archive(patternBytes(size));
    TestInputStream stream(archive.bytes + "behind");
    EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
    expectSameBytes(archive.data, readFile(folder / "target"));
    EXPECT_EQ(size == 2 * mebibyte ? (Lengths{mebibyte, mebibyte}) : Lengths{size}, stream.reads);
  }
}

TEST(KQZipFileLocalHeaderData, AStreamThatGivesLittleAtATimeIsReadToTheEnd) {
  const TemporaryDirectory folder;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes + "behind");
  stream.longestRead = 4;
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ("0123456789", readFile(folder / "target"));
  EXPECT_EQ((Lengths{10, 6, 2}), stream.reads);
}

TEST(KQZipFileLocalHeaderData, AnExistingFileIsReplaced) {
  const TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  writeFile(folder / "target", std::string(100000, 'o'));
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ("0123456789", readFile(folder / "target"));
  EXPECT_EQ((FileDate{entryDate, 0}), dateOfFile(folder / "target"));

  const Archive empty("");
  TestInputStream emptyStream(empty.bytes);
  EXPECT_TRUE(empty.header->exportFileToPath(folder / "target", emptyStream));
  EXPECT_EQ("", readFile(folder / "target"));
}

TEST(KQZipFileLocalHeaderData, AnEntryWithoutDataIsExportedAsAnEmptyFileWithItsDate) {
  const TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  const OuterProgress outer;
  const Archive archive("");
  TestInputStream stream(archive.bytes + "behind");
  Error error;
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_TRUE(std::filesystem::is_regular_file(folder / "target"));
  EXPECT_EQ("", readFile(folder / "target"));
  EXPECT_EQ((FileDate{entryDate, 0}), dateOfFile(folder / "target"));
  EXPECT_TRUE(stream.reads.empty());
  EXPECT_EQ(archive.dataOffset, stream.position);
  EXPECT_TRUE(outer.isCurrent());
}

TEST(KQZipFileLocalHeaderData, TheOutcomeForAnEntryWithoutDataIsThatOfItsAttributes) {
  const TemporaryDirectory folder;
  const LogCapture log;
  const OuterProgress outer;
  const Archive archive("");
  TestInputStream stream(archive.bytes);
  Error error;
  EXPECT_FALSE(archive.header->exportFileToPath(folder / "missing/target", stream, &error));
  ASSERT_NE(nullptr, error);
  EXPECT_EQ("NSPOSIXErrorDomain", error->domain()) << error->description();
  EXPECT_EQ(ENOENT, error->code());
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_TRUE(outer.isCurrent());
}

TEST(KQZipFileLocalHeaderData, AnArchiveThatEndsEarlyYieldsAShortFileAndSuccess) {
  const TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  const OuterProgress outer;
  for (const std::uint64_t declared :
       {std::uint64_t{11}, 2 * mebibyte, (std::uint64_t{1} << 63) - 1, std::uint64_t{1} << 63, UINT64_MAX}) {
    SCOPED_TRACE(declared);
    const auto header = headerDeclaring(declared);
    header->setModTime(dosTime(23, 58, 56));
    TestInputStream stream("0123456789");
    std::int64_t completed = -1;
    stream.beforeRead = [&](std::size_t) { completed = currentProgress()->completedUnitCount(); };
    Error error;
    EXPECT_TRUE(header->exportFileToPath(folder / "target", stream, &error));
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ("0123456789", readFile(folder / "target"));
    EXPECT_EQ((FileDate{entryDate, 0}), dateOfFile(folder / "target"));
    EXPECT_EQ(2u, stream.reads.size());
    EXPECT_EQ(10, completed);
    EXPECT_TRUE(outer.isCurrent());
  }
}

// Failures of an export

TEST(KQZipFileLocalHeaderData, ARefusedSeekFailsTheExportButTheCopyRunsWithoutAttributes) {
  const TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  const LogCapture log;
  const OuterProgress outer;
  const Archive archive("0123456789");
  TestInputStream stream("an altogether different stream");
  stream.position = 3;
  stream.refuseOffsets = true;
  stream.error = earlierError();
  Error error;
  EXPECT_FALSE(archive.header->exportFileToPath(folder / "target", stream, &error));
  expectKQZipError(error, -50, "Failed to seek to offset " + std::to_string(archive.dataOffset));
  EXPECT_EQ("altogether", readFile(folder / "target"));
  EXPECT_NE(entryDate, dateOfFile(folder / "target").seconds) << "no attributes are set";
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_TRUE(outer.isCurrent());
}

TEST(KQZipFileLocalHeaderData, ARefusedSeekFailsWithoutASlotAndForAnEntryWithoutDataToo) {
  const TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  const Archive archive("");
  TestInputStream stream("x");
  stream.refuseOffsets = true;
  EXPECT_FALSE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ("", readFile(folder / "target"));
  EXPECT_NE(entryDate, dateOfFile(folder / "target").seconds);
}

TEST(KQZipFileLocalHeaderData, AnOffsetBeyond63BitsIsNamedInDecimal) {
  class FarHeader : public KQZipFileLocalHeader {
   public:
    FarHeader() { fileDataOffset_ = 18446744073709551615ULL; }
  };
  const TemporaryDirectory folder;
  writeFile(folder / "archive", "0123456789");
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
  ASSERT_NE(nullptr, stream);
  stream->open();
  FarHeader header;
  header.setCompressedSize(4);
  Error error;
  EXPECT_FALSE(header.exportFileToPath(folder / "target", *stream, &error));
  expectKQZipError(error, -50, "Failed to seek to offset 18446744073709551615");
  EXPECT_EQ("0123", readFile(folder / "target"));
}

TEST(KQZipFileLocalHeaderData, AFailedWriteAfterARefusedSeekReportsTheWrite) {
  const TemporaryDirectory folder;
  const Archive archive("0123456789");
  TestInputStream stream("an altogether different stream");
  stream.refuseOffsets = true;
  const std::string target = folder / "missing/target";
  Error error;
  EXPECT_FALSE(archive.header->exportFileToPath(target, stream, &error));
  expectKQZipError(error, -51, "Failed to write to stream at " + target);
}

TEST(KQZipFileLocalHeaderData, AMissingFolderFailsAtTheFirstBlock) {
  const TemporaryDirectory folder;
  const LogCapture log;
  const OuterProgress outer;
  const Archive archive(patternBytes(2 * mebibyte));
  TestInputStream stream(archive.bytes);
  std::shared_ptr<KQ::NSProgress> progress;
  stream.beforeRead = [&](std::size_t) { progress = currentProgress(); };
  const std::string target = folder / "50%@ missing/target";
  Error error = earlierError();
  EXPECT_FALSE(archive.header->exportFileToPath(target, stream, &error));
  expectKQZipError(error, -51, "Failed to write to stream at " + target);
  EXPECT_EQ(Lengths{mebibyte}, stream.reads);
  ASSERT_NE(nullptr, progress);
  EXPECT_EQ(1048576, progress->completedUnitCount()) << "a block counts once it is read";
  EXPECT_FALSE(std::filesystem::exists(folder / "50%@ missing"));
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_TRUE(outer.isCurrent());
  EXPECT_FALSE(archive.header->exportFileToPath(target, stream));
}

TEST(KQZipFileLocalHeaderData, ASmallEntryIntoAMissingFolderFailsTheSame) {
  const TemporaryDirectory folder;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  const std::string target = folder / "missing/target";
  Error error;
  EXPECT_FALSE(archive.header->exportFileToPath(target, stream, &error));
  expectKQZipError(error, -51, "Failed to write to stream at " + target);
}

TEST(KQZipFileLocalHeaderData, AFolderAsTargetAndAPathWithNULCannotBeWritten) {
  const TemporaryDirectory folder;
  const Archive archive("0123456789");
  const std::string withNUL = (folder / "target") + std::string("\0.txt", 5);
  for (const std::string& target : {folder.path().string(), withNUL}) {
    TestInputStream stream(archive.bytes);
    Error error;
    EXPECT_FALSE(archive.header->exportFileToPath(target, stream, &error));
    expectKQZipError(error, -51, "Failed to write to stream at " + target);
  }
  EXPECT_FALSE(std::filesystem::exists(folder / "target")) << "a path is never cut short";
}

TEST(KQZipFileLocalHeaderData, BytesThatOnlyFailToReachTheFileAtTheEndFailTheExport) {
  const TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  const std::string target = folder / "target";
  // The first is buffered whole; of the second, only the last bytes are.
  for (const std::uint64_t size : {std::uint64_t{10}, mebibyte + 10}) {
    SCOPED_TRACE(size);
    const Archive archive(patternBytes(size));
    KQTest::inChildProcess([&] {
      ASSERT_NE(SIG_ERR, std::signal(SIGXFSZ, SIG_IGN));
      const OuterProgress outer;
      TestInputStream stream(archive.bytes);
      Error error;
      bool exported = true;
      {
        const SoftLimit limit(RLIMIT_FSIZE, size - 6);
        exported = archive.header->exportFileToPath(target, stream, &error);
      }
      EXPECT_FALSE(exported);
      expectKQZipError(error, -51, "Failed to write to stream at " + target);
      EXPECT_TRUE(outer.isCurrent());
    });
    EXPECT_TRUE(std::filesystem::exists(target)) << "a partial file is left";
    EXPECT_GT(size, std::filesystem::file_size(target));
    EXPECT_NE(entryDate, dateOfFile(target).seconds);
  }
}

TEST(KQZipFileLocalHeaderData, ABlockThatDoesNotFitOnTheDiskFailsTheExportAndLeavesWhatDid) {
  const TemporaryDirectory folder;
  const std::string target = folder / "target";
  const Archive archive(patternBytes(3 * mebibyte));
  KQTest::inChildProcess([&] {
    ASSERT_NE(SIG_ERR, std::signal(SIGXFSZ, SIG_IGN));
    const OuterProgress outer;
    TestInputStream stream(archive.bytes);
    Error error;
    bool exported = true;
    {
      const SoftLimit limit(RLIMIT_FSIZE, mebibyte + mebibyte / 2);
      exported = archive.header->exportFileToPath(target, stream, &error);
    }
    EXPECT_FALSE(exported);
    expectKQZipError(error, -51, "Failed to write to stream at " + target);
    EXPECT_TRUE(outer.isCurrent());
  });
  const std::string left = readFile(target);
  EXPECT_LE(mebibyte, left.size()) << "a partial file is left";
  expectSameBytes(archive.data.substr(0, left.size()), left);
}

TEST(KQZipFileLocalHeaderData, AttributesThatCannotBeSetHandOnTheFileManagersError) {
  const TemporaryDirectory folder;
  const LogCapture log;
  const OuterProgress outer;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  const std::string target = folder / "target";
  stream.beforeRead = [&](std::size_t) { std::filesystem::rename(target, folder / "moved away"); };
  Error error;
  EXPECT_FALSE(archive.header->exportFileToPath(target, stream, &error));
  ASSERT_NE(nullptr, error);
  EXPECT_EQ("NSPOSIXErrorDomain", error->domain());
  EXPECT_EQ(ENOENT, error->code());
  EXPECT_NE(std::string::npos, error->localizedDescription().find(target));
  EXPECT_EQ("0123456789", readFile(folder / "moved away")) << "the file is complete";
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_TRUE(outer.isCurrent());
}

TEST(KQZipFileLocalHeaderData, AReadThatFailsFailsTheExportWithoutAnError) {
  const TimeZone zone("UTC0");
  for (const std::int64_t failing : {1, 2, 3}) {
    for (const bool filled : {false, true}) {
      SCOPED_TRACE(failing);
      const TemporaryDirectory folder;
      const LogCapture log;
      const OuterProgress outer;
      const Archive archive(patternBytes(3 * mebibyte));
      TestInputStream stream(archive.bytes);
      stream.failAtRead = failing;
      const Error earlier = filled ? earlierError() : nullptr;
      Error error = earlier;
      EXPECT_FALSE(archive.header->exportFileToPath(folder / "target", stream, &error));
      EXPECT_EQ(earlier, error);
      EXPECT_EQ(static_cast<std::size_t>(failing), stream.reads.size());
      expectSameBytes(archive.data.substr(0, static_cast<std::size_t>(failing - 1) * mebibyte),
                      readFile(folder / "target"));
      EXPECT_NE(entryDate, dateOfFile(folder / "target").seconds);
      EXPECT_EQ(Lines(), log.lines());
      EXPECT_TRUE(outer.isCurrent());
    }
  }
}

TEST(KQZipFileLocalHeaderData, AReadThatFailsLeavesTheSmallPiecesBeforeItInTheFile) {
  const TemporaryDirectory folder;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  stream.longestRead = 3;
  stream.failAtRead = 3;
  EXPECT_FALSE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ("012345", readFile(folder / "target"));
}

// Cancelling an export

TEST(KQZipFileLocalHeaderData, CancellingStopsBeforeTheNextReadAndStaysCurrent) {
  const TimeZone zone("UTC0");
  for (const std::size_t during : {1u, 2u}) {
    for (const bool filled : {false, true}) {
      SCOPED_TRACE(during);
      const TemporaryDirectory folder;
      const LogCapture log;
      const OuterProgress outer;
      const Archive archive(patternBytes(3 * mebibyte));
      TestInputStream stream(archive.bytes);
      std::shared_ptr<KQ::NSProgress> progress;
      stream.beforeRead = [&](std::size_t number) {
        progress = currentProgress();
        if (number == during) progress->cancel();
      };
      const Error earlier = filled ? earlierError() : nullptr;
      Error error = earlier;
      EXPECT_FALSE(archive.header->exportFileToPath(folder / "target", stream, &error));
      EXPECT_EQ(earlier, error) << "the slot is not touched";
      EXPECT_EQ(during, stream.reads.size());
      expectSameBytes(archive.data.substr(0, during * mebibyte), readFile(folder / "target"));
      EXPECT_NE(entryDate, dateOfFile(folder / "target").seconds);
      EXPECT_EQ(progress, currentProgress());
      EXPECT_EQ(static_cast<std::int64_t>(during * mebibyte), progress->completedUnitCount());
      EXPECT_EQ(archive.dataOffset + during * mebibyte, stream.position);
      EXPECT_EQ(Lines(), log.lines());
    }
  }
}

TEST(KQZipFileLocalHeaderData, CancellingLeavesTheSmallPiecesBeforeItInTheFile) {
  const TemporaryDirectory folder;
  const OuterProgress outer;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  stream.longestRead = 3;
  stream.beforeRead = [&](std::size_t number) {
    if (number == 2) currentProgress()->cancel();
  };
  EXPECT_FALSE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ("012345", readFile(folder / "target"));
}

TEST(KQZipFileLocalHeaderData, AnExportUnderACancelledProgressLeavesAnEmptyFile) {
  const TemporaryDirectory folder;
  OuterProgress outer;
  outer->cancel();
  writeFile(folder / "target", "earlier contents");
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  Error error;
  EXPECT_FALSE(archive.header->exportFileToPath(folder / "target", stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_TRUE(stream.reads.empty());
  EXPECT_EQ("", readFile(folder / "target"));
  ASSERT_FALSE(outer.isCurrent());
  EXPECT_EQ(10, currentProgress()->totalUnitCount());
  EXPECT_EQ(0, currentProgress()->completedUnitCount());
  EXPECT_TRUE(currentProgress()->isCancelled());
  EXPECT_EQ("NSProgressKindFile", currentProgress()->kind());
}

TEST(KQZipFileLocalHeaderData, AfterARefusedSeekACancellationKeepsTheErrorOfTheSeek) {
  const TemporaryDirectory folder;
  OuterProgress outer;
  outer->cancel();
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  stream.refuseOffsets = true;
  Error error;
  EXPECT_FALSE(archive.header->exportFileToPath(folder / "target", stream, &error));
  expectKQZipError(error, -50, "Failed to seek to offset " + std::to_string(archive.dataOffset));
  EXPECT_FALSE(outer.isCurrent());
}

TEST(KQZipFileLocalHeaderData, CancellingDuringTheLastReadIsASuccessThatStaysCurrent) {
  const TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  const OuterProgress outer;
  const Archive archive("0123456789");
  TestInputStream stream(archive.bytes);
  stream.beforeRead = [&](std::size_t) { currentProgress()->cancel(); };
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ("0123456789", readFile(folder / "target"));
  EXPECT_EQ((FileDate{entryDate, 0}), dateOfFile(folder / "target"));
  ASSERT_FALSE(outer.isCurrent());
  EXPECT_TRUE(currentProgress()->isCancelled());
}

TEST(KQZipFileLocalHeaderData, AnEntryWithoutDataIsExportedUnderACancelledProgressWhichStaysCurrent) {
  const TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  OuterProgress outer;
  outer->cancel();
  const Archive archive("");
  TestInputStream stream(archive.bytes);
  EXPECT_TRUE(archive.header->exportFileToPath(folder / "target", stream));
  EXPECT_EQ((FileDate{entryDate, 0}), dateOfFile(folder / "target"));
  EXPECT_FALSE(outer.isCurrent());
}

TEST(KQZipFileLocalHeaderData, CancellingFromAnotherThreadLeavesABeginningOfTheFile) {
  const TemporaryDirectory folder;
  const Archive archive(patternBytes(4 * mebibyte));
  writeFile(folder / "archive", archive.bytes);
  for (int round = 0; round < 10; ++round) {
    OuterProgress outer;
    std::atomic<bool> done{false};
    const auto parent = currentProgress();
    std::thread canceller([&] {
      while (!done && parent->fractionCompleted() < round * 0.1) std::this_thread::yield();
      parent->cancel();
    });
    const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
    stream->open();
    Error error;
    const bool exported = archive.header->exportFileToPath(folder / "target", *stream, &error);
    done = true;
    canceller.join();
    EXPECT_EQ(nullptr, error);
    const std::string written = readFile(folder / "target");
    expectSameBytes(archive.data.substr(0, exported ? std::string::npos : written.size()), written);
    EXPECT_EQ(0u, written.size() % mebibyte);
  }
}
