#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

namespace {

namespace fs = std::filesystem;

using KQTest::archiveBytes;
using KQTest::Bytes;
using KQTest::bytesOf;
using KQTest::centralHeaderBytes;
using KQTest::endRecordBytes;
using KQTest::Error;
using KQTest::errorText;
using KQTest::LocalRecord;
using KQTest::LogCapture;
using KQTest::plainRecord;
using KQTest::readFrom;
using KQTest::TemporaryDirectory;
using KQTest::TestInputStream;
using KQTest::writeFile;
using KQTest::zip64Record;

using Reader = std::shared_ptr<KQZipFileReader>;
using Paths = std::vector<std::string>;

static_assert(!std::is_default_constructible_v<KQZipFileReader>);
static_assert(!std::is_copy_constructible_v<KQZipFileReader> && !std::is_copy_assignable_v<KQZipFileReader>);

const std::string compressionMessage = "-101 File uses unsupported compression method.";
const std::string centralSignature = Bytes().u32(0x02014b50);

/// A stream that counts how often it is opened and closed, and that can stop once at a position as if it
/// ended there.
class WatchedInputStream : public TestInputStream {
 public:
  using TestInputStream::TestInputStream;

  void open() override { ++opened; }
  void close() override { ++closed; }
  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override {
    if (pauses.erase(position) != 0) return 0;
    return TestInputStream::read(buffer, maxLength);
  }

  int opened = 0;
  int closed = 0;
  std::set<std::uint64_t> pauses;  ///< Positions at which one read delivers nothing.
};

/// A reader on an archive file with these bytes, which must open.
Reader readerOn(const std::string& path, const std::string& bytes) {
  writeFile(path, bytes);
  Error error;
  Reader reader = KQZipFileReader::initWithZipPath(path, &error);
  EXPECT_TRUE(reader) << errorText(error);
  EXPECT_FALSE(error) << errorText(error);
  return reader;
}

/// The slot after a construction that must fail.
std::string failureOn(const std::string& path, const std::string& bytes) {
  writeFile(path, bytes);
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(path, &error));
  return errorText(error);
}

int openDescriptors() {
  int count = 0;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) != -1) ++count;
  }
  return count;
}

// What opens.

TEST(KQZipFileReader, AnArchiveFileThatDoesNotExistGivesAReaderWithoutEntries) {
  const TemporaryDirectory folder;
  for (const std::string& path : {folder / "missing.zip", folder / "no/such/folder.zip", std::string(),
                                  (folder / "nul.zip") + std::string(1, '\0') + "x"}) {
    LogCapture log;
    Error error;
    const Reader reader = KQZipFileReader::initWithZipPath(path, &error);
    ASSERT_TRUE(reader) << path;
    EXPECT_FALSE(error) << errorText(error);
    EXPECT_EQ(Paths(), reader->relativePaths());
    EXPECT_FALSE(reader->dataForRelativePath("a"));
    EXPECT_FALSE(reader->streamForRelativePath("a"));
    EXPECT_FALSE(reader->attributesForRelativePath("a"));
    EXPECT_EQ(Paths(), log.lines());
  }
}

TEST(KQZipFileReader, APathWithANulIsNotCutShortToAnArchiveThatExists) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "1")}));
  const Reader reader = KQZipFileReader::initWithZipPath((folder / "a.zip") + std::string(1, '\0'));
  ASSERT_TRUE(reader);
  EXPECT_EQ(Paths(), reader->relativePaths());
}

TEST(KQZipFileReader, AnArchiveFileThatMayNotBeReadGivesAReaderWithoutEntries) {
  KQTest::inUnprivilegedChildProcess([] {
    const TemporaryDirectory folder;
    writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "1")}));
    fs::permissions(folder / "a.zip", fs::perms::none);
    Error error;
    const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip", &error);
    ASSERT_TRUE(reader);
    EXPECT_FALSE(error);
    EXPECT_EQ(Paths(), reader->relativePaths());
  });
}

TEST(KQZipFileReader, AFolderInPlaceOfAnArchiveGivesAReaderWithoutEntries) {
  const TemporaryDirectory folder;
  Error error;
  const Reader reader = KQZipFileReader::initWithZipPath(folder.path().string(), &error);
  ASSERT_TRUE(reader);
  EXPECT_FALSE(error);
  EXPECT_EQ(Paths(), reader->relativePaths());
}

TEST(KQZipFileReader, AnEmptyFileGivesAReaderWithoutEntries) {
  const TemporaryDirectory folder;
  EXPECT_EQ(Paths(), readerOn(folder / "a.zip", "")->relativePaths());
}

TEST(KQZipFileReader, AFileOfOneToThreeBytesGivesAReaderWithoutEntries) {
  const TemporaryDirectory folder;
  for (const char* bytes : {"P", "PK", "PK\x03", "%PD", "xyz"}) {
    LogCapture log;
    EXPECT_EQ(Paths(), readerOn(folder / "a.zip", bytes)->relativePaths()) << bytes;
    EXPECT_EQ(Paths(), log.lines());
  }
}

