#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/Sanitizers.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

namespace {

namespace fs = std::filesystem;

using KQTest::archiveBytes;
using KQTest::Bytes;
using KQTest::bytesOf;
using KQTest::Error;
using KQTest::errorText;
using KQTest::extraFieldBytes;
using KQTest::LocalRecord;
using KQTest::LogCapture;
using KQTest::patternBytes;
using KQTest::plainRecord;
using KQTest::readFile;
using KQTest::TemporaryDirectory;
using KQTest::TestInputStream;
using KQTest::writeFile;
using KQTest::zip64FieldBytes;

using Lines = std::vector<std::string>;
using Reader = std::shared_ptr<KQZipFileReader>;

// The sanitizers' own bookkeeping touches memory in proportion to what is asked for.
constexpr bool sanitized = KQTEST_ADDRESS_SANITIZER || KQTEST_THREAD_SANITIZER;

constexpr std::uint64_t largestOffset = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t largestNumber = std::numeric_limits<std::uint64_t>::max();
const std::string nul(1, '\0');

LocalRecord recordOfLength(const std::string& name, std::uint64_t length, const std::string& data) {
  LocalRecord record = plainRecord(name, data);
  record.size = 0xFFFFFFFF;
  record.extra = zip64FieldBytes(length, length);
  return record;
}

Reader readerOn(const std::string& path, const std::string& bytes) {
  writeFile(path, bytes);
  Error error;
  Reader reader = KQZipFileReader::initWithZipPath(path, &error);
  EXPECT_TRUE(reader) << errorText(error);
  return reader;
}

// Lengths.

TEST(HostileArchives, ALengthThatEndsBeyondAnyFileOffsetIsRefusedWithTheStreamsError) {
  const TemporaryDirectory folder;
  const std::string first = plainRecord("first", "data").bytes();
  const std::uint64_t dataOffset = first.size() + recordOfLength("second", 0, "").header().size();
  for (const std::uint64_t length :
       {largestOffset - dataOffset + 1, largestOffset, largestOffset + 1, largestNumber - dataOffset,
        largestNumber - dataOffset + 1, largestNumber - dataOffset + 1 + first.size(),
        largestNumber - dataOffset + 1 + dataOffset / 2, largestNumber - 1, largestNumber}) {
    SCOPED_TRACE(length);
    const std::string bytes = first + recordOfLength("second", length, "data").bytes();
    writeFile(folder / "a.zip", bytes);
    LogCapture log;
    Error error;
    EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(KQ::NSPOSIXErrorDomain, error->domain());
    EXPECT_EQ((Lines{"failed to set stream offset: " + error->description(),
                     "Failed to parse KQZipFileLocalHeader from stream: " + error->description()}),
              log.lines());

    const auto memory =
        KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()));
    memory->open();
    error = nullptr;
    EXPECT_FALSE(KQZipFileReader::initWithStream(*memory, &error));
    EXPECT_TRUE(error);
  }
}

TEST(HostileArchives, ALengthThatEndsAtTheLargestFileOffsetOpens) {
  const TemporaryDirectory folder;
  const std::string first = plainRecord("first", "data").bytes();
  const std::uint64_t dataOffset = first.size() + recordOfLength("second", 0, "").header().size();
  const Reader reader = readerOn(
      folder / "a.zip", first + recordOfLength("second", largestOffset - dataOffset, "begin").bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ((Lines{"first", "second"}), reader->relativePaths());
  EXPECT_EQ(largestOffset - dataOffset, reader->attributesForRelativePath("second")->NSFileSize);
  EXPECT_EQ("data", bytesOf(reader->dataForRelativePath("first")));
  // No memory holds it, and its data comes out as far as it goes.
  EXPECT_FALSE(reader->dataForRelativePath("second"));
  EXPECT_TRUE(reader->writeDataForRelativePath("second", folder / "out"));
  EXPECT_EQ("begin", readFile(folder / "out"));
}

TEST(HostileArchives, ALengthThatWrapsNeverSendsTheScanBackwards) {
  const std::string first = plainRecord("first", "data").bytes();
  const std::uint64_t dataOffset = first.size() + recordOfLength("second", 0, "").header().size();
  // To the start of the archive, to the record itself, to just in front of its data: a stream that takes
  // every offset would be scanned for ever.
  for (const std::uint64_t target : {std::uint64_t{0}, std::uint64_t{first.size()}, dataOffset - 1}) {
    TestInputStream stream(first + recordOfLength("second", target - dataOffset, "data").bytes());
    stream.beforeRead = [](std::size_t number) {
      if (number > 1000) throw std::runtime_error("the scan goes in circles");
    };
    LogCapture log;
    KQZipFileReader::initWithStream(stream);
    ASSERT_FALSE(stream.offsetsSet.empty());
    EXPECT_GE(stream.offsetsSet.back(), dataOffset);
  }
}

TEST(HostileArchives, TheProgressOfAnEntryOfAnyLengthCountsItsDeclaredBytes) {
  const TemporaryDirectory folder;
  const std::uint64_t length = std::uint64_t{1} << 62;
  const Reader reader = readerOn(folder / "a.zip", recordOfLength("a", length, "begin").bytes());
  ASSERT_TRUE(reader);
  const auto caller = KQ::NSProgress::progressWithTotalUnitCount(1);
  caller->becomeCurrentWithPendingUnitCount(1);
  caller->cancel();
  Error error;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "out", &error));
  EXPECT_EQ("-90 Cancelled By User.", errorText(error));
  EXPECT_EQ(static_cast<std::int64_t>(length), KQ::NSProgress::currentProgress()->totalUnitCount());
  EXPECT_EQ(5, KQ::NSProgress::currentProgress()->completedUnitCount());
  caller->resignCurrent();
}

