#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Support/EntryRecords.h"
#include "Support/SystemCalls.h"

using KQTest::crcOf;
using KQTest::dateAt;
using KQTest::dosDate;
using KQTest::dosTime;
using KQTest::earlierError;
using KQTest::Error;
using KQTest::expectKQZipError;
using KQTest::fieldWith;
using KQTest::LogCapture;
using KQTest::mebibyte;
using KQTest::patternBytes;
using KQTest::SystemCalls;
using KQTest::TemporaryDirectory;
using KQTest::TestInputStream;
using KQTest::TestOutputStream;
using KQTest::TimeZone;
using KQTest::utcSeconds;
using KQTest::writeFile;
using KQTest::zip64With;

namespace {

using Lines = std::vector<std::string>;

// The rules are given with the zones, so that the machine needs no table of them.
const char utc[] = "UTC0";
const char centralEurope[] = "CET-1CEST,M3.5.0,M10.5.0/3";
const char india[] = "IST-5:30";
const char lordHowe[] = "LHST-10:30LHDT-11,M10.1.0,M4.1.0";
const char newfoundland[] = "NST3:30NDT,M3.2.0,M11.1.0";

// Opens to the tests what is for subclasses.
class OpenEntry : public KQZipFileEntry {
 public:
  using KQZipFileEntry::_prepareForWritingError;
  using KQZipFileEntry::_updateModificationDateFromAttributes;
  using KQZipFileEntry::_updateSourceFileSizeFromAttributes;
};

// Lets a test look around while it is copied.
class WatchingField : public KQZipExtraField {
 public:
  std::function<void()> onCopy;

  std::shared_ptr<KQZipExtraField> copyWithZone() const override {
    if (onCopy) onCopy();
    return KQZipExtraField::copyWithZone();
  }

 protected:
  std::shared_ptr<KQZipExtraField> _newInstance() const override { return std::make_shared<WatchingField>(); }
};

// An entry whose data comes from a file with these contents.
struct SourceEntry {
  explicit SourceEntry(const std::string& contents) : path(folder / "source") {
    writeFile(path, contents);
    entry.setSourceFilePath(path);
  }

  TemporaryDirectory folder;
  std::string path;
  OpenEntry entry;
};

long long secondsOf(KQ::NSDate date) {
  return std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count();
}

// The date that the fields stand for.
long long decoded(std::uint16_t modDate, std::uint16_t modTime) {
  KQZipFileEntry entry;
  entry.setModDate(modDate);
  entry.setModTime(modTime);
  return secondsOf(entry.modificationDate());
}

// The fields, date and time, that a date is stored as.
std::pair<std::uint16_t, std::uint16_t> encoded(KQ::NSDate date) {
  KQZipFileEntry entry;
  entry.setModificationDate(date);
  return {entry.modDate(), entry.modTime()};
}

std::pair<std::uint16_t, std::uint16_t> encoded(long long seconds) { return encoded(dateAt(seconds)); }

using Fields = std::pair<std::uint16_t, std::uint16_t>;

void expectFlags(const KQZipFileEntry& entry, bool crc, bool date, bool size) {
  EXPECT_EQ(crc, entry.needsToCalculateCRC());
  EXPECT_EQ(date, entry.needsToSetModificationDate());
  EXPECT_EQ(size, entry.needsToSetFileSize());
  EXPECT_EQ(date || size, entry.needsToUpdateAttributesFromSourceFile());
}

}  // namespace

// Construction

TEST(KQZipFileEntry, AFreshEntryHasSaturatedSizesVersion45AndNothingElse) {
  const KQZipFileEntry entry;
  EXPECT_EQ(45, entry.versionNeeded());
  EXPECT_EQ(0, entry.flags());
  EXPECT_EQ(0, entry.compression());
  EXPECT_EQ(0, entry.modTime());
  EXPECT_EQ(0, entry.modDate());
  EXPECT_EQ(0u, entry.crc32());
  EXPECT_EQ(0xFFFFFFFFu, entry.compressedSize());
  EXPECT_EQ(0xFFFFFFFFu, entry.uncompressedSize());
  EXPECT_EQ(0, entry.fileNameLength());
  EXPECT_EQ(0, entry.extraFieldLength());
  EXPECT_EQ(std::nullopt, entry.fileName());
  EXPECT_EQ(std::nullopt, entry.relativePath());
  EXPECT_EQ(std::nullopt, entry.sourceFilePath());
  EXPECT_TRUE(entry.extraFields().empty());
  EXPECT_EQ(nullptr, entry.findZip64InfoField());
  EXPECT_EQ(0u, entry.offsetOfDataInArchive());
  EXPECT_EQ(nullptr, entry.progress());
  EXPECT_EQ(0u, entry.sourceFileSize());
  EXPECT_EQ(0u, entry.offset());
  expectFlags(entry, true, true, true);
}

TEST(KQZipFileEntry, EachAccessorStoresItsOwnFieldAndNoOther) {
  KQZipFileEntry entry;
  entry.setVersionNeeded(0x0102);
  entry.setFlags(0x0304);
  entry.setCompression(0x0506);
  entry.setModTime(0x0708);
  entry.setModDate(0x090A);
  entry.setCompressedSize(0x0B0C0D0E);
  entry.setUncompressedSize(0x0F101112);
  entry.setFileNameLength(0x1314);
  entry.setExtraFieldLength(0x1516);
  entry.setFileName("name");
  entry.setSourceFilePath("/source");
  entry.setSourceFileSize(0x1718191A1B1C1D1E);
  entry.setOffset(0x1F20212223242526);
  expectFlags(entry, true, true, true);
  EXPECT_EQ(0u, entry.crc32());
  entry.setCrc32(0x2728292A);

  EXPECT_EQ(0x0102, entry.versionNeeded());
  EXPECT_EQ(0x0304, entry.flags());
  EXPECT_EQ(0x0506, entry.compression());
  EXPECT_EQ(0x0708, entry.modTime());
  EXPECT_EQ(0x090A, entry.modDate());
  EXPECT_EQ(0x0B0C0D0Eu, entry.compressedSize());
  EXPECT_EQ(0x0F101112u, entry.uncompressedSize());
  EXPECT_EQ(0x1314, entry.fileNameLength());
  EXPECT_EQ(0x1516, entry.extraFieldLength());
  EXPECT_EQ("name", entry.fileName());
  EXPECT_EQ("/source", entry.sourceFilePath());
  EXPECT_EQ(0x1718191A1B1C1D1Eu, entry.sourceFileSize());
  EXPECT_EQ(0x1F20212223242526u, entry.offset());
  EXPECT_EQ(0x2728292Au, entry.crc32());
}

TEST(KQZipFileEntry, SettingTheCrcCountsAsCalculatingIt) {
  KQZipFileEntry entry;
  entry.setCrc32(0);
  expectFlags(entry, false, true, true);
}

TEST(KQZipFileEntry, AnEntryForASourceFileHasThePathAsItsNameToo) {
  const LogCapture log;
  const auto entry = KQZipFileEntry::initWithSourceFile("/no/such/file");
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ("/no/such/file", entry->sourceFilePath());
  EXPECT_EQ("/no/such/file", entry->fileName());
  EXPECT_EQ(0, entry->fileNameLength());
  EXPECT_TRUE(entry->extraFields().empty());
  EXPECT_EQ(0u, entry->sourceFileSize());
  expectFlags(*entry, true, true, true);
  EXPECT_EQ(Lines(), log.lines());

  entry->setFileName("renamed");
  EXPECT_EQ("/no/such/file", entry->sourceFilePath());
}

TEST(KQZipFileEntry, ParsingTheBaseReadsNothingAndSucceedsEvenOnAFailingStream) {
  const LogCapture log;
  TestInputStream stream("bytes");
  stream.failAtRead = 1;
  const Error earlier = earlierError();
  Error error = earlier;
  KQZipFileEntry entry;
  EXPECT_TRUE(entry.parseFromStream(stream, &error));
  const auto made = KQZipFileEntry::initWithStream(stream, &error);

  ASSERT_NE(nullptr, made);
  EXPECT_EQ(45, made->versionNeeded());
  EXPECT_EQ(earlier, error);
  EXPECT_TRUE(stream.reads.empty());
  EXPECT_TRUE(stream.offsetsSet.empty());
  EXPECT_EQ(0u, entry.offset());
  EXPECT_EQ(Lines(), log.lines());
}

// Copying

