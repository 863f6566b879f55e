#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Support/EntryRecords.h"

using KQTest::CentralHeaderFields;
using KQTest::contentsOf;
using KQTest::crcOf;
using KQTest::dosDate;
using KQTest::dosTime;
using KQTest::earlierError;
using KQTest::Error;
using KQTest::expectKQZipError;
using KQTest::expectSameBytes;
using KQTest::extraFieldBytes;
using KQTest::fieldWith;
using KQTest::hex;
using KQTest::LogCapture;
using KQTest::OuterProgress;
using KQTest::StreamBehindSignature;
using KQTest::TemporaryDirectory;
using KQTest::TestInputStream;
using KQTest::TestOutputStream;
using KQTest::TimeZone;
using KQTest::utcSeconds;
using KQTest::writeFile;
using KQTest::zip64FieldBytes;
using KQTest::zip64With;

namespace {

using Lines = std::vector<std::string>;
using Lengths = std::vector<std::uint64_t>;

const std::uint16_t sourceTime = dosTime(12, 34, 56);
const std::uint16_t sourceDate = dosDate(2021, 7, 4);

// An entry whose local header was written at `offset`, and its central header, linked and copied.
struct WrittenEntry {
  explicit WrittenEntry(std::uint64_t offset = 0) : path(folder / "source") {
    writeFile(path, contents);
    KQTest::setModificationDate(path, utcSeconds(2021, 7, 4, 12, 34, 56));
    local = KQZipFileLocalHeader::initWithSourceFile(path);
    local->setFileName("5byte");
    TestOutputStream stream;
    stream.startOffset = offset;
    EXPECT_TRUE(local->writeToStream(stream, nullptr));
    central = std::make_shared<KQZipCentralDirectoryFileHeader>();
    central->setLocalHeader(local);
    central->copyPropertiesFromHeader(*local);
  }

  // What a write of the central header emits, given the two places where it names the local header.
  CentralHeaderFields fields(std::uint32_t offset, std::uint64_t zip64Offset) const {
    CentralHeaderFields expected;
    expected.modTime = sourceTime;
    expected.modDate = sourceDate;
    expected.crc32 = crcOf(contents);
    expected.offsetOfLocalHeader = offset;
    expected.name = "5byte";
    expected.extra = zip64FieldBytes(contents.size(), contents.size(), zip64Offset);
    return expected;
  }

  TimeZone zone{"UTC0"};
  TemporaryDirectory folder;
  OuterProgress outer;
  std::string contents = "0123456789";
  std::string path;
  std::shared_ptr<KQZipFileLocalHeader> local;
  std::shared_ptr<KQZipCentralDirectoryFileHeader> central;
};

// The lengths of the writes of a header with a name of 5 and a comment of 7 bytes: signature, sixteen fields,
// name, Zip64 field, comment.
const Lengths headerWrites{4, 2, 2, 2, 2, 2, 2, 4, 4, 4, 2, 2, 2, 2, 2, 4, 4, 5, 2, 2, 24, 7};

CentralHeaderFields distinctFields() {
  CentralHeaderFields fields;
  fields.versionMadeBy = 0x0102;
  fields.versionNeeded = 0x0304;
  fields.flags = 0x0506;
  fields.modTime = 0x0708;
  fields.modDate = 0x090A;
  fields.crc32 = 0x0B0C0D0E;
  fields.compressedSize = 0x0F101112;
  fields.uncompressedSize = 0x13141516;
  fields.diskNumberStart = 0x1718;
  fields.internalFileAttributes = 0x191A;
  fields.externalFileAttributes = 0x1B1C1D1E;
  fields.offsetOfLocalHeader = 0x1F202122;
  fields.name = "folder/\xC3\xA4.txt";
  fields.extra = extraFieldBytes(0x7777, "data");
  fields.comment = "comm\xC3\xA9nt";
  return fields;
}

const std::string compressionMessage = "File uses unsupported compression method.";

}  // namespace

// Construction

TEST(KQZipCentralDirectoryFileHeader, AFreshHeaderIsMadeByUnix30WithNoAttributesAndAnEmptyComment) {
  const KQZipCentralDirectoryFileHeader header;
  EXPECT_EQ(0x031E, header.versionMadeBy());
  EXPECT_EQ(0, header.fileCommentLength());
  EXPECT_EQ(0, header.diskNumberStart());
  EXPECT_EQ(0, header.internalFileAttributes());
  EXPECT_EQ(0u, header.externalFileAttributes());
  EXPECT_EQ(0u, header.offsetOfLocalHeader());
  EXPECT_EQ("", header.fileComment());
  EXPECT_EQ(nullptr, header.localHeader());
  EXPECT_EQ(45, header.versionNeeded());
  EXPECT_EQ(0, header.flags());
  EXPECT_EQ(0, header.compression());
  EXPECT_EQ(0xFFFFFFFFu, header.compressedSize());
  EXPECT_EQ(0xFFFFFFFFu, header.uncompressedSize());
  EXPECT_TRUE(header.extraFields().empty());
  EXPECT_TRUE(header.needsToCalculateCRC());
  EXPECT_TRUE(header.needsToSetModificationDate());
  EXPECT_TRUE(header.needsToSetFileSize());
  EXPECT_EQ(0x02014b50u, KQZipCentralDirectoryFileHeader::signature);
}

TEST(KQZipCentralDirectoryFileHeader, EachAccessorStoresItsOwnFieldAndNoOther) {
  KQZipCentralDirectoryFileHeader header;
  header.setVersionMadeBy(0x0102);
  header.setFileCommentLength(0x0304);
  header.setDiskNumberStart(0x0506);
  header.setInternalFileAttributes(0x0708);
  header.setExternalFileAttributes(0x090A0B0C);
  header.setOffsetOfLocalHeader(0x0D0E0F10);
  header.setFileComment("comment");
  EXPECT_EQ(0x0102, header.versionMadeBy());
  EXPECT_EQ(0x0304, header.fileCommentLength()) << "setting a comment does not set its length";
  EXPECT_EQ(0x0506, header.diskNumberStart());
  EXPECT_EQ(0x0708, header.internalFileAttributes());
  EXPECT_EQ(0x090A0B0Cu, header.externalFileAttributes());
  EXPECT_EQ(0x0D0E0F10u, header.offsetOfLocalHeader());
  EXPECT_EQ("comment", header.fileComment());
  header.setFileComment(std::nullopt);
  EXPECT_EQ(std::nullopt, header.fileComment());
}