TEST(KQZipFileReader, OneToThreeBytesBehindTheLastRecordAreIgnored) {
  const TemporaryDirectory folder;
  const std::string record = plainRecord("a", "data").bytes();
  for (const char* rest : {"P", "PK", "PK\x03", "\xFF\xFF\xFF"}) {
    const Reader reader = readerOn(folder / "a.zip", record + rest);
    ASSERT_TRUE(reader);
    EXPECT_EQ(Paths{"a"}, reader->relativePaths());
    EXPECT_EQ("data", bytesOf(reader->dataForRelativePath("a")));
  }
}

TEST(KQZipFileReader, LocalRecordsWithoutACentralDirectoryAreAnArchive) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip", plainRecord("a", "one").bytes() + zip64Record("b", "two").bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"a", "b"}), reader->relativePaths());
  EXPECT_EQ("one", bytesOf(reader->dataForRelativePath("a")));
  EXPECT_EQ("two", bytesOf(reader->dataForRelativePath("b")));
}

TEST(KQZipFileReader, ASuccessLeavesTheSlotAsItWas) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "1")}));
  const Error before = KQTest::earlierError();
  Error error = before;
  EXPECT_TRUE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
  EXPECT_EQ(before, error);
  TestInputStream stream(archiveBytes({plainRecord("a", "1")}));
  EXPECT_TRUE(KQZipFileReader::initWithStream(stream, &error));
  EXPECT_EQ(before, error);
}

TEST(KQZipFileReader, NoStreamStaysOpenBetweenCalls) {
  const TemporaryDirectory folder;
  const int before = openDescriptors();
  const Reader reader = readerOn(folder / "a.zip", archiveBytes({plainRecord("a", "1")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ(before, openDescriptors());
  EXPECT_TRUE(reader->dataForRelativePath("a"));
  EXPECT_TRUE(reader->attributesForRelativePath("a"));
  EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "out"));
  EXPECT_EQ(before, openDescriptors());
  const auto stream = reader->streamForRelativePath("a");
  EXPECT_EQ(before + 1, openDescriptors());
  stream->close();
  EXPECT_EQ(before, openDescriptors());
}

TEST(KQZipFileReader, AFailedConstructionLeavesNoStreamOpen) {
  const TemporaryDirectory folder;
  const int before = openDescriptors();
  failureOn(folder / "a.zip", "%PDF");
  failureOn(folder / "a.zip", plainRecord("a", "1").bytes().substr(0, 20));
  EXPECT_EQ(before, openDescriptors());
}

// What fails.

TEST(KQZipFileReader, AnUnknownSignatureFailsAndIsNamedInLowerCaseHexadecimal) {
  const TemporaryDirectory folder;
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"%PDF", "46445025"},        {"%PDF-1.7 and more", "46445025"}, {std::string("\x01\0\0\0", 4), "1"},
      {std::string(4, '\0'), "0"}, {"\x0A\xEF\xCD\xAB", "abcdef0a"},  {"\xFF\xFF\xFF\xFF", "ffffffff"},
      {"PK\x07\x08", "8074b50"},   {endRecordBytes(), "6054b50"},
  };
  for (const auto& [bytes, text] : cases) {
    writeFile(folder / "a.zip", bytes);
    LogCapture log;
    Error error;
    EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
    ASSERT_TRUE(error) << text;
    EXPECT_EQ("KQZipErrorDomain", error->domain());
    EXPECT_EQ(-100, error->code());
    EXPECT_EQ("got unexpected bytes looking for known signatures: " + text, error->localizedDescription());
    EXPECT_EQ(1U, error->userInfo().size());
    EXPECT_EQ(Paths(), log.lines());
  }
}

TEST(KQZipFileReader, AnUnknownSignatureBehindAnEntryFails) {
  const TemporaryDirectory folder;
  EXPECT_EQ("-100 got unexpected bytes looking for known signatures: 64636261",
            failureOn(folder / "a.zip", plainRecord("a", "1").bytes() + "abcdefg"));
}

TEST(KQZipFileReader, AnArchiveOfTheWriterWithoutEntriesFailsAtItsEndRecord) {
  const TemporaryDirectory folder;
  KQZipFileWriter writer;
  ASSERT_TRUE(writer.writeToZipPath(folder / "empty.zip"));
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "empty.zip", &error));
  EXPECT_EQ("-100 got unexpected bytes looking for known signatures: 6064b50", errorText(error));
}

TEST(KQZipFileReader, ACompressedEntryFailsTheConstructionAndIsLogged) {
  const TemporaryDirectory folder;
  LocalRecord compressed = plainRecord("b", "data");
  compressed.compression = 8;
  writeFile(folder / "a.zip", plainRecord("a", "1").bytes() + compressed.bytes());
  LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ("KQZipErrorDomain", error->domain());
  EXPECT_EQ(compressionMessage, errorText(error));
  EXPECT_EQ(Paths{"Failed to parse KQZipFileLocalHeader from stream: " + error->description()}, log.lines());
}

TEST(KQZipFileReader, EveryMethodButStoredIsRefused) {
  const TemporaryDirectory folder;
  LogCapture log;
  for (const unsigned method : {1U, 6U, 8U, 9U, 12U, 14U, 93U, 95U, 99U, 0x0100U, 0x8000U, 0xFFFFU}) {
    LocalRecord record = plainRecord("a", "data");
    record.compression = static_cast<std::uint16_t>(method);
    EXPECT_EQ(compressionMessage, failureOn(folder / "a.zip", record.bytes())) << method;
  }
}