TEST(KQZipFileEntry, CopyingTakesTheFieldsTheNamesCopiesOfTheExtraFieldsAndTheDate) {
  const TimeZone zone(utc);
  KQZipFileEntry source;
  source.setVersionNeeded(20);
  source.setFlags(0x0808);
  source.setCompression(9);
  source.setCrc32(0xDEADBEEF);
  source.setCompressedSize(111);
  source.setUncompressedSize(222);
  source.setFileName("docs/name.txt");
  source.setFileNameLength(7777);
  source.setExtraFieldLength(8888);
  source.setSourceFilePath("/source");
  source.setModDate(dosDate(2021, 7, 4));
  source.setModTime(dosTime(12, 34, 56));
  source.addExtraField(fieldWith(0x7777, "first"));
  source.addExtraField(zip64With(1, 2, 3));

  KQZipFileEntry copy;
  copy.addExtraField(fieldWith(0x1111, "replaced"));
  copy.copyPropertiesFromHeader(source);

  EXPECT_EQ(20, copy.versionNeeded());
  EXPECT_EQ(0x0808, copy.flags());
  EXPECT_EQ(9, copy.compression());
  EXPECT_EQ(0xDEADBEEFu, copy.crc32());
  EXPECT_EQ(111u, copy.compressedSize());
  EXPECT_EQ(222u, copy.uncompressedSize());
  EXPECT_EQ("docs/name.txt", copy.fileName());
  EXPECT_EQ(7777, copy.fileNameLength()) << "the field is copied, not computed from the name";
  EXPECT_EQ(8888, copy.extraFieldLength());
  EXPECT_EQ("/source", copy.sourceFilePath());
  EXPECT_EQ(dosDate(2021, 7, 4), copy.modDate());
  EXPECT_EQ(dosTime(12, 34, 56), copy.modTime());

  ASSERT_EQ(2u, copy.extraFields().size());
  EXPECT_NE(source.extraFields()[0], copy.extraFields()[0]);
  EXPECT_EQ(0x7777, copy.extraFields()[0]->fieldSignature());
  EXPECT_EQ("first", KQTest::contentsOf(copy.extraFields()[0]->fieldData()));
  EXPECT_EQ(source.extraFields()[0]->fieldData(), copy.extraFields()[0]->fieldData());
  const auto zip64 = copy.findZip64InfoField();
  ASSERT_NE(nullptr, zip64);
  EXPECT_NE(source.findZip64InfoField(), zip64);
  EXPECT_EQ(1u, zip64->uncompressedSize());
  EXPECT_EQ(2u, zip64->compressedSize());
  EXPECT_EQ(3u, zip64->offsetOfLocalHeaderRecord());
  EXPECT_EQ(2u, source.extraFields().size());
}

TEST(KQZipFileEntry, CopyingSetsTheCrcAsCalculatedButLeavesTheAttributeFlags) {
  const TimeZone zone(utc);
  const KQZipFileEntry source;
  KQZipFileEntry copy;
  copy.copyPropertiesFromHeader(source);
  expectFlags(copy, false, true, true);
  expectFlags(source, true, true, true);

  OpenEntry upToDate;
  upToDate._updateSourceFileSizeFromAttributes({5, std::nullopt, std::nullopt});
  upToDate._updateModificationDateFromAttributes({std::nullopt, dateAt(0), std::nullopt});
  expectFlags(upToDate, true, false, false);
  upToDate.copyPropertiesFromHeader(source);
  expectFlags(upToDate, false, false, false);
  KQZipFileEntry fromUpToDate;
  fromUpToDate.copyPropertiesFromHeader(upToDate);
  expectFlags(fromUpToDate, false, true, true);
}

TEST(KQZipFileEntry, CopyingLeavesOffsetSourceSizeDataPositionAndProgressAlone) {
  KQTest::LocalHeaderFields fields;
  fields.name = "parsed";
  fields.compressedSize = 5;
  TestInputStream stream(fields.bytes() + "12345");
  stream.position = 4;
  const auto source = KQZipFileLocalHeader::initWithStream(stream);
  ASSERT_NE(nullptr, source);
  ASSERT_EQ(36u, source->offsetOfDataInArchive());
  source->setOffset(100);
  source->setSourceFileSize(200);
  source->setProgress(KQ::NSProgress::progressWithTotalUnitCount(1));

  KQZipFileEntry copy;
  copy.copyPropertiesFromHeader(*source);
  EXPECT_EQ("parsed", copy.fileName());
  EXPECT_EQ(0u, copy.offset());
  EXPECT_EQ(0u, copy.sourceFileSize());
  EXPECT_EQ(0u, copy.offsetOfDataInArchive());
  EXPECT_EQ(nullptr, copy.progress());

  KQZipFileEntry filled;
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
  filled.setOffset(1);
  filled.setSourceFileSize(2);
  filled.setProgress(progress);
  filled.copyPropertiesFromHeader(*source);
  EXPECT_EQ(1u, filled.offset());
  EXPECT_EQ(2u, filled.sourceFileSize());
  EXPECT_EQ(progress, filled.progress());
}

TEST(KQZipFileEntry, CopyingTakesAbsentNamesToo) {
  const TimeZone zone(utc);
  const KQZipFileEntry source;
  const auto copy = KQZipFileEntry::initWithSourceFile("/source");
  copy->addExtraField(fieldWith(0x1111, "dropped"));
  copy->copyPropertiesFromHeader(source);
  EXPECT_EQ(std::nullopt, copy->fileName());
  EXPECT_EQ(std::nullopt, copy->sourceFilePath());
  EXPECT_TRUE(copy->extraFields().empty());
}

TEST(KQZipFileEntry, CopyingTakesEverythingBeforeTheExtraFieldsAndInstallsThemBeforeTheDate) {
  const TimeZone zone(utc);
  KQZipFileEntry source;
  source.setVersionNeeded(20);
  source.setFlags(1);
  source.setCompression(2);
  source.setCrc32(3);
  source.setCompressedSize(4);
  source.setUncompressedSize(5);
  source.setFileName("name");
  source.setFileNameLength(6);
  source.setExtraFieldLength(7);
  source.setSourceFilePath("/source");
  source.setModDate(dosDate(2021, 7, 4));
  source.setModTime(dosTime(12, 34, 56));

  KQZipFileEntry copy;
  const auto old = fieldWith(0x1111, "old");
  copy.addExtraField(old);
  copy.setModDate(0x1234);
  copy.setModTime(0x5678);

  std::string order;
  const auto watch = [&](const char* which) {
    auto field = std::make_shared<WatchingField>();
    field->onCopy = [&, which] {
      order += which;
      EXPECT_EQ(20, copy.versionNeeded());
      EXPECT_EQ(1, copy.flags());
      EXPECT_EQ(2, copy.compression());
      EXPECT_EQ(3u, copy.crc32());
      EXPECT_FALSE(copy.needsToCalculateCRC());
      EXPECT_EQ(4u, copy.compressedSize());
      EXPECT_EQ(5u, copy.uncompressedSize());
      EXPECT_EQ("name", copy.fileName());
      EXPECT_EQ(6, copy.fileNameLength());
      EXPECT_EQ(7, copy.extraFieldLength());
      EXPECT_EQ("/source", copy.sourceFilePath());
      EXPECT_EQ(1u, copy.extraFields().size()) << "the list is installed once it is whole";
      EXPECT_EQ(old, copy.extraFields()[0]);
      EXPECT_EQ(0x1234, copy.modDate()) << "the date comes last";
      EXPECT_EQ(0x5678, copy.modTime()) << "the date comes last";
    };
    source.addExtraField(field);
  };
  watch("1");
  watch("2");
  watch("3");

  copy.copyPropertiesFromHeader(source);

  EXPECT_EQ("123", order);
  EXPECT_EQ(3u, copy.extraFields().size());
  EXPECT_EQ(dosDate(2021, 7, 4), copy.modDate());
  EXPECT_EQ(dosTime(12, 34, 56), copy.modTime());
}

TEST(KQZipFileEntry, ACopyHasTheDateThatTheFieldsHaveInTheTimeZoneOfTheCopying) {
  KQZipFileEntry source;
  {
    const TimeZone zone(utc);
    source.setModificationDate(KQ::NSDate(std::chrono::seconds(utcSeconds(2021, 3, 28, 2, 30, 0))));
    ASSERT_EQ(dosTime(2, 30, 0), source.modTime());
  }
  // The clock is put forward from two to three there in that night.
  const TimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  KQZipFileEntry copy;
  copy.copyPropertiesFromHeader(source);
  EXPECT_EQ(dosDate(2021, 3, 28), copy.modDate());
  EXPECT_EQ(dosTime(3, 30, 0), copy.modTime());
  EXPECT_EQ(dosTime(2, 30, 0), source.modTime());
  KQZipFileEntry second;
  second.copyPropertiesFromHeader(copy);
  EXPECT_EQ(dosTime(3, 30, 0), second.modTime());
}

