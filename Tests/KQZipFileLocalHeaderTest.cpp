#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Support/EntryRecords.h"
#include "Support/SystemCalls.h"

using KQTest::crcOf;
using KQTest::dosDate;
using KQTest::dosTime;
using KQTest::earlierError;
using KQTest::Error;
using KQTest::expectKQZipError;
using KQTest::expectSameBytes;
using KQTest::extraFieldBytes;
using KQTest::LocalHeaderFields;
using KQTest::LogCapture;
using KQTest::mebibyte;
using KQTest::OuterProgress;
using KQTest::patternBytes;
using KQTest::StreamBehindSignature;
using KQTest::SystemCalls;
using KQTest::TemporaryDirectory;
using KQTest::TestInputStream;
using KQTest::TestOutputStream;
using KQTest::TimeZone;
using KQTest::utcSeconds;
using KQTest::writeFile;
using KQTest::zip64FieldBytes;

namespace {

using Lines = std::vector<std::string>;
using Lengths = std::vector<std::uint64_t>;

const std::uint16_t sourceTime = dosTime(12, 34, 56);
const std::uint16_t sourceDate = dosDate(2021, 7, 4);

std::shared_ptr<KQ::NSProgress> currentProgress() { return KQ::NSProgress::currentProgress(); }

// A header whose data comes from a file with these contents and a known date.
struct Source {
  explicit Source(std::string fileContents, const std::string& name = "name.txt")
      : contents(std::move(fileContents)),
        path(folder / "source 50%@"),
        header(KQZipFileLocalHeader::initWithSourceFile(path)) {
    writeFile(path, contents);
    KQTest::setModificationDate(path, utcSeconds(2021, 7, 4, 12, 34, 56));
    header->setFileName(name);
  }

  // What a write puts in front of the data at `offset`.
  LocalHeaderFields fields(std::uint64_t offset = 0) const {
    LocalHeaderFields expected;
    expected.modTime = sourceTime;
    expected.modDate = sourceDate;
    expected.crc32 = crcOf(contents);
    expected.name = header->fileName().value_or("");
    expected.extra = zip64FieldBytes(contents.size(), contents.size(), offset);
    return expected;
  }

  TimeZone zone{"UTC0"};
  TemporaryDirectory folder;
  OuterProgress outer;
  std::string contents;
  std::string path;
  std::shared_ptr<KQZipFileLocalHeader> header;
};

// The lengths of the writes of a header whose name has 8 bytes: signature, ten fields, name, Zip64 field.
const Lengths headerWrites{4, 2, 2, 2, 2, 2, 4, 4, 4, 2, 2, 8, 2, 2, 24};

const std::string compressionMessage = "File uses unsupported compression method.";

}  // namespace

// Construction

TEST(KQZipFileLocalHeader, AFreshHeaderHasTheDefaultsOfAnEntryAndNoLink) {
  const KQZipFileLocalHeader header;
  EXPECT_EQ(45, header.versionNeeded());
  EXPECT_EQ(0xFFFFFFFFu, header.compressedSize());
  EXPECT_TRUE(header.extraFields().empty());
  EXPECT_EQ(nullptr, header.centralDirectoryHeader());
  EXPECT_EQ(0x04034b50u, KQZipFileLocalHeader::signature);
}

TEST(KQZipFileLocalHeader, AHeaderForASourceFileHasOneZip64FieldOfZeros) {
  const LogCapture log;
  const auto header = KQZipFileLocalHeader::initWithSourceFile("/no/such/file");
  ASSERT_NE(nullptr, header);
  EXPECT_EQ("/no/such/file", header->sourceFilePath());
  EXPECT_EQ("/no/such/file", header->fileName());
  ASSERT_EQ(1u, header->extraFields().size());
  const auto zip64 = header->findZip64InfoField();
  ASSERT_NE(nullptr, zip64);
  EXPECT_EQ(0u, zip64->uncompressedSize());
  EXPECT_EQ(0u, zip64->compressedSize());
  EXPECT_EQ(0u, zip64->offsetOfLocalHeaderRecord());
  EXPECT_EQ(30u + 13u + 28u, header->outputSize());
  EXPECT_TRUE(header->needsToCalculateCRC());
  EXPECT_TRUE(header->needsToUpdateAttributesFromSourceFile());
  EXPECT_EQ(Lines(), log.lines()) << "the file is not looked at";
}

TEST(KQZipFileLocalHeader, TheDescriptionNamesItsOwnClass) {
  const auto header = KQZipFileLocalHeader::initWithSourceFile("/source");
  EXPECT_EQ(0u, header->description().find("<KQZipFileLocalHeader: "));
  EXPECT_NE(std::string::npos, header->description().find(" path:/source source:/source>"));
}

// Writing

TEST(KQZipFileLocalHeader, AWriteEmitsHeaderNameZip64FieldAndData) {
  const LogCapture log;
  Source source("0123456789");
  TestOutputStream stream;
  Error error;
  EXPECT_TRUE(source.header->writeToStream(stream, &error));
  EXPECT_EQ(KQTest::hex(source.fields().bytes() + "0123456789"), KQTest::hex(stream.bytes));
  EXPECT_EQ(30u + 8u + 28u + 10u, stream.bytes.size());
  Lengths writes = headerWrites;
  writes.push_back(10);
  EXPECT_EQ(writes, stream.writes);
  EXPECT_EQ(stream.bytes.size(), source.header->outputSize());
  EXPECT_EQ(0, stream.flushes) << "whoever owns the stream flushes it";
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_TRUE(source.outer.isCurrent());
}

TEST(KQZipFileLocalHeader, AnEmptySourceFileYieldsTheHeaderAlone) {
  Source source("");
  TestOutputStream stream;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(KQTest::hex(source.fields().bytes()), KQTest::hex(stream.bytes));
  EXPECT_EQ(30u + 8u + 28u, stream.bytes.size());
  EXPECT_EQ(headerWrites, stream.writes);
  EXPECT_EQ(0, source.header->progress()->totalUnitCount());
  EXPECT_EQ(0, source.header->progress()->completedUnitCount());
  EXPECT_TRUE(source.outer.isCurrent());
  EXPECT_TRUE(source.header->isDirectory());
}

TEST(KQZipFileLocalHeader, DataIsCopiedInBlocksOfOneMebibyte) {
  const struct {
    std::uint64_t size;
    Lengths blocks;
  } cases[] = {
      {1, {1}},
      {mebibyte - 1, {mebibyte - 1}},
      {mebibyte, {mebibyte}},
      {mebibyte + 1, {mebibyte, 1}},
      {2 * mebibyte, {mebibyte, mebibyte}},
      {3 * mebibyte + 1, {mebibyte, mebibyte, mebibyte, 1}},
  };
  for (const auto& [size, blocks] : cases) {
    SCOPED_TRACE(size);
    Source source(patternBytes(size, 5));
    TestOutputStream stream;
    EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
    expectSameBytes(source.fields().bytes() + source.contents, stream.bytes);
    Lengths writes = headerWrites;
    writes.insert(writes.end(), blocks.begin(), blocks.end());
    EXPECT_EQ(writes, stream.writes);
  }
}

TEST(KQZipFileLocalHeader, AWriteRecordsThePositionOfItsSignature) {
  for (const std::uint64_t offset :
       {std::uint64_t{1000}, std::uint64_t{0xFFFFFFFF}, std::uint64_t{0x123456789A}}) {
    Source source("abc");
    TestOutputStream stream;
    stream.startOffset = offset;
    EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
    EXPECT_EQ(offset, source.header->offset());
    EXPECT_EQ(KQTest::hex(source.fields(offset).bytes() + "abc"), KQTest::hex(stream.bytes));
  }
}

TEST(KQZipFileLocalHeader, AWriteToAStreamWithoutAnOffsetRecordsZero) {
  Source source("abc");
  source.header->setOffset(55);
  TestOutputStream stream;
  stream.hasOffset = false;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(0u, source.header->offset());
  EXPECT_EQ(KQTest::hex(source.fields(0).bytes() + "abc"), KQTest::hex(stream.bytes));
}