TEST(KQZipFileReader, AnArchiveCutOffInsideALocalHeaderFailsWithAnEmptySlot) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", plainRecord("a", "1").bytes() + plainRecord("b", "2").header().substr(0, 12));
  LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
  EXPECT_FALSE(error) << errorText(error);
  EXPECT_EQ(Paths{"Failed to parse KQZipFileLocalHeader from stream: (null)"}, log.lines());
}

TEST(KQZipFileReader, AFailureWithoutAnErrorEmptiesTheCallersSlot) {
  const TemporaryDirectory folder;
  const std::string cut = plainRecord("a", "1").header().substr(0, 12);
  writeFile(folder / "a.zip", cut);
  Error error = KQTest::earlierError();
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
  EXPECT_FALSE(error) << errorText(error);

  error = KQTest::earlierError();
  TestInputStream stream(cut);
  EXPECT_FALSE(KQZipFileReader::initWithStream(stream, &error));
  EXPECT_FALSE(error) << errorText(error);
}

TEST(KQZipFileReader, AFailureReplacesWhatStoodInTheSlot) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", "%PDF");
  Error error = KQTest::earlierError();
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
  EXPECT_EQ("-100 got unexpected bytes looking for known signatures: 46445025", errorText(error));
}

TEST(KQZipFileReader, EveryFailureIsOneWithoutASlotToo) {
  const TemporaryDirectory folder;
  LocalRecord compressed = plainRecord("b", "data");
  compressed.compression = 8;
  LogCapture log;
  for (const std::string& bytes :
       {std::string("%PDF"), compressed.bytes(), plainRecord("a", "1").header().substr(0, 9)}) {
    writeFile(folder / "a.zip", bytes);
    EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip"));
    TestInputStream stream(bytes);
    EXPECT_FALSE(KQZipFileReader::initWithStream(stream));
  }
}

TEST(KQZipFileReader, AReadErrorInsideALocalHeaderFailsWithAnEmptySlotWhateverStoodThere) {
  const std::size_t readsOfAHeader = 12;
  for (std::size_t read = 2; read <= readsOfAHeader; ++read) {
    TestInputStream stream(plainRecord("name", "data").bytes());
    stream.failAtRead = static_cast<std::int64_t>(read);
    LogCapture log;
    Error error = KQTest::earlierError();
    EXPECT_FALSE(KQZipFileReader::initWithStream(stream, &error)) << read;
    EXPECT_FALSE(error) << errorText(error);
    EXPECT_EQ(
        (Paths{"stream reading failed: (null)", "Failed to parse KQZipFileLocalHeader from stream: (null)"}),
        log.lines());
  }
}

TEST(KQZipFileReader, AReadErrorAtASignatureEndsTheScanAsASuccess) {
  const std::string bytes = plainRecord("a", "1").bytes() + plainRecord("b", "2").bytes();
  TestInputStream first(bytes);
  first.failAtRead = 1;
  LogCapture log;
  Error error;
  Reader reader = KQZipFileReader::initWithStream(first, &error);
  ASSERT_TRUE(reader);
  EXPECT_EQ(Paths(), reader->relativePaths());

  TestInputStream counted(plainRecord("a", "1").bytes());
  ASSERT_TRUE(KQZipFileReader::initWithStream(counted));
  TestInputStream second(bytes);
  second.failAtRead = static_cast<std::int64_t>(counted.reads.size()) + 1;
  reader = KQZipFileReader::initWithStream(second, &error);
  ASSERT_TRUE(reader);
  EXPECT_EQ(Paths{"a"}, reader->relativePaths());
  EXPECT_FALSE(error) << errorText(error);
  EXPECT_EQ(Paths(), log.lines());
}

TEST(KQZipFileReader, AShortReadOfASignatureEndsTheScanAsASuccess) {
  TestInputStream stream(plainRecord("a", "1").bytes());
  stream.longestRead = 3;
  Error error;
  const Reader reader = KQZipFileReader::initWithStream(stream, &error);
  ASSERT_TRUE(reader);
  EXPECT_FALSE(error);
  EXPECT_EQ(Paths(), reader->relativePaths());
  EXPECT_EQ(std::vector<std::uint64_t>{4}, stream.reads);
}

TEST(KQZipFileReader, AStreamThatCannotBeMovedPastTheDataFailsWithItsOwnError) {
  TestInputStream stream(plainRecord("a", "data").bytes());
  stream.refuseOffsets = true;
  stream.error = KQTest::earlierError();
  LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithStream(stream, &error));
  EXPECT_EQ(stream.error, error);
  EXPECT_EQ((Paths{"failed to set stream offset: " + stream.error->description(),
                   "Failed to parse KQZipFileLocalHeader from stream: " + stream.error->description()}),
            log.lines());
}

// Names.