TEST(KQZipFileEntry, TheDateIsCopiedAsADateSoImpossibleFieldsComeOutNormalised) {
  const TimeZone zone(utc);
  KQZipFileEntry source;
  source.setModDate(dosDate(2021, 2, 31));
  source.setModTime(static_cast<std::uint16_t>(dosTime(23, 59, 0) + 31));  // 62 seconds
  KQZipFileEntry copy;
  copy.copyPropertiesFromHeader(source);
  EXPECT_EQ(dosDate(2021, 3, 4), copy.modDate());
  EXPECT_EQ(dosTime(0, 0, 2), copy.modTime());
  EXPECT_EQ(dosDate(2021, 2, 31), source.modDate());

  const KQZipFileEntry empty;
  copy.copyPropertiesFromHeader(empty);
  const std::uint16_t november30th1979 = 127 * 512 + 11 * 32 + 30;
  EXPECT_EQ(november30th1979, copy.modDate()) << "month 0, day 0 of 1980";
  EXPECT_EQ(0, copy.modTime());
}

// Extra fields and derived values

TEST(KQZipFileEntry, ExtraFieldsAreAppendedAndReplacedInTheEntrysOwnList) {
  KQZipFileEntry entry;
  const auto& list = entry.extraFields();
  const auto first = fieldWith(1000, "1");
  const auto second = fieldWith(2000, "2");
  const auto third = fieldWith(3000, "3");
  entry.addExtraField(first);
  entry.addExtraField(second);
  EXPECT_EQ((std::vector<std::shared_ptr<KQZipExtraField>>{first, second}), list);

  std::vector<std::shared_ptr<KQZipExtraField>> given{third, first};
  entry.setExtraFields(given);
  given.clear();
  EXPECT_EQ(&list, &entry.extraFields());
  EXPECT_EQ((std::vector<std::shared_ptr<KQZipExtraField>>{third, first}), list);
  entry.setExtraFields({});
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(0, entry.extraFieldLength());
}

TEST(KQZipFileEntry, NoFieldAtAllIsIgnored) {
  KQZipFileEntry entry;
  entry.addExtraField(nullptr);
  EXPECT_TRUE(entry.extraFields().empty());
  EXPECT_FALSE(entry.isDirectory());
  const auto field = fieldWith(1000, "1");
  entry.setExtraFields({nullptr, field, nullptr});
  entry.addExtraField(nullptr);
  EXPECT_EQ(std::vector<std::shared_ptr<KQZipExtraField>>{field}, entry.extraFields());
  EXPECT_FALSE(entry.isDirectory());
  EXPECT_EQ(nullptr, entry.findZip64InfoField());
  EXPECT_EQ(30U + 5U, entry.outputSize());
  KQZipFileEntry copy;
  copy.copyPropertiesFromHeader(entry);
  EXPECT_EQ(1U, copy.extraFields().size());
}

TEST(KQZipFileEntry, TheFirstZip64FieldIsFound) {
  KQZipFileEntry entry;
  entry.addExtraField(fieldWith(0x7777, "other"));
  EXPECT_EQ(nullptr, entry.findZip64InfoField());
  const auto renamed = zip64With(7, 7, 7);
  renamed->setFieldSignature(2);
  entry.addExtraField(renamed);
  EXPECT_EQ(nullptr, entry.findZip64InfoField()) << "the id decides";
  const auto first = zip64With(1, 1, 1);
  entry.addExtraField(first);
  entry.addExtraField(zip64With(2, 2, 2));
  EXPECT_EQ(first, entry.findZip64InfoField());
}

TEST(KQZipFileEntry, AGenericFieldWithTheZip64IdIsNotTakenForAZip64Field) {
  KQZipFileEntry entry;
  entry.addExtraField(fieldWith(1, "generic"));
  EXPECT_EQ(nullptr, entry.findZip64InfoField());
  EXPECT_EQ(0xFFFFFFFFu, entry.dataLengthFromHeader());
  const auto real = zip64With(1, 2, 3);
  entry.addExtraField(real);
  EXPECT_EQ(real, entry.findZip64InfoField());
}

TEST(KQZipFileEntry, TheRelativePathIsTheNameAndSettingItSetsTheLengthInBytes) {
  KQZipFileEntry entry;
  entry.setFileName("only the name");
  EXPECT_EQ("only the name", entry.relativePath());
  EXPECT_EQ(0, entry.fileNameLength());

  entry.setRelativePath("folder/");
  EXPECT_EQ("folder/", entry.fileName());
  EXPECT_EQ(7, entry.fileNameLength());
  entry.setRelativePath("folder");
  EXPECT_EQ("folder", entry.relativePath()) << "no slash is added";
  EXPECT_EQ(6, entry.fileNameLength());
  entry.setRelativePath(
      "Gr\xC3\xBC\xC3\x9F"
      "e \xF0\x9F\x8E\x81");
  EXPECT_EQ(12, entry.fileNameLength()) << "bytes, not characters";
  entry.setRelativePath(std::string(65535, 'n'));
  EXPECT_EQ(65535, entry.fileNameLength());
  entry.setRelativePath(std::string(65541, 'n'));
  EXPECT_EQ(5, entry.fileNameLength());
  EXPECT_EQ(65541u, entry.fileName().value_or("").size());
  entry.setRelativePath("");
  EXPECT_EQ("", entry.relativePath());
  EXPECT_EQ(0, entry.fileNameLength());
  entry.setRelativePath("x");
  entry.setRelativePath(std::nullopt);
  EXPECT_EQ(std::nullopt, entry.relativePath());
  EXPECT_EQ(0, entry.fileNameLength());
}

TEST(KQZipFileEntry, TheDataLengthIsTheZip64FieldsCompressedSizeElseThe32BitOne) {
  KQZipFileEntry entry;
  EXPECT_EQ(0xFFFFFFFFu, entry.dataLengthFromHeader());
  entry.setCompressedSize(5);
  entry.setUncompressedSize(6);
  EXPECT_EQ(5u, entry.dataLengthFromHeader());
  entry.addExtraField(zip64With(7, 0x123456789ABCDEF0, 9));
  EXPECT_EQ(0x123456789ABCDEF0u, entry.dataLengthFromHeader())
      << "also when the 32-bit size is not saturated";
  entry.setExtraFields({zip64With(7, 8, 9), zip64With(10, 11, 12)});
  EXPECT_EQ(8u, entry.dataLengthFromHeader()) << "the first field counts";
}

TEST(KQZipFileEntry, AnEntryWithoutDataIsADirectoryWhateverItsName) {
  KQZipFileEntry entry;
  entry.setFileName("folder/");
  EXPECT_FALSE(entry.isDirectory());
  entry.setFileName("file.txt");
  entry.setCompressedSize(0);
  EXPECT_TRUE(entry.isDirectory());
  entry.setCompressedSize(5);
  EXPECT_FALSE(entry.isDirectory());
  const auto zip64 = zip64With(5, 0, 0);
  entry.addExtraField(zip64);
  EXPECT_TRUE(entry.isDirectory()) << "the uncompressed size plays no part";
  zip64->setCompressedSize(1);
  EXPECT_FALSE(entry.isDirectory());
}

TEST(KQZipFileEntry, TheOutputSizeCountsHeaderNameExtraFieldsAndSource) {
  KQZipFileEntry entry;
  EXPECT_EQ(30u, entry.outputSize());
  entry.setRelativePath("a/b.txt");
  EXPECT_EQ(37u, entry.outputSize());
  entry.addExtraField(zip64With(0, 0, 0));
  EXPECT_EQ(65u, entry.outputSize());
  entry.setSourceFileSize(10);
  EXPECT_EQ(75u, entry.outputSize());
  entry.addExtraField(fieldWith(0x7777, "12345"));
  EXPECT_EQ(84u, entry.outputSize());
  entry.setRelativePath(std::string(70000, 'n'));
  EXPECT_EQ(30u + 70000u + 28u + 9u + 10u, entry.outputSize()) << "the name counts in full";
  entry.setSourceFileSize(0x100000000);
  EXPECT_EQ(30u + 70000u + 28u + 9u + 0x100000000u, entry.outputSize());
}

TEST(KQZipFileEntry, TheDescriptionNamesClassIdentityNameAndSource) {
  const auto identity = [](const KQZipFileEntry& entry) {
    std::array<char, 32> text{};
    EXPECT_LT(0, std::snprintf(text.data(), text.size(), "%p", static_cast<const void*>(&entry)));
    return std::string(text.data());
  };
  KQZipFileEntry entry;
  EXPECT_EQ("<KQZipFileEntry: " + identity(entry) + " path:(null) source:(null)>", entry.description());
  entry.setFileName("50%@ %p.txt");
  entry.setSourceFilePath("/a b/%d");
  EXPECT_EQ("<KQZipFileEntry: " + identity(entry) + " path:50%@ %p.txt source:/a b/%d>", entry.description());
  KQZipFileEntry other;
  other.setFileName("50%@ %p.txt");
  other.setSourceFilePath("/a b/%d");
  EXPECT_NE(entry.description(), other.description());
}

// MS-DOS date and time