TEST(KQZipFileLocalHeader, ARecordWrittenAtOffset1000InAFileIsParsedBackWithOffset1004) {
  Source source("the data");
  const std::string archive = source.folder / "archive";
  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(archive);
  output->open();
  const std::string before(1000, 'x');
  ASSERT_EQ(1000, output->write(reinterpret_cast<const std::uint8_t*>(before.data()), 1000));
  EXPECT_TRUE(source.header->writeToStream(*output, nullptr));
  output->close();
  EXPECT_EQ(1000u, source.header->offset());
  expectSameBytes(before + source.fields(1000).bytes() + "the data", KQTest::readFile(archive));

  const auto input = KQ::NSInputStream::inputStreamWithFileAtPath(archive);
  ASSERT_NE(nullptr, input);
  input->open();
  ASSERT_TRUE(input->setNSStreamFileCurrentOffsetKey(1004));
  const auto parsed = KQZipFileLocalHeader::initWithStream(*input, nullptr);
  ASSERT_NE(nullptr, parsed);
  EXPECT_EQ(1004u, parsed->offset());
  EXPECT_EQ("name.txt", parsed->relativePath());
  EXPECT_EQ(crcOf("the data"), parsed->crc32());
  EXPECT_EQ(sourceDate, parsed->modDate());
  EXPECT_EQ(sourceTime, parsed->modTime());
  ASSERT_NE(nullptr, parsed->findZip64InfoField());
  EXPECT_EQ(1000u, parsed->findZip64InfoField()->offsetOfLocalHeaderRecord());
  EXPECT_EQ(8u, parsed->findZip64InfoField()->uncompressedSize());
  EXPECT_EQ(8u, parsed->dataLengthFromHeader());
  EXPECT_EQ(1066u, parsed->offsetOfDataInArchive());
  EXPECT_EQ(1074u, input->NSStreamFileCurrentOffsetKey());
}

TEST(KQZipFileLocalHeader, ValuesThatACallerChangedAreWrittenAsTheyStand) {
  Source source("abc", "folder/\xC3\xA4\xF0\x9F\x8E\x81");
  source.header->setVersionNeeded(20);
  source.header->setFlags(0x0808);
  source.header->setCompression(8);
  source.header->setCompressedSize(0x11223344);
  source.header->setUncompressedSize(0x55667788);
  source.header->setCrc32(0x99AABBCC);
  auto other = std::make_shared<KQZipExtraField>();
  other->setFieldSignature(0x7777);
  other->setFieldData(KQTest::dataOf("12345"));
  source.header->addExtraField(other);
  TestOutputStream stream;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));

  LocalHeaderFields expected = source.fields();
  expected.versionNeeded = 20;
  expected.flags = 0x0808;
  expected.compression = 8;
  expected.crc32 = 0x99AABBCC;
  expected.compressedSize = 0x11223344;
  expected.uncompressedSize = 0x55667788;
  expected.extra += extraFieldBytes(0x7777, "12345");
  EXPECT_EQ(37u, expected.extra.size());
  EXPECT_EQ(KQTest::hex(expected.bytes() + "abc"), KQTest::hex(stream.bytes));
}

TEST(KQZipFileLocalHeader, AnAbsentNameIsWrittenAsNoBytes) {
  Source source("abc");
  source.header->setFileName(std::nullopt);
  TestOutputStream stream;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(KQTest::hex(source.fields().bytes() + "abc"), KQTest::hex(stream.bytes));
}

TEST(KQZipFileLocalHeader, ANameBeyond65535BytesIsWrittenWholeBehindACutLength) {
  Source source("abc", std::string(65541, 'n'));
  TestOutputStream stream;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  LocalHeaderFields expected = source.fields();
  expected.nameLength = 5;
  expectSameBytes(expected.bytes() + "abc", stream.bytes);
}

TEST(KQZipFileLocalHeader, ASecondWriteRefreshesTheOffsetAndKeepsTheCrc) {
  Source source("abc");
  TestOutputStream first;
  EXPECT_TRUE(source.header->writeToStream(first, nullptr));
  const auto firstProgress = source.header->progress();
  TestOutputStream second;
  second.startOffset = 500;
  EXPECT_TRUE(source.header->writeToStream(second, nullptr));
  EXPECT_EQ(KQTest::hex(source.fields(500).bytes() + "abc"), KQTest::hex(second.bytes));
  EXPECT_EQ(500u, source.header->offset());
  EXPECT_NE(firstProgress, source.header->progress());
  EXPECT_TRUE(source.outer.isCurrent());
}

// Progress of a write

TEST(KQZipFileLocalHeader, AWriteCountsTwiceTheSizeInACancellableProgressOfItsOwn) {
  Source source("0123456789");
  const auto replaced = KQ::NSProgress::progressWithTotalUnitCount(99);
  source.header->setProgress(replaced);
  TestOutputStream stream;
  int looks = 0;
  stream.beforeWrite = [&](std::size_t) {
    ++looks;
    const auto progress = source.header->progress();
    ASSERT_NE(nullptr, progress);
    EXPECT_NE(replaced, progress);
    EXPECT_EQ(progress, currentProgress()) << "it is current while the write goes on";
    EXPECT_EQ(20, progress->totalUnitCount());
    EXPECT_TRUE(progress->isCancellable());
    EXPECT_FALSE(progress->isPausable());
    EXPECT_FALSE(progress->isCancelled());
    EXPECT_EQ("", progress->kind());
  };
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(16, looks);
  EXPECT_EQ(0, replaced->completedUnitCount());
  EXPECT_EQ(10, source.header->progress()->completedUnitCount());
  EXPECT_EQ(20, source.header->progress()->totalUnitCount());
  EXPECT_TRUE(source.outer.isCurrent());
}

TEST(KQZipFileLocalHeader, AProgressMadeDuringAWriteIsWorthOneUnit) {
  Source source("0123456789");
  TestOutputStream stream;
  stream.beforeWrite = [&](std::size_t number) {
    if (number != 1) return;
    EXPECT_EQ(0, source.header->progress()->completedUnitCount());
    KQ::NSProgress::progressWithTotalUnitCount(7)->setCompletedUnitCount(7);
    EXPECT_EQ(1, source.header->progress()->completedUnitCount());
  };
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(11, source.header->progress()->completedUnitCount());
}

TEST(KQZipFileLocalHeader, TheProgressIsAChildOfTheOneThatWasCurrent) {
  Source source("0123456789");
  TestOutputStream stream;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_DOUBLE_EQ(0.5, source.outer->fractionCompleted()) << "the CRC of one block counts nothing";
  source.outer->cancel();
  EXPECT_TRUE(source.header->progress()->isCancelled());
}

TEST(KQZipFileLocalHeader, CrcAndCopyCountIntoTheSameProgress) {
  Source source(patternBytes(3 * mebibyte + 1));
  TestOutputStream stream;
  std::vector<std::int64_t> counts;
  stream.beforeWrite = [&](std::size_t number) {
    if (number == 1 || number > headerWrites.size())
      counts.push_back(source.header->progress()->completedUnitCount());
  };
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  const auto block = static_cast<std::int64_t>(mebibyte);
  const std::int64_t afterCrc = 2 * block + 1;
  EXPECT_EQ((std::vector<std::int64_t>{afterCrc, afterCrc, afterCrc + block, afterCrc + 2 * block,
                                       afterCrc + 3 * block}),
            counts);
  EXPECT_EQ(5 * block + 2, source.header->progress()->completedUnitCount());
  EXPECT_EQ(6 * block + 2, source.header->progress()->totalUnitCount());
}

TEST(KQZipFileLocalHeader, WithTheCrcKnownOnlyTheCopyCounts) {
  Source source(patternBytes(mebibyte + 1));
  source.header->setCrc32(1);
  TestOutputStream stream;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(static_cast<std::int64_t>(mebibyte + 1), source.header->progress()->completedUnitCount());
  EXPECT_EQ(static_cast<std::int64_t>(2 * mebibyte + 2), source.header->progress()->totalUnitCount());
}

// Cancelling a write

TEST(KQZipFileLocalHeader, AWriteUnderACancelledProgressFailsInItsCrc) {
  Source source("0123456789");
  source.outer->cancel();
  TestOutputStream stream;
  Error error;
  EXPECT_FALSE(source.header->writeToStream(stream, &error));
  expectKQZipError(error, -50, "Can't calculate CRC of " + source.path);
  EXPECT_TRUE(stream.writes.empty());
  EXPECT_TRUE(source.header->progress()->isCancelled());
  EXPECT_EQ(source.header->progress(), currentProgress());
}