TEST(KQZipFileReader, TwoEntriesWithOnePathAreOneAndTheLaterOneAnswers) {
  const TemporaryDirectory folder;
  LocalRecord later = plainRecord("twice", "the later one");
  later.modDate = 0x5121;  // 1 September 2020
  const Reader reader = readerOn(
      folder / "a.zip", archiveBytes({plainRecord("twice", "first"), plainRecord("other", "x"), later}));
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"other", "twice"}), reader->relativePaths());
  EXPECT_EQ("the later one", bytesOf(reader->dataForRelativePath("twice")));
  const auto stream = reader->streamForRelativePath("twice");
  ASSERT_TRUE(stream);
  EXPECT_EQ("the later one", readFrom(*stream, 13));
  const auto attributes = reader->attributesForRelativePath("twice");
  ASSERT_TRUE(attributes);
  EXPECT_EQ(13U, attributes->NSFileSize);
  EXPECT_EQ("2020-09-01 12:34:56", KQTest::localTime(*attributes->NSFileModificationDate));
  EXPECT_TRUE(reader->writeDataForRelativePath("twice", folder / "out"));
  EXPECT_EQ("the later one", KQTest::readFile(folder / "out"));
}

TEST(KQZipFileReader, PathsAreSortedCaseSensitivelyAndNotAsTheyStandInTheArchive) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip",
               archiveBytes({plainRecord("b", "1"), plainRecord("B", "2"), plainRecord("a/c", "3")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"B", "a/c", "b"}), reader->relativePaths());
}

TEST(KQZipFileReader, PathsAreSortedByTheirDecomposedCharacters) {
  const TemporaryDirectory folder;
  const std::string composed = "\xC3\xA9";
  const std::string decomposed = "e\xCC\x81";
  std::vector<LocalRecord> records;
  for (const std::string& name : {std::string("z"), composed, std::string("f"), decomposed, std::string("E")})
    records.push_back(plainRecord(name, name));
  const Reader reader = readerOn(folder / "a.zip", archiveBytes(records));
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"E", decomposed, composed, "f", "z"}), reader->relativePaths());
  EXPECT_EQ(composed, bytesOf(reader->dataForRelativePath(composed)));
  EXPECT_EQ(decomposed, bytesOf(reader->dataForRelativePath(decomposed)));
}

TEST(KQZipFileReader, LookupsOfAnUnknownPathYieldNothingAndMatchExactly) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip",
               archiveBytes({plainRecord("Name", "1"), plainRecord("d/", ""), plainRecord("\xC3\xA9", "2")}));
  ASSERT_TRUE(reader);
  LogCapture log;
  for (const char* path : {"", "name", "NAME", "Name/", "/Name", "./Name", "d", "e\xCC\x81"}) {
    EXPECT_FALSE(reader->dataForRelativePath(path)) << path;
    EXPECT_FALSE(reader->streamForRelativePath(path)) << path;
    EXPECT_FALSE(reader->attributesForRelativePath(path)) << path;
  }
  EXPECT_FALSE(reader->dataForRelativePath(std::string("Name\0", 5)));
  EXPECT_EQ(Paths(), log.lines());
}

TEST(KQZipFileReader, AHeaderWhoseNameIsNotUtf8IsSteppedOver) {
  const TemporaryDirectory folder;
  for (const char* name : {"\xFF", "caf\xE9", "\xC3", "a\xED\xA0\x80", "\xC0\xAF"}) {
    LogCapture log;
    const Reader reader = readerOn(
        folder / "a.zip",
        archiveBytes({plainRecord("a", "1"), plainRecord(name, "stepped over"), plainRecord("b", "2")}));
    ASSERT_TRUE(reader);
    EXPECT_EQ((Paths{"a", "b"}), reader->relativePaths());
    EXPECT_EQ("2", bytesOf(reader->dataForRelativePath("b")));
    EXPECT_EQ(Paths(), log.lines());
  }
}

TEST(KQZipFileReader, ANameOfNoBytesIsAPathLikeAny) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip", archiveBytes({plainRecord("", "nameless"), plainRecord("b", "2")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"", "b"}), reader->relativePaths());
  EXPECT_EQ("nameless", bytesOf(reader->dataForRelativePath("")));
}

// Data.

TEST(KQZipFileReader, DataComesWholeAtEverySizeAroundTheBlocks) {
  const TemporaryDirectory folder;
  std::vector<LocalRecord> records;
  unsigned seed = 0;
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{4097}, std::size_t{65535},
        std::size_t{65536}, std::size_t{65537}, std::size_t{1048575}, std::size_t{1048576},
        std::size_t{1048577}, std::size_t{3145729}}) {
    const std::string name = std::to_string(size);
    const std::string data = KQTest::patternBytes(size, ++seed);
    records.push_back(seed % 2 == 0 ? plainRecord(name, data) : zip64Record(name, data));
  }
  const Reader reader = readerOn(folder / "a.zip", archiveBytes(records));
  ASSERT_TRUE(reader);
  EXPECT_EQ(records.size(), reader->relativePaths().size());
  for (const LocalRecord& record : records) {
    EXPECT_TRUE(bytesOf(reader->dataForRelativePath(record.name)) == record.data) << record.name;
    const auto stream = reader->streamForRelativePath(record.name);
    ASSERT_TRUE(stream);
    EXPECT_TRUE(readFrom(*stream, record.data.size()) == record.data) << record.name;
    EXPECT_EQ(record.data.size(), reader->attributesForRelativePath(record.name)->NSFileSize);
  }
}