TEST(KQZipFileEntry, TheTimeFieldDecodesToHoursMinutesAndEvenSeconds) {
  const TimeZone zone(utc);
  EXPECT_EQ(utcSeconds(2021, 7, 4, 23, 59, 58), decoded(dosDate(2021, 7, 4), 0xBF7D));
  EXPECT_EQ(utcSeconds(1980, 1, 1), decoded(0x0021, 0x0000));
  EXPECT_EQ(utcSeconds(2107, 12, 31, 23, 59, 58), decoded(0xFF9F, 0xBF7D));
  EXPECT_EQ(utcSeconds(2000, 2, 29, 1, 2, 4), decoded(dosDate(2000, 2, 29), dosTime(1, 2, 4)));
  EXPECT_EQ(utcSeconds(1980, 1, 1, 0, 0, 32), decoded(0x0021, 0x0010)) << "the highest bit of the seconds";
  EXPECT_EQ(utcSeconds(1980, 1, 1, 0, 32, 0), decoded(0x0021, 0x0400)) << "the highest bit of the minutes";
  EXPECT_EQ(utcSeconds(1980, 1, 1, 16, 0, 0), decoded(0x0021, 0x8000)) << "the highest bit of the hours";
}

TEST(KQZipFileEntry, ADateEncodesWithHalvedSeconds) {
  const TimeZone zone(utc);
  EXPECT_EQ(29, encoded(utcSeconds(2021, 7, 4, 12, 0, 59)).second & 31);
  EXPECT_EQ(Fields(dosDate(2021, 7, 4), dosTime(12, 0, 58)), encoded(utcSeconds(2021, 7, 4, 12, 0, 58)));
  EXPECT_EQ(Fields(dosDate(2021, 7, 4), dosTime(12, 0, 58)), encoded(utcSeconds(2021, 7, 4, 12, 0, 59)));
  EXPECT_EQ(Fields(dosDate(2021, 7, 4), dosTime(12, 1, 0)), encoded(utcSeconds(2021, 7, 4, 12, 1, 0)));
  EXPECT_EQ(Fields(0xFF9F, 0xBF7D), encoded(utcSeconds(2107, 12, 31, 23, 59, 59)));
  EXPECT_EQ(Fields(0x0021, 0x0000), encoded(utcSeconds(1980, 1, 1)));
  EXPECT_EQ(Fields(dosDate(2021, 7, 4), dosTime(12, 0, 58)),
            encoded(dateAt(utcSeconds(2021, 7, 4, 12, 0, 59)) + std::chrono::milliseconds(999)))
      << "parts of a second are cut off";
}

TEST(KQZipFileEntry, AYearOutside1980To2107WrapsModulo128) {
  const TimeZone zone(utc);
  const auto yearField = [](int year) { return encoded(utcSeconds(year, 6, 15, 10, 20, 30)).first >> 9; };
  EXPECT_EQ(127, yearField(1979));
  EXPECT_EQ(0, yearField(1980));
  EXPECT_EQ(127, yearField(2107));
  EXPECT_EQ(0, yearField(2108));
  EXPECT_EQ(128 - 11, yearField(1969)) << "before 1970";
  EXPECT_EQ(128 - 80, yearField(1900));
  EXPECT_EQ(2235 - 1980 - 128, yearField(2235));

  EXPECT_EQ(Fields(0xFF9F, 0xBF7D), encoded(utcSeconds(1979, 12, 31, 23, 59, 58)));
  KQZipFileEntry entry;
  entry.setModificationDate(dateAt(utcSeconds(1979, 12, 31, 23, 59, 58)));
  EXPECT_EQ(utcSeconds(2107, 12, 31, 23, 59, 58), secondsOf(entry.modificationDate()));
  EXPECT_EQ(Fields(0x0021, 0x0000), encoded(utcSeconds(2108, 1, 1)));
  entry.setModificationDate(dateAt(utcSeconds(2108, 1, 1)));
  EXPECT_EQ(utcSeconds(1980, 1, 1), secondsOf(entry.modificationDate()));
}

TEST(KQZipFileEntry, PartsOfASecondBefore1970AreCutDownwards) {
  const TimeZone zone(utc);
  const auto fields = encoded(dateAt(0) - std::chrono::milliseconds(1));
  EXPECT_EQ(dosTime(23, 59, 58), fields.second);
  EXPECT_EQ((128 - 11) * 512 + 12 * 32 + 31, fields.first);
}

TEST(KQZipFileEntry, DatesAreThoseOfTheLocalTimeZone) {
  const long long instant = utcSeconds(2021, 7, 4, 20, 10, 30);
  const struct {
    const char* zone;
    Fields fields;
  } cases[] = {
      {utc, {dosDate(2021, 7, 4), dosTime(20, 10, 30)}},
      {centralEurope, {dosDate(2021, 7, 4), dosTime(22, 10, 30)}},
      {india, {dosDate(2021, 7, 5), dosTime(1, 40, 30)}},
      {lordHowe, {dosDate(2021, 7, 5), dosTime(6, 40, 30)}},
      {newfoundland, {dosDate(2021, 7, 4), dosTime(17, 40, 30)}},
  };
  for (const auto& [name, fields] : cases) {
    SCOPED_TRACE(name);
    const TimeZone zone(name);
    EXPECT_EQ(fields, encoded(instant));
    EXPECT_EQ(instant, decoded(fields.first, fields.second));
  }
}

TEST(KQZipFileEntry, ADaylightSavingChangeMovesTheFieldsWithTheClockOnTheWall) {
  const TimeZone zone(centralEurope);
  const long long spring = utcSeconds(2024, 3, 31, 1);
  EXPECT_EQ(Fields(dosDate(2024, 3, 31), dosTime(1, 59, 58)), encoded(spring - 2));
  EXPECT_EQ(Fields(dosDate(2024, 3, 31), dosTime(3, 0, 0)), encoded(spring));
  EXPECT_EQ(spring - 2, decoded(dosDate(2024, 3, 31), dosTime(1, 59, 58)));
  EXPECT_EQ(spring, decoded(dosDate(2024, 3, 31), dosTime(3, 0, 0)));
  const long long skipped = decoded(dosDate(2024, 3, 31), dosTime(2, 30, 0));
  EXPECT_TRUE(skipped == spring - 1800 || skipped == spring + 1800) << skipped;

  const long long autumn = utcSeconds(2024, 10, 27, 1);
  EXPECT_EQ(Fields(dosDate(2024, 10, 27), dosTime(2, 30, 0)), encoded(autumn - 1800));
  EXPECT_EQ(Fields(dosDate(2024, 10, 27), dosTime(2, 30, 0)), encoded(autumn + 1800));
  const long long twice = decoded(dosDate(2024, 10, 27), dosTime(2, 30, 0));
  EXPECT_TRUE(twice == autumn - 1800 || twice == autumn + 1800) << twice;
  EXPECT_EQ(autumn - 3602, decoded(dosDate(2024, 10, 27), dosTime(1, 59, 58)));
  EXPECT_EQ(autumn + 3600, decoded(dosDate(2024, 10, 27), dosTime(3, 0, 0)));

  EXPECT_EQ(utcSeconds(2024, 7, 1, 10), decoded(dosDate(2024, 7, 1), dosTime(12, 0, 0)));
  EXPECT_EQ(utcSeconds(2024, 1, 1, 11), decoded(dosDate(2024, 1, 1), dosTime(12, 0, 0)));
}

TEST(KQZipFileEntry, AHalfHourDaylightSavingChangeMovesTheFieldsByHalfAnHour) {
  const TimeZone zone(lordHowe);
  const long long change = utcSeconds(2024, 10, 5, 15, 30);  // 02:00 becomes 02:30
  EXPECT_EQ(Fields(dosDate(2024, 10, 6), dosTime(1, 59, 58)), encoded(change - 2));
  EXPECT_EQ(Fields(dosDate(2024, 10, 6), dosTime(2, 30, 0)), encoded(change));
  EXPECT_EQ(change, decoded(dosDate(2024, 10, 6), dosTime(2, 30, 0)));
}

TEST(KQZipFileEntry, EveryDateOfTheFormatSurvivesBothWaysToTheEvenSecond) {
  for (const char* name : {utc, india, centralEurope}) {
    SCOPED_TRACE(name);
    const TimeZone zone(name);
    const long long step = 11 * 86400LL + 3 * 3600LL + 7 * 60LL + 13;
    int compared = 0;
    for (long long instant = utcSeconds(1980, 1, 2); instant < utcSeconds(2107, 12, 31); instant += step) {
      KQZipFileEntry entry;
      entry.setModificationDate(dateAt(instant));
      // The hour that an autumn has twice cannot be told apart.
      const long long found = secondsOf(entry.modificationDate());
      if (found == instant / 2 * 2 + 3600 || found == instant / 2 * 2 - 3600) {
        EXPECT_EQ(dosTime(2, 0, 0) >> 11, entry.modTime() >> 11);
        EXPECT_EQ(10, (entry.modDate() >> 5) & 15);
        continue;
      }
      ASSERT_EQ(instant / 2 * 2, found);
      ++compared;
    }
    EXPECT_LT(4000, compared);
  }
}

