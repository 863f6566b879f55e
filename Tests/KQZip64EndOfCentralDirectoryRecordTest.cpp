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

using Record = KQZip64EndOfCentralDirectoryRecord;

namespace {

using Lengths = std::vector<std::uint64_t>;
using Lines = std::vector<std::string>;

const Lengths readWidths{8, 2, 2, 4, 4, 8, 8, 8, 8};
const Lengths writeWidths{4, 8, 2, 2, 4, 4, 8, 8, 8, 8};

// The fields of the sample behind the signature, with a size field of its own.
std::string sampleFields(std::uint64_t size) {
  return Bytes()
      .u64(size)
      .u16(0x0A09)
      .u16(0x0C0B)
      .u32(0x100F0E0D)
      .u32(0x14131211)
      .u64(0x1C1B1A1918171615)
      .u64(0x24232221201F1E1D)
      .u64(0x2C2B2A2928272625)
      .u64(0x34333231302F2E2D);
}

const std::uint64_t parsedSize = 0x0807060504030201;
const std::string writtenBytes = Bytes().u32(0x06064b50).text(sampleFields(44));

std::shared_ptr<Record> sampleRecord() {
  auto record = std::make_shared<Record>();
  record->setSize(parsedSize);
  record->setVersionMadeBy(0x0A09);
  record->setVersionNeeded(0x0C0B);
  record->setDiskNumber(0x100F0E0D);
  record->setDiskNumberContainingCD(0x14131211);
  record->setEntriesInCDOnThisDisk(0x1C1B1A1918171615);
  record->setEntriesInCD(0x24232221201F1E1D);
  record->setSizeOfCD(0x2C2B2A2928272625);
  record->setOffsetOfCD(0x34333231302F2E2D);
  return record;
}

// A record that parses into values of its own, so that what a parse leaves alone can be told.
std::shared_ptr<Record> usedRecord() {
  auto record = std::make_shared<Record>();
  record->setSize(0xA1A1A1A1A1A1A1A1);
  record->setVersionMadeBy(0xA2A2);
  record->setVersionNeeded(0xA3A3);
  record->setDiskNumber(0xA4A4A4A4);
  record->setDiskNumberContainingCD(0xA5A5A5A5);
  record->setEntriesInCDOnThisDisk(0xA6A6A6A6A6A6A6A6);
  record->setEntriesInCD(0xA7A7A7A7A7A7A7A7);
  record->setSizeOfCD(0xA8A8A8A8A8A8A8A8);
  record->setOffsetOfCD(0xA9A9A9A9A9A9A9A9);
  return record;
}

void expectFirstFieldsParsed(const Record& record, std::size_t count) {
  EXPECT_EQ(count > 0 ? parsedSize : 0xA1A1A1A1A1A1A1A1, record.size());
  EXPECT_EQ(count > 1 ? 0x0A09 : 0xA2A2, record.versionMadeBy());
  EXPECT_EQ(count > 2 ? 0x0C0B : 0xA3A3, record.versionNeeded());
  EXPECT_EQ(count > 3 ? 0x100F0E0DU : 0xA4A4A4A4U, record.diskNumber());
  EXPECT_EQ(count > 4 ? 0x14131211U : 0xA5A5A5A5U, record.diskNumberContainingCD());
  EXPECT_EQ(count > 5 ? 0x1C1B1A1918171615U : 0xA6A6A6A6A6A6A6A6U, record.entriesInCDOnThisDisk());
  EXPECT_EQ(count > 6 ? 0x24232221201F1E1DU : 0xA7A7A7A7A7A7A7A7U, record.entriesInCD());
  EXPECT_EQ(count > 7 ? 0x2C2B2A2928272625U : 0xA8A8A8A8A8A8A8A8U, record.sizeOfCD());
  EXPECT_EQ(count > 8 ? 0x34333231302F2E2DU : 0xA9A9A9A9A9A9A9A9U, record.offsetOfCD());
}

}  // namespace

TEST(KQZip64EndOfCentralDirectoryRecord, AFreshRecordHoldsTheLibrarysVersionsAndZeros) {
  const Record record;
  EXPECT_EQ(0x031E, record.versionMadeBy());
  EXPECT_EQ(45, record.versionNeeded());
  EXPECT_EQ(0U, record.diskNumber());
  EXPECT_EQ(0U, record.diskNumberContainingCD());
  EXPECT_EQ(0U, record.size());
  EXPECT_EQ(0U, record.entriesInCDOnThisDisk());
  EXPECT_EQ(0U, record.entriesInCD());
  EXPECT_EQ(0U, record.sizeOfCD());
  EXPECT_EQ(0U, record.offsetOfCD());
  EXPECT_EQ(56U, record.outputSize());
  EXPECT_EQ(44U, record.sizeOfZip64EoCDRecord());
  EXPECT_EQ(0x06064b50U, Record::signature);
}