TEST(HostileArchives, AHugeDeclaredLengthInASmallFileCostsNoPhysicalMemory) {
  if (sanitized) GTEST_SKIP() << "a sanitizer touches memory of its own";
  const TemporaryDirectory folder;
  for (const unsigned bits : {30U, 32U, 36U, 40U, 47U, 62U}) {
    const std::uint64_t length = std::uint64_t{1} << bits;
    const Reader reader = readerOn(folder / "a.zip", recordOfLength("a", length, "begin").bytes());
    ASSERT_TRUE(reader);
    // In a process of its own, whose peak is not that of an earlier test.
    KQTest::inChildProcess([&] {
      const auto peak = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss;
      };
      const long before = peak();
      const auto data = reader->dataForRelativePath("a");
      if (data) {
        EXPECT_EQ(length, data->length());
        EXPECT_EQ("begin", std::string(reinterpret_cast<const char*>(data->bytes()), 5));
        EXPECT_EQ(0, data->bytes()[5]);
        EXPECT_EQ(0, data->bytes()[length - 1]);
      }
      const long kibibytes = 64 * 1024;
      EXPECT_LT(peak() - before, kibibytes) << bits;
      if (bits > 47) {
        EXPECT_FALSE(data);
      }
    });
  }
}

TEST(HostileArchives, A32BitLengthBeyondTheEndOfTheArchiveEndsTheScan) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "begin");
  record.size = 0xFFFFFFFF;
  const Reader reader = readerOn(folder / "a.zip", record.bytes() + plainRecord("b", "inside").bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ(Lines{"a"}, reader->relativePaths());
  EXPECT_EQ(0xFFFFFFFFU, reader->attributesForRelativePath("a")->NSFileSize);
}

TEST(HostileArchives, ALengthThatIsTooShortFailsWithTheDataAsASignature) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "12345678");
  record.size = 2;
  writeFile(folder / "a.zip", record.bytes());
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
  EXPECT_EQ("-100 got unexpected bytes looking for known signatures: 36353433", errorText(error));
}

TEST(HostileArchives, ALengthThatIsTooShortLetsDataPassForRecords) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", plainRecord("hidden", "in the data").bytes());
  record.size = 0;
  const Reader reader = readerOn(folder / "a.zip", record.bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ((Lines{"a", "hidden"}), reader->relativePaths());
  EXPECT_EQ("in the data", bytesOf(reader->dataForRelativePath("hidden")));
}

// Names.

TEST(HostileArchives, ANameOf65535BytesIsListedAndRead) {
  const TemporaryDirectory folder;
  const std::string component(65535, 'n');
  std::string path;
  while (path.size() < 65535) path += "d/";
  path.resize(65535, 'f');
  for (const std::string& name : {component, path}) {
    const Reader reader =
        readerOn(folder / "a.zip", archiveBytes({plainRecord(name, "data"), plainRecord("zz", "2")}));
    ASSERT_TRUE(reader);
    EXPECT_EQ((Lines{name, "zz"}), reader->relativePaths());
    EXPECT_EQ("data", bytesOf(reader->dataForRelativePath(name)));
    EXPECT_EQ("2", bytesOf(reader->dataForRelativePath("zz")));
    EXPECT_TRUE(reader->writeDataForRelativePath(name, folder / "out"));
    EXPECT_EQ("data", readFile(folder / "out"));
  }
}