TEST(KQZipFileEntry, ImpossibleFieldsCarryOverIntoTheNextLargerUnit) {
  const TimeZone zone(utc);
  const auto fields = [](unsigned year, unsigned month, unsigned day) {
    return static_cast<std::uint16_t>((year - 1980) * 512 + month * 32 + day);
  };
  EXPECT_EQ(utcSeconds(1979, 11, 30), decoded(0, 0));
  EXPECT_EQ(utcSeconds(2021, 6, 30), decoded(fields(2021, 7, 0), 0)) << "day 0";
  EXPECT_EQ(utcSeconds(2020, 12, 5), decoded(fields(2021, 0, 5), 0)) << "month 0";
  EXPECT_EQ(utcSeconds(2022, 1, 5), decoded(fields(2021, 13, 5), 0)) << "month 13";
  EXPECT_EQ(utcSeconds(2022, 3, 31), decoded(fields(2021, 15, 31), 0)) << "month 15";
  EXPECT_EQ(utcSeconds(2021, 3, 3), decoded(fields(2021, 2, 31), 0)) << "31 February";
  EXPECT_EQ(utcSeconds(2020, 3, 1), decoded(fields(2020, 2, 30), 0)) << "30 February of a leap year";
  EXPECT_EQ(utcSeconds(2021, 7, 5, 7), decoded(fields(2021, 7, 4), 31 << 11)) << "hour 31";
  EXPECT_EQ(utcSeconds(2021, 7, 4, 1, 3), decoded(fields(2021, 7, 4), 63 << 5)) << "minute 63";
  EXPECT_EQ(utcSeconds(2021, 7, 4, 0, 1, 2), decoded(fields(2021, 7, 4), 31)) << "second 62";
  EXPECT_EQ(utcSeconds(2108, 4, 1, 8, 4, 2), decoded(0xFFFF, 0xFFFF)) << "all bits set";
}

TEST(KQZipFileEntry, SettingTheDateLeavesItsFlagSoTheSourcesDateReplacesItWhenWriting) {
  const TimeZone zone(utc);
  SourceEntry source("data");
  KQTest::setModificationDate(source.path, utcSeconds(2021, 7, 4, 12, 34, 57), 999999999);
  source.entry.setModificationDate(dateAt(utcSeconds(1999, 1, 2, 3, 4, 6)));
  EXPECT_EQ(dosDate(1999, 1, 2), source.entry.modDate());
  expectFlags(source.entry, true, true, true);

  Error error;
  EXPECT_TRUE(source.entry._prepareForWritingError(&error));
  EXPECT_EQ(dosDate(2021, 7, 4), source.entry.modDate());
  EXPECT_EQ(dosTime(12, 34, 56), source.entry.modTime());

  source.entry.setModificationDate(dateAt(utcSeconds(1999, 1, 2, 3, 4, 6)));
  EXPECT_TRUE(source.entry._prepareForWritingError(&error));
  EXPECT_EQ(dosDate(1999, 1, 2), source.entry.modDate())
      << "the flag is clear now, so a date set later stays";
}

// Attributes of the source file

TEST(KQZipFileEntry, UpdatingTheAttributesTakesSizeAndDateFromTheSource) {
  const TimeZone zone(utc);
  const LogCapture log;
  SourceEntry source("0123456789");
  KQTest::setModificationDate(source.path, utcSeconds(2021, 7, 4, 12, 34, 56));
  source.entry.updateAttributesFromSourceFile();
  EXPECT_EQ(10u, source.entry.sourceFileSize());
  EXPECT_EQ(dosDate(2021, 7, 4), source.entry.modDate());
  EXPECT_EQ(dosTime(12, 34, 56), source.entry.modTime());
  expectFlags(source.entry, true, false, false);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipFileEntry, UpdatingTheAttributesTakesThePermissionsOfARegularSource) {
  const LogCapture log;
  SourceEntry source("0123456789");
  EXPECT_EQ(std::nullopt, source.entry.sourceFilePermissions());
  ASSERT_EQ(0, ::chmod(source.path.c_str(), 04751));
  source.entry.updateFileSize();
  source.entry.updateModificationDate();
  EXPECT_EQ(std::nullopt, source.entry.sourceFilePermissions());
  source.entry.updateAttributesFromSourceFile();
  EXPECT_EQ(std::optional<std::uint16_t>(04751), source.entry.sourceFilePermissions());

  KQZipFileEntry copy;
  copy.copyPropertiesFromHeader(source.entry);
  EXPECT_EQ(std::nullopt, copy.sourceFilePermissions());

  std::filesystem::remove(source.path);
  source.entry.updateAttributesFromSourceFile();
  EXPECT_EQ(std::optional<std::uint16_t>(04751), source.entry.sourceFilePermissions())
      << "as the size, which stays too";
  std::filesystem::create_symlink("elsewhere", source.path);
  source.entry.updateAttributesFromSourceFile();
  EXPECT_EQ(std::nullopt, source.entry.sourceFilePermissions());
}

TEST(KQZipFileEntry, UpdatingTheSizeOrTheDateTakesOnlyThat) {
  const TimeZone zone(utc);
  SourceEntry source("0123456789");
  KQTest::setModificationDate(source.path, utcSeconds(2021, 7, 4, 12, 34, 56));
  source.entry.updateFileSize();
  EXPECT_EQ(10u, source.entry.sourceFileSize());
  EXPECT_EQ(0, source.entry.modDate());
  EXPECT_EQ(0, source.entry.modTime());
  expectFlags(source.entry, true, true, false);

  OpenEntry other;
  other.setSourceFilePath(source.path);
  other.updateModificationDate();
  EXPECT_EQ(0u, other.sourceFileSize());
  EXPECT_EQ(dosDate(2021, 7, 4), other.modDate());
  EXPECT_EQ(dosTime(12, 34, 56), other.modTime());
  expectFlags(other, true, false, true);
}

TEST(KQZipFileEntry, MissingAttributesAreLoggedAndChangeNothing) {
  const TemporaryDirectory folder;
  const std::string path = folder / "50%@ missing";
  const std::function<void(KQZipFileEntry&)> updates[] = {
      [](KQZipFileEntry& entry) { entry.updateAttributesFromSourceFile(); },
      [](KQZipFileEntry& entry) { entry.updateFileSize(); },
      [](KQZipFileEntry& entry) { entry.updateModificationDate(); },
  };
  for (const auto& update : updates) {
    for (const bool named : {true, false}) {
      const LogCapture log;
      KQZipFileEntry entry;
      if (named) entry.setSourceFilePath(path);
      entry.setSourceFileSize(77);
      entry.setModDate(0x1234);
      entry.setModTime(0x5678);
      update(entry);
      EXPECT_EQ(Lines{"failed to get attributes for " + (named ? path : "(null)")}, log.lines());
      EXPECT_EQ(77u, entry.sourceFileSize());
      EXPECT_EQ(0x1234, entry.modDate());
      EXPECT_EQ(0x5678, entry.modTime());
      expectFlags(entry, true, true, true);
    }
  }
}

TEST(KQZipFileEntry, EachAttributeStepSetsItsValueAndClearsItsOwnFlag) {
  const TimeZone zone(utc);
  const KQ::NSFileAttributes attributes{0x123456789A, dateAt(utcSeconds(2021, 7, 4, 12, 34, 56)),
                                        KQ::NSFileTypeRegular};
  OpenEntry sized;
  sized._updateSourceFileSizeFromAttributes(attributes);
  EXPECT_EQ(0x123456789Au, sized.sourceFileSize());
  EXPECT_EQ(0, sized.modDate());
  expectFlags(sized, true, true, false);

  OpenEntry dated;
  dated._updateModificationDateFromAttributes(attributes);
  EXPECT_EQ(0u, dated.sourceFileSize());
  EXPECT_EQ(dosDate(2021, 7, 4), dated.modDate());
  EXPECT_EQ(dosTime(12, 34, 56), dated.modTime());
  expectFlags(dated, true, false, true);
}

// CRC of the source file