TEST(KQZipCentralDirectoryFileHeader, ExtraFieldsAreAppendedAndReplacedInTheHeadersOwnList) {
  KQZipCentralDirectoryFileHeader header;
  const auto& list = header.extraFields();
  const auto first = fieldWith(1000, "1");
  const auto second = fieldWith(2000, "2");
  header.addExtraField(first);
  header.addExtraField(second);
  EXPECT_EQ((std::vector<std::shared_ptr<KQZipExtraField>>{first, second}), list);
  header.setExtraFields({second});
  EXPECT_EQ((std::vector<std::shared_ptr<KQZipExtraField>>{second}), list);
  EXPECT_EQ(&list, &header.extraFields());
}

TEST(KQZipCentralDirectoryFileHeader, TheLinkToTheLocalHeaderIsWeakAndOneSided) {
  KQZipCentralDirectoryFileHeader header;
  auto local = std::make_shared<KQZipFileLocalHeader>();
  header.setLocalHeader(local);
  EXPECT_EQ(local, header.localHeader());
  EXPECT_EQ(1, local.use_count());
  EXPECT_EQ(nullptr, local->centralDirectoryHeader());
  header.setLocalHeader(nullptr);
  EXPECT_EQ(nullptr, header.localHeader());
  header.setLocalHeader(local);
  local.reset();
  EXPECT_EQ(nullptr, header.localHeader());
}

TEST(KQZipCentralDirectoryFileHeader, TheLinkMayBeReadWhileTheLocalHeaderIsReleasedElsewhere) {
  for (int round = 0; round < 50; ++round) {
    KQZipCentralDirectoryFileHeader header;
    auto local = std::make_shared<KQZipFileLocalHeader>();
    local->setOffset(42);
    header.setLocalHeader(local);
    std::atomic<bool> reading{false};
    std::thread reader([&] {
      while (const auto seen = header.localHeader()) {
        reading = true;
        EXPECT_EQ(42u, seen->offset());
      }
    });
    while (!reading) std::this_thread::yield();
    local.reset();
    reader.join();
    EXPECT_EQ(nullptr, header.localHeader());
  }
}

TEST(KQZipCentralDirectoryFileHeader, TheCommentMayBeReadWhileItIsReplaced) {
  const std::string one(100, 'a');
  const std::string other(2000, 'b');
  KQZipCentralDirectoryFileHeader header;
  header.setFileComment(one);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 5000; ++i) header.setFileComment(i % 2 == 0 ? other : one);
    done = true;
  });
  bool whole = true;
  do {
    const auto comment = header.fileComment();
    whole = whole && (comment == one || comment == other);
  } while (!done);
  writer.join();
  EXPECT_TRUE(whole);
}

TEST(KQZipCentralDirectoryFileHeader, TheDescriptionNamesItsOwnClass) {
  const KQZipCentralDirectoryFileHeader header;
  EXPECT_EQ(0u, header.description().find("<KQZipCentralDirectoryFileHeader: "));
}

// Size

TEST(KQZipCentralDirectoryFileHeader, TheOutputSizeCountsHeaderNameCommentAndExtraFieldsButNoData) {
  KQZipCentralDirectoryFileHeader header;
  EXPECT_EQ(46u, header.outputSize());
  header.setFileName("5byte");
  EXPECT_EQ(51u, header.outputSize());
  header.setSourceFileSize(1000);
  EXPECT_EQ(51u, header.outputSize());
  header.addExtraField(zip64With(1000, 1000, 0));
  EXPECT_EQ(79u, header.outputSize());
  header.setFileComment("comm\xC3\xA9nt");
  EXPECT_EQ(87u, header.outputSize());
  header.setFileComment(std::nullopt);
  header.setFileName(std::string(70000, 'n'));
  EXPECT_EQ(46u + 70000u + 28u, header.outputSize()) << "counted in full";
}

// Copying

TEST(KQZipCentralDirectoryFileHeader, CopyingTakesTheEntrysFieldsAndLeavesItsOwn) {
  const TimeZone zone("UTC0");
  KQZipFileLocalHeader local;
  local.setVersionNeeded(20);
  local.setFlags(0x0808);
  local.setCompression(9);
  local.setCrc32(0xDEADBEEF);
  local.setCompressedSize(111);
  local.setUncompressedSize(222);
  local.setFileName("name");
  local.setFileNameLength(7777);
  local.setExtraFieldLength(8888);
  local.setSourceFilePath("/source");
  local.setSourceFileSize(333);
  local.setOffset(444);
  local.setModDate(sourceDate);
  local.setModTime(sourceTime);
  local.addExtraField(fieldWith(0x7777, "data"));
  local.addExtraField(zip64With(1, 2, 3));

  KQZipCentralDirectoryFileHeader header;
  header.setVersionMadeBy(0x0102);
  header.setFileCommentLength(5);
  header.setDiskNumberStart(6);
  header.setInternalFileAttributes(7);
  header.setExternalFileAttributes(8);
  header.setFileComment("kept");
  header.copyPropertiesFromHeader(local);

  EXPECT_EQ(20, header.versionNeeded());
  EXPECT_EQ(0x0808, header.flags());
  EXPECT_EQ(9, header.compression());
  EXPECT_EQ(0xDEADBEEFu, header.crc32());
  EXPECT_EQ(111u, header.compressedSize());
  EXPECT_EQ(222u, header.uncompressedSize());
  EXPECT_EQ("name", header.fileName());
  EXPECT_EQ(7777, header.fileNameLength());
  EXPECT_EQ(8888, header.extraFieldLength());
  EXPECT_EQ("/source", header.sourceFilePath());
  EXPECT_EQ(sourceDate, header.modDate());
  EXPECT_EQ(sourceTime, header.modTime());
  ASSERT_EQ(2u, header.extraFields().size());
  EXPECT_NE(local.extraFields()[0], header.extraFields()[0]);
  EXPECT_EQ("data", contentsOf(header.extraFields()[0]->fieldData()));
  header.findZip64InfoField()->setCompressedSize(99);
  EXPECT_EQ(2u, local.findZip64InfoField()->compressedSize()) << "the fields are copies";

  EXPECT_EQ(0u, header.offset());
  EXPECT_EQ(0u, header.sourceFileSize());
  EXPECT_EQ(nullptr, header.localHeader()) << "copying does not link";
  EXPECT_EQ(0x0102, header.versionMadeBy());
  EXPECT_EQ(5, header.fileCommentLength());
  EXPECT_EQ(6, header.diskNumberStart());
  EXPECT_EQ(7, header.internalFileAttributes());
  EXPECT_EQ(8u, header.externalFileAttributes());
  EXPECT_EQ("kept", header.fileComment());
  EXPECT_FALSE(header.needsToCalculateCRC()) << "the CRC came with the copy";
  EXPECT_TRUE(header.needsToSetModificationDate());
  EXPECT_TRUE(header.needsToSetFileSize());
}

