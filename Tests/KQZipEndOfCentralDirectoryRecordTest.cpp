#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Support/Bytes.h"
#include "Support/LogCapture.h"
#include "Support/Records.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using KQTest::Bytes;
using KQTest::earlierError;
using KQTest::Error;
using KQTest::hex;
using KQTest::LogCapture;
using KQTest::TestInputStream;
using KQTest::TestOutputStream;

using Record = KQZipEndOfCentralDirectoryRecord;

namespace {

using Lengths = std::vector<std::uint64_t>;
using Lines = std::vector<std::string>;

// The reads of a record with a comment of five bytes, and the writes with the signature in front.
const Lengths readWidths{2, 2, 2, 2, 4, 4, 2, 5};
const Lengths writeWidths{4, 2, 2, 2, 2, 4, 4, 2, 5};

// A record whose every byte differs, behind its signature.
const std::string sampleFields = Bytes()
                                     .u16(0x0201)
                                     .u16(0x0403)
                                     .u16(0x0605)
                                     .u16(0x0807)
                                     .u32(0x0C0B0A09)
                                     .u32(0x100F0E0D)
                                     .u16(5)
                                     .text("hello");
const std::string sampleBytes = Bytes().u32(0x06054b50).text(sampleFields);

std::shared_ptr<Record> sampleRecord() {
  auto record = std::make_shared<Record>();
  record->setDiskNumber(0x0201);
  record->setDiskNumberContainingCD(0x0403);
  record->setEntriesInCDOnThisDisk(0x0605);
  record->setEntriesInCD(0x0807);
  record->setSizeOfCD(0x0C0B0A09);
  record->setOffsetOfCD(0x100F0E0D);
  record->setZipFileComment("hello");
  return record;
}

std::shared_ptr<Record> freshRecord() { return std::make_shared<Record>(); }

// A record that parses into values of its own, so that what a parse leaves alone can be told.
std::shared_ptr<Record> usedRecord() {
  auto record = std::make_shared<Record>();
  record->setDiskNumber(0xA1A1);
  record->setDiskNumberContainingCD(0xA2A2);
  record->setEntriesInCDOnThisDisk(0xA3A3);
  record->setEntriesInCD(0xA4A4);
  record->setSizeOfCD(0xA5A5A5A5);
  record->setOffsetOfCD(0xA6A6A6A6);
  record->setZipFileCommentLength(0xA7A7);
  record->setZipFileComment("used");
  return record;
}

// Expects that the first `count` fields of the sample have reached the record and the others are as used.
void expectFirstFieldsParsed(const Record& record, std::size_t count) {
  EXPECT_EQ(count > 0 ? 0x0201 : 0xA1A1, record.diskNumber());
  EXPECT_EQ(count > 1 ? 0x0403 : 0xA2A2, record.diskNumberContainingCD());
  EXPECT_EQ(count > 2 ? 0x0605 : 0xA3A3, record.entriesInCDOnThisDisk());
  EXPECT_EQ(count > 3 ? 0x0807 : 0xA4A4, record.entriesInCD());
  EXPECT_EQ(count > 4 ? 0x0C0B0A09U : 0xA5A5A5A5U, record.sizeOfCD());
  EXPECT_EQ(count > 5 ? 0x100F0E0DU : 0xA6A6A6A6U, record.offsetOfCD());
  EXPECT_EQ(count > 6 ? 5 : 0xA7A7, record.zipFileCommentLength());
  EXPECT_EQ(count > 7 ? "hello" : "used", record.zipFileComment());
}

std::string fieldsWithComment(std::size_t length, const std::string& comment) {
  return Bytes().u64(0).u32(98).u32(0).u16(length).text(comment);
}

std::string written(Record& record) {
  TestOutputStream stream;
  EXPECT_TRUE(record.writeToStream(stream));
  return stream.bytes;
}

}  // namespace