TEST(KQZipFileEntry, TheCrcIsThatOfTheWholeFileWhateverItsLength) {
  const std::uint64_t sizes[] = {
      0, 1, 2, 1000, mebibyte - 1, mebibyte, mebibyte + 1, 2 * mebibyte, 3 * mebibyte + 1};
  for (const std::uint64_t size : sizes) {
    SCOPED_TRACE(size);
    const LogCapture log;
    const std::string contents = patternBytes(size, 3);
    SourceEntry source(contents);
    EXPECT_TRUE(source.entry.calculateCRCOfSourceFile());
    EXPECT_EQ(crcOf(contents), source.entry.crc32());
    expectFlags(source.entry, false, true, true);
    EXPECT_EQ(0u, source.entry.sourceFileSize());
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipFileEntry, KnownTextsHaveTheirKnownCrc) {
  SourceEntry digits("123456789");
  EXPECT_TRUE(digits.entry.calculateCRCOfSourceFile());
  EXPECT_EQ(0xCBF43926u, digits.entry.crc32());
  SourceEntry empty("");
  empty.entry.setCrc32(77);
  EXPECT_TRUE(empty.entry.calculateCRCOfSourceFile());
  EXPECT_EQ(0u, empty.entry.crc32());
}

TEST(KQZipFileEntry, TheCrcCountsEveryBlockButTheFirst) {
  const struct {
    std::uint64_t size;
    std::int64_t counted;
  } cases[] = {{0, 0},
               {1, 0},
               {mebibyte, 0},
               {mebibyte + 1, 1},
               {2 * mebibyte, mebibyte},
               {3 * mebibyte + 1, 2 * mebibyte + 1}};
  for (const auto& [size, counted] : cases) {
    SCOPED_TRACE(size);
    SourceEntry source(patternBytes(size));
    const auto progress =
        KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(2 * size) + 1000);
    progress->setCompletedUnitCount(500);
    source.entry.setProgress(progress);
    EXPECT_TRUE(source.entry.calculateCRCOfSourceFile());
    EXPECT_EQ(500 + counted, progress->completedUnitCount());
    EXPECT_EQ(static_cast<std::int64_t>(2 * size) + 1000, progress->totalUnitCount());
    EXPECT_EQ(progress, source.entry.progress());
  }
}

TEST(KQZipFileEntry, ACancelledProgressFailsTheCrcAndLeavesItAndItsFlag) {
  for (const std::uint64_t size : {std::uint64_t{1}, 2 * mebibyte}) {
    SCOPED_TRACE(size);
    const LogCapture log;
    SourceEntry source(patternBytes(size));
    const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1000);
    progress->cancel();
    source.entry.setProgress(progress);
    EXPECT_FALSE(source.entry.calculateCRCOfSourceFile());
    EXPECT_EQ(0u, source.entry.crc32());
    expectFlags(source.entry, true, true, true);
    EXPECT_EQ(0, progress->completedUnitCount());
    EXPECT_EQ(Lines(), log.lines());

    source.entry.setCrc32(42);
    EXPECT_FALSE(source.entry.calculateCRCOfSourceFile());
    EXPECT_EQ(42u, source.entry.crc32());
    EXPECT_FALSE(source.entry.needsToCalculateCRC());
  }
}

TEST(KQZipFileEntry, ACancelledProgressIsNotLookedAtForAnEmptySource) {
  SourceEntry source("");
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1000);
  progress->cancel();
  source.entry.setProgress(progress);
  EXPECT_TRUE(source.entry.calculateCRCOfSourceFile());
  EXPECT_FALSE(source.entry.needsToCalculateCRC());
}

TEST(KQZipFileEntry, CancellingDuringTheCrcStopsItAtTheNextBlock) {
  SourceEntry source(patternBytes(5 * mebibyte));
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(10 * mebibyte));
  source.entry.setProgress(progress);
  SystemCalls calls;
  calls.beforeTransfer = [&](const SystemCalls::Transfer& transfer) {
    if (transfer.offset == static_cast<std::int64_t>(2 * mebibyte)) progress->cancel();
  };
  EXPECT_FALSE(source.entry.calculateCRCOfSourceFile());
  EXPECT_EQ(0u, source.entry.crc32());
  EXPECT_TRUE(source.entry.needsToCalculateCRC());
  EXPECT_EQ(static_cast<std::int64_t>(2 * mebibyte), progress->completedUnitCount())
      << "the second and the third block were read, the fourth was not";
  EXPECT_EQ(3 * mebibyte, calls.bytesMoved());
}

TEST(KQZipFileEntry, CancellingDuringTheLastReadComesTooLate) {
  const std::string contents = patternBytes(2 * mebibyte);
  SourceEntry source(contents);
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(4 * mebibyte));
  source.entry.setProgress(progress);
  SystemCalls calls;
  calls.beforeTransfer = [&](const SystemCalls::Transfer& transfer) {
    if (transfer.offset == static_cast<std::int64_t>(2 * mebibyte)) progress->cancel();
  };
  EXPECT_TRUE(source.entry.calculateCRCOfSourceFile());
  EXPECT_TRUE(progress->isCancelled());
  EXPECT_EQ(crcOf(contents), source.entry.crc32());
}

TEST(KQZipFileEntry, TheSourceIsReadInBlocksOfOneMebibyteIntoOneBuffer) {
  SourceEntry source(patternBytes(3 * mebibyte + 1));
  const SystemCalls calls;
  EXPECT_TRUE(source.entry.calculateCRCOfSourceFile());
  ASSERT_LE(4u, calls.transfers.size());
  for (std::size_t block = 0; block < 4; ++block) {
    SCOPED_TRACE(block);
    EXPECT_EQ(static_cast<std::int64_t>(block * mebibyte), calls.transfers[block].offset);
    EXPECT_EQ(mebibyte, calls.transfers[block].asked());
    EXPECT_EQ(calls.transfers[0].pieces[0].address, calls.transfers[block].pieces[0].address);
  }
  EXPECT_EQ(3 * mebibyte + 1, calls.bytesMoved());
}

TEST(KQZipFileEntry, AReadErrorInTheMiddleEndsTheCrcLikeTheEndOfTheFile) {
  const LogCapture log;
  const std::string contents = patternBytes(4 * mebibyte);
  SourceEntry source(contents);
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(8 * mebibyte));
  source.entry.setProgress(progress);
  SystemCalls calls;
  calls.failAt = 3;
  EXPECT_TRUE(source.entry.calculateCRCOfSourceFile());
  EXPECT_EQ(2 * mebibyte, calls.bytesMoved());
  EXPECT_EQ(crcOf(contents.substr(0, 2 * mebibyte)), source.entry.crc32());
  EXPECT_FALSE(source.entry.needsToCalculateCRC());
  EXPECT_EQ(static_cast<std::int64_t>(mebibyte) - 1, progress->completedUnitCount())
      << "the second block, and the result -1 of the read that failed";
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipFileEntry, AReadErrorAtTheStartGivesCrcZeroAndSuccess) {
  SourceEntry source(patternBytes(mebibyte));
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(8);
  source.entry.setProgress(progress);
  source.entry.setCrc32(99);
  SystemCalls calls;
  calls.failAt = 1;
  calls.failForGood = true;
  EXPECT_TRUE(source.entry.calculateCRCOfSourceFile());
  EXPECT_FALSE(calls.transfers.empty());
  EXPECT_EQ(0u, source.entry.crc32());
  EXPECT_EQ(0, progress->completedUnitCount());
}

TEST(KQZipFileEntry, CancellingTheCrcFromAnotherThreadEitherStopsItOrComesTooLate) {
  const std::string contents = patternBytes(8 * mebibyte);
  SourceEntry source(contents);
  const std::uint32_t whole = crcOf(contents);
  for (int round = 0; round < 10; ++round) {
    OpenEntry entry;
    entry.setSourceFilePath(source.path);
    const auto progress =
        KQ::NSProgress::progressWithTotalUnitCount(static_cast<std::int64_t>(16 * mebibyte));
    entry.setProgress(progress);
    const std::int64_t after = round * static_cast<std::int64_t>(mebibyte) / 2;
    std::atomic<bool> done{false};
    std::thread canceller([&] {
      while (!done && progress->completedUnitCount() < after) std::this_thread::yield();
      progress->cancel();
    });
    const bool succeeded = entry.calculateCRCOfSourceFile();
    done = true;
    canceller.join();
    EXPECT_EQ(succeeded ? whole : 0, entry.crc32());
    EXPECT_EQ(!succeeded, entry.needsToCalculateCRC());
  }
}

TEST(KQZipFileEntry, AMissingSourceFailsTheCrcAndIsLogged) {
  const TemporaryDirectory folder;
  const std::string path = folder / "50%@ missing";
  const LogCapture log;
  KQZipFileEntry entry;
  entry.setSourceFilePath(path);
  EXPECT_FALSE(entry.calculateCRCOfSourceFile());
  EXPECT_EQ(Lines{"failed to calculate crc: failed to open stream at " + path}, log.lines());
  EXPECT_EQ(0u, entry.crc32());
  expectFlags(entry, true, true, true);
}

TEST(KQZipFileEntry, AnAbsentSourcePathFailsTheCrcAndIsLogged) {
  const LogCapture log;
  KQZipFileEntry entry;
  EXPECT_FALSE(entry.calculateCRCOfSourceFile());
  EXPECT_EQ(Lines{"failed to calculate crc: failed to open stream at (null)"}, log.lines());
  EXPECT_TRUE(entry.needsToCalculateCRC());
}