TEST(KQZipFileReader, AnEntryWithoutDataYieldsNoData) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip", archiveBytes({plainRecord("empty", ""), plainRecord("b", "2")}));
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->dataForRelativePath("empty"));
}

TEST(KQZipFileReader, EveryCallReopensTheArchive) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", archiveBytes({plainRecord("a", "before")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ("before", bytesOf(reader->dataForRelativePath("a")));
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "after!")}));
  EXPECT_EQ("after!", bytesOf(reader->dataForRelativePath("a")));
}

TEST(KQZipFileReader, DataOfAnArchiveThatEndsEarlyHasTheDeclaredLengthAndZerosAtItsEnd) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "begin");
  record.size = 9;
  const Reader reader = readerOn(folder / "a.zip", record.bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ(std::string("begin\0\0\0\0", 9), bytesOf(reader->dataForRelativePath("a")));
  EXPECT_EQ(9U, reader->attributesForRelativePath("a")->NSFileSize);
}

TEST(KQZipFileReader, DataOfWhichNotOneByteIsThereIsNothing) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "");
  record.size = 9;
  const Reader reader = readerOn(folder / "a.zip", record.bytes());
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->dataForRelativePath("a"));
}

TEST(KQZipFileReader, DataWhoseReadFailsHasTheDeclaredLengthAllTheSame) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", archiveBytes({plainRecord("a", "12345")}));
  ASSERT_TRUE(reader);
  // A folder can be opened, and every read from it fails.
  fs::remove(folder / "a.zip");
  fs::create_directory(folder / "a.zip");
  EXPECT_EQ(std::string(5, '\0'), bytesOf(reader->dataForRelativePath("a")));
}

TEST(KQZipFileReader, AStreamOnAnEntryRunsOnPastItsDataIntoTheNextRecord) {
  const TemporaryDirectory folder;
  const LocalRecord first = plainRecord("first", "first data");
  const LocalRecord second = zip64Record("second", "second data");
  const LocalRecord third = plainRecord("third", "third data");
  const std::string bytes = archiveBytes({first, second, third});
  const Reader reader = readerOn(folder / "a.zip", bytes);
  ASSERT_TRUE(reader);
  const auto stream = reader->streamForRelativePath("second");
  ASSERT_TRUE(stream);
  const std::size_t position = first.bytes().size() + second.header().size();
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  EXPECT_EQ(position, stream->NSStreamFileCurrentOffsetKey());
  EXPECT_EQ("second data", readFrom(*stream, 11));
  EXPECT_EQ(third.bytes(), readFrom(*stream, third.bytes().size()));
  EXPECT_EQ(bytes.substr(position + 11 + third.bytes().size()), readFrom(*stream, bytes.size()));
}

TEST(KQZipFileReader, EachStreamOnAnEntryHasAPlaceOfItsOwn) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip", archiveBytes({plainRecord("a", "abc"), plainRecord("b", "xyz")}));
  ASSERT_TRUE(reader);
  const auto one = reader->streamForRelativePath("a");
  const auto two = reader->streamForRelativePath("a");
  const auto other = reader->streamForRelativePath("b");
  ASSERT_TRUE(one && two && other);
  EXPECT_EQ("ab", readFrom(*one, 2));
  EXPECT_EQ("xyz", readFrom(*other, 3));
  EXPECT_EQ("abc", readFrom(*two, 3));
  EXPECT_EQ("c", readFrom(*one, 1));
}

TEST(KQZipFileReader, AStreamOnAnEntryWithoutDataStandsAtTheNextRecord) {
  const TemporaryDirectory folder;
  const LocalRecord next = plainRecord("b", "2");
  const Reader reader = readerOn(folder / "a.zip", archiveBytes({plainRecord("empty", ""), next}));
  ASSERT_TRUE(reader);
  const auto stream = reader->streamForRelativePath("empty");
  ASSERT_TRUE(stream);
  EXPECT_EQ(next.bytes(), readFrom(*stream, next.bytes().size()));
}

TEST(KQZipFileReader, AReaderOnAnArchiveThatWasRemovedStillListsAndYieldsNoDataAndNoStream) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", archiveBytes({plainRecord("a", "data")}));
  ASSERT_TRUE(reader);
  fs::remove(folder / "a.zip");
  EXPECT_EQ(Paths{"a"}, reader->relativePaths());
  EXPECT_EQ(4U, reader->attributesForRelativePath("a")->NSFileSize);
  EXPECT_FALSE(reader->dataForRelativePath("a"));
  EXPECT_FALSE(reader->streamForRelativePath("a"));
}

// Attributes.

TEST(KQZipFileReader, AttributesAreSizeDateAndType) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip", archiveBytes({plainRecord("a", "data"), zip64Record("b", "more data")}));
  ASSERT_TRUE(reader);
  const auto attributes = reader->attributesForRelativePath("a");
  ASSERT_TRUE(attributes && attributes->NSFileSize && attributes->NSFileModificationDate &&
              attributes->NSFileType);
  EXPECT_EQ(4U, *attributes->NSFileSize);
  EXPECT_EQ("2020-06-15 12:34:56", KQTest::localTime(*attributes->NSFileModificationDate));
  EXPECT_EQ(KQ::NSFileTypeRegular, *attributes->NSFileType);
  EXPECT_EQ(9U, reader->attributesForRelativePath("b")->NSFileSize);
}