TEST(KQZip64EndOfCentralDirectoryRecord, AFreshRecordWrites56BytesWithASizeOf44) {
  Record record;
  TestOutputStream stream;
  EXPECT_TRUE(record.writeToStream(stream));
  EXPECT_EQ(hex("\x50\x4b\x06\x06" + std::string("\x2c\0\0\0\0\0\0\0", 8) + std::string("\x1e\x03\x2d\0", 4) +
                std::string(40, '\0')),
            hex(stream.bytes));
  EXPECT_EQ(44U, record.size());
}

TEST(KQZip64EndOfCentralDirectoryRecord, EveryFieldIsWrittenInItsPlaceWithOneWriteEach) {
  const auto record = sampleRecord();
  const LogCapture log;
  TestOutputStream stream;
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(record->writeToStream(stream, &error));
  EXPECT_EQ(hex(writtenBytes), hex(stream.bytes));
  EXPECT_EQ(writeWidths, stream.writes);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_EQ(56U, record->outputSize());
}

TEST(KQZip64EndOfCentralDirectoryRecord, EveryFieldIsParsedFromItsPlaceWithOneReadEach) {
  const LogCapture log;
  TestInputStream stream(sampleFields(parsedSize) + "more");
  const Error earlier = earlierError();
  Error error = earlier;
  const auto record = usedRecord();
  EXPECT_TRUE(record->parseFromStream(stream, &error));
  expectFirstFieldsParsed(*record, 9);
  EXPECT_EQ(readWidths, stream.reads);
  EXPECT_EQ(52U, stream.position);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZip64EndOfCentralDirectoryRecord, ItComesBackFromAFile) {
  const KQTest::TemporaryDirectory folder;
  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(folder / "file");
  output->open();
  EXPECT_TRUE(sampleRecord()->writeToStream(*output));
  output->close();
  EXPECT_EQ(hex(writtenBytes), hex(KQTest::readFile(folder / "file")));

  const auto input = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "file");
  ASSERT_NE(nullptr, input);
  input->open();
  std::uint32_t signature = 0;
  ASSERT_TRUE(KQZipReadBlock32(*input, &signature));
  EXPECT_EQ(Record::signature, signature);
  const auto record = Record::initWithStream(*input);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(44U, record->size());
  record->setSize(parsedSize);
  expectFirstFieldsParsed(*record, 9);
}

TEST(KQZip64EndOfCentralDirectoryRecord, EachSetterChangesItsFieldAlone) {
  const auto count = [](const Record& record) {
    const Record fresh;
    return (record.versionMadeBy() != fresh.versionMadeBy()) +
           (record.versionNeeded() != fresh.versionNeeded()) + (record.diskNumber() != fresh.diskNumber()) +
           (record.diskNumberContainingCD() != fresh.diskNumberContainingCD()) +
           (record.size() != fresh.size()) +
           (record.entriesInCDOnThisDisk() != fresh.entriesInCDOnThisDisk()) +
           (record.entriesInCD() != fresh.entriesInCD()) + (record.sizeOfCD() != fresh.sizeOfCD()) +
           (record.offsetOfCD() != fresh.offsetOfCD());
  };
  Record madeBy;
  madeBy.setVersionMadeBy(7);
  EXPECT_EQ(7, madeBy.versionMadeBy());
  EXPECT_EQ(1, count(madeBy));
  Record needed;
  needed.setVersionNeeded(7);
  EXPECT_EQ(7, needed.versionNeeded());
  EXPECT_EQ(1, count(needed));
  Record disk;
  disk.setDiskNumber(7);
  EXPECT_EQ(7U, disk.diskNumber());
  EXPECT_EQ(1, count(disk));
  Record diskOfDirectory;
  diskOfDirectory.setDiskNumberContainingCD(7);
  EXPECT_EQ(7U, diskOfDirectory.diskNumberContainingCD());
  EXPECT_EQ(1, count(diskOfDirectory));
  Record size;
  size.setSize(7);
  EXPECT_EQ(7U, size.size());
  EXPECT_EQ(1, count(size));
  EXPECT_EQ(44U, size.sizeOfZip64EoCDRecord());
  EXPECT_EQ(56U, size.outputSize());
  Record entriesOnDisk;
  entriesOnDisk.setEntriesInCDOnThisDisk(7);
  EXPECT_EQ(7U, entriesOnDisk.entriesInCDOnThisDisk());
  EXPECT_EQ(1, count(entriesOnDisk));
  Record entries;
  entries.setEntriesInCD(7);
  EXPECT_EQ(7U, entries.entriesInCD());
  EXPECT_EQ(1, count(entries));
  Record sizeOfDirectory;
  sizeOfDirectory.setSizeOfCD(7);
  EXPECT_EQ(7U, sizeOfDirectory.sizeOfCD());
  EXPECT_EQ(1, count(sizeOfDirectory));
  Record offset;
  offset.setOffsetOfCD(7);
  EXPECT_EQ(7U, offset.offsetOfCD());
  EXPECT_EQ(1, count(offset));
}

TEST(KQZip64EndOfCentralDirectoryRecord, EachFailingWriteStopsIt) {
  KQTest::expectEachFailingWriteStops(sampleRecord, writtenBytes, writeWidths);
}

