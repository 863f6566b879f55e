#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Support/Bytes.h"
#include "Support/EntryRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/Records.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using KQTest::Bytes;
using KQTest::CentralHeaderFields;
using KQTest::contentsOf;
using KQTest::crcOf;
using KQTest::dataOf;
using KQTest::earlierError;
using KQTest::EndRecords;
using KQTest::Error;
using KQTest::expectKQZipError;
using KQTest::extraFieldBytes;
using KQTest::hex;
using KQTest::LogCapture;
using KQTest::Slot;
using KQTest::TestInputStream;
using KQTest::TestOutputStream;
using KQTest::zip64FieldBytes;

namespace {

using Lengths = std::vector<std::uint64_t>;
using Lines = std::vector<std::string>;
using Entries = std::vector<std::shared_ptr<KQZipFileLocalHeader>>;
using Headers = std::vector<std::shared_ptr<KQZipCentralDirectoryFileHeader>>;

const long long sourceDate = 1234567890;  // 13 February 2009, 23:31:30 UTC
const std::uint16_t sourceTimeField = KQTest::dosTime(23, 31, 30);
const std::uint16_t sourceDateField = KQTest::dosDate(2009, 2, 13);

// Source files of one date, in UTC, and local headers for them.
class Sources {
 public:
  std::string path(const std::string& name) const { return folder_ / name; }

  void write(const std::string& name, const std::string& contents, long long date = sourceDate) const {
    KQTest::writeFile(path(name), contents);
    KQTest::setModificationDate(path(name), date);
  }

  std::shared_ptr<KQZipFileLocalHeader> entry(const std::string& name, const std::string& contents) const {
    write(name, contents);
    auto header = KQZipFileLocalHeader::initWithSourceFile(path(name));
    header->setRelativePath(name);
    return header;
  }

  // An entry that has been written, to `stream`.
  std::shared_ptr<KQZipFileLocalHeader> writtenEntry(const std::string& name, const std::string& contents,
                                                     TestOutputStream& stream) const {
    auto header = entry(name, contents);
    EXPECT_TRUE(header->writeToStream(stream));
    return header;
  }

 private:
  KQTest::TimeZone zone_{"UTC0"};
  KQTest::TemporaryDirectory folder_;
};

// The central header of an entry whose local header stands at `offset`.
CentralHeaderFields centralFields(const std::string& name, const std::string& contents,
                                  std::uint64_t offset) {
  CentralHeaderFields fields;
  fields.modTime = sourceTimeField;
  fields.modDate = sourceDateField;
  fields.crc32 = crcOf(contents);
  fields.offsetOfLocalHeader = KQTest::clampedTo32Bits(offset);
  fields.name = name;
  fields.extra = zip64FieldBytes(contents.size(), contents.size(), offset);
  return fields;
}

std::string centralHeader(const std::string& name, const std::string& contents, std::uint64_t offset) {
  return centralFields(name, contents, offset).bytes();
}

// The lengths of the writes of a central header with a name of `nameLength` bytes and a Zip64 field.
Lengths headerWidths(std::uint64_t nameLength) {
  return {4, 2, 2, 2, 2, 2, 2, 4, 4, 4, 2, 2, 2, 2, 2, 4, 4, nameLength, 2, 2, 24};
}

const Lengths endRecordWidths{4, 8, 2, 2, 4, 4, 8, 8, 8, 8, 4, 4, 8, 4, 4, 2, 2, 2, 2, 4, 4, 2};

Lengths joined(Lengths first, const Lengths& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// A central header that writes what it is told, for what a directory makes of its headers.
class FakeHeader : public KQZipCentralDirectoryFileHeader {
 public:
  explicit FakeHeader(std::string text, std::uint64_t size = 0) : text_(std::move(text)), size_(size) {}

  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) override {
    ++writes;
    if (failure) {
      KQ::NSStoreError(error, failure);
      return false;
    }
    return KQZipWriteBlockBytes(stream, text_.data(), text_.size(), error);
  }
  std::uint64_t outputSize() const override { return size_; }

  int writes = 0;
  Error failure;

 private:
  std::string text_;
  std::uint64_t size_;
};

// A local header that notes what a directory asks it to do.
class NotingEntry : public KQZipFileLocalHeader {
 public:
  NotingEntry(const std::string& path, std::string name, Lines& calls) : calls_(calls) {
    setSourceFilePath(path);
    setRelativePath(std::move(name));
  }
  void updateAttributesFromSourceFile() override {
    calls_.push_back("attributes of " + fileName().value_or(""));
    KQZipFileLocalHeader::updateAttributesFromSourceFile();
  }
  bool calculateCRCOfSourceFile() override {
    calls_.push_back("CRC of " + fileName().value_or(""));
    return !refusesCRC && KQZipFileLocalHeader::calculateCRCOfSourceFile();
  }

  bool refusesCRC = false;