TEST(KQZipEndOfCentralDirectoryRecord, AFreshRecordHoldsZerosNoCommentAndASaturatedSize) {
  const Record record;
  EXPECT_EQ(0, record.diskNumber());
  EXPECT_EQ(0, record.diskNumberContainingCD());
  EXPECT_EQ(0, record.entriesInCDOnThisDisk());
  EXPECT_EQ(0, record.entriesInCD());
  EXPECT_EQ(0, record.zipFileCommentLength());
  EXPECT_EQ(0xFFFFFFFFU, record.sizeOfCD());
  EXPECT_EQ(0U, record.offsetOfCD());
  EXPECT_EQ(std::nullopt, record.zipFileComment());
  EXPECT_EQ(22U, record.outputSize());
  EXPECT_EQ(0x06054b50U, Record::signature);
}

TEST(KQZipEndOfCentralDirectoryRecord, AFreshRecordWrites22Bytes) {
  Record record;
  EXPECT_EQ("50 4b 05 06 00 00 00 00 00 00 00 00 ff ff ff ff 00 00 00 00 00 00 ", hex(written(record)));
}

TEST(KQZipEndOfCentralDirectoryRecord, EveryFieldIsWrittenInItsPlaceWithOneWriteEach) {
  const auto record = sampleRecord();
  EXPECT_EQ(27U, record->outputSize());
  const LogCapture log;
  TestOutputStream stream;
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(record->writeToStream(stream, &error));
  EXPECT_EQ(hex(sampleBytes), hex(stream.bytes));
  EXPECT_EQ(writeWidths, stream.writes);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_EQ(27U, record->outputSize());
}

TEST(KQZipEndOfCentralDirectoryRecord, EveryFieldIsParsedFromItsPlaceWithOneReadEach) {
  const LogCapture log;
  TestInputStream stream(sampleFields + "more");
  const Error earlier = earlierError();
  Error error = earlier;
  const auto record = usedRecord();
  EXPECT_TRUE(record->parseFromStream(stream, &error));
  expectFirstFieldsParsed(*record, 8);
  EXPECT_EQ(readWidths, stream.reads);
  EXPECT_EQ(sampleFields.size(), stream.position);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_EQ(hex(sampleBytes), hex(written(*record)));
}

TEST(KQZipEndOfCentralDirectoryRecord, ItComesBackFromAFile) {
  const KQTest::TemporaryDirectory folder;
  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(folder / "file");
  output->open();
  EXPECT_TRUE(sampleRecord()->writeToStream(*output));
  output->close();
  EXPECT_EQ(hex(sampleBytes), hex(KQTest::readFile(folder / "file")));

  const auto input = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "file");
  ASSERT_NE(nullptr, input);
  input->open();
  std::uint32_t signature = 0;
  ASSERT_TRUE(KQZipReadBlock32(*input, &signature));
  EXPECT_EQ(Record::signature, signature);
  const auto record = Record::initWithStream(*input);
  ASSERT_NE(nullptr, record);
  expectFirstFieldsParsed(*record, 8);
}