TEST(HostileArchives, ANameTooLongForTheFileSystemFailsTheExtraction) {
  const TemporaryDirectory folder;
  writeFile(folder / "component.zip", archiveBytes({plainRecord(std::string(65535, 'n'), "data")}));
  Error error;
  LogCapture log;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "component.zip", folder / "one", &error));
  // The folder could be made and the file could not, which makes no error.
  EXPECT_FALSE(error) << errorText(error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_TRUE(fs::is_empty(folder / "one"));
}

TEST(HostileArchives, AFolderTooDeepForTheFileSystemFailsTheExtractionWithTheFileManagersError) {
  const TemporaryDirectory folder;
  std::string parent;
  while (parent.size() < 65530) parent += "d/";
  parent.pop_back();
  writeFile(folder / "a.zip", archiveBytes({plainRecord(parent + "/f", "data")}));
  Error error;
  LogCapture log;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(KQ::NSPOSIXErrorDomain, error->domain());
  EXPECT_EQ(ENAMETOOLONG, error->code());
  EXPECT_EQ(
      Lines{"failed to create parent directory at " + (folder / "out/") + parent + " for " + parent + "/f"},
      log.lines());
}

TEST(HostileArchives, ANameThatClimbsIsUsedAsItStands) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(
      folder / "a.zip", archiveBytes({plainRecord("../escaped", "1"), plainRecord("a/../../b", "2")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ((Lines{"../escaped", "a/../../b"}), reader->relativePaths());
  EXPECT_EQ("1", bytesOf(reader->dataForRelativePath("../escaped")));
  EXPECT_FALSE(reader->dataForRelativePath("escaped"));
  EXPECT_FALSE(reader->dataForRelativePath("../b"));
  fs::create_directories(folder / "out/deep/a");
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out/deep"));
  EXPECT_EQ("1", readFile(folder / "out/escaped"));
  EXPECT_EQ("2", readFile(folder / "out/b"));
}

TEST(HostileArchives, AnAbsoluteNameStaysBelowTheDestination) {
  const TemporaryDirectory folder;
  const std::string name = folder / "absolute";
  const Reader reader =
      readerOn(folder / "a.zip", archiveBytes({plainRecord(name, "1"), plainRecord("//two", "2")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ((Lines{"//two", name}), reader->relativePaths());
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  EXPECT_FALSE(fs::exists(name));
  EXPECT_EQ("1", readFile((folder / "out") + name));
  EXPECT_EQ("2", readFile(folder / "out/two"));
}

TEST(HostileArchives, ControlCharactersInANameAreKept) {
  const TemporaryDirectory folder;
  std::string name;
  for (char character = 1; character < 0x20; ++character) name += character;
  name += "\x7F%n\\";
  const Reader reader = readerOn(folder / "a.zip", archiveBytes({plainRecord(name, "data")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ(Lines{name}, reader->relativePaths());
  EXPECT_EQ("data", bytesOf(reader->dataForRelativePath(name)));
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  EXPECT_EQ("data", readFile((folder / "out/") + name));
}

TEST(HostileArchives, ANameWithANulIsListedAndReadWhole) {
  const TemporaryDirectory folder;
  const std::string name = "safe" + nul + "/../evil";
  const Reader reader =
      readerOn(folder / "a.zip", archiveBytes({plainRecord(name, "1"), plainRecord("safe", "2")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ((Lines{"safe", name}), reader->relativePaths());
  EXPECT_EQ("1", bytesOf(reader->dataForRelativePath(name)));
  EXPECT_EQ("2", bytesOf(reader->dataForRelativePath("safe")));
  EXPECT_TRUE(reader->attributesForRelativePath(name));
}

TEST(HostileArchives, AFileWithANulInItsNameFailsTheExtractionAndIsNotCutShort) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("f" + nul + "x", "data")}));
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  EXPECT_FALSE(error) << errorText(error);
  EXPECT_FALSE(fs::exists(folder / "out/f"));
}

TEST(HostileArchives, AFolderAboveAFileWithANulInItsNameFailsWithTheFileManagersError) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("p" + nul + "q/f", "data")}));
  LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(KQ::NSPOSIXErrorDomain, error->domain());
  EXPECT_EQ(EINVAL, error->code());
  EXPECT_EQ(
      Lines{"failed to create parent directory at " + (folder / "out/p") + nul + "q for p" + nul + "q/f"},
      log.lines());
  EXPECT_FALSE(fs::exists(folder / "out/p"));
}

TEST(HostileArchives, AFolderWithANulInItsNameIsLoggedAndPassedOver) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("d" + nul + "x/", ""), plainRecord("f", "data")}));
  LogCapture log;
  Error error;
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  EXPECT_EQ(Lines{"failed to create directory at " + (folder / "out/d") + nul + "x for d" + nul + "x/"},
            log.lines());
  EXPECT_FALSE(fs::exists(folder / "out/d"));
  EXPECT_EQ("data", readFile(folder / "out/f"));
}