TEST(KQZipFileLocalHeader, CancelledBeforeTheCopyTheHeaderStandsAndNoData) {
  const LogCapture log;
  Source source("0123456789");
  source.header->setCrc32(crcOf(source.contents));
  source.outer->cancel();
  TestOutputStream stream;
  Error error = earlierError();
  EXPECT_FALSE(source.header->writeToStream(stream, &error));
  expectKQZipError(error, -90, "Operation was cancelled.");
  EXPECT_EQ(KQTest::hex(source.fields().bytes()), KQTest::hex(stream.bytes));
  EXPECT_EQ(headerWrites, stream.writes);
  EXPECT_EQ(0, source.header->progress()->completedUnitCount());
  EXPECT_EQ(source.header->progress(), currentProgress()) << "it stays current after a cancellation";
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipFileLocalHeader, CancellingDuringTheCopyStopsItBeforeTheNextBlock) {
  const std::int64_t crcCounted = 2 * static_cast<std::int64_t>(mebibyte) + 1;
  for (std::size_t block = 1; block <= 3; ++block) {
    SCOPED_TRACE(block);
    Source source(patternBytes(3 * mebibyte + 1));
    TestOutputStream stream;
    stream.beforeWrite = [&](std::size_t number) {
      if (number == headerWrites.size() + block) source.header->progress()->cancel();
    };
    Error error;
    EXPECT_FALSE(source.header->writeToStream(stream, &error));
    expectKQZipError(error, -90, "Operation was cancelled.");
    expectSameBytes(source.fields().bytes() + source.contents.substr(0, block * mebibyte), stream.bytes);
    EXPECT_EQ(crcCounted + static_cast<std::int64_t>(block * mebibyte),
              source.header->progress()->completedUnitCount());
    EXPECT_EQ(source.header->progress(), currentProgress());
  }
}

// A stream whose code does something when it is asked where it stands, which a write does once.
class AskedStream : public TestOutputStream {
 public:
  explicit AskedStream(std::function<void()> action) : action_(std::move(action)) {}
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override {
    action_();
    return TestOutputStream::NSStreamFileCurrentOffsetKey();
  }

 private:
  std::function<void()> action_;
};

TEST(KQZipFileLocalHeader, ASourceThatIsSetDuringAWriteWithoutOneIsForTheNextWrite) {
  const Source source("0123456789");
  KQZipFileLocalHeader header;
  header.setFileName("name.txt");
  AskedStream stream([&] { header.setSourceFilePath(source.path); });
  Error error;
  EXPECT_FALSE(header.writeToStream(stream, &error));
  expectKQZipError(error, -50, "Source file doesn't exist: (null)");
  EXPECT_EQ("", stream.bytes);
  EXPECT_EQ(source.path, header.sourceFilePath());
  EXPECT_TRUE(header.needsToCalculateCRC());

  TestOutputStream next;
  EXPECT_TRUE(header.writeToStream(next, &error));
  expectSameBytes(source.fields().bytes() + source.contents, next.bytes);
}

TEST(KQZipFileLocalHeader, ASourceThatIsSetDuringAWriteIsForTheNextWriteWheneverItIsSet) {
  for (const bool isRemoved : {false, true}) {
    const Source source("0123456789");
    const std::string other = source.folder / "other";
    writeFile(other, "something else");
    const std::optional<std::string> set = isRemoved ? std::nullopt : std::optional(other);
    const std::string expected = source.fields().bytes() + source.contents;

    AskedStream asked([&] { source.header->setSourceFilePath(set); });
    EXPECT_TRUE(source.header->writeToStream(asked));
    expectSameBytes(expected, asked.bytes);

    for (std::size_t write = 1; write <= headerWrites.size() + 1; ++write) {
      const auto header = KQZipFileLocalHeader::initWithSourceFile(source.path);
      header->setFileName("name.txt");
      TestOutputStream stream;
      stream.beforeWrite = [&](std::size_t number) {
        if (number == write) header->setSourceFilePath(set);
      };
      EXPECT_TRUE(header->writeToStream(stream)) << write;
      expectSameBytes(expected, stream.bytes);
      EXPECT_EQ(set, header->sourceFilePath());
    }
  }
}