TEST(KQZipEndOfCentralDirectoryRecord, EachSetterChangesItsFieldAlone) {
  const auto count = [](const Record& record) {
    const Record fresh;
    return (record.diskNumber() != fresh.diskNumber()) +
           (record.diskNumberContainingCD() != fresh.diskNumberContainingCD()) +
           (record.entriesInCDOnThisDisk() != fresh.entriesInCDOnThisDisk()) +
           (record.entriesInCD() != fresh.entriesInCD()) +
           (record.zipFileCommentLength() != fresh.zipFileCommentLength()) +
           (record.sizeOfCD() != fresh.sizeOfCD()) + (record.offsetOfCD() != fresh.offsetOfCD()) +
           (record.zipFileComment() != fresh.zipFileComment());
  };
  Record disk;
  disk.setDiskNumber(7);
  EXPECT_EQ(7, disk.diskNumber());
  EXPECT_EQ(1, count(disk));
  Record diskOfDirectory;
  diskOfDirectory.setDiskNumberContainingCD(7);
  EXPECT_EQ(7, diskOfDirectory.diskNumberContainingCD());
  EXPECT_EQ(1, count(diskOfDirectory));
  Record entriesOnDisk;
  entriesOnDisk.setEntriesInCDOnThisDisk(7);
  EXPECT_EQ(7, entriesOnDisk.entriesInCDOnThisDisk());
  EXPECT_EQ(1, count(entriesOnDisk));
  Record entries;
  entries.setEntriesInCD(7);
  EXPECT_EQ(7, entries.entriesInCD());
  EXPECT_EQ(1, count(entries));
  Record commentLength;
  commentLength.setZipFileCommentLength(7);
  EXPECT_EQ(7, commentLength.zipFileCommentLength());
  EXPECT_EQ(1, count(commentLength));
  Record size;
  size.setSizeOfCD(7);
  EXPECT_EQ(7U, size.sizeOfCD());
  EXPECT_EQ(1, count(size));
  Record offset;
  offset.setOffsetOfCD(7);
  EXPECT_EQ(7U, offset.offsetOfCD());
  EXPECT_EQ(1, count(offset));
  Record comment;
  comment.setZipFileComment("a comment");
  EXPECT_EQ("a comment", comment.zipFileComment());
  EXPECT_EQ(1, count(comment));
}

TEST(KQZipEndOfCentralDirectoryRecord, TheCommentIsACopyOfWhatWasSet) {
  Record record;
  std::string text = "before";
  record.setZipFileComment(text);
  text[0] = 'X';
  EXPECT_EQ("before", record.zipFileComment());
}

TEST(KQZipEndOfCentralDirectoryRecord, EachFailingWriteStopsIt) {
  KQTest::expectEachFailingWriteStops(sampleRecord, sampleBytes, writeWidths);
}

TEST(KQZipEndOfCentralDirectoryRecord, EachPartialWriteIsASuccess) {
  KQTest::expectEachPartialWriteIsASuccess(sampleRecord, sampleBytes, writeWidths);
}

TEST(KQZipEndOfCentralDirectoryRecord, EachFailingReadStopsItAndKeepsWhatWasRead) {
  KQTest::expectEachFailingReadStops(usedRecord, sampleFields, readWidths, expectFirstFieldsParsed);
}

TEST(KQZipEndOfCentralDirectoryRecord, EachEndOfTheStreamStopsItSilentlyAndKeepsWhatWasRead) {
  KQTest::expectEachEndOfStreamStops(usedRecord, sampleFields, readWidths, expectFirstFieldsParsed);
}

TEST(KQZipEndOfCentralDirectoryRecord, AFailedParseGivesNoRecordAndHandsOutTheError) {
  KQTest::expectFailedParseGivesNoRecord<Record>(sampleFields, readWidths.size());
}