TEST(KQZipCentralDirectoryFileHeader, CopyingSetsTheOffsetTheWrongWayRound) {
  const TimeZone zone("UTC0");
  const struct {
    std::uint64_t offset;
    std::uint32_t copied;
  } cases[] = {
      {0, 0xFFFFFFFF},
      {1, 0xFFFFFFFF},
      {0xFFFFFFFE, 0xFFFFFFFF},
      {0xFFFFFFFF, 0xFFFFFFFF},
      {0x100000000, 0},
      {0x123456789A, 0x3456789A},
      {0xFFFFFFFFFFFFFFFE, 0xFFFFFFFE},
  };
  for (const auto& [offset, copied] : cases) {
    SCOPED_TRACE(offset);
    KQZipFileLocalHeader local;
    local.setOffset(offset);
    KQZipCentralDirectoryFileHeader header;
    header.setOffsetOfLocalHeader(5);
    const KQZipFileEntry& entry = local;
    header.copyPropertiesFromHeader(entry);
    EXPECT_EQ(copied, header.offsetOfLocalHeader());
  }
}

TEST(KQZipCentralDirectoryFileHeader, CopyingNeedsNoLinkAndReadsTheOffsetOfTheHeaderItIsGiven) {
  const TimeZone zone("UTC0");
  const auto linked = std::make_shared<KQZipFileLocalHeader>();
  linked->setOffset(0x1000000002);
  KQZipFileLocalHeader given;
  given.setOffset(0x1000000001);
  KQZipCentralDirectoryFileHeader header;
  header.setLocalHeader(linked);
  header.copyPropertiesFromHeader(given);
  EXPECT_EQ(1u, header.offsetOfLocalHeader());
}

// Writing

TEST(KQZipCentralDirectoryFileHeader, AWrittenHeaderIsExactToTheByte) {
  const LogCapture log;
  const WrittenEntry entry(1000);
  TestOutputStream stream;
  stream.startOffset = 5000;
  Error error;
  EXPECT_TRUE(entry.central->writeToStream(stream, &error));
  EXPECT_EQ(hex(entry.fields(1000, 1000).bytes()), hex(stream.bytes));
  EXPECT_EQ(79u, stream.bytes.size());
  EXPECT_EQ(79u, entry.central->outputSize());
  Lengths writes = headerWrites;
  writes.pop_back();
  EXPECT_EQ(writes, stream.writes) << "an empty comment is not written";
  EXPECT_EQ(5000u, entry.central->offset()) << "where this header stands, not the local one";
  EXPECT_EQ(1000u, entry.local->offset());
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipCentralDirectoryFileHeader, TheOffsetIsSaturatedFrom0xFFFFFFFFOnAndAlwaysWholeInTheZip64Field) {
  const struct {
    std::uint64_t offset;
    std::uint32_t written;
  } cases[] = {
      {0, 0},
      {1, 1},
      {0xFFFFFFFE, 0xFFFFFFFE},
      {0xFFFFFFFF, 0xFFFFFFFF},
      {0x100000000, 0xFFFFFFFF},
      {0x123456789A, 0xFFFFFFFF},
  };
  for (const auto& [offset, written] : cases) {
    SCOPED_TRACE(offset);
    const WrittenEntry entry(offset);
    TestOutputStream stream;
    stream.startOffset = 0x2000000000;
    EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
    EXPECT_EQ(hex(entry.fields(written, offset).bytes()), hex(stream.bytes));
    EXPECT_EQ(written, entry.central->offsetOfLocalHeader());
    EXPECT_EQ(offset, entry.central->findZip64InfoField()->offsetOfLocalHeaderRecord());
    EXPECT_EQ(offset, entry.local->findZip64InfoField()->offsetOfLocalHeaderRecord());
  }
}

TEST(KQZipCentralDirectoryFileHeader, AHeaderCopiedFromOffsetZeroSaysSoOnlyOnceItIsWritten) {
  const WrittenEntry entry(0);
  EXPECT_EQ(0xFFFFFFFFu, entry.central->offsetOfLocalHeader());
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  EXPECT_EQ(0u, entry.central->offsetOfLocalHeader());
}

