#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
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

using Record = KQZip64EndOfCentralDirectoryLocator;

namespace {

using Lengths = std::vector<std::uint64_t>;
using Lines = std::vector<std::string>;

const Lengths readWidths{4, 8, 4};
const Lengths writeWidths{4, 4, 8, 4};

const std::string sampleFields = Bytes().u32(0x04030201).u64(0x0C0B0A0908070605).u32(0x100F0E0D);
const std::string sampleBytes = Bytes().u32(0x07064b50).text(sampleFields);

std::shared_ptr<Record> sampleRecord() {
  auto record = std::make_shared<Record>();
  record->setDiskNumberWithStartOfZip64EoCD(0x04030201);
  record->setOffsetOfZip64EoCD(0x0C0B0A0908070605);
  record->setNumberOfDisks(0x100F0E0D);
  return record;
}

// A record that parses into values of its own, so that what a parse leaves alone can be told.
std::shared_ptr<Record> usedRecord() {
  auto record = std::make_shared<Record>();
  record->setDiskNumberWithStartOfZip64EoCD(0xA1A1A1A1);
  record->setOffsetOfZip64EoCD(0xA2A2A2A2A2A2A2A2);
  record->setNumberOfDisks(0xA3A3A3A3);
  return record;
}

void expectFirstFieldsParsed(const Record& record, std::size_t count) {
  EXPECT_EQ(count > 0 ? 0x04030201U : 0xA1A1A1A1U, record.diskNumberWithStartOfZip64EoCD());
  EXPECT_EQ(count > 1 ? 0x0C0B0A0908070605U : 0xA2A2A2A2A2A2A2A2U, record.offsetOfZip64EoCD());
  EXPECT_EQ(count > 2 ? 0x100F0E0DU : 0xA3A3A3A3U, record.numberOfDisks());
}

}  // namespace

TEST(KQZip64EndOfCentralDirectoryLocator, AFreshLocatorIsForOneDiskAndOffsetZero) {
  const Record record;
  EXPECT_EQ(0U, record.diskNumberWithStartOfZip64EoCD());
  EXPECT_EQ(1U, record.numberOfDisks());
  EXPECT_EQ(0U, record.offsetOfZip64EoCD());
  EXPECT_EQ(20U, record.outputSize());
  EXPECT_EQ(0x07064b50U, Record::signature);
}

TEST(KQZip64EndOfCentralDirectoryLocator, AFreshLocatorWrites20Bytes) {
  Record record;
  TestOutputStream stream;
  EXPECT_TRUE(record.writeToStream(stream));
  EXPECT_EQ("50 4b 06 07 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 ", hex(stream.bytes));
}

TEST(KQZip64EndOfCentralDirectoryLocator, EveryFieldIsWrittenInItsPlaceWithOneWriteEach) {
  const auto record = sampleRecord();
  const LogCapture log;
  TestOutputStream stream;
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(record->writeToStream(stream, &error));
  EXPECT_EQ(hex(sampleBytes), hex(stream.bytes));
  EXPECT_EQ(writeWidths, stream.writes);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_EQ(20U, record->outputSize());
}

TEST(KQZip64EndOfCentralDirectoryLocator, EveryFieldIsParsedFromItsPlaceWithOneReadEach) {
  const LogCapture log;
  TestInputStream stream(sampleFields + "more");
  const Error earlier = earlierError();
  Error error = earlier;
  const auto record = usedRecord();
  EXPECT_TRUE(record->parseFromStream(stream, &error));
  expectFirstFieldsParsed(*record, 3);
  EXPECT_EQ(readWidths, stream.reads);
  EXPECT_EQ(16U, stream.position);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZip64EndOfCentralDirectoryLocator, ItComesBackFromAFile) {
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
  expectFirstFieldsParsed(*record, 3);
}

TEST(KQZip64EndOfCentralDirectoryLocator, EachSetterChangesItsFieldAlone) {
  const auto count = [](const Record& record) {
    const Record fresh;
    return (record.diskNumberWithStartOfZip64EoCD() != fresh.diskNumberWithStartOfZip64EoCD()) +
           (record.numberOfDisks() != fresh.numberOfDisks()) +
           (record.offsetOfZip64EoCD() != fresh.offsetOfZip64EoCD());
  };
  Record disk;
  disk.setDiskNumberWithStartOfZip64EoCD(7);
  EXPECT_EQ(7U, disk.diskNumberWithStartOfZip64EoCD());
  EXPECT_EQ(1, count(disk));
  Record disks;
  disks.setNumberOfDisks(7);
  EXPECT_EQ(7U, disks.numberOfDisks());
  EXPECT_EQ(1, count(disks));
  Record offset;
  offset.setOffsetOfZip64EoCD(7);
  EXPECT_EQ(7U, offset.offsetOfZip64EoCD());
  EXPECT_EQ(1, count(offset));
}

TEST(KQZip64EndOfCentralDirectoryLocator, EachFailingWriteStopsIt) {
  KQTest::expectEachFailingWriteStops(sampleRecord, sampleBytes, writeWidths);
}

TEST(KQZip64EndOfCentralDirectoryLocator, EachPartialWriteIsASuccess) {
  KQTest::expectEachPartialWriteIsASuccess(sampleRecord, sampleBytes, writeWidths);
}

TEST(KQZip64EndOfCentralDirectoryLocator, EachFailingReadStopsItAndKeepsWhatWasRead) {
  KQTest::expectEachFailingReadStops(usedRecord, sampleFields, readWidths, expectFirstFieldsParsed);
}

TEST(KQZip64EndOfCentralDirectoryLocator, EachEndOfTheStreamStopsItSilentlyAndKeepsWhatWasRead) {
  KQTest::expectEachEndOfStreamStops(usedRecord, sampleFields, readWidths, expectFirstFieldsParsed);
}

TEST(KQZip64EndOfCentralDirectoryLocator, AFailedParseGivesNoRecordAndHandsOutTheError) {
  KQTest::expectFailedParseGivesNoRecord<Record>(sampleFields, readWidths.size());
}

TEST(KQZip64EndOfCentralDirectoryLocator, APartialReadOfAFieldKeepsItsHighBytes) {
  TestInputStream stream("\x01\x02\x03");
  stream.longestRead = 1;
  const auto record = usedRecord();
  EXPECT_TRUE(record->parseFromStream(stream));
  EXPECT_EQ(0xA1A1A101U, record->diskNumberWithStartOfZip64EoCD());
  EXPECT_EQ(0xA2A2A2A2A2A2A202U, record->offsetOfZip64EoCD());
  EXPECT_EQ(0xA3A3A303U, record->numberOfDisks());
  EXPECT_EQ(readWidths, stream.reads);
}

TEST(KQZip64EndOfCentralDirectoryLocator, AnEndInsideTheLastFieldStillParses) {
  TestInputStream stream(Bytes().u32(0).u64(9).text("\x05"));
  const auto record = Record::initWithStream(stream);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(9U, record->offsetOfZip64EoCD());
  EXPECT_EQ(5U, record->numberOfDisks());
}

TEST(KQZip64EndOfCentralDirectoryLocator, ParsedFromItsSignatureItMisreadsEveryField) {
  TestInputStream stream(sampleBytes);
  const auto record = std::make_shared<Record>();
  EXPECT_TRUE(record->parseFromStream(stream));
  EXPECT_EQ(0x07064b50U, record->diskNumberWithStartOfZip64EoCD());
  EXPECT_EQ(0x0807060504030201U, record->offsetOfZip64EoCD());
  EXPECT_EQ(0x0C0B0A09U, record->numberOfDisks());
}