TEST(KQZipFileEntry, ASourceThatMayNotBeReadFailsTheCrcAndThePreparation) {
  SourceEntry source("secret");
  ASSERT_EQ(0, chmod(source.folder.path().c_str(), 0755));
  ASSERT_EQ(0, chmod(source.path.c_str(), 0));
  KQTest::inUnprivilegedChildProcess([&] {
    const LogCapture log;
    const Lines line{"failed to calculate crc: failed to open stream at " + source.path};
    EXPECT_FALSE(source.entry.calculateCRCOfSourceFile());
    EXPECT_EQ(line, log.lines());
    Error error;
    EXPECT_FALSE(source.entry._prepareForWritingError(&error));
    expectKQZipError(error, -50, "Can't calculate CRC of " + source.path);
    EXPECT_EQ((Lines{line[0], line[0]}), log.lines());
    EXPECT_EQ(nullptr, source.entry.findZip64InfoField());
    expectFlags(source.entry, true, true, true);
  });
}

TEST(KQZipFileEntry, AFolderAsSourceGivesCrcZeroAndSuccess) {
  const TemporaryDirectory folder;
  const LogCapture log;
  OpenEntry entry;
  entry.setSourceFilePath(folder.path().string());
  Error error;
  EXPECT_TRUE(entry.calculateCRCOfSourceFile());
  EXPECT_EQ(0u, entry.crc32());
  EXPECT_FALSE(entry.needsToCalculateCRC());
  EXPECT_TRUE(entry._prepareForWritingError(&error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

// Preparing for writing

TEST(KQZipFileEntry, PreparingFillsEverythingFromTheSource) {
  const TimeZone zone(utc);
  const LogCapture log;
  SourceEntry source("0123456789");
  KQTest::setModificationDate(source.path, utcSeconds(2021, 7, 4, 12, 34, 56));
  source.entry.setFileName("a/\xC3\xA4.txt");
  source.entry.setOffset(0x1122334455667788);
  source.entry.setExtraFieldLength(999);
  source.entry.setFileNameLength(999);
  Error error;
  EXPECT_TRUE(source.entry._prepareForWritingError(&error));

  EXPECT_EQ(crcOf("0123456789"), source.entry.crc32());
  EXPECT_EQ(10u, source.entry.sourceFileSize());
  EXPECT_EQ(dosDate(2021, 7, 4), source.entry.modDate());
  EXPECT_EQ(dosTime(12, 34, 56), source.entry.modTime());
  EXPECT_EQ(8, source.entry.fileNameLength());
  EXPECT_EQ(28, source.entry.extraFieldLength());
  ASSERT_EQ(1u, source.entry.extraFields().size());
  const auto zip64 = source.entry.findZip64InfoField();
  ASSERT_NE(nullptr, zip64);
  EXPECT_EQ(10u, zip64->uncompressedSize());
  EXPECT_EQ(10u, zip64->compressedSize());
  EXPECT_EQ(0x1122334455667788u, zip64->offsetOfLocalHeaderRecord());
  expectFlags(source.entry, false, false, false);
  EXPECT_EQ(45, source.entry.versionNeeded());
  EXPECT_EQ(0, source.entry.flags());
  EXPECT_EQ(0, source.entry.compression());
  EXPECT_EQ(0xFFFFFFFFu, source.entry.compressedSize());
  EXPECT_EQ(0xFFFFFFFFu, source.entry.uncompressedSize());
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipFileEntry, PreparingLeavesSizesVersionFlagsAndMethodThatACallerSet) {
  SourceEntry source("0123456789");
  source.entry.setVersionNeeded(20);
  source.entry.setFlags(0x0800);
  source.entry.setCompression(8);
  source.entry.setCompressedSize(1);
  source.entry.setUncompressedSize(2);
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(20, source.entry.versionNeeded());
  EXPECT_EQ(0x0800, source.entry.flags());
  EXPECT_EQ(8, source.entry.compression());
  EXPECT_EQ(1u, source.entry.compressedSize());
  EXPECT_EQ(2u, source.entry.uncompressedSize());
}

TEST(KQZipFileEntry, AnEmptySourceFileGetsCrcZeroAndAZip64FieldOfZerosAndIsADirectory) {
  SourceEntry source("");
  EXPECT_FALSE(source.entry.isDirectory());
  Error error;
  EXPECT_TRUE(source.entry._prepareForWritingError(&error));
  EXPECT_EQ(0u, source.entry.crc32());
  const auto zip64 = source.entry.findZip64InfoField();
  ASSERT_NE(nullptr, zip64);
  EXPECT_EQ(0u, zip64->uncompressedSize());
  EXPECT_EQ(0u, zip64->compressedSize());
  EXPECT_TRUE(source.entry.isDirectory());
}

TEST(KQZipFileEntry, AnExistingZip64FieldIsRefreshedInItsPlace) {
  SourceEntry source("0123456789");
  const auto first = fieldWith(0x7777, "12345");
  const auto zip64 = zip64With(1, 2, 3);
  const auto second = zip64With(4, 5, 6);
  source.entry.setExtraFields({first, zip64, second});
  source.entry.setOffset(1000);
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ((std::vector<std::shared_ptr<KQZipExtraField>>{first, zip64, second}),
            source.entry.extraFields());
  EXPECT_EQ(10u, zip64->uncompressedSize());
  EXPECT_EQ(10u, zip64->compressedSize());
  EXPECT_EQ(1000u, zip64->offsetOfLocalHeaderRecord());
  EXPECT_EQ(4u, second->uncompressedSize()) << "only the first one is filled";
  EXPECT_EQ(5u, second->compressedSize());
  EXPECT_EQ(6u, second->offsetOfLocalHeaderRecord());
  EXPECT_EQ(9 + 28 + 28, source.entry.extraFieldLength());
}

TEST(KQZipFileEntry, AMissingZip64FieldIsAppendedBehindTheOthers) {
  SourceEntry source("0123456789");
  const auto first = fieldWith(0x7777, "12345");
  source.entry.addExtraField(first);
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  ASSERT_EQ(2u, source.entry.extraFields().size());
  EXPECT_EQ(first, source.entry.extraFields()[0]);
  EXPECT_EQ(source.entry.findZip64InfoField(), source.entry.extraFields()[1]);
  EXPECT_EQ(9 + 28, source.entry.extraFieldLength());
}

TEST(KQZipFileEntry, PreparingTwiceKeepsOneZip64FieldAndRefreshesItWithoutReadingTheSourceAgain) {
  SourceEntry source("0123456789");
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  const auto zip64 = source.entry.findZip64InfoField();
  const std::uint16_t modDate = source.entry.modDate();
  const std::uint16_t modTime = source.entry.modTime();

  writeFile(source.path, "other contents");
  KQTest::setModificationDate(source.path, utcSeconds(1999, 1, 2));
  source.entry.setOffset(500);
  source.entry.setFileName("renamed");
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  ASSERT_EQ(1u, source.entry.extraFields().size());
  EXPECT_EQ(zip64, source.entry.extraFields()[0]);
  EXPECT_EQ(500u, zip64->offsetOfLocalHeaderRecord());
  EXPECT_EQ(10u, zip64->compressedSize());
  EXPECT_EQ(crcOf("0123456789"), source.entry.crc32());
  EXPECT_EQ(modDate, source.entry.modDate());
  EXPECT_EQ(modTime, source.entry.modTime());
  EXPECT_EQ(7, source.entry.fileNameLength());
  EXPECT_EQ(28, source.entry.extraFieldLength());

  source.entry.setSourceFileSize(9);
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(9u, zip64->uncompressedSize());
  EXPECT_EQ(9u, zip64->compressedSize());
}

TEST(KQZipFileEntry, AnEntryWithOneAttributeFlagLeftTakesBothAttributesAgain) {
  const TimeZone zone(utc);
  SourceEntry source("0123456789");
  source.entry.updateFileSize();
  writeFile(source.path, "longer than it was before");
  KQTest::setModificationDate(source.path, utcSeconds(2021, 7, 4, 12, 34, 56));
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(25u, source.entry.sourceFileSize());
  EXPECT_EQ(dosDate(2021, 7, 4), source.entry.modDate());
  expectFlags(source.entry, false, false, false);

  SourceEntry other("0123456789");
  other.entry.updateModificationDate();
  KQTest::setModificationDate(other.path, utcSeconds(2021, 7, 4, 12, 34, 56));
  EXPECT_TRUE(other.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(10u, other.entry.sourceFileSize());
  EXPECT_EQ(dosDate(2021, 7, 4), other.entry.modDate());
}

TEST(KQZipFileEntry, TheExtraFieldLengthIsCountedIn16Bits) {
  SourceEntry source("x");
  source.entry.addExtraField(fieldWith(0x7777, std::string(65535, 'a')));
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ((65539 + 28) % 65536, source.entry.extraFieldLength());
  source.entry.addExtraField(fieldWith(0x7778, std::string(40000, 'b')));
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ((65539 + 28 + 40004) % 65536, source.entry.extraFieldLength());
  source.entry.setExtraFields({fieldWith(0x7777, std::string(65536 - 4 - 28, 'c'))});
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(0, source.entry.extraFieldLength());
}

TEST(KQZipFileEntry, TheNameLengthIsCountedIn16Bits) {
  SourceEntry source("x");
  source.entry.setFileName(std::string(65535, 'n'));
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(65535, source.entry.fileNameLength());
  source.entry.setFileName(std::string(65536, 'n'));
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(0, source.entry.fileNameLength());
  source.entry.setFileName(std::string(65539, 'n'));
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(3, source.entry.fileNameLength());
  source.entry.setFileName(std::nullopt);
  EXPECT_TRUE(source.entry._prepareForWritingError(nullptr));
  EXPECT_EQ(0, source.entry.fileNameLength());
}

TEST(KQZipFileEntry, AnAbsentSourcePathFailsThePreparationWithoutNamingItAndChangesNothing) {
  const LogCapture log;
  OpenEntry entry;
  entry.setFileName("named.txt");
  entry.setExtraFieldLength(9);
  Error error = earlierError();
  EXPECT_FALSE(entry._prepareForWritingError(&error));
  expectKQZipError(error, -50, "Source file doesn't exist: (null)");
  EXPECT_TRUE(entry.extraFields().empty());
  EXPECT_EQ(0, entry.fileNameLength());
  EXPECT_EQ(9, entry.extraFieldLength());
  expectFlags(entry, true, true, true);
  EXPECT_FALSE(entry._prepareForWritingError(nullptr));
  entry.setCrc32(1);
  EXPECT_FALSE(entry._prepareForWritingError(nullptr)) << "the path is needed even with the CRC known";
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipFileEntry, AMissingSourceFailsThePreparationBeforeAnythingElseIsDone) {
  const TemporaryDirectory folder;
  const std::string path = folder / "missing";
  const LogCapture log;
  OpenEntry entry;
  entry.setSourceFilePath(path);
  entry.setFileName("name");
  Error error = earlierError();
  EXPECT_FALSE(entry._prepareForWritingError(&error));
  expectKQZipError(error, -50, "Can't calculate CRC of " + path);
  EXPECT_EQ(Lines{"failed to calculate crc: failed to open stream at " + path}, log.lines())
      << "the attributes are not asked for";
  EXPECT_EQ(0, entry.fileNameLength());
  EXPECT_TRUE(entry.extraFields().empty());
  expectFlags(entry, true, true, true);
  EXPECT_FALSE(entry._prepareForWritingError(nullptr));
}

TEST(KQZipFileEntry, CancellingDuringTheCrcFailsThePreparation) {
  SourceEntry source("data");
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(8);
  progress->cancel();
  source.entry.setProgress(progress);
  Error error;
  EXPECT_FALSE(source.entry._prepareForWritingError(&error));
  expectKQZipError(error, -50, "Can't calculate CRC of " + source.path);
  expectFlags(source.entry, true, true, true);
  EXPECT_TRUE(source.entry.extraFields().empty());
}

TEST(KQZipFileEntry, MissingAttributesAreOnlyLoggedByThePreparation) {
  const TemporaryDirectory folder;
  const std::string path = folder / "missing";
  const LogCapture log;
  OpenEntry entry;
  entry.setSourceFilePath(path);
  entry.setFileName("name");
  entry.setCrc32(5);
  entry.setSourceFileSize(77);
  entry.setModDate(0x1234);
  entry.setModTime(0x5678);
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(entry._prepareForWritingError(&error));
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines{"failed to get attributes for " + path}, log.lines());
  EXPECT_EQ(4, entry.fileNameLength());
  EXPECT_EQ(0x1234, entry.modDate());
  EXPECT_EQ(0x5678, entry.modTime());
  ASSERT_NE(nullptr, entry.findZip64InfoField());
  EXPECT_EQ(77u, entry.findZip64InfoField()->compressedSize());
  expectFlags(entry, false, true, true);
  EXPECT_TRUE(entry._prepareForWritingError(&error));
  EXPECT_EQ(2u, log.lines().size()) << "as the flags are still set, the attributes are asked for again";
}

TEST(KQZipFileEntry, PreparationCallsTheSubclasssCrc) {
  class Subclass : public OpenEntry {
   public:
    bool calculateCRCOfSourceFile() override {
      ++calls;
      if (result) setCrc32(0xCAFE);
      return result;
    }
    int calls = 0;
    bool result = false;
  };
  const TemporaryDirectory folder;
  writeFile(folder / "source", "data");
  Subclass entry;
  entry.setSourceFilePath(folder / "source");
  Error error;
  EXPECT_FALSE(entry._prepareForWritingError(&error));
  expectKQZipError(error, -50, "Can't calculate CRC of " + (folder / "source"));
  EXPECT_EQ(1, entry.calls);
  EXPECT_TRUE(entry.needsToUpdateAttributesFromSourceFile());

  entry.result = true;
  error = nullptr;
  EXPECT_TRUE(entry._prepareForWritingError(&error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(2, entry.calls);
  EXPECT_EQ(0xCAFEu, entry.crc32());
  EXPECT_TRUE(entry._prepareForWritingError(&error));
  EXPECT_EQ(2, entry.calls) << "not again once the CRC stands";
}

TEST(KQZipFileEntry, ASparseSourceBeyondFourGibibytesKeepsItsSizeInTheZip64Field) {
  const TemporaryDirectory folder;
  const std::string path = folder / "sparse";
  const std::uint64_t size = 5 * (1024 * mebibyte) + 7;
  writeFile(path, "");
  std::filesystem::resize_file(path, size);
  OpenEntry entry;
  entry.setSourceFilePath(path);
  entry.setFileName("s");
  entry.setCrc32(0);
  EXPECT_TRUE(entry._prepareForWritingError(nullptr));
  EXPECT_EQ(size, entry.sourceFileSize());
  EXPECT_EQ(size, entry.findZip64InfoField()->uncompressedSize());
  EXPECT_EQ(size, entry.findZip64InfoField()->compressedSize());
  EXPECT_EQ(0xFFFFFFFFu, entry.compressedSize());
  EXPECT_EQ(30 + 1 + 28 + size, entry.outputSize());
}

// Writing

TEST(KQZipFileEntry, WritingTheBaseRecordsItsPlacePreparesAndWritesNothing) {
  SourceEntry source("0123456789");
  TestOutputStream stream;
  stream.startOffset = 0x100000001;
  Error error;
  EXPECT_TRUE(source.entry.writeToStream(stream, &error));
  EXPECT_EQ(0x100000001u, source.entry.offset());
  ASSERT_NE(nullptr, source.entry.findZip64InfoField());
  EXPECT_EQ(0x100000001u, source.entry.findZip64InfoField()->offsetOfLocalHeaderRecord());
  EXPECT_EQ(10u, source.entry.findZip64InfoField()->compressedSize());
  EXPECT_EQ(28, source.entry.extraFieldLength());
  EXPECT_TRUE(stream.writes.empty());
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(nullptr, source.entry.progress()) << "the base makes no progress";
}

TEST(KQZipFileEntry, WritingTheBaseToAStreamWithoutAnOffsetRecordsZero) {
  SourceEntry source("0123456789");
  source.entry.setOffset(55);
  TestOutputStream stream;
  stream.hasOffset = false;
  EXPECT_TRUE(source.entry.writeToStream(stream, nullptr));
  EXPECT_EQ(0u, source.entry.offset());
  EXPECT_EQ(0u, source.entry.findZip64InfoField()->offsetOfLocalHeaderRecord());
}

TEST(KQZipFileEntry, WritingTheBaseRecordsItsPlaceEvenWhenThePreparationFails) {
  KQZipFileEntry entry;
  TestOutputStream stream;
  stream.startOffset = 1000;
  Error error;
  EXPECT_FALSE(entry.writeToStream(stream, &error));
  expectKQZipError(error, -50, "Source file doesn't exist: (null)");
  EXPECT_EQ(1000u, entry.offset());
  EXPECT_TRUE(stream.writes.empty());
  EXPECT_FALSE(entry.writeToStream(stream));
}

// Threads

TEST(KQZipFileEntry, NameAndSourcePathMayBeReadWhileTheyAreReplaced) {
  const std::string one(100, 'a');
  const std::string other(2000, 'b');
  KQZipFileEntry entry;
  entry.setFileName(one);
  entry.setSourceFilePath(other);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 5000; ++i) {
      entry.setFileName(i % 2 == 0 ? other : one);
      entry.setSourceFilePath(i % 2 == 0 ? one : other);
    }
    done = true;
  });
  bool whole = true;
  do {
    const auto name = entry.fileName();
    const auto source = entry.sourceFilePath();
    whole = whole && (name == one || name == other) && (source == one || source == other);
  } while (!done);
  writer.join();
  EXPECT_TRUE(whole);
}