 private:
  Lines& calls_;
};

std::shared_ptr<KQZipExtraField> extraField(std::uint16_t id, const std::string& data) {
  auto field = std::make_shared<KQZipExtraField>();
  field->setFieldSignature(id);
  field->setFieldData(dataOf(data));
  return field;
}

std::string written(KQZipCentralDirectory& directory, std::uint64_t startOffset = 0) {
  TestOutputStream stream;
  stream.startOffset = startOffset;
  Error error;
  EXPECT_TRUE(directory.writeToStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  return stream.bytes;
}

std::string writtenWith(const Entries& entries, std::uint64_t startOffset = 0) {
  return written(*KQZipCentralDirectory::centralDirectoryWithFileEntries(entries), startOffset);
}

void expectNoRecords(const KQZipCentralDirectory& directory) {
  EXPECT_EQ(nullptr, directory.digitalSignature());
  EXPECT_EQ(nullptr, directory.zip64EoCDRecord());
  EXPECT_EQ(nullptr, directory.zip64EoCDLocator());
  EXPECT_EQ(nullptr, directory.zipEoCDRecord());
}

// A classic end record whose entry count tells it from others.
std::string classicRecord(std::uint64_t count = 7, const std::string& comment = "") {
  EndRecords records;
  records.count = count;
  records.comment = comment;
  return records.classicRecord();
}

}  // namespace

// Making and measuring.

TEST(KQZipCentralDirectory, AFreshDirectoryIsEmptyAndHasNoRecords) {
  const KQZipCentralDirectory directory;
  expectNoRecords(directory);
  EXPECT_EQ(0U, directory.outputSize());
  EXPECT_EQ(0x05054b50U, KQZipCentralDirectory::digitalSignatureSignature);
}

TEST(KQZipCentralDirectory, TheSizeIsTheSumOfWhatIsThere) {
  KQZipCentralDirectory directory;
  directory.setFileHeaders({std::make_shared<FakeHeader>("", 1000), std::make_shared<FakeHeader>("", 200)});
  EXPECT_EQ(1200U, directory.outputSize());
  directory.setDigitalSignature(extraField(9, "abc"));
  EXPECT_EQ(1207U, directory.outputSize());
  directory.setZip64EoCDRecord(std::make_shared<KQZip64EndOfCentralDirectoryRecord>());
  EXPECT_EQ(1263U, directory.outputSize());
  directory.setZip64EoCDLocator(std::make_shared<KQZip64EndOfCentralDirectoryLocator>());
  EXPECT_EQ(1283U, directory.outputSize());
  directory.setZipEoCDRecord(std::make_shared<KQZipEndOfCentralDirectoryRecord>());
  EXPECT_EQ(1305U, directory.outputSize());
  directory.zipEoCDRecord()->setZipFileComment("a comment");
  EXPECT_EQ(1314U, directory.outputSize());
  directory.setDigitalSignature(nullptr);
  directory.setZip64EoCDRecord(nullptr);
  directory.setZip64EoCDLocator(nullptr);
  EXPECT_EQ(1231U, directory.outputSize());
  directory.setZipEoCDRecord(nullptr);
  directory.setFileHeaders({});
  EXPECT_EQ(0U, directory.outputSize());
  expectNoRecords(directory);
}

TEST(KQZipCentralDirectory, TheSizeOfAHeaderFollowsItsState) {
  KQZipCentralDirectory directory;
  const auto header = std::make_shared<KQZipCentralDirectoryFileHeader>();
  directory.setFileHeaders({header});
  EXPECT_EQ(46U, directory.outputSize());
  header->setFileName("name");
  header->setFileComment("comment");
  EXPECT_EQ(57U, directory.outputSize());
}

TEST(KQZipCentralDirectory, TheListOfHeadersIsACopyOfTheCallers) {
  const auto first = std::make_shared<FakeHeader>("first ", 10);
  const auto second = std::make_shared<FakeHeader>("second", 100);
  Headers headers{first};
  KQZipCentralDirectory directory;
  directory.setFileHeaders(headers);
  headers.push_back(second);
  EXPECT_EQ(10U, directory.outputSize());
  headers.clear();
  EXPECT_EQ(10U, directory.outputSize());
  headers = {second};
  EXPECT_EQ("first ", written(directory).substr(0, 6));
  EXPECT_EQ(1, first->writes);
  EXPECT_EQ(0, second->writes);
}

TEST(KQZipCentralDirectory, TheListOfHeadersGrowsByAParseAndTheCallersDoesNot) {
  const Headers headers{std::make_shared<FakeHeader>("", 10)};
  KQZipCentralDirectory directory;
  directory.setFileHeaders(headers);
  TestInputStream stream(centralHeader("a.txt", "hello", 0));
  EXPECT_TRUE(directory.parseFromStream(stream));
  EXPECT_EQ(89U, directory.outputSize());
  EXPECT_EQ(1U, headers.size());
}

TEST(KQZipCentralDirectory, ANewListReplacesTheOldOne) {
  KQZipCentralDirectory directory;
  directory.setFileHeaders({std::make_shared<FakeHeader>("", 10), std::make_shared<FakeHeader>("", 20)});
  directory.setFileHeaders({std::make_shared<FakeHeader>("", 3)});
  EXPECT_EQ(3U, directory.outputSize());
}

// Writing.

TEST(KQZipCentralDirectory, WithoutHeadersItWrites98Bytes) {
  for (const std::uint64_t start : {std::uint64_t{0}, std::uint64_t{1000}}) {
    SCOPED_TRACE(start);
    const LogCapture log;
    KQZipCentralDirectory directory;
    TestOutputStream stream;
    stream.startOffset = start;
    const Error earlier = earlierError();
    Error error = earlier;
    EXPECT_TRUE(directory.writeToStream(stream, &error));
    EXPECT_EQ(98U, stream.bytes.size());
    EXPECT_EQ(hex(EndRecords{0, 98, start, start}.bytes()), hex(stream.bytes));
    EXPECT_EQ(endRecordWidths, stream.writes);
    EXPECT_EQ(98U, directory.outputSize());
    EXPECT_EQ(earlier, error);
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipCentralDirectory, TheEndRecordsThatItCreatesStayWithTheirValues) {
  KQZipCentralDirectory directory;
  directory.setFileHeaders({std::make_shared<FakeHeader>("header", 6)});
  written(directory, 1000);
  ASSERT_NE(nullptr, directory.zipEoCDRecord());
  EXPECT_EQ(1, directory.zipEoCDRecord()->entriesInCDOnThisDisk());
  EXPECT_EQ(1, directory.zipEoCDRecord()->entriesInCD());
  EXPECT_EQ(104U, directory.zipEoCDRecord()->sizeOfCD());
  EXPECT_EQ(1000U, directory.zipEoCDRecord()->offsetOfCD());
  ASSERT_NE(nullptr, directory.zip64EoCDRecord());
  EXPECT_EQ(44U, directory.zip64EoCDRecord()->size());
  EXPECT_EQ(1U, directory.zip64EoCDRecord()->entriesInCDOnThisDisk());
  EXPECT_EQ(1U, directory.zip64EoCDRecord()->entriesInCD());
  EXPECT_EQ(104U, directory.zip64EoCDRecord()->sizeOfCD());
  EXPECT_EQ(1000U, directory.zip64EoCDRecord()->offsetOfCD());
  ASSERT_NE(nullptr, directory.zip64EoCDLocator());
  EXPECT_EQ(1006U, directory.zip64EoCDLocator()->offsetOfZip64EoCD());
}

TEST(KQZipCentralDirectory, OneEntryWithANameOfFiveBytesMakesATotalOf177) {
  const Sources sources;
  TestOutputStream stream;
  const auto entry = sources.writtenEntry("a.txt", "hello", stream);
  const std::uint64_t start = 30 + 5 + 28 + 5;
  ASSERT_EQ(start, stream.bytes.size());

  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  ASSERT_NE(nullptr, directory);
  EXPECT_EQ(79U, directory->outputSize());
  expectNoRecords(*directory);
  stream.writes.clear();
  const LogCapture log;
  EXPECT_TRUE(directory->writeToStream(stream));
  EXPECT_EQ(hex(centralHeader("a.txt", "hello", 0) + EndRecords{1, 177, start, start + 79}.bytes()),
            hex(stream.bytes.substr(start)));
  EXPECT_EQ(177U, stream.bytes.size() - start);
  EXPECT_EQ(177U, directory->outputSize());
  EXPECT_EQ(joined(headerWidths(5), endRecordWidths), stream.writes);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipCentralDirectory, EntriesStandInTheOrderOfTheArrayWithTheirOwnOffsets) {
  const Sources sources;
  TestOutputStream stream;
  stream.startOffset = 5000;
  const auto first = sources.writtenEntry("first", "one", stream);
  const auto second = sources.writtenEntry("second.txt", "", stream);
  const auto third = sources.writtenEntry("dir/third", std::string(1000, '3'), stream);
  const std::uint64_t start = 5000 + stream.bytes.size();
  const std::string headers = centralHeader("dir/third", std::string(1000, '3'), 5000 + 66 + 68) +
                              centralHeader("first", "one", 5000) +
                              centralHeader("second.txt", "", 5000 + 66);
  EXPECT_EQ(hex(headers + EndRecords{3, headers.size() + 98, start, start + headers.size()}.bytes()),
            hex(writtenWith({third, first, second}, start)));
}

TEST(KQZipCentralDirectory, OffsetsFrom0xFFFFFFFFOnAreSaturatedInTheClassicRecordAlone) {
  for (const std::uint64_t start :
       {std::uint64_t{0xFFFFFFFD}, std::uint64_t{0xFFFFFFFE}, std::uint64_t{0xFFFFFFFF},
        std::uint64_t{0x100000000}, std::uint64_t{0x123456789ABC}}) {
    SCOPED_TRACE(start);
    KQZipCentralDirectory directory;
    directory.setFileHeaders({std::make_shared<FakeHeader>("header", 6)});
    const std::string bytes = written(directory, start);
    EXPECT_EQ(hex("header" + EndRecords{1, 104, start, start + 6}.bytes()), hex(bytes));
    EXPECT_EQ(start < 0xFFFFFFFF ? start : 0xFFFFFFFF, directory.zipEoCDRecord()->offsetOfCD());
    EXPECT_EQ(start, directory.zip64EoCDRecord()->offsetOfCD());
  }
}

TEST(KQZipCentralDirectory, SizesFrom0xFFFFFFFFOnAreSaturatedInTheClassicRecordAlone) {
  for (const std::uint64_t total :
       {std::uint64_t{0xFFFFFFFD}, std::uint64_t{0xFFFFFFFE}, std::uint64_t{0xFFFFFFFF},
        std::uint64_t{0x100000000}, std::uint64_t{0x123456789ABC}}) {
    SCOPED_TRACE(total);
    KQZipCentralDirectory directory;
    directory.setFileHeaders({std::make_shared<FakeHeader>("header", total - 98)});
    const std::string bytes = written(directory);
    EXPECT_EQ(hex("header" + EndRecords{1, total, 0, 6}.bytes()), hex(bytes));
    EXPECT_EQ(total < 0xFFFFFFFF ? total : 0xFFFFFFFF, directory.zipEoCDRecord()->sizeOfCD());
    EXPECT_EQ(total, directory.zip64EoCDRecord()->sizeOfCD());
  }
}

TEST(KQZipCentralDirectory, AStreamWithoutAnOffsetCountsAsStandingAtZero) {
  const Sources sources;
  TestOutputStream archive;
  const auto entry = sources.writtenEntry("a.txt", "hello", archive);
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  TestOutputStream stream;
  stream.startOffset = 1000;
  stream.hasOffset = false;
  EXPECT_TRUE(directory->writeToStream(stream));
  EXPECT_EQ(hex(centralHeader("a.txt", "hello", 0) + EndRecords{1, 177, 0, 0}.bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectory, CountsAreCutTo16BitsInTheClassicRecordAndWholeInTheZip64Record) {
  for (const std::uint64_t count : {65534U, 65535U, 65536U, 65537U}) {
    SCOPED_TRACE(count);
    KQZipCentralDirectory directory;
    directory.setFileHeaders(Headers(static_cast<std::size_t>(count), std::make_shared<FakeHeader>("x", 1)));
    const std::string bytes = written(directory);
    // The builder cuts its 16-bit fields as the record does.
    const std::string expected =
        std::string(static_cast<std::size_t>(count), 'x') + EndRecords{count, count + 98, 0, count}.bytes();
    EXPECT_TRUE(expected == bytes);
    EXPECT_EQ(count % 65536, directory.zipEoCDRecord()->entriesInCDOnThisDisk());
    EXPECT_EQ(count % 65536, directory.zipEoCDRecord()->entriesInCD());
    EXPECT_EQ(count, directory.zip64EoCDRecord()->entriesInCDOnThisDisk());
    EXPECT_EQ(count, directory.zip64EoCDRecord()->entriesInCD());
  }
}

TEST(KQZipCentralDirectory, With65536EntriesTheClassicCountsAreZero) {
  const Sources sources;
  TestOutputStream archive;
  // One local header stands for all, so that only the directory grows.
  const auto entry = sources.writtenEntry("a.txt", "hello", archive);
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries(Entries(65536, entry));
  EXPECT_EQ(65536U * 79U, directory->outputSize());
  TestOutputStream stream;
  stream.startOffset = 68;
  stream.writes.reserve(65536 * 21 + 22);
  EXPECT_TRUE(directory->writeToStream(stream));

  const std::string header = centralHeader("a.txt", "hello", 0);
  std::string expected;
  for (int i = 0; i < 65536; ++i) expected += header;
  expected += EndRecords{65536, 65536 * 79 + 98, 68, 68 + 65536 * 79}.bytes();
  EXPECT_TRUE(expected == stream.bytes);
  EXPECT_EQ(0, directory->zipEoCDRecord()->entriesInCD());
  EXPECT_EQ(65536U, directory->zip64EoCDRecord()->entriesInCD());
}

TEST(KQZipCentralDirectory, EndRecordsThatAreThereKeepWhatTheDirectoryDoesNotSet) {
  KQZipCentralDirectory directory;
  const auto classic = std::make_shared<KQZipEndOfCentralDirectoryRecord>();
  classic->setDiskNumber(1);
  classic->setDiskNumberContainingCD(2);
  classic->setEntriesInCDOnThisDisk(99);
  classic->setEntriesInCD(99);
  classic->setSizeOfCD(99);
  classic->setOffsetOfCD(99);
  classic->setZipFileComment("a comment");
  const auto zip64 = std::make_shared<KQZip64EndOfCentralDirectoryRecord>();
  zip64->setVersionMadeBy(3);
  zip64->setVersionNeeded(4);
  zip64->setDiskNumber(5);
  zip64->setDiskNumberContainingCD(6);
  zip64->setSize(99);
  zip64->setEntriesInCDOnThisDisk(99);
  zip64->setEntriesInCD(99);
  zip64->setSizeOfCD(99);
  zip64->setOffsetOfCD(99);
  const auto locator = std::make_shared<KQZip64EndOfCentralDirectoryLocator>();
  locator->setDiskNumberWithStartOfZip64EoCD(7);
  locator->setNumberOfDisks(8);
  locator->setOffsetOfZip64EoCD(99);
  directory.setZipEoCDRecord(classic);
  directory.setZip64EoCDRecord(zip64);
  directory.setZip64EoCDLocator(locator);
  directory.setFileHeaders({std::make_shared<FakeHeader>("header", 6)});

  const std::string expected = Bytes()
                                   .text("header")
                                   .u32(0x06064b50)
                                   .u64(44)
                                   .u16(3)
                                   .u16(4)
                                   .u32(5)
                                   .u32(6)
                                   .u64(1)
                                   .u64(1)
                                   .u64(113)
                                   .u64(1000)
                                   .u32(0x07064b50)
                                   .u32(7)
                                   .u64(1006)
                                   .u32(8)
                                   .u32(0x06054b50)
                                   .u16(1)
                                   .u16(2)
                                   .u16(1)
                                   .u16(1)
                                   .u32(113)
                                   .u32(1000)
                                   .u16(9)
                                   .text("a comment");
  EXPECT_EQ(hex(expected), hex(written(directory, 1000)));
  EXPECT_EQ(classic, directory.zipEoCDRecord());
  EXPECT_EQ(zip64, directory.zip64EoCDRecord());
  EXPECT_EQ(locator, directory.zip64EoCDLocator());
}

TEST(KQZipCentralDirectory, ADigitalSignatureIsWrittenWithoutASignatureBetweenHeadersAndEndRecords) {
  KQZipCentralDirectory directory;
  directory.setFileHeaders({std::make_shared<FakeHeader>("header", 6)});
  directory.setDigitalSignature(extraField(0x4142, "signed"));
  EXPECT_EQ(hex("header" + extraFieldBytes(0x4142, "signed") + EndRecords{1, 114, 50, 66}.bytes()),
            hex(written(directory, 50)));
}

TEST(KQZipCentralDirectory, TheTotalIsTakenBeforeTheHeadersArePrepared) {
  // Preparation gives a header the Zip64 field that it lacks, which is too late for this write's total.
  const Sources sources;
  sources.write("a.txt", "hello");
  const auto header = std::make_shared<KQZipCentralDirectoryFileHeader>();
  header->setSourceFilePath(sources.path("a.txt"));
  header->setFileName("a.txt");
  KQZipCentralDirectory directory;
  directory.setFileHeaders({header});
  EXPECT_EQ(51U, directory.outputSize());
  const std::string headerBytes = centralHeader("a.txt", "hello", 0);
  EXPECT_EQ(hex(headerBytes + EndRecords{1, 51 + 98, 10, 10 + 79}.bytes()), hex(written(directory, 10)));
  EXPECT_EQ(hex(headerBytes + EndRecords{1, 177, 10, 10 + 79}.bytes()), hex(written(directory, 10)));
}

TEST(KQZipCentralDirectory, WrittenTwiceToTwoStreamsEachGetsItsOwnOffsets) {
  const Sources sources;
  TestOutputStream archive;
  archive.startOffset = 7;
  const auto entry = sources.writtenEntry("a.txt", "hello", archive);
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  const std::string header = centralHeader("a.txt", "hello", 7);
  EXPECT_EQ(hex(header + EndRecords{1, 177, 0x100000000, 0x100000000 + 79}.bytes()),
            hex(written(*directory, 0x100000000)));
  const auto classic = directory->zipEoCDRecord();
  EXPECT_EQ(hex(header + EndRecords{1, 177, 75, 154}.bytes()), hex(written(*directory, 75)));
  EXPECT_EQ(classic, directory->zipEoCDRecord());
}

TEST(KQZipCentralDirectory, AHeaderThatFailsStopsTheWriteWithItsError) {
  const auto first = std::make_shared<FakeHeader>("first", 5);
  const auto second = std::make_shared<FakeHeader>("second", 6);
  const auto third = std::make_shared<FakeHeader>("third", 5);
  second->failure = earlierError();
  KQZipCentralDirectory directory;
  directory.setFileHeaders({first, second, third});
  directory.setDigitalSignature(extraField(1, "signed"));
  TestOutputStream stream;
  stream.startOffset = 40;
  Error error;
  EXPECT_FALSE(directory.writeToStream(stream, &error));
  EXPECT_EQ(second->failure, error);
  EXPECT_EQ("first", stream.bytes);
  EXPECT_EQ(Lengths{5}, stream.writes);
  EXPECT_EQ(0, third->writes);
  // The records made and updated for the write stay so; the locator was not reached.
  ASSERT_NE(nullptr, directory.zipEoCDRecord());
  EXPECT_EQ(3, directory.zipEoCDRecord()->entriesInCD());
  EXPECT_EQ(124U, directory.zipEoCDRecord()->sizeOfCD());
  EXPECT_EQ(40U, directory.zipEoCDRecord()->offsetOfCD());
  ASSERT_NE(nullptr, directory.zip64EoCDRecord());
  EXPECT_EQ(3U, directory.zip64EoCDRecord()->entriesInCD());
  EXPECT_EQ(40U, directory.zip64EoCDRecord()->offsetOfCD());
  ASSERT_NE(nullptr, directory.zip64EoCDLocator());
  EXPECT_EQ(0U, directory.zip64EoCDLocator()->offsetOfZip64EoCD());
  second->failure = nullptr;
  EXPECT_EQ(hex("firstsecondthird" + extraFieldBytes(1, "signed") + EndRecords{3, 124, 0, 26}.bytes()),
            hex(written(directory)));
}

TEST(KQZipCentralDirectory, EachFailingWriteStopsItUnlessItIsTheDataOfAnExtraField) {
  const Sources sources;
  TestOutputStream archive;
  const auto entry = sources.writtenEntry("a.txt", "hello", archive);
  const Lengths widths = joined(joined(headerWidths(5), {2, 2, 6}), endRecordWidths);
  const std::string headers = centralHeader("a.txt", "hello", 0) + extraFieldBytes(0x4142, "signed");
  const std::uint64_t start = 68;
  const std::string whole = headers + EndRecords{1, 187, start, start + 89}.bytes();
  ASSERT_EQ(whole.size(), KQTest::sumOfFirst(widths, widths.size()));

  for (std::size_t failing = 1; failing <= widths.size(); ++failing) {
    for (const std::int64_t result : {-1, 0}) {
      SCOPED_TRACE("write " + std::to_string(failing) + " returns " + std::to_string(result));
      const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
      directory->setDigitalSignature(extraField(0x4142, "signed"));
      const LogCapture log;
      TestOutputStream stream;
      stream.startOffset = start;
      stream.failAtWrite = static_cast<std::int64_t>(failing);
      stream.failResult = result;
      Error error;
      const std::size_t before = KQTest::sumOfFirst(widths, failing - 1);
      const bool isDataOfField = failing == 21 || failing == 24;
      EXPECT_EQ(isDataOfField, directory->writeToStream(stream, &error));

      if (isDataOfField) {
        const std::uint64_t missing = widths[failing - 1];
        std::string expected = headers;
        expected.erase(before, static_cast<std::size_t>(missing));
        EXPECT_EQ(hex(expected + EndRecords{1, 187, start, start + expected.size()}.bytes()),
                  hex(stream.bytes));
        EXPECT_EQ(widths, stream.writes);
      } else {
        EXPECT_EQ(hex(whole.substr(0, before)), hex(stream.bytes));
        EXPECT_EQ(failing, stream.writes.size());
        EXPECT_EQ(failing > 24 ? start + 89 : 0, directory->zip64EoCDLocator()->offsetOfZip64EoCD());
      }
      EXPECT_EQ(1, directory->zipEoCDRecord()->entriesInCD());
      EXPECT_EQ(187U, directory->zip64EoCDRecord()->sizeOfCD());
      if (result == 0) {
        EXPECT_EQ(nullptr, error);
        EXPECT_EQ(Lines(), log.lines());
      } else {
        expectKQZipError(error, -51, "Error writing file");
        EXPECT_EQ(KQTest::writingFailedLine(error), log.lines());
      }
    }
  }
}

TEST(KQZipCentralDirectory, AStreamThatKeepsFailingIsNoticedBehindTheDataOfAnExtraField) {
  KQZipCentralDirectory directory;
  directory.setDigitalSignature(extraField(0x4142, "signed"));
  TestOutputStream stream;
  stream.failAtWrite = 3;
  stream.failForGood = true;
  const LogCapture log;
  Error error;
  EXPECT_FALSE(directory.writeToStream(stream, &error));
  EXPECT_EQ((Lengths{2, 2, 6, 4}), stream.writes);
  expectKQZipError(error, -51, "Error writing file");
}

TEST(KQZipCentralDirectory, APartialWriteIsASuccessAndCountsInTheLocator) {
  KQZipCentralDirectory directory;
  directory.setFileHeaders({std::make_shared<FakeHeader>("header", 6)});
  TestOutputStream stream;
  stream.shortenAtWrite = 1;
  EXPECT_TRUE(directory.writeToStream(stream));
  EXPECT_EQ(hex("h" + EndRecords{1, 104, 0, 1}.bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectory, AHeaderWithoutASourceFailsInItsPreparation) {
  const auto header = std::make_shared<KQZipCentralDirectoryFileHeader>();
  header->setFileName("name");
  KQZipCentralDirectory directory;
  directory.setFileHeaders({header});
  const LogCapture log;
  TestOutputStream stream;
  Error error;
  EXPECT_FALSE(directory.writeToStream(stream, &error));
  expectKQZipError(error, -50, "Source file doesn't exist: (null)");
  EXPECT_EQ(Lengths(), stream.writes);
  EXPECT_FALSE(directory.writeToStream(stream));
  EXPECT_EQ(Lengths(), stream.writes);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipCentralDirectory, AParsedDirectoryCannotBeWritten) {
  const Sources sources;
  TestOutputStream archive;
  const std::string bytes = writtenWith({sources.writtenEntry("a.txt", "hello", archive)}, 68);
  TestInputStream input(bytes);
  const auto directory = KQZipCentralDirectory::initWithStream(input);
  ASSERT_NE(nullptr, directory);
  EXPECT_EQ(177U, directory->outputSize());
  TestOutputStream output;
  output.startOffset = 3;
  Error error;
  EXPECT_FALSE(directory->writeToStream(output, &error));
  expectKQZipError(error, -50, "Source file doesn't exist: (null)");
  EXPECT_EQ(Lengths(), output.writes);
  EXPECT_EQ(3U, directory->zipEoCDRecord()->offsetOfCD());
  EXPECT_EQ(68U + 79U, directory->zip64EoCDLocator()->offsetOfZip64EoCD());
}

TEST(KQZipCentralDirectory, AParsedDirectoryWithoutHeadersIsWrittenAnew) {
  TestInputStream input(EndRecords{9, 99, 999, 9999, "comment"}.bytes());
  const auto directory = KQZipCentralDirectory::initWithStream(input);
  ASSERT_NE(nullptr, directory);
  EXPECT_EQ(hex(EndRecords{0, 105, 20, 20, "comment"}.bytes()), hex(written(*directory, 20)));
}

TEST(KQZipCentralDirectory, ItReportsNoProgress) {
  const Sources sources;
  TestOutputStream archive;
  const auto entry = sources.writtenEntry("a.txt", "hello", archive);
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(10);
  progress->becomeCurrentWithPendingUnitCount(10);
  const std::string bytes = writtenWith({entry});
  TestInputStream input(bytes);
  EXPECT_NE(nullptr, KQZipCentralDirectory::initWithStream(input));
  EXPECT_EQ(progress, KQ::NSProgress::currentProgress());
  progress->resignCurrent();
  // A progress made in between would have been settled into this one.
  EXPECT_EQ(0, progress->completedUnitCount());
}

// Building from entries.

TEST(KQZipCentralDirectory, WithoutEntriesItIsEmpty) {
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({});
  ASSERT_NE(nullptr, directory);
  expectNoRecords(*directory);
  EXPECT_EQ(0U, directory->outputSize());
  EXPECT_EQ(hex(EndRecords().bytes()), hex(written(*directory)));
}

TEST(KQZipCentralDirectory, AnEntryThatLacksAttributesAndCrcGetsThem) {
  const Sources sources;
  const auto entry = sources.entry("a.txt", "hello");
  const LogCapture log;
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  EXPECT_EQ(crcOf("hello"), entry->crc32());
  EXPECT_EQ(5U, entry->sourceFileSize());
  EXPECT_EQ(sourceTimeField, entry->modTime());
  EXPECT_EQ(sourceDateField, entry->modDate());
  EXPECT_FALSE(entry->needsToCalculateCRC());
  EXPECT_FALSE(entry->needsToUpdateAttributesFromSourceFile());
  EXPECT_EQ(nullptr, entry->centralDirectoryHeader());
  EXPECT_EQ(hex(centralHeader("a.txt", "hello", 0) + EndRecords{1, 177, 68, 147}.bytes()),
            hex(written(*directory, 68)));
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipCentralDirectory, EachEntryIsAskedOnlyForWhatItLacks) {
  struct Case {
    const char* what;
    std::function<void(NotingEntry&)> prepare;
    Lines expected;
  };
  const std::vector<Case> cases{
      {"everything is missing", [](NotingEntry&) {}, {"attributes of a", "CRC of a"}},
      {"the date is missing",
       [](NotingEntry& entry) { entry.updateFileSize(); },
       {"attributes of a", "CRC of a"}},
      {"the size is missing",
       [](NotingEntry& entry) { entry.updateModificationDate(); },
       {"attributes of a", "CRC of a"}},
      {"the CRC is missing",
       [](NotingEntry& entry) { entry.updateAttributesFromSourceFile(); },
       {"CRC of a"}},
      {"the attributes are missing", [](NotingEntry& entry) { entry.setCrc32(1); }, {"attributes of a"}},
      {"nothing is missing",
       [](NotingEntry& entry) {
         entry.setCrc32(1);
         entry.updateAttributesFromSourceFile();
       },
       {}},
  };
  const Sources sources;
  sources.write("a", "hello");
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    Lines calls;
    const auto entry = std::make_shared<NotingEntry>(sources.path("a"), "a", calls);
    each.prepare(*entry);
    calls.clear();
    KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
    EXPECT_EQ(each.expected, calls);
    calls.clear();
    KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
    EXPECT_EQ(Lines(), calls);
  }
}

TEST(KQZipCentralDirectory, EntriesAreBroughtUpToDateOneAfterTheOther) {
  const Sources sources;
  sources.write("a", "hello");
  sources.write("b", "world");
  Lines calls;
  const auto b = std::make_shared<NotingEntry>(sources.path("b"), "b", calls);
  const auto a = std::make_shared<NotingEntry>(sources.path("a"), "a", calls);
  KQZipCentralDirectory::centralDirectoryWithFileEntries({b, a, b});
  EXPECT_EQ((Lines{"attributes of b", "CRC of b", "attributes of a", "CRC of a"}), calls);
}

TEST(KQZipCentralDirectory, ACrcThatCannotBeCalculatedIsPassedOver) {
  const Sources sources;
  sources.write("a.txt", "hello");
  Lines calls;
  const auto entry = std::make_shared<NotingEntry>(sources.path("a.txt"), "a.txt", calls);
  entry->refusesCRC = true;
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  ASSERT_NE(nullptr, directory);
  EXPECT_TRUE(entry->needsToCalculateCRC());
  CentralHeaderFields expected = centralFields("a.txt", "hello", 0);
  expected.crc32 = 0;  // as far as the central header knows it was calculated
  // Without a Zip64 field in the local header the total is short by the one that preparation adds.
  EXPECT_EQ(hex(expected.bytes() + EndRecords{1, 149, 0, 79}.bytes()), hex(written(*directory)));
  EXPECT_EQ((Lines{"attributes of a.txt", "CRC of a.txt"}), calls);
}

TEST(KQZipCentralDirectory, AnEntryWhoseSourceIsGoneIsLoggedAndGetsAHeader) {
  const Sources sources;
  const auto entry = sources.entry("a.txt", "hello");
  const std::string path = sources.path("a.txt");
  std::filesystem::remove(path);
  const LogCapture log;
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  ASSERT_NE(nullptr, directory);
  EXPECT_EQ((Lines{"failed to get attributes for " + path,
                   "failed to calculate crc: failed to open stream at " + path}),
            log.lines());
  EXPECT_TRUE(entry->needsToCalculateCRC());
  EXPECT_TRUE(entry->needsToUpdateAttributesFromSourceFile());
  EXPECT_EQ(79U, directory->outputSize());
}

TEST(KQZipCentralDirectory, ASourceThatChangedAfterItsEntryWasWrittenGivesTheOldCrcAndTheNewAttributes) {
  const Sources sources;
  TestOutputStream stream;
  const auto entry = sources.writtenEntry("a.txt", "hello", stream);
  sources.write("a.txt", "hello, world", sourceDate + 86400 + 3600 - 10);
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  EXPECT_EQ(crcOf("hello"), entry->crc32());
  EXPECT_EQ(5U, entry->sourceFileSize());
  EXPECT_EQ(sourceTimeField, entry->modTime());

  CentralHeaderFields expected = centralFields("a.txt", "hello", 0);
  expected.modTime = KQTest::dosTime(0, 31, 20);
  expected.modDate = KQTest::dosDate(2009, 2, 15);
  expected.extra = zip64FieldBytes(12, 12, 0);
  EXPECT_EQ(hex(expected.bytes() + EndRecords{1, 177, 68, 147}.bytes()), hex(written(*directory, 68)));
}

TEST(KQZipCentralDirectory, ASourceThatVanishedAfterItsEntryWasWrittenIsFirstMissedByTheWrite) {
  const Sources sources;
  TestOutputStream stream;
  const auto entry = sources.writtenEntry("a.txt", "hello", stream);
  const std::string path = sources.path("a.txt");
  std::filesystem::remove(path);
  const LogCapture log;
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  EXPECT_EQ(Lines(), log.lines());
  // The size of the source is not copied from the local header, so none is known.
  CentralHeaderFields expected = centralFields("a.txt", "hello", 0);
  expected.extra = zip64FieldBytes(0, 0, 0);
  EXPECT_EQ(hex(expected.bytes() + EndRecords{1, 177, 68, 147}.bytes()), hex(written(*directory, 68)));
  EXPECT_EQ(Lines{"failed to get attributes for " + path}, log.lines());
}

TEST(KQZipCentralDirectory, HeadersAreLinkedWeaklyToTheirEntries) {
  const Sources sources;
  TestOutputStream stream;
  stream.startOffset = 500;
  auto entry = sources.writtenEntry("a.txt", "hello", stream);
  const std::weak_ptr<KQZipFileLocalHeader> link = entry;
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  EXPECT_EQ(hex(centralHeader("a.txt", "hello", 500)), hex(written(*directory).substr(0, 79)));
  entry.reset();
  EXPECT_TRUE(link.expired());
  EXPECT_EQ(hex(centralHeader("a.txt", "hello", 0)), hex(written(*directory).substr(0, 79)));
}

TEST(KQZipCentralDirectory, OffsetsAreTakenFromTheEntriesWhenItIsWrittenAndNamesWhenItIsMade) {
  const Sources sources;
  TestOutputStream stream;
  const auto entry = sources.writtenEntry("a.txt", "hello", stream);
  const auto directory = KQZipCentralDirectory::centralDirectoryWithFileEntries({entry});
  entry->setRelativePath("other");
  entry->setCrc32(7);
  for (const std::uint64_t offset : {std::uint64_t{0xFFFFFFFE}, std::uint64_t{0xFFFFFFFF},
                                     std::uint64_t{0x100000000}, std::uint64_t{0x123456789ABC}}) {
    SCOPED_TRACE(offset);
    entry->setOffset(offset);
    EXPECT_EQ(hex(centralHeader("a.txt", "hello", offset)), hex(written(*directory).substr(0, 79)));
  }
}

// Parsing.

TEST(KQZipCentralDirectory, TheEndOfTheStreamIsAnEmptyDirectory) {
  const LogCapture log;
  TestInputStream stream{std::string()};
  const Error earlier = earlierError();
  Error error = earlier;
  const auto directory = KQZipCentralDirectory::initWithStream(stream, &error);
  ASSERT_NE(nullptr, directory);
  expectNoRecords(*directory);
  EXPECT_EQ(0U, directory->outputSize());
  EXPECT_EQ(Lengths{4}, stream.reads);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipCentralDirectory, AnErrorOfTheStreamBetweenRecordsIsASuccessThatNobodyHearsOf) {
  for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
    SCOPED_TRACE(KQTest::nameOf(slot));
    const LogCapture log;
    const Error earlier = slot == Slot::filled ? earlierError() : nullptr;
    Error error = earlier;
    KQ::NSErrorSlot errorSlot = slot == Slot::none ? nullptr : &error;
    TestInputStream failing(classicRecord());
    failing.failAtRead = 1;
    const auto empty = KQZipCentralDirectory::initWithStream(failing, errorSlot);
    ASSERT_NE(nullptr, empty);
    expectNoRecords(*empty);
    EXPECT_EQ(Lengths{4}, failing.reads);

    TestInputStream failingLater(std::string(4, 'x') + classicRecord() + "more");
    failingLater.failAtRead = 10;
    const auto directory = KQZipCentralDirectory::initWithStream(failingLater, errorSlot);
    ASSERT_NE(nullptr, directory);
    ASSERT_NE(nullptr, directory->zipEoCDRecord());
    EXPECT_EQ(7, directory->zipEoCDRecord()->entriesInCD());
    EXPECT_EQ((Lengths{4, 4, 2, 2, 2, 2, 4, 4, 2, 4}), failingLater.reads);
    EXPECT_EQ(earlier, error);
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipCentralDirectory, ItFindsEveryKindOfRecord) {
  const std::string headers = centralHeader("a.txt", "hello", 0) + centralHeader("second", "", 68);
  const std::string signature = Bytes().u32(0x05054b50).text(extraFieldBytes(0x4142, "signed!"));
  EndRecords records{2, 99, 999, 9999, "comment"};
  const LogCapture log;
  TestInputStream stream(headers + signature + records.bytes());
  const Error earlier = earlierError();
  Error error = earlier;
  const auto directory = KQZipCentralDirectory::initWithStream(stream, &error);
  ASSERT_NE(nullptr, directory);
  ASSERT_NE(nullptr, directory->digitalSignature());
  EXPECT_EQ(0x4142, directory->digitalSignature()->fieldSignature());
  EXPECT_EQ(7, directory->digitalSignature()->fieldSize());
  EXPECT_EQ("signed!", contentsOf(directory->digitalSignature()->fieldData()));
  ASSERT_NE(nullptr, directory->zip64EoCDRecord());
  EXPECT_EQ(2U, directory->zip64EoCDRecord()->entriesInCD());
  EXPECT_EQ(99U, directory->zip64EoCDRecord()->sizeOfCD());
  EXPECT_EQ(999U, directory->zip64EoCDRecord()->offsetOfCD());
  ASSERT_NE(nullptr, directory->zip64EoCDLocator());
  EXPECT_EQ(9999U, directory->zip64EoCDLocator()->offsetOfZip64EoCD());
  ASSERT_NE(nullptr, directory->zipEoCDRecord());
  EXPECT_EQ(2, directory->zipEoCDRecord()->entriesInCD());
  EXPECT_EQ("comment", directory->zipEoCDRecord()->zipFileComment());
  EXPECT_EQ(79U + 80U + 11U + 105U, directory->outputSize());
  EXPECT_EQ(headers.size() + signature.size() + 105, stream.position);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipCentralDirectory, ItReadsBackFromAFileWhatItWrote) {
  const Sources sources;
  const KQTest::TemporaryDirectory folder;
  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(folder / "archive.zip");
  output->open();
  const auto entry = sources.entry("a.txt", "hello");
  EXPECT_TRUE(entry->writeToStream(*output));
  EXPECT_TRUE(KQZipCentralDirectory::centralDirectoryWithFileEntries({entry})->writeToStream(*output));
  output->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, output->streamStatus());
  EXPECT_EQ(hex(centralHeader("a.txt", "hello", 0) + EndRecords{1, 177, 68, 147}.bytes()),
            hex(KQTest::readFile(folder / "archive.zip").substr(68)));

  const auto input = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "archive.zip");
  ASSERT_NE(nullptr, input);
  input->open();
  ASSERT_TRUE(input->setNSStreamFileCurrentOffsetKey(68));
  const auto directory = KQZipCentralDirectory::initWithStream(*input);
  ASSERT_NE(nullptr, directory);
  EXPECT_EQ(177U, directory->outputSize());
  ASSERT_NE(nullptr, directory->zip64EoCDRecord());
  EXPECT_EQ(68U, directory->zip64EoCDRecord()->offsetOfCD());
  ASSERT_NE(nullptr, directory->zip64EoCDLocator());
  EXPECT_EQ(147U, directory->zip64EoCDLocator()->offsetOfZip64EoCD());
  ASSERT_NE(nullptr, directory->zipEoCDRecord());
  EXPECT_EQ(177U, directory->zipEoCDRecord()->sizeOfCD());
}

TEST(KQZipCentralDirectory, UnknownValuesOfFourBytesAreIgnored) {
  TestInputStream stream(std::string(8, '\0') + classicRecord() + "junk" + classicRecord(8));
  const auto directory = KQZipCentralDirectory::initWithStream(stream);
  ASSERT_NE(nullptr, directory);
  ASSERT_NE(nullptr, directory->zipEoCDRecord());
  EXPECT_EQ(8, directory->zipEoCDRecord()->entriesInCD());
  EXPECT_EQ((Lengths{4, 4, 4, 2, 2, 2, 2, 4, 4, 2, 4, 4, 2, 2, 2, 2, 4, 4, 2, 4}), stream.reads);
}

TEST(KQZipCentralDirectory, BehindUnknownBytesARecordIsFoundOnlyOnTheGridOfFour) {
  for (std::size_t length = 0; length <= 12; ++length) {
    SCOPED_TRACE(length);
    const LogCapture log;
    TestInputStream stream(std::string(length, 'x') + classicRecord());
    Error error;
    const auto directory = KQZipCentralDirectory::initWithStream(stream, &error);
    ASSERT_NE(nullptr, directory);
    EXPECT_EQ(length % 4 == 0, directory->zipEoCDRecord() != nullptr);
    EXPECT_EQ(length + 22, stream.position);
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipCentralDirectory, BehindARecordOfAnyLengthTheGridStartsAnew) {
  for (std::size_t length = 0; length <= 5; ++length) {
    SCOPED_TRACE(length);
    TestInputStream stream(classicRecord(7, std::string(length, 'c')) + EndRecords().locator());
    const auto directory = KQZipCentralDirectory::initWithStream(stream);
    ASSERT_NE(nullptr, directory);
    EXPECT_NE(nullptr, directory->zipEoCDRecord());
    EXPECT_NE(nullptr, directory->zip64EoCDLocator());
  }
}

TEST(KQZipCentralDirectory, AValueInUnknownBytesThatEqualsASignatureIsTakenForARecord) {
  TestInputStream stream("junkjunk" + classicRecord() + "junk" + std::string("PK\x06\x07") +
                         "not a locator at" + EndRecords().zip64Record());
  const auto directory = KQZipCentralDirectory::initWithStream(stream);
  ASSERT_NE(nullptr, directory);
  ASSERT_NE(nullptr, directory->zip64EoCDLocator());
  EXPECT_EQ(0x20746F6EU, directory->zip64EoCDLocator()->diskNumberWithStartOfZip64EoCD());
  EXPECT_EQ(0x74612072U, directory->zip64EoCDLocator()->numberOfDisks());
  EXPECT_NE(nullptr, directory->zip64EoCDRecord());
}

TEST(KQZipCentralDirectory, ALargerZip64RecordLeavesItsExtraBytesToTheGrid) {
  const std::string record = EndRecords().zip64Record();
  for (const std::size_t extra : {4U, 6U}) {
    SCOPED_TRACE(extra);
    std::string larger = record;
    larger[4] = static_cast<char>(44 + extra);
    TestInputStream stream(larger + std::string(extra, 'x') + EndRecords().locator());
    const auto directory = KQZipCentralDirectory::initWithStream(stream);
    ASSERT_NE(nullptr, directory);
    ASSERT_NE(nullptr, directory->zip64EoCDRecord());
    EXPECT_EQ(44 + extra, directory->zip64EoCDRecord()->size());
    EXPECT_EQ(extra == 4, directory->zip64EoCDLocator() != nullptr);
  }
}

TEST(KQZipCentralDirectory, ALaterRecordOfAKindReplacesTheEarlierOne) {
  const auto all = [](std::uint64_t value) {
    EndRecords records{value, value, value, value};
    return std::string(Bytes().u32(0x05054b50).text(extraFieldBytes(9, std::string(value, 's')))) +
           records.bytes();
  };
  TestInputStream stream(all(3) + all(4));
  const auto directory = KQZipCentralDirectory::initWithStream(stream);
  ASSERT_NE(nullptr, directory);
  EXPECT_EQ("ssss", contentsOf(directory->digitalSignature()->fieldData()));
  EXPECT_EQ(4U, directory->zip64EoCDRecord()->entriesInCD());
  EXPECT_EQ(4U, directory->zip64EoCDLocator()->offsetOfZip64EoCD());
  EXPECT_EQ(4, directory->zipEoCDRecord()->entriesInCD());
  EXPECT_EQ(8U + 98U, directory->outputSize());
}

TEST(KQZipCentralDirectory, AParseLeavesRecordsThatItDoesNotFindAlone) {
  KQZipCentralDirectory directory;
  const auto locator = std::make_shared<KQZip64EndOfCentralDirectoryLocator>();
  const auto earlier = std::make_shared<KQZipEndOfCentralDirectoryRecord>();
  directory.setZip64EoCDLocator(locator);
  directory.setZipEoCDRecord(earlier);
  TestInputStream stream(classicRecord());
  EXPECT_TRUE(directory.parseFromStream(stream));
  EXPECT_EQ(locator, directory.zip64EoCDLocator());
  EXPECT_NE(earlier, directory.zipEoCDRecord());
}

TEST(KQZipCentralDirectory, ADigitalSignatureWithASizeInFrontIsReadOneFieldLate) {
  // Behind the signature the format has a size and data; they are read as id, size and data.
  TestInputStream stream(
      Bytes().u32(0x05054b50).u16(4).text(std::string("\x02\0CD", 4)).text(classicRecord()));
  const auto directory = KQZipCentralDirectory::initWithStream(stream);
  ASSERT_NE(nullptr, directory);
  ASSERT_NE(nullptr, directory->digitalSignature());
  EXPECT_EQ(4, directory->digitalSignature()->fieldSignature());
  EXPECT_EQ(2, directory->digitalSignature()->fieldSize());
  EXPECT_EQ("CD", contentsOf(directory->digitalSignature()->fieldData()));
  EXPECT_NE(nullptr, directory->zipEoCDRecord());
}

TEST(KQZipCentralDirectory, ADigitalSignatureOfOtherProgramsSwallowsWhatItsFirstDataBytesAnnounce) {
  TestInputStream stream(Bytes().u32(0x05054b50).u16(6).text("ABCDEF").text(classicRecord()));
  const auto directory = KQZipCentralDirectory::initWithStream(stream);
  ASSERT_NE(nullptr, directory);
  ASSERT_NE(nullptr, directory->digitalSignature());
  EXPECT_EQ(6, directory->digitalSignature()->fieldSignature());
  EXPECT_EQ(0x4241, directory->digitalSignature()->fieldSize());
  EXPECT_EQ("CDEF" + classicRecord() + std::string(0x4241 - 4 - 22, '\0'),
            contentsOf(directory->digitalSignature()->fieldData()));
  EXPECT_EQ(nullptr, directory->zipEoCDRecord());
}

TEST(KQZipCentralDirectory, ADigitalSignatureWithTheId1IsAZip64Field) {
  TestInputStream stream(Bytes().u32(0x05054b50).text(extraFieldBytes(1, std::string(8, '\x07'))));
  const auto directory = KQZipCentralDirectory::initWithStream(stream);
  ASSERT_NE(nullptr, directory);
  const auto field =
      std::dynamic_pointer_cast<KQZipExtraFieldZip64ExtendedInfo>(directory->digitalSignature());
  ASSERT_NE(nullptr, field);
  EXPECT_EQ(0x0707070707070707U, field->uncompressedSize());
  EXPECT_EQ(28U, directory->outputSize());
  EXPECT_EQ(hex(zip64FieldBytes(0x0707070707070707, 0, 0) + EndRecords{0, 126, 0, 28}.bytes()),
            hex(written(*directory)));
}

TEST(KQZipCentralDirectory, BehindTheSignatureOfAFirstHeaderItsBytesAreScannedAndTheRestIsFoundOnTheGrid) {
  // A name of n bytes leaves 74 + n bytes of the first header, and the second header or the end records are
  // found where that is a multiple of four.
  for (std::size_t nameLength = 1; nameLength <= 8; ++nameLength) {
    SCOPED_TRACE(nameLength);
    const std::string first = centralHeader(std::string(nameLength, 'n'), "hello", 0);
    const bool onTheGrid = (first.size() - 4) % 4 == 0;
    EXPECT_EQ(nameLength == 2 || nameLength == 6, onTheGrid);
    const EndRecords records{1, 177, 68, 147};

    TestInputStream one(first + records.bytes());
    one.position = 4;
    const auto directoryOfOne = KQZipCentralDirectory::initWithStream(one);
    ASSERT_NE(nullptr, directoryOfOne);
    EXPECT_EQ(onTheGrid ? 98U : 0U, directoryOfOne->outputSize());
    EXPECT_EQ(onTheGrid, directoryOfOne->zipEoCDRecord() != nullptr);

    TestInputStream two(first + centralHeader("second", "world", 68) + records.bytes());
    two.position = 4;
    const auto directoryOfTwo = KQZipCentralDirectory::initWithStream(two);
    ASSERT_NE(nullptr, directoryOfTwo);
    EXPECT_EQ(onTheGrid ? 80U + 98U : 0U, directoryOfTwo->outputSize());
  }
}

// The final bytes of a stream that are no whole word.

TEST(KQZipCentralDirectory, AFewLeftBytesAreASuccessUnlessTheyCompleteASignature) {
  for (const std::string& left : {std::string("x"), std::string("xy"), std::string("xyz"), std::string("PX"),
                                  std::string("PKX"), std::string("P")}) {
    SCOPED_TRACE(left);
    const LogCapture log;
    TestInputStream stream("junk" + left);
    Error error;
    EXPECT_NE(nullptr, KQZipCentralDirectory::initWithStream(stream, &error));
    EXPECT_EQ((Lengths{4, 4, 4}), stream.reads);
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(Lines(), log.lines());
    TestInputStream alone(left);
    EXPECT_NE(nullptr, KQZipCentralDirectory::initWithStream(alone, &error));
    EXPECT_EQ((Lengths{4, 4}), alone.reads);
  }
}

TEST(KQZipCentralDirectory, LeftBytesLandInFrontOfTheOldOnesAndMayCompleteASignature) {
  const std::array<std::string, 5> signatures{"PK\x01\x02", "PK\x05\x05", "PK\x05\x06", "PK\x06\x06",
                                              "PK\x06\x07"};
  for (const std::string& signature : signatures) {
    for (std::size_t left = 1; left <= 3; ++left) {
      SCOPED_TRACE(hex(signature) + "with " + std::to_string(left) + " left");
      const LogCapture log;
      TestInputStream stream(std::string(left, 'x') + signature.substr(left) + signature.substr(0, left));
      Error error;
      // The record that they announce cannot be read at the end of the stream.
      EXPECT_EQ(nullptr, KQZipCentralDirectory::initWithStream(stream, &error));
      EXPECT_EQ((Lengths{4, 4, 2}).size(), stream.reads.size());
      EXPECT_EQ(nullptr, error);
      EXPECT_EQ(signature == signatures[0]
                    ? Lines{"Failed to parse KQZipCentralDirectoryFileHeader from stream: (null)"}
                    : Lines(),
                log.lines());
    }
  }
}

TEST(KQZipCentralDirectory, LeftBytesBehindARecordMayRepeatItsSignature) {
  for (const std::string& left : {std::string("P"), std::string("PK"), std::string("PK\x05")}) {
    SCOPED_TRACE(hex(left));
    KQZipCentralDirectory directory;
    TestInputStream stream(classicRecord() + left);
    EXPECT_FALSE(directory.parseFromStream(stream));
    EXPECT_EQ(nullptr, directory.zipEoCDRecord());
  }
  for (const std::string& left : {std::string("p"), std::string("Pk"), std::string("PK\x07")}) {
    SCOPED_TRACE(hex(left));
    KQZipCentralDirectory directory;
    TestInputStream stream(classicRecord() + left);
    EXPECT_TRUE(directory.parseFromStream(stream));
    EXPECT_NE(nullptr, directory.zipEoCDRecord());
  }
}

TEST(KQZipCentralDirectory, LeftBytesBehindAClassicRecordMayAnnounceAZip64Record) {
  KQZipCentralDirectory directory;
  TestInputStream stream(EndRecords().bytes() + "PK\x06");
  EXPECT_FALSE(directory.parseFromStream(stream));
  EXPECT_NE(nullptr, directory.zipEoCDRecord());
  EXPECT_EQ(nullptr, directory.zip64EoCDRecord());
}

TEST(KQZipCentralDirectory, AShortReadInTheMiddleIsTakenForAWordToo) {
  // The second read delivers one byte, which completes the signature of a record that the stream does hold.
  TestInputStream stream("xK\x05\x06P" + classicRecord(9).substr(4));
  stream.beforeRead = [&stream](std::size_t number) { stream.longestRead = number == 2 ? 1 : UINT64_MAX; };
  const auto directory = KQZipCentralDirectory::initWithStream(stream);
  ASSERT_NE(nullptr, directory);
  ASSERT_NE(nullptr, directory->zipEoCDRecord());
  EXPECT_EQ(9, directory->zipEoCDRecord()->entriesInCD());
}

// Records that cannot be parsed.

TEST(KQZipCentralDirectory, EachFailingReadOfARecordFailsTheParseWithItsError) {
  struct Case {
    const char* what;
    std::string bytes;
    std::size_t reads;  // the signature's included
  };
  const EndRecords records{1, 2, 3, 4, "comment"};
  const std::vector<Case> cases{
      {"central header", centralHeader("a.txt", "hello", 0), 22},
      {"digital signature", Bytes().u32(0x05054b50).text(extraFieldBytes(9, "signed")), 5},
      {"classic record", records.classicRecord(), 9},
      {"Zip64 record", records.zip64Record(), 10},
      {"locator", records.locator(), 4},
  };
  for (const Case& each : cases) {
    const bool isHeader = each.bytes[2] == 1;
    for (std::size_t failing = 2; failing <= each.reads; ++failing) {
      for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
        SCOPED_TRACE(std::string(each.what) + ", read " + std::to_string(failing) + ", " +
                     KQTest::nameOf(slot));
        const LogCapture log;
        TestInputStream stream(each.bytes + records.bytes());
        stream.failAtRead = static_cast<std::int64_t>(failing);
        Error error = slot == Slot::filled ? earlierError() : nullptr;
        EXPECT_EQ(nullptr,
                  KQZipCentralDirectory::initWithStream(stream, slot == Slot::none ? nullptr : &error));
        EXPECT_EQ(failing, stream.reads.size());
        if (slot == Slot::filled)
          expectKQZipError(error, -50, "Error reading file");
        else
          EXPECT_EQ(nullptr, error);
        Lines expected = KQTest::readingFailedLine(error);
        if (isHeader)
          expected.push_back("Failed to parse KQZipCentralDirectoryFileHeader from stream: " +
                             KQTest::describe(error));
        EXPECT_EQ(expected, log.lines());
      }
    }
    // The number of reads given above is right: the next one is that of another signature.
    TestInputStream whole(each.bytes);
    EXPECT_NE(nullptr, KQZipCentralDirectory::initWithStream(whole)) << each.what;
    EXPECT_EQ(each.reads + 1, whole.reads.size()) << each.what;
  }
}

TEST(KQZipCentralDirectory, AStreamThatEndsBehindASignatureFailsTheParseWithoutAnError) {
  for (const char* signature : {"PK\x05\x05", "PK\x05\x06", "PK\x06\x06", "PK\x06\x07"}) {
    SCOPED_TRACE(hex(signature));
    const LogCapture log;
    const Error earlier = earlierError();
    Error error = earlier;
    TestInputStream stream(signature);
    EXPECT_EQ(nullptr, KQZipCentralDirectory::initWithStream(stream, &error));
    EXPECT_EQ(earlier, error);
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipCentralDirectory, ARecordThatCannotBeParsedEmptiesItsPropertyAndLeavesTheOthers) {
  const EndRecords records{1, 2, 3, 4};
  const std::string all =
      std::string(Bytes().u32(0x05054b50).text(extraFieldBytes(9, "signed"))) + records.bytes();
  for (const char* signature : {"PK\x05\x05", "PK\x05\x06", "PK\x06\x06", "PK\x06\x07"}) {
    SCOPED_TRACE(hex(signature));
    KQZipCentralDirectory directory;
    TestInputStream stream(all + signature);
    EXPECT_FALSE(directory.parseFromStream(stream));
    const std::string text(signature);
    EXPECT_EQ(text == "PK\x05\x05", directory.digitalSignature() == nullptr);
    EXPECT_EQ(text == "PK\x05\x06", directory.zipEoCDRecord() == nullptr);
    EXPECT_EQ(text == "PK\x06\x06", directory.zip64EoCDRecord() == nullptr);
    EXPECT_EQ(text == "PK\x06\x07", directory.zip64EoCDLocator() == nullptr);
  }
}

TEST(KQZipCentralDirectory, ACompressedEntryFailsTheParseAndKeepsWhatWasFoundBefore) {
  CentralHeaderFields compressed = centralFields("second", "", 68);
  compressed.compression = 8;
  const std::string bytes =
      centralHeader("a.txt", "hello", 0) + classicRecord() + compressed.bytes() + EndRecords().locator();
  for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
    SCOPED_TRACE(KQTest::nameOf(slot));
    const LogCapture log;
    Error error = slot == Slot::filled ? earlierError() : nullptr;
    KQZipCentralDirectory directory;
    TestInputStream stream(bytes);
    EXPECT_FALSE(directory.parseFromStream(stream, slot == Slot::none ? nullptr : &error));
    if (slot != Slot::none) expectKQZipError(error, -101, "File uses unsupported compression method.");
    EXPECT_EQ(
        Lines{"Failed to parse KQZipCentralDirectoryFileHeader from stream: " + KQTest::describe(error)},
        log.lines());
    EXPECT_EQ(79U + 22U + 4U + 8U, stream.position);
    EXPECT_EQ(79U + 22U, directory.outputSize());
    EXPECT_NE(nullptr, directory.zipEoCDRecord());
    EXPECT_EQ(nullptr, directory.zip64EoCDLocator());
  }
}

TEST(KQZipCentralDirectory, ACompressedEntryGivesNoDirectoryAndItsError) {
  CentralHeaderFields compressed = centralFields("a.txt", "hello", 0);
  compressed.compression = 8;
  const LogCapture log;
  TestInputStream stream(compressed.bytes() + EndRecords().bytes());
  Error error;
  EXPECT_EQ(nullptr, KQZipCentralDirectory::initWithStream(stream, &error));
  expectKQZipError(error, -101, "File uses unsupported compression method.");
  EXPECT_EQ(1U, log.lines().size());
}