TEST(KQZipFileReader, AnEmptyFileShowsAsAFolderOfSizeZero) {
  const TemporaryDirectory folder;
  writeFile(folder / "source", "");
  KQZipFileWriter writer;
  writer.addFilePath(folder / "source", "empty file");
  ASSERT_TRUE(writer.writeToZipPath(folder / "a.zip"));
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  const auto attributes = reader->attributesForRelativePath("empty file");
  ASSERT_TRUE(attributes);
  EXPECT_EQ(0U, attributes->NSFileSize);
  EXPECT_EQ(KQ::NSFileTypeDirectory, attributes->NSFileType);
  EXPECT_TRUE(attributes->NSFileModificationDate);
}

TEST(KQZipFileReader, TheTypeGoesByTheLengthAndNotByTheName) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip", archiveBytes({plainRecord("folder/", "x"), plainRecord("file", "")}));
  ASSERT_TRUE(reader);
  EXPECT_EQ(KQ::NSFileTypeRegular, reader->attributesForRelativePath("folder/")->NSFileType);
  EXPECT_EQ(KQ::NSFileTypeDirectory, reader->attributesForRelativePath("file")->NSFileType);
}

TEST(KQZipFileReader, TheZip64SizeCountsEvenWhereThe32BitSizeIsNotSaturated) {
  const TemporaryDirectory folder;
  LocalRecord record = zip64Record("a", "seven b");
  record.size = 3;
  const Reader reader = readerOn(folder / "a.zip", record.bytes() + plainRecord("b", "2").bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"a", "b"}), reader->relativePaths());
  EXPECT_EQ(7U, reader->attributesForRelativePath("a")->NSFileSize);
  EXPECT_EQ("seven b", bytesOf(reader->dataForRelativePath("a")));
}

TEST(KQZipFileReader, ADateIsReadInLocalTimeWhateverTheZone) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "1")}));
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  const auto secondsIn = [&reader](const char* zone) {
    const KQTest::TimeZone set(zone);
    return std::chrono::system_clock::to_time_t(
        *reader->attributesForRelativePath("a")->NSFileModificationDate);
  };
  const std::time_t utc = 1592224496;  // 2020-06-15 12:34:56
  EXPECT_EQ(utc, secondsIn("UTC0"));
  EXPECT_EQ(utc - 19800, secondsIn("IST-5:30"));
  EXPECT_EQ(utc + 28800, secondsIn("PST8"));
}

// From a stream.

TEST(KQZipFileReader, AStreamIsNeitherOpenedNorClosedAndStandsWhereTheScanStopped) {
  LocalRecord compressed = plainRecord("b", "data");
  compressed.compression = 8;
  const std::string record = plainRecord("a", "1").bytes();
  struct Case {
    std::string bytes;
    bool opens;
    std::uint64_t position;
  };
  const std::string whole = archiveBytes({plainRecord("a", "1"), zip64Record("b", "2")});
  for (const Case& expected : {
           Case{"", true, 0},
           Case{whole, true, whole.size()},
           Case{record, true, record.size()},
           Case{record + "PK\x03", true, record.size() + 3},
           Case{record + "%PDF and so on", false, record.size() + 4},
           Case{record + compressed.bytes(), false, record.size() + 10},
           Case{record + record.substr(0, 20), false, record.size() + 20},
       }) {
    LogCapture log;
    WatchedInputStream stream(expected.bytes);
    EXPECT_EQ(expected.opens, KQZipFileReader::initWithStream(stream) != nullptr);
    EXPECT_EQ(expected.position, stream.position) << expected.bytes.size();
    EXPECT_EQ(0, stream.opened);
    EXPECT_EQ(0, stream.closed);
  }
}

TEST(KQZipFileReader, AFileStreamStaysUsableByItsOwner) {
  const TemporaryDirectory folder;
  const std::string bytes = archiveBytes({plainRecord("a", "1"), plainRecord("b", "2")});
  writeFile(folder / "a.zip", bytes);
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "a.zip");
  ASSERT_TRUE(stream);
  stream->open();
  const Reader reader = KQZipFileReader::initWithStream(*stream);
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"a", "b"}), reader->relativePaths());
  EXPECT_EQ(bytes.size(), stream->NSStreamFileCurrentOffsetKey());
  EXPECT_NE(KQ::NSStreamStatusClosed, stream->streamStatus());
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(0));
  EXPECT_EQ(bytes, readFrom(*stream, bytes.size()));
}

TEST(KQZipFileReader, AStreamWithoutBytesIsNotRead) {
  TestInputStream stream("");
  Error error;
  const Reader reader = KQZipFileReader::initWithStream(stream, &error);
  ASSERT_TRUE(reader);
  EXPECT_FALSE(error);
  EXPECT_EQ(Paths(), reader->relativePaths());
  EXPECT_TRUE(stream.reads.empty());
}

TEST(KQZipFileReader, AnArchiveThatBeginsInTheMiddleOfAStreamIsListed) {
  TestInputStream stream("something in front" +
                         archiveBytes({plainRecord("a", "1"), zip64Record("b", "22")}));
  stream.position = 18;
  const Reader reader = KQZipFileReader::initWithStream(stream);
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"a", "b"}), reader->relativePaths());
  EXPECT_EQ(2U, reader->attributesForRelativePath("b")->NSFileSize);
}