TEST(KQZipFileLocalHeader, CancellingDuringTheLastBlockIsASuccessThatStaysCurrent) {
  Source source("0123456789");
  TestOutputStream stream;
  stream.beforeWrite = [&](std::size_t number) {
    if (number == headerWrites.size() + 1) source.header->progress()->cancel();
  };
  Error error;
  EXPECT_TRUE(source.header->writeToStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(KQTest::hex(source.fields().bytes() + "0123456789"), KQTest::hex(stream.bytes));
  EXPECT_EQ(source.header->progress(), currentProgress());
}

TEST(KQZipFileLocalHeader, AnEmptySourceIsWrittenUnderACancelledProgressWhichStaysCurrent) {
  Source source("");
  source.outer->cancel();
  TestOutputStream stream;
  Error error;
  EXPECT_TRUE(source.header->writeToStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(KQTest::hex(source.fields().bytes()), KQTest::hex(stream.bytes));
  EXPECT_EQ(source.header->progress(), currentProgress());
}

TEST(KQZipFileLocalHeader, ACancellationWithoutASlotIsAFailureAlone) {
  Source source("0123456789");
  source.header->setCrc32(1);
  source.outer->cancel();
  TestOutputStream stream;
  EXPECT_FALSE(source.header->writeToStream(stream));
  EXPECT_EQ(headerWrites, stream.writes);
}

TEST(KQZipFileLocalHeader, CancellingFromAnotherThreadEndsTheWriteWithOneOfTheTwoErrors) {
  Source source(patternBytes(4 * mebibyte));
  const std::string whole = source.fields().bytes() + source.contents;
  for (int round = 0; round < 10; ++round) {
    const OuterProgress outer;
    const auto header = KQZipFileLocalHeader::initWithSourceFile(source.path);
    header->setFileName("name.txt");
    const auto parent = currentProgress();
    const double after = round * 0.1;
    std::atomic<bool> done{false};
    std::thread canceller([&] {
      while (!done && parent->fractionCompleted() < after) std::this_thread::yield();
      parent->cancel();
    });
    TestOutputStream stream;
    Error error;
    const bool succeeded = header->writeToStream(stream, &error);
    done = true;
    canceller.join();
    if (succeeded) {
      EXPECT_EQ(nullptr, error);
      expectSameBytes(whole, stream.bytes);
    } else {
      ASSERT_NE(nullptr, error);
      EXPECT_TRUE(error->code() == -50 || error->code() == -90) << error->description();
      EXPECT_EQ(error->code() == -50 ? 0 : headerWrites.size(),
                std::min(stream.writes.size(), headerWrites.size()));
      expectSameBytes(whole.substr(0, stream.bytes.size()), stream.bytes);
    }
  }
}

// Failures of a write

TEST(KQZipFileLocalHeader, AnAbsentSourcePathFailsBeforeAnythingIsWritten) {
  const LogCapture log;
  const OuterProgress outer;
  KQZipFileLocalHeader header;
  header.setFileName("name");
  TestOutputStream stream;
  stream.startOffset = 1000;
  Error error;
  EXPECT_FALSE(header.writeToStream(stream, &error));
  expectKQZipError(error, -50, "Source file doesn't exist: (null)");
  EXPECT_TRUE(stream.writes.empty());
  EXPECT_EQ(1000u, header.offset());
  ASSERT_NE(nullptr, header.progress());
  EXPECT_EQ(0, header.progress()->totalUnitCount()) << "there is no file whose size would count";
  EXPECT_EQ(header.progress(), currentProgress()) << "it stays current after this failure";
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipFileLocalHeader, AMissingSourceFailsBeforeAnythingIsWritten) {
  const LogCapture log;
  Source source("data");
  std::filesystem::remove(source.path);
  TestOutputStream stream;
  Error error;
  EXPECT_FALSE(source.header->writeToStream(stream, &error));
  expectKQZipError(error, -50, "Can't calculate CRC of " + source.path);
  EXPECT_TRUE(stream.writes.empty());
  EXPECT_EQ(0, source.header->progress()->totalUnitCount());
  EXPECT_EQ(source.header->progress(), currentProgress());
  EXPECT_EQ(Lines{"failed to calculate crc: failed to open stream at " + source.path}, log.lines());
}

TEST(KQZipFileLocalHeader, ASourceThatMayNotBeReadFailsBeforeAnythingIsWritten) {
  Source source("secret");
  ASSERT_EQ(0, chmod(source.folder.path().c_str(), 0755));
  ASSERT_EQ(0, chmod(source.path.c_str(), 0));
  KQTest::inUnprivilegedChildProcess([&] {
    const LogCapture log;
    TestOutputStream stream;
    Error error;
    EXPECT_FALSE(source.header->writeToStream(stream, &error));
    expectKQZipError(error, -50, "Can't calculate CRC of " + source.path);
    EXPECT_TRUE(stream.writes.empty());

    source.header->setCrc32(1);
    const Error earlier = earlierError();
    error = earlier;
    EXPECT_FALSE(source.header->writeToStream(stream, &error));
    EXPECT_EQ(earlier, error);
    EXPECT_EQ((Lines{"failed to calculate crc: failed to open stream at " + source.path,
                     source.header->description() + " failed to open file at " + source.path}),
              log.lines());
  });
}

TEST(KQZipFileLocalHeader, EachFailingHeaderWriteStopsTheWriteThere) {
  // The last one, the data of the Zip64 field, is not reported by the field; see the next test.
  for (std::size_t failing = 1; failing < headerWrites.size(); ++failing) {
    for (const std::int64_t result : {-1, 0}) {
      SCOPED_TRACE("write " + std::to_string(failing) + " returns " + std::to_string(result));
      const LogCapture log;
      Source source("0123456789");
      TestOutputStream stream;
      stream.failAtWrite = static_cast<std::int64_t>(failing);
      stream.failResult = result;
      const Error earlier = earlierError();
      Error error = earlier;
      EXPECT_FALSE(source.header->writeToStream(stream, &error));
      EXPECT_EQ(Lengths(headerWrites.begin(), headerWrites.begin() + static_cast<std::ptrdiff_t>(failing)),
                stream.writes);
      EXPECT_EQ(KQTest::hex(source.fields().bytes().substr(0, KQTest::sumOfFirst(headerWrites, failing - 1))),
                KQTest::hex(stream.bytes));
      if (result == 0) {
        EXPECT_EQ(earlier, error);
        EXPECT_EQ(Lines(), log.lines());
      } else {
        expectKQZipError(error, -51, "Error writing file");
        EXPECT_EQ(KQTest::writingFailedLine(error), log.lines());
      }
      EXPECT_EQ(source.header->progress(), currentProgress()) << "it stays current after this failure";
    }
  }
}

TEST(KQZipFileLocalHeader, AFailingHeaderWriteWithoutASlotLogsNoError) {
  const LogCapture log;
  Source source("0123456789");
  TestOutputStream stream;
  stream.failAtWrite = 3;
  EXPECT_FALSE(source.header->writeToStream(stream));
  EXPECT_EQ(Lines{"stream writing failed: (null)"}, log.lines());
}

TEST(KQZipFileLocalHeader, AFailureToWriteTheExtraFieldsDataGoesUnreported) {
  for (const std::int64_t result : {-1, 0}) {
    SCOPED_TRACE(result);
    const LogCapture log;
    Source source("0123456789");
    TestOutputStream stream;
    stream.failAtWrite = static_cast<std::int64_t>(headerWrites.size());
    stream.failResult = result;
    Error error;
    EXPECT_TRUE(source.header->writeToStream(stream, &error));
    LocalHeaderFields cut = source.fields();
    cut.extra.resize(4);
    cut.extraLength = 28;
    EXPECT_EQ(KQTest::hex(cut.bytes() + "0123456789"), KQTest::hex(stream.bytes));
    if (result == 0) {
      EXPECT_EQ(nullptr, error);
      EXPECT_EQ(Lines(), log.lines());
    } else {
      expectKQZipError(error, -51, "Error writing file");
      EXPECT_EQ(KQTest::writingFailedLine(error), log.lines());
    }
    EXPECT_TRUE(source.outer.isCurrent());
  }
}

TEST(KQZipFileLocalHeader, APartlyTakenHeaderWriteIsNotCompletedAndASuccess) {
  for (std::size_t partial = 1; partial <= headerWrites.size(); ++partial) {
    SCOPED_TRACE(partial);
    Source source("0123456789");
    TestOutputStream stream;
    stream.shortenAtWrite = static_cast<std::int64_t>(partial);
    Error error;
    EXPECT_TRUE(source.header->writeToStream(stream, &error));
    std::string expected = source.fields().bytes() + "0123456789";
    expected.erase(KQTest::sumOfFirst(headerWrites, partial - 1) + 1, headerWrites[partial - 1] - 1);
    EXPECT_EQ(KQTest::hex(expected), KQTest::hex(stream.bytes));
    EXPECT_EQ(nullptr, error);
  }
}

TEST(KQZipFileLocalHeader, ADataWriteThatFailsOrTakesNothingEndsTheCopyAsASuccess) {
  for (const std::size_t block : {1u, 2u, 3u}) {
    for (const std::int64_t result : {-1, 0}) {
      SCOPED_TRACE("block " + std::to_string(block) + " returns " + std::to_string(result));
      const LogCapture log;
      Source source(patternBytes(3 * mebibyte + 1));
      TestOutputStream stream;
      stream.failAtWrite = static_cast<std::int64_t>(headerWrites.size() + block);
      stream.failResult = result;
      Error error;
      EXPECT_TRUE(source.header->writeToStream(stream, &error));
      EXPECT_EQ(headerWrites.size() + block, stream.writes.size()) << "nothing is tried after it";
      expectSameBytes(source.fields().bytes() + source.contents.substr(0, (block - 1) * mebibyte),
                      stream.bytes);
      EXPECT_EQ(nullptr, error);
      EXPECT_EQ(Lines(), log.lines());
      EXPECT_TRUE(source.outer.isCurrent());
      if (result == 0) {
        EXPECT_EQ(static_cast<std::int64_t>((2 + block - 1) * mebibyte + 1),
                  source.header->progress()->completedUnitCount());
      }
    }
  }
}

TEST(KQZipFileLocalHeader, ADataWriteThatTakesAPartLosesTheRestOfItsBlockAndGoesOn) {
  Source source(patternBytes(mebibyte + 10));
  TestOutputStream stream;
  stream.shortenAtWrite = static_cast<std::int64_t>(headerWrites.size() + 1);
  stream.shortenTo = 5;
  Error error;
  EXPECT_TRUE(source.header->writeToStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  expectSameBytes(
      source.fields().bytes() + source.contents.substr(0, 5) + source.contents.substr(mebibyte, 10),
      stream.bytes);
  EXPECT_EQ(10 + 5 + 10, source.header->progress()->completedUnitCount()) << "what was taken counts";
  EXPECT_TRUE(source.outer.isCurrent());
}

TEST(KQZipFileLocalHeader, ASourceThatVanishesBeforeTheCopyIsLoggedAndFailsWithoutAnError) {
  const LogCapture log;
  Source source("0123456789");
  TestOutputStream stream;
  stream.beforeWrite = [&](std::size_t number) {
    if (number == 12) std::filesystem::remove(source.path);
  };
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_FALSE(source.header->writeToStream(stream, &error));
  EXPECT_EQ(earlier, error) << "the slot is not touched";
  EXPECT_EQ(Lines{source.header->description() + " failed to open file at " + source.path}, log.lines());
  EXPECT_EQ(KQTest::hex(source.fields().bytes()), KQTest::hex(stream.bytes));
  EXPECT_EQ(source.header->progress(), currentProgress()) << "it stays current after this failure";
}

TEST(KQZipFileLocalHeader, AMissingSourceWithAKnownCrcFailsOnlyAfterTheHeader) {
  const LogCapture log;
  Source source("0123456789");
  std::filesystem::remove(source.path);
  source.header->setCrc32(0xCAFE);
  source.header->setSourceFileSize(10);
  source.header->setModDate(0x1234);
  source.header->setModTime(0x5678);
  TestOutputStream stream;
  Error error;
  EXPECT_FALSE(source.header->writeToStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  LocalHeaderFields expected = source.fields();
  expected.crc32 = 0xCAFE;
  expected.modDate = 0x1234;
  expected.modTime = 0x5678;
  EXPECT_EQ(KQTest::hex(expected.bytes()), KQTest::hex(stream.bytes));
  EXPECT_EQ((Lines{"failed to get attributes for " + source.path,
                   source.header->description() + " failed to open file at " + source.path}),
            log.lines());
  EXPECT_EQ(0, source.header->progress()->totalUnitCount());
  EXPECT_EQ(source.header->progress(), currentProgress());
}

TEST(KQZipFileLocalHeader, ASourceThatShrinksBeforeTheCopyIsWrittenAsItIsThen) {
  Source source(patternBytes(2 * mebibyte));
  TestOutputStream stream;
  stream.beforeWrite = [&](std::size_t number) {
    if (number == 1) std::filesystem::resize_file(source.path, 5);
  };
  Error error;
  EXPECT_TRUE(source.header->writeToStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  expectSameBytes(source.fields().bytes() + source.contents.substr(0, 5), stream.bytes);
}

TEST(KQZipFileLocalHeader, ASourceThatGrowsBeforeTheCopyIsWrittenAsItIsThen) {
  Source source("0123456789");
  const std::string appended = patternBytes(mebibyte);
  TestOutputStream stream;
  stream.beforeWrite = [&](std::size_t number) {
    if (number != 1) return;
    std::ofstream file(source.path, std::ios::binary | std::ios::app);
    file.write(appended.data(), static_cast<std::streamsize>(appended.size()));
  };
  Error error;
  EXPECT_TRUE(source.header->writeToStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  expectSameBytes(source.fields().bytes() + "0123456789" + appended, stream.bytes);
  EXPECT_EQ(20, source.header->progress()->totalUnitCount());
  EXPECT_EQ(static_cast<std::int64_t>(10 + mebibyte), source.header->progress()->completedUnitCount());
}

TEST(KQZipFileLocalHeader, AReadErrorDuringTheCopyEndsItAsASuccess) {
  for (const std::size_t failing : {1u, 2u}) {
    SCOPED_TRACE(failing);
    const LogCapture log;
    Source source(patternBytes(2 * mebibyte));
    source.header->setCrc32(crcOf(source.contents));
    TestOutputStream stream;
    Error error;
    SystemCalls calls;
    calls.failAt = failing;
    calls.failForGood = true;
    EXPECT_TRUE(source.header->writeToStream(stream, &error));
    EXPECT_EQ((failing - 1) * mebibyte, calls.bytesMoved());
    EXPECT_EQ(nullptr, error);
    expectSameBytes(source.fields().bytes() + source.contents.substr(0, (failing - 1) * mebibyte),
                    stream.bytes);
    EXPECT_EQ(Lines(), log.lines());
    EXPECT_TRUE(source.outer.isCurrent());
  }
}

TEST(KQZipFileLocalHeader, TheCopyReadsBlocksOfOneMebibyteIntoOneBuffer) {
  Source source(patternBytes(2 * mebibyte + 1));
  source.header->setCrc32(1);
  TestOutputStream stream;
  const SystemCalls calls;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  ASSERT_LE(3u, calls.transfers.size());
  for (std::size_t block = 0; block < 3; ++block) {
    SCOPED_TRACE(block);
    EXPECT_EQ(static_cast<std::int64_t>(block * mebibyte), calls.transfers[block].offset);
    EXPECT_EQ(mebibyte, calls.transfers[block].asked());
    EXPECT_EQ(calls.transfers[0].pieces[0].address, calls.transfers[block].pieces[0].address);
  }
}

TEST(KQZipFileLocalHeader, PreparationCallsTheSubclasssCrc) {
  class Subclass : public KQZipFileLocalHeader {
   public:
    bool calculateCRCOfSourceFile() override {
      if (result) setCrc32(0xCAFE);
      return result;
    }
    bool result = false;
  };
  Source source("0123456789");
  Subclass header;
  header.setSourceFilePath(source.path);
  header.setFileName("name.txt");
  TestOutputStream stream;
  Error error;
  EXPECT_FALSE(header.writeToStream(stream, &error));
  expectKQZipError(error, -50, "Can't calculate CRC of " + source.path);
  EXPECT_TRUE(stream.writes.empty());

  header.result = true;
  EXPECT_TRUE(header.writeToStream(stream, &error));
  LocalHeaderFields expected = source.fields();
  expected.crc32 = 0xCAFE;
  EXPECT_EQ(KQTest::hex(expected.bytes() + "0123456789"), KQTest::hex(stream.bytes));
}

// The link to the central header

TEST(KQZipFileLocalHeader, TheLinkToTheCentralHeaderIsWeak) {
  KQZipFileLocalHeader header;
  auto central = std::make_shared<KQZipCentralDirectoryFileHeader>();
  header.setCentralDirectoryHeader(central);
  EXPECT_EQ(central, header.centralDirectoryHeader());
  EXPECT_EQ(1, central.use_count());
  header.setCentralDirectoryHeader(nullptr);
  EXPECT_EQ(nullptr, header.centralDirectoryHeader());
  header.setCentralDirectoryHeader(central);
  central.reset();
  EXPECT_EQ(nullptr, header.centralDirectoryHeader());
}

TEST(KQZipFileLocalHeader, AComputedCrcGoesToTheCentralHeader) {
  Source source("0123456789");
  const auto central = std::make_shared<KQZipCentralDirectoryFileHeader>();
  source.header->setCentralDirectoryHeader(central);
  EXPECT_TRUE(source.header->calculateCRCOfSourceFile());
  EXPECT_EQ(crcOf("0123456789"), source.header->crc32());
  EXPECT_EQ(crcOf("0123456789"), central->crc32());
  EXPECT_FALSE(central->needsToCalculateCRC());
}

TEST(KQZipFileLocalHeader, AFailedCrcDoesNotReachTheCentralHeader) {
  const LogCapture log;
  const auto header = KQZipFileLocalHeader::initWithSourceFile("/no/such/file");
  const auto central = std::make_shared<KQZipCentralDirectoryFileHeader>();
  header->setCentralDirectoryHeader(central);
  EXPECT_FALSE(header->calculateCRCOfSourceFile());
  EXPECT_EQ(0u, central->crc32());
  EXPECT_TRUE(central->needsToCalculateCRC());
  EXPECT_EQ(1u, log.lines().size());
}

TEST(KQZipFileLocalHeader, AWriteForwardsTheCrcButNotTheDate) {
  Source source("0123456789");
  const auto central = std::make_shared<KQZipCentralDirectoryFileHeader>();
  source.header->setCentralDirectoryHeader(central);
  TestOutputStream stream;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(crcOf("0123456789"), central->crc32());
  EXPECT_FALSE(central->needsToCalculateCRC());
  EXPECT_EQ(0, central->modDate()) << "preparing sets the date by a step that forwards nothing";
  EXPECT_EQ(0, central->modTime());
  EXPECT_EQ(0u, central->sourceFileSize());
  EXPECT_EQ(nullptr, central->localHeader());

  central->setCrc32(7);
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(7u, central->crc32()) << "a CRC that stands is not computed and not forwarded again";
}

TEST(KQZipFileLocalHeader, AnUpdatedDateGoesToTheCentralHeader) {
  Source source("0123456789");
  const auto central = std::make_shared<KQZipCentralDirectoryFileHeader>();
  source.header->setCentralDirectoryHeader(central);
  source.header->updateFileSize();
  EXPECT_EQ(0, central->modDate());
  EXPECT_EQ(0u, central->sourceFileSize());
  source.header->updateModificationDate();
  EXPECT_EQ(sourceDate, source.header->modDate());
  EXPECT_EQ(sourceDate, central->modDate());
  EXPECT_EQ(sourceTime, central->modTime());
  EXPECT_TRUE(central->needsToSetModificationDate());
  EXPECT_FALSE(source.header->needsToSetModificationDate());
}

TEST(KQZipFileLocalHeader, AFailedUpdateOfTheDateStillForwardsWhatStands) {
  const LogCapture log;
  const auto header = KQZipFileLocalHeader::initWithSourceFile("/no/such/file");
  const auto central = std::make_shared<KQZipCentralDirectoryFileHeader>();
  header->setCentralDirectoryHeader(central);
  header->setModDate(0x1234);
  header->setModTime(0x5678);
  header->updateModificationDate();
  EXPECT_EQ(0x1234, central->modDate());
  EXPECT_EQ(0x5678, central->modTime());
  EXPECT_EQ(Lines{"failed to get attributes for /no/such/file"}, log.lines());
}

TEST(KQZipFileLocalHeader, AWriteGoesOnWhenTheCentralHeaderIsGone) {
  Source source("0123456789");
  source.header->setCentralDirectoryHeader(std::make_shared<KQZipCentralDirectoryFileHeader>());
  source.header->updateModificationDate();
  TestOutputStream stream;
  EXPECT_TRUE(source.header->writeToStream(stream, nullptr));
  EXPECT_EQ(KQTest::hex(source.fields().bytes() + "0123456789"), KQTest::hex(stream.bytes));
}

// Parsing

TEST(KQZipFileLocalHeader, AParseReadsEveryFieldAndStandsBehindTheData) {
  LocalHeaderFields fields;
  fields.versionNeeded = 0x0102;
  fields.flags = 0x0304;
  fields.modTime = 0x0506;
  fields.modDate = 0x0708;
  fields.crc32 = 0x090A0B0C;
  fields.compressedSize = 5;
  fields.uncompressedSize = 0x0D0E0F10;
  fields.name = "folder/\xC3\xA4.txt";
  fields.extra = extraFieldBytes(0x7777, "data");
  const std::string bytes = std::string(96, 'x') + fields.bytes() + "12345" + "next";
  const std::uint64_t dataOffset = 96 + 30 + 13 + 8;
  TestInputStream stream(bytes);
  stream.position = 100;
  const Error earlier = earlierError();
  Error error = earlier;
  KQZipFileLocalHeader header;
  EXPECT_TRUE(header.parseFromStream(stream, &error));

  EXPECT_EQ(100u, header.offset()) << "4 bytes past the record's start";
  EXPECT_EQ(0x0102, header.versionNeeded());
  EXPECT_EQ(0x0304, header.flags());
  EXPECT_EQ(0, header.compression());
  EXPECT_EQ(0x0506, header.modTime());
  EXPECT_EQ(0x0708, header.modDate());
  EXPECT_EQ(0x090A0B0Cu, header.crc32());
  EXPECT_EQ(5u, header.compressedSize());
  EXPECT_EQ(0x0D0E0F10u, header.uncompressedSize());
  EXPECT_EQ(13, header.fileNameLength());
  EXPECT_EQ(8, header.extraFieldLength());
  EXPECT_EQ("folder/\xC3\xA4.txt", header.fileName());
  ASSERT_EQ(1u, header.extraFields().size());
  EXPECT_EQ(0x7777, header.extraFields()[0]->fieldSignature());
  EXPECT_EQ(4, header.extraFields()[0]->fieldSize());
  EXPECT_EQ("data", KQTest::contentsOf(header.extraFields()[0]->fieldData()));
  EXPECT_EQ(dataOffset, header.offsetOfDataInArchive());
  EXPECT_EQ(5u, header.dataLengthFromHeader());
  EXPECT_EQ(dataOffset + 5, stream.position);
  EXPECT_EQ(dataOffset + 5, stream.offsetsSet.back());
  EXPECT_EQ(earlier, error) << "a success leaves the slot alone";
  EXPECT_EQ(std::nullopt, header.sourceFilePath());
  EXPECT_EQ(0u, header.sourceFileSize());
  EXPECT_TRUE(header.needsToCalculateCRC()) << "only computing or setting a CRC clears the flag";
  EXPECT_EQ(nullptr, header.progress());
}

TEST(KQZipFileLocalHeader, AParseMakesOneReadForEachField) {
  LocalHeaderFields fields;
  fields.name = "name";
  fields.compressedSize = 3;
  StreamBehindSignature stream(fields.bytes() + "abc");
  KQZipFileLocalHeader header;
  EXPECT_TRUE(header.parseFromStream(stream, nullptr));
  EXPECT_EQ((Lengths{2, 2, 2, 2, 2, 4, 4, 4, 2, 2, 4}), stream.reads);
  EXPECT_EQ(Lengths{37}, stream.offsetsSet) << "stepping over the data is one seek";
}

TEST(KQZipFileLocalHeader, TheZip64FieldsCompressedSizeDecidesWhereTheNextRecordIs) {
  LocalHeaderFields fields;
  fields.name = "name";
  fields.extra = zip64FieldBytes(0x1111, 0x123456789A, 0x3333);
  StreamBehindSignature stream(fields.bytes());
  const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  EXPECT_EQ(62u, header->offsetOfDataInArchive());
  EXPECT_EQ(62u + 0x123456789Au, stream.position);
  EXPECT_EQ(0xFFFFFFFFu, header->compressedSize()) << "the 32-bit fields keep what the header held";
  EXPECT_EQ(0xFFFFFFFFu, header->uncompressedSize());

  fields.compressedSize = 5;
  fields.uncompressedSize = 5;
  StreamBehindSignature unsaturated(fields.bytes());
  const auto other = KQZipFileLocalHeader::initWithStream(unsaturated, nullptr);
  ASSERT_NE(nullptr, other);
  EXPECT_EQ(62u + 0x123456789Au, unsaturated.position) << "also when the 32-bit size is not saturated";
  EXPECT_EQ(5u, other->compressedSize());
}

TEST(KQZipFileLocalHeader, AZip64FieldWithOneValueAloneMeansNoData) {
  LocalHeaderFields fields;
  fields.name = "name";
  fields.extra = extraFieldBytes(1, KQTest::Bytes().u64(1000));
  StreamBehindSignature stream(fields.bytes());
  const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  EXPECT_EQ(1000u, header->findZip64InfoField()->uncompressedSize());
  EXPECT_EQ(0u, header->dataLengthFromHeader());
  EXPECT_EQ(fields.bytes().size(), stream.position);
}

TEST(KQZipFileLocalHeader, OfTwoZip64FieldsTheFirstCounts) {
  LocalHeaderFields fields;
  fields.name = "name";
  fields.extra = extraFieldBytes(0x7777, "") + zip64FieldBytes(3, 3, 0) + zip64FieldBytes(9, 9, 0);
  StreamBehindSignature stream(fields.bytes() + "abc");
  const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  EXPECT_EQ(3u, header->extraFields().size());
  EXPECT_EQ(fields.bytes().size() + 3, stream.position);
}

TEST(KQZipFileLocalHeader, WithoutExtraFieldsTheStreamEndsBehindThe32BitLength) {
  LocalHeaderFields fields;
  fields.name = "abc";
  fields.compressedSize = 5;
  const TemporaryDirectory folder;
  writeFile(folder / "archive", fields.bytes() + "12345next");
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
  ASSERT_NE(nullptr, stream);
  stream->open();
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(4));
  KQZipFileLocalHeader header;
  EXPECT_TRUE(header.parseFromStream(*stream, nullptr));
  EXPECT_EQ(33u, header.offsetOfDataInArchive());
  EXPECT_EQ(38u, stream->NSStreamFileCurrentOffsetKey());
  std::array<std::uint8_t, 4> next{};
  EXPECT_EQ(4, stream->read(next.data(), next.size()));
  EXPECT_EQ("next", std::string(next.begin(), next.end()));
}

TEST(KQZipFileLocalHeader, AnotherMethodThanStoredFailsAndReadsNoFurther) {
  for (const int method : {8, 1, 9, 12, 14, 99, 0x0100, 0xFFFF}) {
    SCOPED_TRACE(method);
    LocalHeaderFields fields;
    fields.versionNeeded = 20;
    fields.flags = 2;
    fields.compression = static_cast<std::uint16_t>(method);
    fields.modTime = 0x1234;
    fields.name = "name";
    const LogCapture log;
    StreamBehindSignature stream(fields.bytes());
    Error error = earlierError();
    KQZipFileLocalHeader header;
    EXPECT_FALSE(header.parseFromStream(stream, &error));
    expectKQZipError(error, -101, compressionMessage);
    EXPECT_EQ((Lengths{2, 2, 2}), stream.reads);
    EXPECT_EQ(10u, stream.position);
    EXPECT_TRUE(stream.offsetsSet.empty());
    EXPECT_EQ(20, header.versionNeeded()) << "what was read stays";
    EXPECT_EQ(2, header.flags());
    EXPECT_EQ(method, header.compression());
    EXPECT_EQ(0, header.modTime());
    EXPECT_EQ(std::nullopt, header.fileName());
    EXPECT_EQ(Lines(), log.lines()) << "only making a header from a stream logs";
  }
}

TEST(KQZipFileLocalHeader, AFailedParseGivesNoHeaderAndIsLoggedWithItsError) {
  LocalHeaderFields fields;
  fields.compression = 8;
  fields.name = "name";
  const LogCapture log;
  StreamBehindSignature stream(fields.bytes());
  Error error;
  EXPECT_EQ(nullptr, KQZipFileLocalHeader::initWithStream(stream, &error));
  expectKQZipError(error, -101, compressionMessage);
  EXPECT_EQ(Lines{"Failed to parse KQZipFileLocalHeader from stream: " + error->description()}, log.lines());
}

TEST(KQZipFileLocalHeader, AFailedParseWithAnEmptySlotIsLoggedAsNull) {
  const LogCapture log;
  TestInputStream stream{std::string()};
  Error error;
  EXPECT_EQ(nullptr, KQZipFileLocalHeader::initWithStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines{"Failed to parse KQZipFileLocalHeader from stream: (null)"}, log.lines());
}

TEST(KQZipFileLocalHeader, AFailedParseAtTheEndOfTheStreamLogsAndKeepsAnEarlierError) {
  const LogCapture log;
  TestInputStream stream{std::string()};
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_EQ(nullptr, KQZipFileLocalHeader::initWithStream(stream, &error));
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines{"Failed to parse KQZipFileLocalHeader from stream: " + earlier->description()},
            log.lines());
}

TEST(KQZipFileLocalHeader, AFailedParseWithoutASlotGivesNoHeader) {
  const LogCapture log;
  LocalHeaderFields fields;
  fields.compression = 8;
  StreamBehindSignature stream(fields.bytes());
  EXPECT_EQ(nullptr, KQZipFileLocalHeader::initWithStream(stream));
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(0u, log.lines()[0].find("Failed to parse KQZipFileLocalHeader from stream: "));
  TestInputStream empty{std::string()};
  EXPECT_EQ(nullptr, KQZipFileLocalHeader::initWithStream(empty));
}

TEST(KQZipFileLocalHeader, ANameThatIsNotUTF8IsAbsentAndNoError) {
  for (const std::string name :
       {"\xFF", "ab\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\x80z", "\xE4hnlich"}) {
    SCOPED_TRACE(KQTest::hex(name));
    LocalHeaderFields fields;
    fields.name = name;
    fields.extra = zip64FieldBytes(3, 3, 0);
    StreamBehindSignature stream(fields.bytes() + "abc");
    Error error;
    const auto header = KQZipFileLocalHeader::initWithStream(stream, &error);
    ASSERT_NE(nullptr, header);
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(std::nullopt, header->fileName());
    EXPECT_EQ(std::nullopt, header->relativePath());
    EXPECT_EQ(name.size(), header->fileNameLength());
    EXPECT_EQ(fields.bytes().size() + 3, stream.position);
  }
}

TEST(KQZipFileLocalHeader, ANameKeepsEveryByteThatIsUTF8) {
  for (const std::string& name :
       {std::string("a\0b\0", 4), std::string("/absolute/../x"), std::string("line\nbreak\x01"),
        std::string("\xEF\xBF\xBF"), std::string("A\xCC\x88"), std::string("folder/"),
        std::string(65535, 'n')}) {
    SCOPED_TRACE(KQTest::hex(name.substr(0, 20)));
    LocalHeaderFields fields;
    fields.name = name;
    fields.compressedSize = 0;
    StreamBehindSignature stream(fields.bytes());
    const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
    ASSERT_NE(nullptr, header);
    EXPECT_EQ(name, header->fileName());
    EXPECT_EQ(name.size(), header->fileNameLength());
    EXPECT_EQ(30 + name.size(), stream.position);
  }
}

TEST(KQZipFileLocalHeader, ANameOfLengthZeroIsTheEmptyString) {
  LocalHeaderFields fields;
  fields.compressedSize = 2;
  StreamBehindSignature stream(fields.bytes() + "ab");
  const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  EXPECT_EQ("", header->fileName());
  EXPECT_EQ(32u, stream.position);
}

TEST(KQZipFileLocalHeader, ANameLengthOfZeroParsesEvenAtTheEndOfTheStream) {
  LocalHeaderFields fields;
  fields.compressedSize = 0;
  StreamBehindSignature stream(fields.bytes());
  EXPECT_NE(nullptr, KQZipFileLocalHeader::initWithStream(stream, nullptr));
}

TEST(KQZipFileLocalHeader, ExtraFieldsAreReadInOrderUntilTheirAreaIsUsedUp) {
  LocalHeaderFields fields;
  fields.name = "n";
  fields.extra = extraFieldBytes(0x5455, "") + extraFieldBytes(0xCAFE, "1234567") +
                 extraFieldBytes(0xCAFE, "8") + zip64FieldBytes(2, 2, 0);
  StreamBehindSignature stream(fields.bytes() + "ab");
  const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  ASSERT_EQ(4u, header->extraFields().size());
  EXPECT_EQ(0x5455, header->extraFields()[0]->fieldSignature());
  EXPECT_EQ(0, header->extraFields()[0]->fieldSize());
  EXPECT_EQ("1234567", KQTest::contentsOf(header->extraFields()[1]->fieldData()));
  EXPECT_EQ("8", KQTest::contentsOf(header->extraFields()[2]->fieldData()));
  EXPECT_EQ(header->findZip64InfoField(), header->extraFields()[3]);
  EXPECT_EQ(31 + fields.extra.size(), header->offsetOfDataInArchive());
  EXPECT_EQ(31 + fields.extra.size() + 2, stream.position);
}

TEST(KQZipFileLocalHeader, AnExtraAreaOfTheLargestSizeIsRead) {
  LocalHeaderFields fields;
  fields.name = "n";
  fields.compressedSize = 0;
  fields.extra = extraFieldBytes(0x7777, std::string(65531, 'x'));
  StreamBehindSignature stream(fields.bytes());
  const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  ASSERT_EQ(1u, header->extraFields().size());
  EXPECT_EQ(65531, header->extraFields()[0]->fieldSize());
  EXPECT_EQ(31u + 65535u, stream.position);
}

TEST(KQZipFileLocalHeader, AnExtraFieldThatRunsPastItsAreaIsTakenWhole) {
  LocalHeaderFields fields;
  fields.name = "n";
  fields.compressedSize = 3;
  fields.extra = extraFieldBytes(0x7777, "0123456789");
  for (const int area : {1, 3, 4, 6, 13}) {
    SCOPED_TRACE(area);
    fields.extraLength = static_cast<std::uint16_t>(area);
    StreamBehindSignature stream(fields.bytes() + "abc");
    const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
    ASSERT_NE(nullptr, header);
    ASSERT_EQ(1u, header->extraFields().size());
    EXPECT_EQ("0123456789", KQTest::contentsOf(header->extraFields()[0]->fieldData()));
    EXPECT_EQ(area, header->extraFieldLength());
    EXPECT_EQ(45u, header->offsetOfDataInArchive()) << "the data is where the last field ends";
    EXPECT_EQ(48u, stream.position);
  }
}

TEST(KQZipFileLocalHeader, AnAreaThatEndsInsideASecondFieldsHeaderTakesThatFieldToo) {
  LocalHeaderFields fields;
  fields.name = "n";
  fields.compressedSize = 0;
  fields.extra = extraFieldBytes(0x1111, "") + extraFieldBytes(0x2222, "xy");
  fields.extraLength = 5;
  StreamBehindSignature stream(fields.bytes());
  const auto header = KQZipFileLocalHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  ASSERT_EQ(2u, header->extraFields().size());
  EXPECT_EQ("xy", KQTest::contentsOf(header->extraFields()[1]->fieldData()));
  EXPECT_EQ(41u, header->offsetOfDataInArchive());

  fields.extraLength = 4;
  StreamBehindSignature exact(fields.bytes());
  const auto first = KQZipFileLocalHeader::initWithStream(exact, nullptr);
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(1u, first->extraFields().size());
  EXPECT_EQ(35u, first->offsetOfDataInArchive());
}

TEST(KQZipFileLocalHeader, ASecondParseAppendsToTheExtraFields) {
  LocalHeaderFields fields;
  fields.name = "n";
  fields.extra = zip64FieldBytes(0, 0, 0);
  KQZipFileLocalHeader header;
  StreamBehindSignature first(fields.bytes());
  EXPECT_TRUE(header.parseFromStream(first, nullptr));
  StreamBehindSignature second(fields.bytes());
  EXPECT_TRUE(header.parseFromStream(second, nullptr));
  EXPECT_EQ(2u, header.extraFields().size());
}

TEST(KQZipFileLocalHeader, AHeaderCutAtAnyByteFailsWithAnEmptySlotUnlessOnlyTheNamesEndIsMissing) {
  LocalHeaderFields plain;
  plain.name = "name";
  plain.compressedSize = 0;
  LocalHeaderFields extended = plain;
  extended.extra = zip64FieldBytes(0, 0, 0);
  const TemporaryDirectory folder;
  for (const LocalHeaderFields& fields : {plain, extended}) {
    const std::string whole = fields.bytes();
    // A name of which one byte is there was read, as far as a read primitive can tell; extra fields are
    // looked for until their area is used up.
    const std::size_t firstSuccess = fields.extra.empty() ? 31 : whole.size();
    for (std::size_t length = 4; length <= whole.size(); ++length) {
      SCOPED_TRACE(length);
      writeFile(folder / "cut", whole.substr(0, length));
      for (const bool fromFile : {true, false}) {
        const auto stream =
            fromFile ? KQ::NSInputStream::inputStreamWithFileAtPath(folder / "cut")
                     : KQ::NSInputStream::inputStreamWithData(KQTest::dataOf(whole.substr(0, length)));
        ASSERT_NE(nullptr, stream);
        stream->open();
        ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(4));
        const LogCapture log;
        Error error;
        KQZipFileLocalHeader header;
        EXPECT_EQ(length >= firstSuccess, header.parseFromStream(*stream, &error));
        EXPECT_EQ(nullptr, error);
        EXPECT_EQ(Lines(), log.lines());
      }
    }
  }
}

TEST(KQZipFileLocalHeader, ACutHeaderKeepsTheFieldsThatWereReadWhole) {
  LocalHeaderFields fields;
  fields.versionNeeded = 0x1111;
  fields.flags = 0x2222;
  fields.modTime = 0x3333;
  fields.modDate = 0x4444;
  fields.crc32 = 0x55555555;
  StreamBehindSignature stream(fields.bytes().substr(0, 18));
  KQZipFileLocalHeader header;
  EXPECT_FALSE(header.parseFromStream(stream, nullptr));
  EXPECT_EQ(0x1111, header.versionNeeded());
  EXPECT_EQ(0x2222, header.flags());
  EXPECT_EQ(0x3333, header.modTime());
  EXPECT_EQ(0x4444, header.modDate());
  EXPECT_EQ(0x55555555u, header.crc32());
  EXPECT_EQ(0xFFFFFFFFu, header.compressedSize());
}

TEST(KQZipFileLocalHeader, EachFailingReadStopsTheParseThere) {
  LocalHeaderFields fields;
  fields.name = "name";
  fields.extra = zip64FieldBytes(3, 3, 0);
  StreamBehindSignature clean(fields.bytes() + "abc");
  KQZipFileLocalHeader parsed;
  ASSERT_TRUE(parsed.parseFromStream(clean, nullptr));
  ASSERT_EQ((Lengths{2, 2, 2, 2, 2, 4, 4, 4, 2, 2, 4, 2, 2, 2, 24}), clean.reads)
      << "the id of an extra field is read twice";
  for (std::size_t failing = 1; failing <= clean.reads.size(); ++failing) {
    for (const KQTest::Slot slot : {KQTest::Slot::none, KQTest::Slot::empty, KQTest::Slot::filled}) {
      SCOPED_TRACE("read " + std::to_string(failing) + " fails, " + KQTest::nameOf(slot));
      const LogCapture log;
      StreamBehindSignature stream(fields.bytes() + "abc");
      stream.failAtRead = static_cast<std::int64_t>(failing);
      Error error = slot == KQTest::Slot::filled ? earlierError() : nullptr;
      KQZipFileLocalHeader header;
      EXPECT_FALSE(header.parseFromStream(stream, slot == KQTest::Slot::none ? nullptr : &error));
      EXPECT_EQ(failing, stream.reads.size());
      if (slot == KQTest::Slot::filled)
        expectKQZipError(error, -50, "Error reading file");
      else
        EXPECT_EQ(nullptr, error);
      EXPECT_EQ(KQTest::readingFailedLine(error), log.lines());
      EXPECT_EQ(0u, header.offsetOfDataInArchive());
    }
  }
}

TEST(KQZipFileLocalHeader, AFailingReadIsLoggedByThePrimitiveAndByTheConstruction) {
  const LogCapture log;
  TestInputStream stream("xx");
  stream.failAtRead = 1;
  Error error;
  EXPECT_EQ(nullptr, KQZipFileLocalHeader::initWithStream(stream, &error));
  EXPECT_EQ(
      (Lines{"stream reading failed: (null)", "Failed to parse KQZipFileLocalHeader from stream: (null)"}),
      log.lines());
}

// Stepping over the data

TEST(KQZipFileLocalHeader, ARefusedSeekHandsOnTheStreamsOwnErrorAndIsLogged) {
  LocalHeaderFields fields;
  fields.name = "name";
  fields.compressedSize = 5;
  const LogCapture log;
  StreamBehindSignature stream(fields.bytes() + "12345");
  stream.refuseOffsets = true;
  stream.error = KQ::NSError::errorWithPOSIXCode(ESPIPE, "/a/pipe");
  Error error = earlierError();
  KQZipFileLocalHeader header;
  EXPECT_FALSE(header.parseFromStream(stream, &error));
  EXPECT_EQ(stream.error, error) << "the very object, unchanged";
  EXPECT_EQ(Lines{"failed to set stream offset: " + stream.error->description()}, log.lines());
  EXPECT_EQ(34u, header.offsetOfDataInArchive());
  EXPECT_EQ(Lengths{39}, stream.offsetsSet);

  StreamBehindSignature again(fields.bytes() + "12345");
  again.refuseOffsets = true;
  EXPECT_FALSE(header.parseFromStream(again, nullptr));
  EXPECT_EQ("failed to set stream offset: (null)", log.lines().back()) << "a stream that gives no reason";
}

TEST(KQZipFileLocalHeader, ALengthThatNoFileOffsetCanReachIsRefusedAndNeverWrapped) {
  const TemporaryDirectory folder;
  const std::uint64_t dataOffset = 100 + 30 + 4 + 28;
  const std::uint64_t largest = 0x7FFFFFFFFFFFFFFF;
  const std::uint64_t lengths[] = {
      largest - dataOffset + 1,  // one byte beyond the largest offset of a file
      largest,
      0x8000000000000000,
      0 - dataOffset - 1,    // ends at the largest number of 64 bits
      0 - dataOffset,        // would wrap to the archive's first byte
      0 - dataOffset + 4,    // would wrap behind its first signature
      0 - dataOffset + 100,  // would wrap to this record
      0 - std::uint64_t{1},  // would wrap to one byte before the data
  };
  for (const std::uint64_t length : lengths) {
    SCOPED_TRACE(length);
    LocalHeaderFields fields;
    fields.name = "name";
    fields.extra = zip64FieldBytes(length, length, 0);
    writeFile(folder / "archive", std::string(100, 'x') + fields.bytes() + "data");
    const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
    ASSERT_NE(nullptr, stream);
    stream->open();
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(104));
    const LogCapture log;
    Error error;
    KQZipFileLocalHeader header;
    EXPECT_FALSE(header.parseFromStream(*stream, &error));
    ASSERT_NE(nullptr, error);
    EXPECT_EQ(stream->streamError(), error);
    EXPECT_EQ(Lines{"failed to set stream offset: " + error->description()}, log.lines());
    EXPECT_EQ(dataOffset, header.offsetOfDataInArchive());
    EXPECT_EQ(length, header.dataLengthFromHeader());
    EXPECT_EQ(dataOffset, stream->NSStreamFileCurrentOffsetKey()) << "the stream stands where it stood";
  }
}

TEST(KQZipFileLocalHeader, ALengthThatWrapsNeverSendsAnyStreamBackwards) {
  for (const std::uint64_t back : {std::uint64_t{1}, std::uint64_t{58}, std::uint64_t{62}}) {
    SCOPED_TRACE(back);
    LocalHeaderFields fields;
    fields.name = "name";
    fields.extra = zip64FieldBytes(0, 0 - back, 0);
    StreamBehindSignature stream(fields.bytes());
    const LogCapture log;
    KQZipFileLocalHeader header;
    header.parseFromStream(stream, nullptr);
    EXPECT_EQ(62u, header.offsetOfDataInArchive());
    ASSERT_FALSE(stream.offsetsSet.empty());
    EXPECT_LE(62u, stream.position) << "even a stream that takes every offset";
  }
}

TEST(KQZipFileLocalHeader, AnEndOfDataFarBeyondTheEndOfTheFileIsAccepted) {
  const TemporaryDirectory folder;
  const std::uint64_t dataOffset = 62;
  for (const std::uint64_t length : {std::uint64_t{5}, 0x7FFFFFFFFFFFFFFF - dataOffset}) {
    SCOPED_TRACE(length);
    LocalHeaderFields fields;
    fields.name = "name";
    fields.extra = zip64FieldBytes(length, length, 0);
    writeFile(folder / "archive", fields.bytes() + "data");
    const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive");
    ASSERT_NE(nullptr, stream);
    stream->open();
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(4));
    Error error;
    EXPECT_NE(nullptr, KQZipFileLocalHeader::initWithStream(*stream, &error));
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(dataOffset + length, stream->NSStreamFileCurrentOffsetKey());
    std::uint8_t byte = 0;
    EXPECT_EQ(0, stream->read(&byte, 1)) << "the next record's signature is not there";
  }
}

TEST(KQZipFileLocalHeader, AStreamWithoutAnOffsetCountsAsStandingAtZero) {
  LocalHeaderFields fields;
  fields.versionNeeded = 20;
  fields.name = "name";
  fields.compressedSize = 5;
  const LogCapture log;
  StreamBehindSignature stream(fields.bytes() + "12345");
  stream.hasOffset = false;
  stream.error = earlierError();
  Error error;
  KQZipFileLocalHeader header;
  header.setOffset(77);
  EXPECT_FALSE(header.parseFromStream(stream, &error)) << "it cannot be moved behind the data";
  EXPECT_EQ(0u, header.offset());
  EXPECT_EQ(0u, header.offsetOfDataInArchive());
  EXPECT_EQ("name", header.fileName());
  EXPECT_EQ(Lengths{5}, stream.offsetsSet);
  EXPECT_EQ(stream.error, error);
  EXPECT_EQ(Lines{"failed to set stream offset: " + stream.error->description()}, log.lines());
}

TEST(KQZipFileLocalHeader, ExtraFieldsOnAStreamWithoutAnOffsetEndWithTheStream) {
  LocalHeaderFields fields;
  fields.name = "name";
  fields.extra = zip64FieldBytes(0, 0, 0);
  const LogCapture log;
  StreamBehindSignature stream(fields.bytes() + std::string(1000, '\0'));
  stream.hasOffset = false;
  Error error;
  KQZipFileLocalHeader header;
  EXPECT_FALSE(header.parseFromStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}