TEST(KQZip64EndOfCentralDirectoryRecord, EachPartialWriteIsASuccess) {
  KQTest::expectEachPartialWriteIsASuccess(sampleRecord, writtenBytes, writeWidths);
}

TEST(KQZip64EndOfCentralDirectoryRecord, EachFailingReadStopsItAndKeepsWhatWasRead) {
  KQTest::expectEachFailingReadStops(usedRecord, sampleFields(parsedSize), readWidths,
                                     expectFirstFieldsParsed);
}

TEST(KQZip64EndOfCentralDirectoryRecord, EachEndOfTheStreamStopsItSilentlyAndKeepsWhatWasRead) {
  KQTest::expectEachEndOfStreamStops(usedRecord, sampleFields(parsedSize), readWidths,
                                     expectFirstFieldsParsed);
}

TEST(KQZip64EndOfCentralDirectoryRecord, AFailedParseGivesNoRecordAndHandsOutTheError) {
  KQTest::expectFailedParseGivesNoRecord<Record>(sampleFields(44), readWidths.size());
}

TEST(KQZip64EndOfCentralDirectoryRecord, APartialReadOfAFieldKeepsItsHighBytes) {
  TestInputStream stream("\x01\x02\x03\x04\x05\x06\x07\x08\x09");
  stream.longestRead = 1;
  const auto record = usedRecord();
  EXPECT_TRUE(record->parseFromStream(stream));
  EXPECT_EQ(0xA1A1A1A1A1A1A101U, record->size());
  EXPECT_EQ(0xA202, record->versionMadeBy());
  EXPECT_EQ(0xA303, record->versionNeeded());
  EXPECT_EQ(0xA4A4A404U, record->diskNumber());
  EXPECT_EQ(0xA5A5A505U, record->diskNumberContainingCD());
  EXPECT_EQ(0xA6A6A6A6A6A6A606U, record->entriesInCDOnThisDisk());
  EXPECT_EQ(0xA7A7A7A7A7A7A707U, record->entriesInCD());
  EXPECT_EQ(0xA8A8A8A8A8A8A808U, record->sizeOfCD());
  EXPECT_EQ(0xA9A9A9A9A9A9A909U, record->offsetOfCD());
  EXPECT_EQ(readWidths, stream.reads);
}

TEST(KQZip64EndOfCentralDirectoryRecord, AnEndInsideTheLastFieldStillParses) {
  TestInputStream stream(sampleFields(44).substr(0, 45));
  const auto record = Record::initWithStream(stream);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(0x2DU, record->offsetOfCD());
}

TEST(KQZip64EndOfCentralDirectoryRecord, ALargerSizeLeavesTheExtraBytesOnTheStream) {
  TestInputStream stream(sampleFields(60) + "1234" + "behind");
  Error error;
  const auto record = Record::initWithStream(stream, &error);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(60U, record->size());
  EXPECT_EQ(52U, stream.position);
  EXPECT_EQ(56U, record->outputSize());
  EXPECT_EQ(44U, record->sizeOfZip64EoCDRecord());
}

TEST(KQZip64EndOfCentralDirectoryRecord, ASizeOfAnyValueIsKeptByAParse) {
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{43}, UINT64_MAX}) {
    TestInputStream stream(sampleFields(size));
    const auto record = Record::initWithStream(stream);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(size, record->size());
    EXPECT_EQ(52U, stream.position);
  }
}

TEST(KQZip64EndOfCentralDirectoryRecord, TheSizeIsSetBetweenTheSignatureAndItsOwnWrite) {
  const LogCapture log;
  Record stopped;
  stopped.setSize(99);
  TestOutputStream failingAtSignature;
  failingAtSignature.failAtWrite = 1;
  EXPECT_FALSE(stopped.writeToStream(failingAtSignature));
  EXPECT_EQ(99U, stopped.size());

  TestOutputStream failingAtSize;
  failingAtSize.failAtWrite = 2;
  EXPECT_FALSE(stopped.writeToStream(failingAtSize));
  EXPECT_EQ(44U, stopped.size());
}

TEST(KQZip64EndOfCentralDirectoryRecord, ParsedFromItsSignatureItMisreadsEveryField) {
  TestInputStream stream(writtenBytes);
  const auto record = std::make_shared<Record>();
  EXPECT_TRUE(record->parseFromStream(stream));
  EXPECT_EQ(0x0000002C06064b50U, record->size());
  EXPECT_EQ(0, record->versionMadeBy());
  EXPECT_EQ(0, record->versionNeeded());
  EXPECT_EQ(0x0C0B0A09U, record->diskNumber());
  EXPECT_EQ(0x100F0E0DU, record->diskNumberContainingCD());
  EXPECT_EQ(0x1817161514131211U, record->entriesInCDOnThisDisk());
  EXPECT_EQ(0x201F1E1D1C1B1A19U, record->entriesInCD());
  EXPECT_EQ(0x2827262524232221U, record->sizeOfCD());
  EXPECT_EQ(0x302F2E2D2C2B2A29U, record->offsetOfCD());
}