TEST(KQZipFileReader, AReaderFromAStreamListsAndHasNothingToReopen) {
  const TemporaryDirectory folder;
  TestInputStream stream(archiveBytes({plainRecord("a", "data"), plainRecord("empty", "")}));
  const Reader reader = KQZipFileReader::initWithStream(stream);
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"a", "empty"}), reader->relativePaths());
  const auto attributes = reader->attributesForRelativePath("a");
  ASSERT_TRUE(attributes);
  EXPECT_EQ(4U, attributes->NSFileSize);
  EXPECT_EQ("2020-06-15 12:34:56", KQTest::localTime(*attributes->NSFileModificationDate));
  LogCapture log;
  for (const char* path : {"a", "empty"}) {
    EXPECT_FALSE(reader->dataForRelativePath(path));
    EXPECT_FALSE(reader->streamForRelativePath(path));
    Error error;
    EXPECT_FALSE(reader->writeDataForRelativePath(path, folder / path, &error));
    EXPECT_FALSE(error) << errorText(error);
    EXPECT_FALSE(fs::exists(folder / path));
    EXPECT_FALSE(reader->writeDataForRelativePath(path, folder / path));
  }
  EXPECT_EQ(Paths(), log.lines());
}

TEST(KQZipFileReader, AReaderFromAStreamLeavesAnExistingTargetAlone) {
  const TemporaryDirectory folder;
  writeFile(folder / "a", "precious");
  TestInputStream stream(archiveBytes({plainRecord("a", "data")}));
  const Reader reader = KQZipFileReader::initWithStream(stream);
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "a"));
  EXPECT_EQ("precious", KQTest::readFile(folder / "a"));
}

TEST(KQZipFileReader, AReaderFromAStreamWritesNothingForAnUnknownPathAndSucceeds) {
  const TemporaryDirectory folder;
  TestInputStream stream(archiveBytes({plainRecord("a", "data")}));
  const Reader reader = KQZipFileReader::initWithStream(stream);
  ASSERT_TRUE(reader);
  Error error;
  EXPECT_TRUE(reader->writeDataForRelativePath("unknown", folder / "out", &error));
  EXPECT_FALSE(error);
  EXPECT_FALSE(fs::exists(folder / "out"));
}

// The hand-over to the central directory.

TEST(KQZipFileReader, TheCentralDirectoryIsReadFourBytesAtATimeFromInsideItsFirstHeader) {
  const LocalRecord record = plainRecord("ab", "1");
  TestInputStream local(record.bytes());
  ASSERT_TRUE(KQZipFileReader::initWithStream(local));
  TestInputStream stream(record.bytes() + centralHeaderBytes(record));
  ASSERT_TRUE(KQZipFileReader::initWithStream(stream));
  // The signature, the eleven words behind it, and the read that meets the end.
  const std::vector<std::uint64_t> behindTheRecord(
      stream.reads.begin() + static_cast<std::ptrdiff_t>(local.reads.size()), stream.reads.end());
  EXPECT_EQ(std::vector<std::uint64_t>(13, 4), behindTheRecord);
}

TEST(KQZipFileReader, TheFirstCentralHeaderIsNeverParsedAsAHeader) {
  const TemporaryDirectory folder;
  const LocalRecord first = plainRecord("ab", "1");
  const LocalRecord second = plainRecord("cd", "2");
  LogCapture log;
  const Reader reader =
      readerOn(folder / "a.zip", first.bytes() + second.bytes() + centralHeaderBytes(first, 0, 8) +
                                     centralHeaderBytes(second) + endRecordBytes(2));
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"ab", "cd"}), reader->relativePaths());
  EXPECT_EQ(Paths(), log.lines());
}

TEST(KQZipFileReader, ALaterCentralHeaderIsParsedWhereItStandsOnTheGridOfFourBytes) {
  const TemporaryDirectory folder;
  const LocalRecord first = plainRecord("ab", "1");
  const LocalRecord second = plainRecord("cd", "2");
  writeFile(folder / "a.zip", first.bytes() + second.bytes() + centralHeaderBytes(first) +
                                  centralHeaderBytes(second, 0, 8) + endRecordBytes(2));
  LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / "a.zip", &error));
  // The scan goes on behind the compression method of the second header, with its time and date.
  EXPECT_EQ("-100 got unexpected bytes looking for known signatures: 50cf645c", errorText(error));
  const auto parsed =
      KQ::NSError::errorWithDomain("KQZipErrorDomain", -101, "File uses unsupported compression method.");
  EXPECT_EQ(Paths{"Failed to parse KQZipCentralDirectoryFileHeader from stream: " + parsed->description()},
            log.lines());
}

TEST(KQZipFileReader, ALaterCentralHeaderOffTheGridIsNotSeen) {
  const TemporaryDirectory folder;
  for (const char* name : {"a", "abc", "abcd"}) {
    const LocalRecord first = plainRecord(name, "1");
    const LocalRecord second = plainRecord("cd", "2");
    LogCapture log;
    const Reader reader =
        readerOn(folder / "a.zip", first.bytes() + second.bytes() + centralHeaderBytes(first) +
                                       centralHeaderBytes(second, 0, 8) + endRecordBytes(2));
    ASSERT_TRUE(reader) << name;
    EXPECT_EQ(2U, reader->relativePaths().size());
    EXPECT_EQ(Paths(), log.lines());
  }
}