TEST(HostileArchives, ATargetWithANulIsRefused) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", archiveBytes({plainRecord("a", "data")}));
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->writeDataForRelativePath("a", (folder / "out") + nul + "x"));
  EXPECT_FALSE(fs::exists(folder / "out"));
  Error error;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", (folder / "out") + nul + "x/y", &error));
  EXPECT_EQ(EINVAL, error->code());
  EXPECT_FALSE(fs::exists(folder / "out"));
}

TEST(HostileArchives, AnEntryNamedAsTheDestinationItselfFailsTheExtraction) {
  const TemporaryDirectory folder;
  for (const char* name : {"", ".", "./"}) {
    writeFile(folder / "a.zip", archiveBytes({plainRecord(name, "data")}));
    fs::create_directory(folder / "out");
    EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out")) << name;
    EXPECT_TRUE(fs::is_empty(folder / "out"));
  }
}

TEST(HostileArchives, ANameLengthBeyondTheNameTakesWhatFollowsForTheName) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "data");
  record.nameLength = 5;
  record.size = 0;
  const Reader reader = readerOn(folder / "a.zip", record.bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ(Lines{"adata"}, reader->relativePaths());
}

TEST(HostileArchives, AHundredThousandEntriesUnderOneNameAreOne) {
  const TemporaryDirectory folder;
  std::string bytes;
  const int count = 100000;
  LocalRecord record = plainRecord("always the same", "00000000");
  const std::string header = record.header();
  for (int i = 1; i <= count; ++i) {
    const std::string digits = std::to_string(i);
    bytes += header + std::string(8 - digits.size(), '0') + digits;
  }
  const Reader reader = readerOn(folder / "a.zip", bytes);
  ASSERT_TRUE(reader);
  EXPECT_EQ(Lines{"always the same"}, reader->relativePaths());
  EXPECT_EQ("00100000", bytesOf(reader->dataForRelativePath("always the same")));
}

// Extra fields.

TEST(HostileArchives, AnExtraFieldThatOverrunsItsAreaIsReadWholeAndTheDataBeginsBehindIt) {
  const TemporaryDirectory folder;
  for (const std::uint16_t areaLength : {std::uint16_t{1}, std::uint16_t{3}, std::uint16_t{4},
                                         std::uint16_t{5}, std::uint16_t{23}, std::uint16_t{24}}) {
    LocalRecord record = plainRecord("a", "data");
    record.extra = extraFieldBytes(0x5455, patternBytes(20));
    record.extraLength = areaLength;
    const Reader reader = readerOn(folder / "a.zip", record.bytes() + plainRecord("b", "2").bytes());
    ASSERT_TRUE(reader) << areaLength;
    EXPECT_EQ((Lines{"a", "b"}), reader->relativePaths());
    EXPECT_EQ("data", bytesOf(reader->dataForRelativePath("a"))) << areaLength;
    EXPECT_EQ("2", bytesOf(reader->dataForRelativePath("b")));
  }
}

TEST(HostileArchives, AnExtraFieldThatSwallowsTheRestOfTheArchiveLeavesNothingOfTheData) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "data");
  record.extra = extraFieldBytes(0x5455, "x", 65535);
  const std::string bytes = record.bytes() + plainRecord("b", "2").bytes();
  const Reader reader = readerOn(folder / "a.zip", bytes);
  ASSERT_TRUE(reader);
  EXPECT_EQ(Lines{"a"}, reader->relativePaths());
  EXPECT_EQ(4U, reader->attributesForRelativePath("a")->NSFileSize);
  EXPECT_FALSE(reader->dataForRelativePath("a"));
}