TEST(KQZipCentralDirectoryFileHeader, AReleasedLocalHeaderIsWrittenAsOffsetZero) {
  WrittenEntry entry(1000);
  entry.local.reset();
  TestOutputStream stream;
  stream.startOffset = 5000;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  EXPECT_EQ(hex(entry.fields(0, 0).bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectoryFileHeader, AHeaderThatWasNeverLinkedIsWrittenWithOffsetZero) {
  const WrittenEntry entry(1000);
  entry.central->setLocalHeader(nullptr);
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  EXPECT_EQ(hex(entry.fields(0, 0).bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectoryFileHeader, TheOffsetIsTheOneThatTheLocalHeaderHasAtTheWrite) {
  const WrittenEntry entry(1000);
  entry.local->setOffset(2000);
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  EXPECT_EQ(hex(entry.fields(2000, 2000).bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectoryFileHeader, AMissingZip64FieldIsMadeByTheWrite) {
  const WrittenEntry entry(1000);
  entry.central->setExtraFields({fieldWith(0x7777, "data")});
  EXPECT_EQ(46u + 5u + 8u, entry.central->outputSize());
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  CentralHeaderFields expected = entry.fields(1000, 1000);
  expected.extra = extraFieldBytes(0x7777, "data") + expected.extra;
  EXPECT_EQ(hex(expected.bytes()), hex(stream.bytes));
  EXPECT_EQ(36, entry.central->extraFieldLength());
  EXPECT_EQ(stream.bytes.size(), entry.central->outputSize());
}

TEST(KQZipCentralDirectoryFileHeader, OfTwoZip64FieldsTheFirstGetsTheSizesAndTheLastTheOffset) {
  const WrittenEntry entry(1000);
  entry.central->setExtraFields({zip64With(1, 2, 3), fieldWith(0x7777, ""), zip64With(4, 5, 6),
                                 zip64With(7, 8, 9), fieldWith(0x7778, "")});
  TestOutputStream stream;
  stream.startOffset = 5000;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  CentralHeaderFields expected = entry.fields(1000, 0);
  expected.extra = zip64FieldBytes(10, 10, 5000) + extraFieldBytes(0x7777, "") + zip64FieldBytes(4, 5, 6) +
                   zip64FieldBytes(7, 8, 1000) + extraFieldBytes(0x7778, "");
  EXPECT_EQ(hex(expected.bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectoryFileHeader, EveryFieldThatACallerSetIsWritten) {
  const WrittenEntry entry(1000);
  entry.central->setVersionMadeBy(0x0102);
  entry.central->setVersionNeeded(0x0304);
  entry.central->setFlags(0x0506);
  entry.central->setCompression(0x0708);
  entry.central->setCrc32(0x090A0B0C);
  entry.central->setCompressedSize(0x0D0E0F10);
  entry.central->setUncompressedSize(0x11121314);
  entry.central->setDiskNumberStart(0x1516);
  entry.central->setInternalFileAttributes(0x1718);
  entry.central->setExternalFileAttributes(0x191A1B1C);
  entry.central->setOffsetOfLocalHeader(0x1D1E1F20);
  entry.central->setFileCommentLength(77);
  entry.central->setFileName("\xC3\xA4/");
  entry.central->setFileComment("comm\xC3\xA9nt");
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  CentralHeaderFields expected = entry.fields(1000, 1000);
  expected.versionMadeBy = 0x0102;
  expected.versionNeeded = 0x0304;
  expected.flags = 0x0506;
  expected.compression = 0x0708;
  expected.crc32 = 0x090A0B0C;
  expected.compressedSize = 0x0D0E0F10;
  expected.uncompressedSize = 0x11121314;
  expected.diskNumberStart = 0x1516;
  expected.internalFileAttributes = 0x1718;
  expected.externalFileAttributes = 0x191A1B1C;
  expected.name = "\xC3\xA4/";
  expected.comment = "comm\xC3\xA9nt";
  EXPECT_EQ(hex(expected.bytes()), hex(stream.bytes));
  EXPECT_EQ(8, entry.central->fileCommentLength());
  EXPECT_EQ(3, entry.central->fileNameLength());
  EXPECT_EQ(stream.bytes.size(), entry.central->outputSize());
}

TEST(KQZipCentralDirectoryFileHeader, AnAbsentCommentIsWrittenAsNone) {
  const WrittenEntry entry(1000);
  entry.central->setFileComment(std::nullopt);
  entry.central->setFileCommentLength(77);
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  EXPECT_EQ(hex(entry.fields(1000, 1000).bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectoryFileHeader, ANameAndACommentBeyond65535BytesAreWrittenWholeBehindCutLengths) {
  const WrittenEntry entry(1000);
  entry.central->setFileName(std::string(65541, 'n'));
  entry.central->setFileComment(std::string(65539, 'c'));
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  CentralHeaderFields expected = entry.fields(1000, 1000);
  expected.name = std::string(65541, 'n');
  expected.nameLength = 5;
  expected.comment = std::string(65539, 'c');
  expected.commentLength = 3;
  expectSameBytes(expected.bytes(), stream.bytes);
  EXPECT_EQ(stream.bytes.size(), entry.central->outputSize());
}

TEST(KQZipCentralDirectoryFileHeader, AStreamWithoutAnOffsetCountsAsStandingAtZeroWhenWriting) {
  const WrittenEntry entry(1000);
  entry.central->setOffset(55);
  TestOutputStream stream;
  stream.hasOffset = false;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  EXPECT_EQ(0u, entry.central->offset());
  EXPECT_EQ(hex(entry.fields(1000, 1000).bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectoryFileHeader, TheSourcesAttributesAreTakenAgainForTheCentralHeader) {
  const WrittenEntry entry(1000);
  writeFile(entry.path, "longer than it was before");
  KQTest::setModificationDate(entry.path, utcSeconds(1999, 12, 31, 23, 58, 56));
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  CentralHeaderFields expected = entry.fields(1000, 1000);
  expected.modDate = dosDate(1999, 12, 31);
  expected.modTime = dosTime(23, 58, 56);
  expected.extra = zip64FieldBytes(25, 25, 1000);
  EXPECT_EQ(hex(expected.bytes()), hex(stream.bytes)) << "the CRC is the one that was copied";
}

TEST(KQZipCentralDirectoryFileHeader, AVanishedSourceIsLoggedAndLeavesSizesOfZero) {
  const LogCapture log;
  const WrittenEntry entry(1000);
  std::filesystem::remove(entry.path);
  TestOutputStream stream;
  Error error;
  EXPECT_TRUE(entry.central->writeToStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  CentralHeaderFields expected = entry.fields(1000, 1000);
  expected.extra = zip64FieldBytes(0, 0, 1000);
  EXPECT_EQ(hex(expected.bytes()), hex(stream.bytes))
      << "the date came with the copy, the source's size did not";
  EXPECT_EQ(Lines{"failed to get attributes for " + entry.path}, log.lines());
}

TEST(KQZipCentralDirectoryFileHeader, AHeaderThatWasNotCopiedComputesItsOwnCrc) {
  const WrittenEntry entry(1000);
  KQZipCentralDirectoryFileHeader header;
  header.setSourceFilePath(entry.path);
  header.setFileName("5byte");
  header.setLocalHeader(entry.local);
  TestOutputStream stream;
  EXPECT_TRUE(header.writeToStream(stream, nullptr));
  EXPECT_EQ(hex(entry.fields(1000, 1000).bytes()), hex(stream.bytes));
  EXPECT_FALSE(header.needsToCalculateCRC());
}

TEST(KQZipCentralDirectoryFileHeader, AHeaderForASourceFileIsACentralHeaderOfIt) {
  const LogCapture log;
  const WrittenEntry entry(1000);
  const auto header = KQZipCentralDirectoryFileHeader::initWithSourceFile(entry.path);
  static_assert(std::is_same_v<decltype(header), const std::shared_ptr<KQZipCentralDirectoryFileHeader>>);
  EXPECT_EQ(entry.path, header->sourceFilePath());
  EXPECT_EQ(entry.path, header->fileName());
  EXPECT_EQ(0x031E, header->versionMadeBy());
  EXPECT_TRUE(header->extraFields().empty());
  EXPECT_TRUE(header->needsToCalculateCRC());
  header->setFileName("5byte");
  header->setLocalHeader(entry.local);
  TestOutputStream stream;
  EXPECT_TRUE(header->writeToStream(stream, nullptr));
  EXPECT_EQ(hex(entry.fields(1000, 1000).bytes()), hex(stream.bytes));
  EXPECT_EQ(Lines(), log.lines());

  EXPECT_TRUE(KQZipCentralDirectoryFileHeader::initWithSourceFile("/no/such/file"));
  EXPECT_EQ(Lines(), log.lines()) << "the file is not looked at";
}

TEST(KQZipCentralDirectoryFileHeader, AWriteMakesNoProgress) {
  const WrittenEntry entry(1000);
  TestOutputStream stream;
  stream.beforeWrite = [&](std::size_t) { EXPECT_TRUE(entry.outer.isCurrent()); };
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  EXPECT_EQ(nullptr, entry.central->progress());
  EXPECT_TRUE(entry.outer.isCurrent());
}

TEST(KQZipCentralDirectoryFileHeader, ACancelledProgressDoesNotStopTheWrite) {
  const WrittenEntry entry(1000);
  OuterProgress outer;
  outer->cancel();
  TestOutputStream stream;
  EXPECT_TRUE(entry.central->writeToStream(stream, nullptr));
  EXPECT_EQ(hex(entry.fields(1000, 1000).bytes()), hex(stream.bytes));
}

TEST(KQZipCentralDirectoryFileHeader, ASecondWriteIsTheSameAtAnotherPlace) {
  const WrittenEntry entry(1000);
  TestOutputStream first;
  EXPECT_TRUE(entry.central->writeToStream(first, nullptr));
  TestOutputStream second;
  second.startOffset = 7000;
  EXPECT_TRUE(entry.central->writeToStream(second, nullptr));
  EXPECT_EQ(hex(first.bytes), hex(second.bytes));
  EXPECT_EQ(7000u, entry.central->offset());
  EXPECT_EQ(1u, entry.central->extraFields().size());
}

// Failures of a write

TEST(KQZipCentralDirectoryFileHeader, WithoutASourcePathNothingIsWritten) {
  StreamBehindSignature input(distinctFields().bytes());
  const auto parsed = KQZipCentralDirectoryFileHeader::initWithStream(input, nullptr);
  ASSERT_NE(nullptr, parsed);
  TestOutputStream stream;
  stream.startOffset = 1000;
  Error error;
  EXPECT_FALSE(parsed->writeToStream(stream, &error));
  expectKQZipError(error, -50, "Source file doesn't exist: (null)");
  EXPECT_TRUE(stream.writes.empty());
  EXPECT_EQ(0x1F202122u, parsed->offsetOfLocalHeader()) << "the offset is only taken once all is prepared";
  EXPECT_FALSE(parsed->writeToStream(stream));
}

TEST(KQZipCentralDirectoryFileHeader, AMissingSourceWithoutACrcWritesNothing) {
  const TemporaryDirectory folder;
  const std::string path = folder / "missing";
  const LogCapture log;
  KQZipCentralDirectoryFileHeader header;
  header.setSourceFilePath(path);
  TestOutputStream stream;
  Error error;
  EXPECT_FALSE(header.writeToStream(stream, &error));
  expectKQZipError(error, -50, "Can't calculate CRC of " + path);
  EXPECT_TRUE(stream.writes.empty());
  EXPECT_EQ(Lines{"failed to calculate crc: failed to open stream at " + path}, log.lines());
}

TEST(KQZipCentralDirectoryFileHeader, EachFailingWriteStopsTheHeaderThere) {
  const std::size_t fieldData = 21;  // the data of the Zip64 field, whose failure the field does not report
  for (std::size_t failing = 1; failing <= headerWrites.size(); ++failing) {
    if (failing == fieldData) continue;
    for (const std::int64_t result : {-1, 0}) {
      for (const KQTest::Slot slot : {KQTest::Slot::none, KQTest::Slot::filled}) {
        SCOPED_TRACE("write " + std::to_string(failing) + " returns " + std::to_string(result) + ", " +
                     KQTest::nameOf(slot));
        const WrittenEntry entry(1000);
        entry.central->setFileComment("comment");
        CentralHeaderFields expected = entry.fields(1000, 1000);
        expected.comment = "comment";
        const LogCapture log;
        TestOutputStream stream;
        stream.failAtWrite = static_cast<std::int64_t>(failing);
        stream.failResult = result;
        const Error earlier = slot == KQTest::Slot::filled ? earlierError() : nullptr;
        Error error = earlier;
        EXPECT_FALSE(entry.central->writeToStream(stream, slot == KQTest::Slot::none ? nullptr : &error));
        EXPECT_EQ(failing, stream.writes.size());
        EXPECT_EQ(hex(expected.bytes().substr(0, KQTest::sumOfFirst(headerWrites, failing - 1))),
                  hex(stream.bytes));
        if (result == 0) {
          EXPECT_EQ(earlier, error);
          EXPECT_EQ(Lines(), log.lines());
        } else {
          if (slot != KQTest::Slot::none) expectKQZipError(error, -51, "Error writing file");
          EXPECT_EQ(KQTest::writingFailedLine(error), log.lines());
        }
        EXPECT_TRUE(entry.outer.isCurrent());
      }
    }
  }
}

TEST(KQZipCentralDirectoryFileHeader, AFailureToWriteTheExtraFieldsDataShowsAtTheCommentOrNotAtAll) {
  for (const bool commented : {false, true}) {
    for (const bool forGood : {false, true}) {
      SCOPED_TRACE(std::to_string(commented) + std::to_string(forGood));
      const LogCapture log;
      const WrittenEntry entry(1000);
      if (commented) entry.central->setFileComment("comment");
      CentralHeaderFields cut = entry.fields(1000, 1000);
      cut.extra.resize(4);
      cut.extraLength = 28;
      const bool fails = commented && forGood;
      cut.comment = commented && !forGood ? "comment" : "";
      cut.commentLength = commented ? 7 : 0;
      TestOutputStream stream;
      stream.failAtWrite = 21;
      stream.failForGood = forGood;
      Error error;
      EXPECT_EQ(!fails, entry.central->writeToStream(stream, &error));
      EXPECT_EQ(hex(cut.bytes()), hex(stream.bytes));
      expectKQZipError(error, -51, "Error writing file");
      EXPECT_EQ(Lines(fails ? 2 : 1, KQTest::writingFailedLine(error)[0]), log.lines());
    }
  }
}

TEST(KQZipCentralDirectoryFileHeader, APartlyTakenWriteIsNotCompletedAndASuccess) {
  for (std::size_t partial = 1; partial <= headerWrites.size(); ++partial) {
    SCOPED_TRACE(partial);
    const WrittenEntry entry(1000);
    entry.central->setFileComment("comment");
    CentralHeaderFields fields = entry.fields(1000, 1000);
    fields.comment = "comment";
    std::string expected = fields.bytes();
    expected.erase(KQTest::sumOfFirst(headerWrites, partial - 1) + 1, headerWrites[partial - 1] - 1);
    TestOutputStream stream;
    stream.shortenAtWrite = static_cast<std::int64_t>(partial);
    Error error;
    EXPECT_TRUE(entry.central->writeToStream(stream, &error));
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(headerWrites, stream.writes);
    EXPECT_EQ(hex(expected), hex(stream.bytes));
  }
}

// Parsing

TEST(KQZipCentralDirectoryFileHeader, AParseReadsEveryFieldAndStandsBehindTheComment) {
  const CentralHeaderFields fields = distinctFields();
  TestInputStream stream(std::string(96, 'x') + fields.bytes() + "next");
  stream.position = 100;
  const Error earlier = earlierError();
  Error error = earlier;
  KQZipCentralDirectoryFileHeader header;
  EXPECT_TRUE(header.parseFromStream(stream, &error));

  EXPECT_EQ(100u, header.offset()) << "4 bytes past the record's start";
  EXPECT_EQ(0x0102, header.versionMadeBy());
  EXPECT_EQ(0x0304, header.versionNeeded());
  EXPECT_EQ(0x0506, header.flags());
  EXPECT_EQ(0, header.compression());
  EXPECT_EQ(0x0708, header.modTime());
  EXPECT_EQ(0x090A, header.modDate());
  EXPECT_EQ(0x0B0C0D0Eu, header.crc32());
  EXPECT_EQ(0x0F101112u, header.compressedSize());
  EXPECT_EQ(0x13141516u, header.uncompressedSize());
  EXPECT_EQ(13, header.fileNameLength());
  EXPECT_EQ(8, header.extraFieldLength());
  EXPECT_EQ(8, header.fileCommentLength());
  EXPECT_EQ(0x1718, header.diskNumberStart());
  EXPECT_EQ(0x191A, header.internalFileAttributes());
  EXPECT_EQ(0x1B1C1D1Eu, header.externalFileAttributes());
  EXPECT_EQ(0x1F202122u, header.offsetOfLocalHeader());
  EXPECT_EQ("folder/\xC3\xA4.txt", header.fileName());
  ASSERT_EQ(1u, header.extraFields().size());
  EXPECT_EQ(0x7777, header.extraFields()[0]->fieldSignature());
  EXPECT_EQ("data", contentsOf(header.extraFields()[0]->fieldData()));
  EXPECT_EQ("comm\xC3\xA9nt", header.fileComment());
  EXPECT_EQ(96 + fields.bytes().size(), stream.position) << "there is no data to step over";
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(nullptr, header.localHeader());
  EXPECT_EQ(0u, header.offsetOfDataInArchive());
  EXPECT_EQ(fields.bytes().size(), header.outputSize());
}

TEST(KQZipCentralDirectoryFileHeader, AParseMakesOneReadForEachField) {
  CentralHeaderFields fields;
  fields.name = "name";
  fields.comment = "comment";
  StreamBehindSignature stream(fields.bytes());
  KQZipCentralDirectoryFileHeader header;
  EXPECT_TRUE(header.parseFromStream(stream, nullptr));
  EXPECT_EQ((Lengths{2, 2, 2, 2, 2, 2, 4, 4, 4, 2, 2, 2, 2, 2, 4, 4, 4, 7}), stream.reads);
  EXPECT_TRUE(stream.offsetsSet.empty());
}

TEST(KQZipCentralDirectoryFileHeader, AHeaderThatWasWrittenIsParsedBackWithItsOffset4BytesOn) {
  const WrittenEntry entry(1000);
  const std::string archive = entry.folder / "archive";
  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(archive);
  output->open();
  const std::string before(5000, 'x');
  ASSERT_EQ(5000, output->write(reinterpret_cast<const std::uint8_t*>(before.data()), 5000));
  EXPECT_TRUE(entry.central->writeToStream(*output, nullptr));
  output->close();
  EXPECT_EQ(5000u, entry.central->offset());
  expectSameBytes(before + entry.fields(1000, 1000).bytes(), KQTest::readFile(archive));

  const auto input = KQ::NSInputStream::inputStreamWithFileAtPath(archive);
  ASSERT_NE(nullptr, input);
  input->open();
  ASSERT_TRUE(input->setNSStreamFileCurrentOffsetKey(5004));
  const auto parsed = KQZipCentralDirectoryFileHeader::initWithStream(*input, nullptr);
  ASSERT_NE(nullptr, parsed);
  EXPECT_EQ(5004u, parsed->offset());
  EXPECT_EQ(5079u, input->NSStreamFileCurrentOffsetKey());
  EXPECT_EQ(1000u, parsed->offsetOfLocalHeader());
  EXPECT_EQ(1000u, parsed->findZip64InfoField()->offsetOfLocalHeaderRecord());
  EXPECT_EQ(10u, parsed->dataLengthFromHeader());
  EXPECT_EQ(crcOf(entry.contents), parsed->crc32());
  EXPECT_EQ("5byte", parsed->fileName());
  EXPECT_EQ("", parsed->fileComment());
  EXPECT_EQ(0x031E, parsed->versionMadeBy());
}

TEST(KQZipCentralDirectoryFileHeader, AnotherMethodThanStoredFailsAndReadsNoFurther) {
  for (const int method : {8, 1, 9, 99, 0x0100, 0xFFFF}) {
    SCOPED_TRACE(method);
    CentralHeaderFields fields = distinctFields();
    fields.compression = static_cast<std::uint16_t>(method);
    const LogCapture log;
    StreamBehindSignature stream(fields.bytes());
    Error error = earlierError();
    KQZipCentralDirectoryFileHeader header;
    EXPECT_FALSE(header.parseFromStream(stream, &error));
    expectKQZipError(error, -101, compressionMessage);
    EXPECT_EQ((Lengths{2, 2, 2, 2}), stream.reads);
    EXPECT_EQ(12u, stream.position) << "8 bytes past the signature";
    EXPECT_EQ(0x0102, header.versionMadeBy()) << "what was read stays";
    EXPECT_EQ(method, header.compression());
    EXPECT_EQ(0, header.modTime());
    EXPECT_EQ(Lines(), log.lines());
    StreamBehindSignature withoutSlot(fields.bytes());
    EXPECT_FALSE(header.parseFromStream(withoutSlot));
  }
}

TEST(KQZipCentralDirectoryFileHeader, AFailedParseGivesNoHeaderAndIsLoggedWithItsError) {
  CentralHeaderFields fields = distinctFields();
  fields.compression = 8;
  const LogCapture log;
  StreamBehindSignature stream(fields.bytes());
  Error error;
  EXPECT_EQ(nullptr, KQZipCentralDirectoryFileHeader::initWithStream(stream, &error));
  expectKQZipError(error, -101, compressionMessage);
  EXPECT_EQ(Lines{"Failed to parse KQZipCentralDirectoryFileHeader from stream: " + error->description()},
            log.lines());
}

TEST(KQZipCentralDirectoryFileHeader, AFailedParseWithAnEmptySlotIsLoggedAsNull) {
  const LogCapture log;
  TestInputStream stream{std::string()};
  Error error;
  EXPECT_EQ(nullptr, KQZipCentralDirectoryFileHeader::initWithStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines{"Failed to parse KQZipCentralDirectoryFileHeader from stream: (null)"}, log.lines());
  EXPECT_EQ(nullptr, KQZipCentralDirectoryFileHeader::initWithStream(stream));
}

TEST(KQZipCentralDirectoryFileHeader, ANameOrACommentThatIsNotUTF8IsAbsentAndNoError) {
  for (const std::string bad : {"\xFF", "ab\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xE4hnlich"}) {
    SCOPED_TRACE(hex(bad));
    CentralHeaderFields fields = distinctFields();
    fields.name = bad;
    StreamBehindSignature badName(fields.bytes());
    Error error;
    const auto nameless = KQZipCentralDirectoryFileHeader::initWithStream(badName, &error);
    ASSERT_NE(nullptr, nameless);
    EXPECT_EQ(std::nullopt, nameless->fileName());
    EXPECT_EQ("comm\xC3\xA9nt", nameless->fileComment());
    EXPECT_EQ(bad.size(), nameless->fileNameLength());

    fields = distinctFields();
    fields.comment = bad;
    StreamBehindSignature badComment(fields.bytes());
    const auto uncommented = KQZipCentralDirectoryFileHeader::initWithStream(badComment, &error);
    ASSERT_NE(nullptr, uncommented);
    EXPECT_EQ("folder/\xC3\xA4.txt", uncommented->fileName());
    EXPECT_EQ(std::nullopt, uncommented->fileComment());
    EXPECT_EQ(bad.size(), uncommented->fileCommentLength());
    EXPECT_EQ(fields.bytes().size(), badComment.position);
    EXPECT_EQ(nullptr, error);
  }
}

TEST(KQZipCentralDirectoryFileHeader, NameAndCommentKeepNULBytesAndTheLargestLengths) {
  CentralHeaderFields fields;
  fields.name = std::string("a\0b", 3);
  fields.comment = std::string("\0", 1);
  StreamBehindSignature stream(fields.bytes());
  const auto header = KQZipCentralDirectoryFileHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  EXPECT_EQ(fields.name, header->fileName());
  EXPECT_EQ(fields.comment, header->fileComment());

  fields.name = std::string(65535, 'n');
  fields.extra = extraFieldBytes(0x7777, std::string(65531, 'x'));
  fields.comment = std::string(65535, 'c');
  StreamBehindSignature large(fields.bytes());
  const auto largest = KQZipCentralDirectoryFileHeader::initWithStream(large, nullptr);
  ASSERT_NE(nullptr, largest);
  EXPECT_EQ(fields.name, largest->fileName());
  EXPECT_EQ(fields.comment, largest->fileComment());
  EXPECT_EQ(fields.bytes().size(), large.position);
}

TEST(KQZipCentralDirectoryFileHeader, LengthsOfZeroGiveEmptyTextsEvenAtTheEndOfTheStream) {
  const CentralHeaderFields fields;
  StreamBehindSignature stream(fields.bytes());
  KQZipCentralDirectoryFileHeader header;
  header.setFileName("earlier");
  header.setFileComment("earlier");
  EXPECT_TRUE(header.parseFromStream(stream, nullptr));
  EXPECT_EQ("", header.fileName());
  EXPECT_EQ("", header.fileComment());
  EXPECT_TRUE(header.extraFields().empty());
  EXPECT_EQ(46u, stream.position);
}

TEST(KQZipCentralDirectoryFileHeader, ExtraFieldsAreReadInOrderUntilTheirAreaIsUsedUp) {
  CentralHeaderFields fields;
  fields.name = "n";
  fields.comment = "c";
  fields.extra = extraFieldBytes(0x5455, "") + extraFieldBytes(0xCAFE, "1234567") + zip64FieldBytes(2, 3, 4);
  StreamBehindSignature stream(fields.bytes());
  const auto header = KQZipCentralDirectoryFileHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  ASSERT_EQ(3u, header->extraFields().size());
  EXPECT_EQ(0x5455, header->extraFields()[0]->fieldSignature());
  EXPECT_EQ(0, header->extraFields()[0]->fieldSize());
  EXPECT_EQ("1234567", contentsOf(header->extraFields()[1]->fieldData()));
  ASSERT_EQ(header->findZip64InfoField(), header->extraFields()[2]);
  EXPECT_EQ(4u, header->findZip64InfoField()->offsetOfLocalHeaderRecord());
  EXPECT_EQ("c", header->fileComment());
}

TEST(KQZipCentralDirectoryFileHeader, AnExtraFieldThatRunsPastItsAreaIsTakenWholeAndTheCommentReadBehindIt) {
  for (const int area : {1, 4, 6, 13}) {
    SCOPED_TRACE(area);
    CentralHeaderFields fields;
    fields.name = "n";
    fields.extra = extraFieldBytes(0x7777, "0123456789");
    fields.extraLength = static_cast<std::uint16_t>(area);
    fields.comment = "comment";
    StreamBehindSignature stream(fields.bytes());
    const auto header = KQZipCentralDirectoryFileHeader::initWithStream(stream, nullptr);
    ASSERT_NE(nullptr, header);
    ASSERT_EQ(1u, header->extraFields().size());
    EXPECT_EQ("0123456789", contentsOf(header->extraFields()[0]->fieldData()));
    EXPECT_EQ("comment", header->fileComment());
    EXPECT_EQ(fields.bytes().size(), stream.position);
  }
}

TEST(KQZipCentralDirectoryFileHeader,
     AHeaderCutAtAnyByteFailsWithAnEmptySlotUnlessOnlyTheLastTextsEndIsMissing) {
  CentralHeaderFields plain;
  plain.name = "name";
  CentralHeaderFields extended = plain;
  extended.extra = zip64FieldBytes(0, 0, 0);
  CentralHeaderFields commented = extended;
  commented.comment = "comment";
  const struct {
    CentralHeaderFields fields;
    std::size_t firstSuccess;
  } cases[] = {{plain, 46 + 1}, {extended, 46 + 4 + 28}, {commented, 46 + 4 + 28 + 1}};
  const TemporaryDirectory folder;
  for (const auto& [fields, firstSuccess] : cases) {
    const std::string whole = fields.bytes();
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
        KQZipCentralDirectoryFileHeader header;
        EXPECT_EQ(length >= firstSuccess, header.parseFromStream(*stream, &error));
        EXPECT_EQ(nullptr, error);
        EXPECT_EQ(Lines(), log.lines());
      }
    }
  }
}

TEST(KQZipCentralDirectoryFileHeader, EachFailingReadStopsTheParseThere) {
  CentralHeaderFields fields;
  fields.name = "name";
  fields.extra = zip64FieldBytes(3, 3, 0);
  fields.comment = "comment";
  StreamBehindSignature clean(fields.bytes());
  KQZipCentralDirectoryFileHeader parsed;
  ASSERT_TRUE(parsed.parseFromStream(clean, nullptr));
  ASSERT_EQ(22u, clean.reads.size());
  for (std::size_t failing = 1; failing <= clean.reads.size(); ++failing) {
    for (const KQTest::Slot slot : {KQTest::Slot::none, KQTest::Slot::empty, KQTest::Slot::filled}) {
      SCOPED_TRACE("read " + std::to_string(failing) + " fails, " + KQTest::nameOf(slot));
      const LogCapture log;
      StreamBehindSignature stream(fields.bytes());
      stream.failAtRead = static_cast<std::int64_t>(failing);
      Error error = slot == KQTest::Slot::filled ? earlierError() : nullptr;
      KQZipCentralDirectoryFileHeader header;
      EXPECT_FALSE(header.parseFromStream(stream, slot == KQTest::Slot::none ? nullptr : &error));
      EXPECT_EQ(failing, stream.reads.size());
      if (slot == KQTest::Slot::filled)
        expectKQZipError(error, -50, "Error reading file");
      else
        EXPECT_EQ(nullptr, error);
      EXPECT_EQ(KQTest::readingFailedLine(error), log.lines());
    }
  }
}

TEST(KQZipCentralDirectoryFileHeader, AStreamWithoutAnOffsetCountsAsStandingAtZeroWhenParsing) {
  CentralHeaderFields fields;
  fields.name = "name";
  fields.comment = "comment";
  StreamBehindSignature stream(fields.bytes());
  stream.hasOffset = false;
  KQZipCentralDirectoryFileHeader header;
  header.setOffset(77);
  EXPECT_TRUE(header.parseFromStream(stream, nullptr));
  EXPECT_EQ(0u, header.offset());
  EXPECT_EQ("name", header.fileName());
  EXPECT_EQ("comment", header.fileComment());
}

TEST(KQZipCentralDirectoryFileHeader, ExtraFieldsOnAStreamWithoutAnOffsetEndWithTheStream) {
  CentralHeaderFields fields;
  fields.name = "name";
  fields.extra = zip64FieldBytes(0, 0, 0);
  const LogCapture log;
  StreamBehindSignature stream(fields.bytes() + std::string(1000, '\0'));
  stream.hasOffset = false;
  Error error;
  KQZipCentralDirectoryFileHeader header;
  EXPECT_FALSE(header.parseFromStream(stream, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipCentralDirectoryFileHeader, NothingOfAParsedHeaderIsJudged) {
  CentralHeaderFields fields = distinctFields();
  fields.versionNeeded = 0xFFFF;
  fields.flags = 0xFFFF;
  fields.diskNumberStart = 0xFFFF;
  fields.offsetOfLocalHeader = 0xFFFFFFFF;
  fields.extra = {};
  StreamBehindSignature stream(fields.bytes());
  const auto header = KQZipCentralDirectoryFileHeader::initWithStream(stream, nullptr);
  ASSERT_NE(nullptr, header);
  EXPECT_EQ(0xFFFFFFFFu, header->offsetOfLocalHeader());
  EXPECT_EQ(0xFFFF, header->flags());
}