TEST(KQZipFileReader, LocalRecordsBehindTheCentralDirectoryAreSwallowedByIt) {
  const TemporaryDirectory folder;
  const LocalRecord first = plainRecord("ab", "1");
  const Reader reader =
      readerOn(folder / "a.zip", first.bytes() + centralHeaderBytes(first) + plainRecord("b", "2").bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ(Paths{"ab"}, reader->relativePaths());
}

// A central signature, and a central header on its grid that cannot be parsed: the directory gives up behind
// the header's compression method.
std::string unreadableDirectory() {
  return Bytes().text(centralSignature).text(centralSignature).u16(0).u16(0).u16(0).u16(8);
}

TEST(KQZipFileReader, ACentralDirectoryThatCannotBeParsedIsIgnoredAndTheScanGoesOnFromThere) {
  const TemporaryDirectory folder;
  const std::string bytes =
      plainRecord("a", "1").bytes() + unreadableDirectory() + plainRecord("b", "2").bytes();
  writeFile(folder / "a.zip", bytes);
  LogCapture log;
  const Error before = KQTest::earlierError();
  Error error = before;
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip", &error);
  ASSERT_TRUE(reader) << errorText(error);
  EXPECT_EQ(before, error) << errorText(error);
  EXPECT_EQ((Paths{"a", "b"}), reader->relativePaths());
  EXPECT_EQ("2", bytesOf(reader->dataForRelativePath("b")));
  EXPECT_EQ(1U, log.lines().size());
}

TEST(KQZipFileReader, AfterACentralDirectoryThatCannotBeParsedTheNextSignatureStartsAnother) {
  const TemporaryDirectory folder;
  LogCapture log;
  const Reader reader = readerOn(folder / "a.zip", plainRecord("a", "1").bytes() + unreadableDirectory() +
                                                       plainRecord("b", "2").bytes() + centralSignature +
                                                       plainRecord("swallowed", "3").bytes());
  ASSERT_TRUE(reader);
  EXPECT_EQ((Paths{"a", "b"}), reader->relativePaths());
}

TEST(KQZipFileReader, AnErrorOfACentralDirectoryIsNeverThatOfALaterRecord) {
  const TemporaryDirectory folder;
  const std::string bytes =
      unreadableDirectory() + std::string(Bytes().u32(KQZipFileLocalHeader::signature).u16(45));
  EXPECT_EQ(std::string("PK\1\2PK\1\2\0\0\0\0\0\0\10\0PK\3\4\55\0", 22), bytes);
  LogCapture log;
  EXPECT_EQ("no error", failureOn(folder / "a.zip", bytes));

  TestInputStream cut(bytes);
  Error error = KQTest::earlierError();
  EXPECT_FALSE(KQZipFileReader::initWithStream(cut, &error));
  EXPECT_FALSE(error) << errorText(error);

  TestInputStream failing(bytes);
  failing.failAtRead = static_cast<std::int64_t>(cut.reads.size());
  error = KQTest::earlierError();
  EXPECT_FALSE(KQZipFileReader::initWithStream(failing, &error));
  EXPECT_FALSE(error) << errorText(error);

  const Paths lines = log.lines();
  ASSERT_EQ(7U, lines.size());
  EXPECT_EQ("Failed to parse KQZipFileLocalHeader from stream: (null)", lines[1]);
  EXPECT_EQ("Failed to parse KQZipFileLocalHeader from stream: (null)", lines[3]);
  EXPECT_EQ("stream reading failed: (null)", lines[5]);
  EXPECT_EQ("Failed to parse KQZipFileLocalHeader from stream: (null)", lines[6]);
}

TEST(KQZipFileReader, ASecondCentralSignatureIsConsumedAndSkipped) {
  const std::string first = plainRecord("a", "1").bytes() + centralSignature;
  WatchedInputStream stream(first + centralSignature + plainRecord("b", "2").bytes() + centralSignature +
                            plainRecord("c", "3").bytes());
  // A stream that has nothing for one read ends the directory, and the scan goes on behind it.
  stream.pauses.insert(first.size());
  Error error;
  const Reader reader = KQZipFileReader::initWithStream(stream, &error);
  ASSERT_TRUE(reader) << errorText(error);
  EXPECT_EQ((Paths{"a", "b", "c"}), reader->relativePaths());
}

TEST(KQZipFileReader, ACentralSignatureAtTheVeryEndIsAnEmptyDirectory) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", plainRecord("a", "1").bytes() + centralSignature);
  ASSERT_TRUE(reader);
  EXPECT_EQ(Paths{"a"}, reader->relativePaths());
}

TEST(KQZipFileReader, AnArchiveThatBeginsWithItsCentralDirectoryHasNoEntries) {
  const TemporaryDirectory folder;
  const Reader reader =
      readerOn(folder / "a.zip", centralHeaderBytes(plainRecord("ab", "1")) + endRecordBytes(1));
  ASSERT_TRUE(reader);
  EXPECT_EQ(Paths(), reader->relativePaths());
}

}  // namespace