TEST(HostileArchives, AnAreaLongerThanTheArchiveFailsWithAnEmptySlot) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "");
  record.extra = extraFieldBytes(0x5455, "x");
  record.extraLength = 65535;
  writeFile(folder / "a.zip", record.bytes());
  LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
  EXPECT_FALSE(error) << errorText(error);
}

TEST(HostileArchives, ExtraFieldsOfEverySizeThatFitsAreSteppedOver) {
  const TemporaryDirectory folder;
  std::string manyOfNoSize;
  while (manyOfNoSize.size() + 4 <= 65535) manyOfNoSize += extraFieldBytes(0xCAFE, "");
  for (const std::string& extra : {extraFieldBytes(0xCAFE, ""), extraFieldBytes(0, ""),
                                   extraFieldBytes(0xFFFF, patternBytes(65531)), manyOfNoSize}) {
    LocalRecord record = plainRecord("a", "data");
    record.extra = extra;
    const Reader reader = readerOn(folder / "a.zip", record.bytes() + plainRecord("b", "2").bytes());
    ASSERT_TRUE(reader);
    EXPECT_EQ("data", bytesOf(reader->dataForRelativePath("a")));
    EXPECT_EQ("2", bytesOf(reader->dataForRelativePath("b")));
  }
}

TEST(HostileArchives, AnExtraFieldOf65535BytesOverrunsAnyAreaAndIsReadWhole) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "data");
  record.extra = extraFieldBytes(0x5455, patternBytes(65535));
  record.extraLength = 65535;
  const Reader reader = readerOn(folder / "a.zip", record.bytes() + plainRecord("b", "2").bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ("data", bytesOf(reader->dataForRelativePath("a")));
  EXPECT_EQ("2", bytesOf(reader->dataForRelativePath("b")));
}

TEST(HostileArchives, AZip64FieldGivesTheLengthThatItHasBytesFor) {
  const TemporaryDirectory folder;
  const std::string values = Bytes().u64(99).u64(4).u64(0).u32(0);
  struct Case {
    std::size_t size;
    std::uint64_t length;
  };
  for (const Case& field : {Case{16, 4}, Case{24, 4}, Case{28, 4}, Case{12, 4}, Case{20, 4}, Case{9, 4}}) {
    LocalRecord record = plainRecord("a", "data");
    record.size = 0xFFFFFFFF;
    record.extra = extraFieldBytes(1, values.substr(0, field.size));
    const Reader reader = readerOn(folder / "a.zip", record.bytes() + plainRecord("b", "2").bytes());
    ASSERT_TRUE(reader) << field.size;
    EXPECT_EQ(field.length, reader->attributesForRelativePath("a")->NSFileSize) << field.size;
    EXPECT_EQ("data", bytesOf(reader->dataForRelativePath("a")));
    EXPECT_EQ("2", bytesOf(reader->dataForRelativePath("b")));
  }
}

TEST(HostileArchives, AZip64FieldWithoutACompressedSizeDeclaresNoData) {
  const TemporaryDirectory folder;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{8}}) {
    LocalRecord record = plainRecord("a", "data");
    record.extra = extraFieldBytes(1, std::string(Bytes().u64(4)).substr(0, size));
    writeFile(folder / "a.zip", record.bytes());
    Error error;
    EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
    EXPECT_EQ("-100 got unexpected bytes looking for known signatures: 61746164", errorText(error)) << size;
  }
}

TEST(HostileArchives, OfTwoZip64FieldsTheFirstCounts) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "data");
  record.extra =
      extraFieldBytes(0x5455, "x") + zip64FieldBytes(4, 4) + zip64FieldBytes(largestNumber, largestNumber);
  const Reader reader = readerOn(folder / "a.zip", record.bytes() + plainRecord("b", "2").bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ("data", bytesOf(reader->dataForRelativePath("a")));
  EXPECT_EQ((Lines{"a", "b"}), reader->relativePaths());
}

TEST(HostileArchives, TheUncompressedSizeOfAStoredEntryIsNotAskedFor) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "data");
  record.extra = zip64FieldBytes(largestNumber, 4);
  const Reader reader = readerOn(folder / "a.zip", record.bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ(4U, reader->attributesForRelativePath("a")->NSFileSize);
  EXPECT_EQ("data", bytesOf(reader->dataForRelativePath("a")));
}