TEST(KQZipEndOfCentralDirectoryRecord, APartialReadOfAFieldKeepsItsHighBytes) {
  // Every read delivers one byte, so each field gets one and keeps the others of its default.
  const LogCapture log;
  TestInputStream stream(
      "\x01\x02\x03\x04\x05\x06\x03"
      "x"
      "unread");
  stream.longestRead = 1;
  Error error;
  const auto record = Record::initWithStream(stream, &error);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(1, record->diskNumber());
  EXPECT_EQ(2, record->diskNumberContainingCD());
  EXPECT_EQ(3, record->entriesInCDOnThisDisk());
  EXPECT_EQ(4, record->entriesInCD());
  EXPECT_EQ(0xFFFFFF05U, record->sizeOfCD());
  EXPECT_EQ(6U, record->offsetOfCD());
  EXPECT_EQ(3, record->zipFileCommentLength());
  ASSERT_TRUE(record->zipFileComment().has_value());
  EXPECT_EQ(3U, record->zipFileComment()->size());
  EXPECT_EQ('x', record->zipFileComment()->front());
  EXPECT_EQ((Lengths{2, 2, 2, 2, 4, 4, 2, 3}), stream.reads);
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipEndOfCentralDirectoryRecord, ACommentThatIsCutByTheEndOfTheStreamIsFilledUpWithZeros) {
  const LogCapture log;
  TestInputStream stream(fieldsWithComment(10, "abcd"));
  Error error;
  const auto record = Record::initWithStream(stream, &error);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(10, record->zipFileCommentLength());
  EXPECT_EQ(std::string("abcd\0\0\0\0\0\0", 10), record->zipFileComment());
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipEndOfCentralDirectoryRecord, ACommentThatIsMissingAltogetherFailsTheParseSilently) {
  const LogCapture log;
  TestInputStream stream(fieldsWithComment(10, ""));
  Error error;
  EXPECT_EQ(nullptr, Record::initWithStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipEndOfCentralDirectoryRecord, ACommentLengthOfZeroReadsNothingAndGivesAnEmptyComment) {
  TestInputStream stream(fieldsWithComment(0, "unread"));
  const auto record = usedRecord();
  EXPECT_TRUE(record->parseFromStream(stream));
  EXPECT_EQ("", record->zipFileComment());
  EXPECT_EQ(0, record->zipFileCommentLength());
  EXPECT_EQ((Lengths{2, 2, 2, 2, 4, 4, 2}), stream.reads);
  EXPECT_EQ(18U, stream.position);
  EXPECT_EQ(22U, record->outputSize());
}

TEST(KQZipEndOfCentralDirectoryRecord, TheLongestCommentIsReadWhole) {
  const std::string comment = std::string(65532, 'c') + "\xE2\x82\xAC";
  TestInputStream stream(fieldsWithComment(65535, comment) + "unread");
  const auto record = Record::initWithStream(stream);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(comment, record->zipFileComment());
  EXPECT_EQ(18U + 65535U, stream.position);
  EXPECT_EQ(22U + 65535U, record->outputSize());
}

TEST(KQZipEndOfCentralDirectoryRecord, ACommentMayHoldNulBytes) {
  const std::string comment("a\0b\0", 4);
  TestInputStream stream(fieldsWithComment(4, comment));
  const auto record = Record::initWithStream(stream);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(comment, record->zipFileComment());
  EXPECT_EQ(hex(Bytes().u32(0x06054b50).text(fieldsWithComment(4, comment))), hex(written(*record)));
}

TEST(KQZipEndOfCentralDirectoryRecord, ACommentThatIsNotValidUtf8BecomesAbsentAndTheParseSucceeds) {
  const std::vector<std::string> invalid{
      "\xFF",              // a byte that never occurs
      "abc\x80",           // a continuation byte alone
      "ab\xC3",            // a character cut off
      "\xC0\xAF",          // an overlong form
      "\xED\xA0\x80",      // half of a surrogate pair
      "\xF4\x90\x80\x80",  // beyond the last code point
  };
  for (const std::string& comment : invalid) {
    SCOPED_TRACE(hex(comment));
    const LogCapture log;
    TestInputStream stream(fieldsWithComment(comment.size(), comment) + "unread");
    Error error;
    const auto record = usedRecord();
    EXPECT_TRUE(record->parseFromStream(stream, &error));
    EXPECT_EQ(std::nullopt, record->zipFileComment());
    EXPECT_EQ(comment.size(), record->zipFileCommentLength());
    EXPECT_EQ(98U, record->sizeOfCD());
    EXPECT_EQ(18U + comment.size(), stream.position);
    EXPECT_EQ(22U, record->outputSize());
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipEndOfCentralDirectoryRecord, ALengthWithoutACommentIsSetBackToZeroByAWrite) {
  for (const std::optional<std::string>& comment :
       {std::optional<std::string>(), std::optional<std::string>("")}) {
    Record record;
    record.setZipFileCommentLength(7);
    record.setZipFileComment(comment);
    TestOutputStream stream;
    EXPECT_TRUE(record.writeToStream(stream));
    EXPECT_EQ(0, record.zipFileCommentLength());
    EXPECT_EQ(Lengths({4, 2, 2, 2, 2, 4, 4, 2}), stream.writes);
    EXPECT_EQ("00 00 ", hex(stream.bytes.substr(20)));
  }
}

TEST(KQZipEndOfCentralDirectoryRecord, ACharacterOfTwoBytesCountsAsTwo) {
  Record record;
  record.setZipFileComment("\xC3\xA9");
  EXPECT_EQ(24U, record.outputSize());
  EXPECT_EQ(0, record.zipFileCommentLength());
  const std::string bytes = written(record);
  EXPECT_EQ("02 00 c3 a9 ", hex(bytes.substr(20)));
  EXPECT_EQ(2, record.zipFileCommentLength());
}

TEST(KQZipEndOfCentralDirectoryRecord, ALongCommentIsWrittenByItsLengthModulo65536AndCountedInFull) {
  struct Case {
    std::size_t length;
    std::uint16_t written;
  };
  for (const Case& lengths : {Case{65535, 65535}, Case{65536, 0}, Case{65537, 1}, Case{70000, 4464}}) {
    SCOPED_TRACE(lengths.length);
    std::string comment = KQTest::patternBytes(lengths.length);
    for (char& byte : comment) byte = static_cast<char>(byte & 0x7F);
    Record record;
    record.setZipFileComment(comment);
    EXPECT_EQ(22U + lengths.length, record.outputSize());
    TestOutputStream stream;
    EXPECT_TRUE(record.writeToStream(stream));
    const std::string expected = Bytes()
                                     .u32(0x06054b50)
                                     .u64(0)
                                     .u32(0xFFFFFFFF)
                                     .u32(0)
                                     .u16(lengths.written)
                                     .text(comment.substr(0, lengths.written));
    EXPECT_TRUE(expected == stream.bytes);
    EXPECT_EQ(lengths.written, record.zipFileCommentLength());
    EXPECT_EQ(lengths.written == 0 ? 8U : 9U, stream.writes.size());
    EXPECT_EQ(22U + lengths.length, record.outputSize());
    EXPECT_EQ(comment, record.zipFileComment());
  }
}

TEST(KQZipEndOfCentralDirectoryRecord, TheCommentsLengthIsSetBeforeTheFirstWrite) {
  const auto record = sampleRecord();
  record->setZipFileCommentLength(99);
  TestOutputStream stream;
  stream.failAtWrite = 1;
  const LogCapture log;
  EXPECT_FALSE(record->writeToStream(stream));
  EXPECT_EQ(5, record->zipFileCommentLength());
}

TEST(KQZipEndOfCentralDirectoryRecord, ParsedFromItsSignatureItMisreadsEveryField) {
  TestInputStream stream(Bytes().u32(0x06054b50).u64(0x0807060504030201).u32(0x0C0B0A09).u32(2).text("xyzw"));
  const auto record = freshRecord();
  EXPECT_TRUE(record->parseFromStream(stream));
  EXPECT_EQ(0x4b50, record->diskNumber());
  EXPECT_EQ(0x0605, record->diskNumberContainingCD());
  EXPECT_EQ(0x0201, record->entriesInCDOnThisDisk());
  EXPECT_EQ(0x0403, record->entriesInCD());
  EXPECT_EQ(0x08070605U, record->sizeOfCD());
  EXPECT_EQ(0x0C0B0A09U, record->offsetOfCD());
  EXPECT_EQ(2, record->zipFileCommentLength());
  EXPECT_EQ(std::string("\0\0", 2), record->zipFileComment());
}

TEST(KQZipEndOfCentralDirectoryRecord, TheCommentMayBeSetAndReadOnSeveralThreads) {
  Record record;
  const std::string first(100, 'a');
  const std::string second(200, 'b');
  record.setZipFileComment(first);
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (int i = 0; i < 2000; ++i) record.setZipFileComment(i % 2 == 0 ? second : first);
    done = true;
  });
  int torn = 0;
  do {
    const auto comment = record.zipFileComment();
    if (comment != first && comment != second) ++torn;
  } while (!done);
  setter.join();
  EXPECT_EQ(0, torn);
}