TEST(HostileArchives, ADateThatCannotBeIsMovedToOneThatCan) {
  const TemporaryDirectory folder;
  LocalRecord zeros = plainRecord("zeros", "1");
  zeros.modDate = 0;
  zeros.modTime = 0;
  LocalRecord ones = plainRecord("ones", "1");
  ones.modDate = 0xFFFF;
  ones.modTime = 0xFFFF;
  const Reader reader = readerOn(folder / "a.zip", archiveBytes({zeros, ones}));
  ASSERT_TRUE(reader);
  // Day 0 of month 0 of 1980; day 31 of month 15 of 2107 at 31:63:62.
  EXPECT_EQ("1979-11-30 00:00:00",
            KQTest::localTime(*reader->attributesForRelativePath("zeros")->NSFileModificationDate));
  EXPECT_EQ("2108-04-01 08:04:02",
            KQTest::localTime(*reader->attributesForRelativePath("ones")->NSFileModificationDate));
}

// Anything.

/// Asks a reader everything about everything that it lists.
void askEverything(const KQZipFileReader& reader) {
  for (const std::string& path : reader.relativePaths()) {
    const auto attributes = reader.attributesForRelativePath(path);
    ASSERT_TRUE(attributes && attributes->NSFileSize && attributes->NSFileModificationDate);
    // What is huge, and still fits the address space, has a test of its own.
    const bool huge = *attributes->NSFileSize >> 20 != 0 && *attributes->NSFileSize >> 50 == 0;
    const auto data = huge ? nullptr : reader.dataForRelativePath(path);
    if (data) {
      EXPECT_EQ(*attributes->NSFileSize, data->length());
    }
    const auto stream = reader.streamForRelativePath(path);
    ASSERT_TRUE(stream);
    const std::string bytes =
        KQTest::readFrom(*stream, std::min<std::uint64_t>(*attributes->NSFileSize, 100));
    if (data) {
      EXPECT_EQ(bytes, std::string(reinterpret_cast<const char*>(data->bytes()), bytes.size()));
    }
  }
}

TEST(HostileArchives, AnArchiveWithAnyBytesChangedOpensOrFailsAndNothingElse) {
  const TemporaryDirectory folder;
  std::mt19937 generator(20240229);
  const auto upTo = [&generator](std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(0, most)(generator);
  };
  LocalRecord other = plainRecord("b", "second");
  other.extra = extraFieldBytes(0x5455, "times") + extraFieldBytes(1, Bytes().u64(6).u64(6));
  const std::string whole =
      archiveBytes({KQTest::zip64Record("a", "first"), other, plainRecord("", "third")});
  static const std::vector<unsigned char> interesting = {0x00, 0x01, 0x7F, 0x80, 0xFF, 'P', 'K', 3, 4};
  LogCapture log;
  int opened = 0;
  const int rounds = 1000;
  for (int round = 0; round < rounds; ++round) {
    std::string bytes = whole;
    for (std::size_t changes = upTo(3) + 1; changes > 0; --changes) {
      const std::size_t at = upTo(bytes.size() - 1);
      bytes[at] = static_cast<char>(upTo(1) == 0 ? interesting[upTo(interesting.size() - 1)] : upTo(255));
    }
    if (upTo(3) == 0) bytes.resize(upTo(bytes.size()));
    writeFile(folder / "a.zip", bytes);
    Error error;
    const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip", &error);
    TestInputStream stream(bytes);
    const Reader same = KQZipFileReader::initWithStream(stream);
    // The one difference: no file has an offset beyond 2^63, and the stream, which is not one, goes there.
    const bool isBeyondFiles =
        error && error->domain() == KQ::NSPOSIXErrorDomain && error->code() == EOVERFLOW;
    ASSERT_EQ(reader != nullptr || isBeyondFiles, same != nullptr) << round << ": " << errorText(error);
    if (!reader) continue;
    EXPECT_FALSE(error) << errorText(error);
    ++opened;
    askEverything(*reader);
    EXPECT_EQ(same->relativePaths(), reader->relativePaths());
  }
  // Both outcomes must have been seen, or the changes tested nothing.
  EXPECT_GT(opened, rounds / 20);
  EXPECT_LT(opened, rounds - rounds / 20);
}

}  // namespace
