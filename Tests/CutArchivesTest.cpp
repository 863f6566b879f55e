#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

namespace {

namespace fs = std::filesystem;

using KQTest::archiveBytes;
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
using KQTest::zip64Record;

using Lines = std::vector<std::string>;
using Reader = std::shared_ptr<KQZipFileReader>;
using Records = std::vector<LocalRecord>;

/// A local record of an archive and where it stands there.
struct Place {
  LocalRecord record;
  std::size_t begin;  ///< Its signature.
  std::size_t data;   ///< The first byte of its data.
  std::size_t end;    ///< The byte behind its data.
};

std::vector<Place> placesOf(const Records& records) {
  std::vector<Place> places;
  std::size_t at = 0;
  for (const LocalRecord& record : records) {
    const std::size_t data = at + record.header().size();
    places.push_back({record, at, data, data + record.data.size()});
    at = places.back().end;
  }
  return places;
}

/// What a cut inside a header leads to. A record begins with a signature of 4 bytes, of which 1 to 3 are
/// ignored like any rest of an archive. From the whole signature on, up to the last byte of the header, some
/// field meets the end of the file with not one byte left, which fails without an error: also behind a field
/// that is there in part, which is read as it stands, the next one meets the end. So the header fails unless
/// the field that is there in part is the last one of the header.
enum class Cut { opens, fails };

using Expectation = std::function<Cut(const Place& place, std::size_t bytesOfHeader)>;

/// For headers that end with a whole extra field, as the library writes them.
Cut failsFromTheWholeSignatureOn(const Place& /*place*/, std::size_t bytesOfHeader) {
  return bytesOfHeader < 4 ? Cut::opens : Cut::fails;
}

/// For headers that end with the name: a name that is there in part is read as it stands and nothing comes
/// behind it that could meet the end.
Cut failsUpToTheNamesFirstByte(const Place& place, std::size_t bytesOfHeader) {
  if (bytesOfHeader < 4) return Cut::opens;
  return bytesOfHeader <= 30 && !place.record.name.empty() ? Cut::fails : Cut::opens;
}

/// Every entry that is wholly there must read back exactly, from memory and on disk.
void expectWholeEntriesReadBack(const Reader& reader, const std::vector<Place>& places, std::size_t length,
                                const TemporaryDirectory& folder) {
  for (const Place& place : places) {
    const std::string& path = place.record.name;
    const auto attributes = reader->attributesForRelativePath(path);
    if (place.data > length) {
      EXPECT_FALSE(attributes) << path;
      continue;
    }
    // An entry whose data is cut is listed with the length that it was to have.
    ASSERT_TRUE(attributes) << path;
    EXPECT_EQ(place.record.data.size(), attributes->NSFileSize);
    EXPECT_EQ("2020-06-15 12:34:56", KQTest::localTime(*attributes->NSFileModificationDate));
    const std::string present = place.record.data.substr(0, length - place.data);
    std::string padded = present;
    padded.resize(place.record.data.size(), '\0');
    const auto data = bytesOf(reader->dataForRelativePath(path));
    if (present.empty())
      EXPECT_FALSE(data) << path;
    else
      EXPECT_EQ(padded, data) << path;
    const auto stream = reader->streamForRelativePath(path);
    ASSERT_TRUE(stream);
    EXPECT_EQ(present, KQTest::readFrom(*stream, present.size()));
    stream->close();
    Error error;
    EXPECT_TRUE(reader->writeDataForRelativePath(path, folder / "entry", &error)) << errorText(error);
    EXPECT_EQ(present, readFile(folder / "entry"));
  }
}

/// Cuts an archive at every byte and compares what opens, what fails, and what is then there.
void expectEveryCut(const Records& records, const std::string& whole, const Expectation& expectation) {
  const TemporaryDirectory folder;
  const std::vector<Place> places = placesOf(records);
  for (std::size_t length = 0; length <= whole.size(); ++length) {
    SCOPED_TRACE(length);
    Cut expected = Cut::opens;
    bool insideOfAHeader = false;
    for (const Place& place : places) {
      if (place.begin < length && length < place.data) {
        expected = expectation(place, length - place.begin);
        insideOfAHeader = true;
      }
    }
    const std::string cut = whole.substr(0, length);
    writeFile(folder / "a.zip", cut);

    LogCapture log;
    Error error;
    const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip", &error);
    EXPECT_FALSE(error) << errorText(error);
    TestInputStream stream(cut);
    EXPECT_EQ(expected == Cut::opens, KQZipFileReader::initWithStream(stream, &error) != nullptr);
    EXPECT_FALSE(error) << errorText(error);
    if (expected == Cut::fails) {
      EXPECT_FALSE(reader);
      const Lines line(2, "Failed to parse KQZipFileLocalHeader from stream: (null)");
      EXPECT_EQ(line, log.lines());
      EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
      EXPECT_FALSE(error) << errorText(error);
      EXPECT_FALSE(fs::exists(folder / "out"));
      continue;
    }
    ASSERT_TRUE(reader);
    if (length <= places.back().end) {
      EXPECT_EQ(Lines(), log.lines());
    }
    if (insideOfAHeader && length - places.front().begin >= 4) {
      // Only the entries in front of the cut header are compared; see the test of cut names for the rest.
      std::vector<Place> before;
      for (const Place& place : places) {
        if (place.end <= length) before.push_back(place);
      }
      expectWholeEntriesReadBack(reader, before, length, folder);
    } else {
      expectWholeEntriesReadBack(reader, places, length, folder);
    }
  }
}

TEST(CutArchives, AnArchiveOfTheWriterFailsExactlyWhereAHeaderIsCut) {
  const TemporaryDirectory folder;
  const Records records = {zip64Record("a", "first"), zip64Record("b/second", patternBytes(37)),
                           zip64Record("c", "3")};
  KQZipFileWriter writer;
  for (const LocalRecord& record : records) {
    writeFile(folder / record.name, record.data);
    writer.addFilePath(folder / record.name, record.name);
  }
  ASSERT_TRUE(writer.writeToZipPath(folder / "whole.zip"));
  std::string whole = readFile(folder / "whole.zip");
  // The files were written just now; the entries are to have one known date.
  for (const Place& place : placesOf(records)) {
    const std::string date = KQTest::Bytes().u16(place.record.modTime).u16(place.record.modDate);
    whole.replace(place.begin + 10, date.size(), date);
  }
  expectEveryCut(records, whole, failsFromTheWholeSignatureOn);
}

TEST(CutArchives, AnArchiveWithZip64FieldsFailsExactlyWhereAHeaderIsCut) {
  const Records records = {zip64Record("one", "11"), zip64Record("two", ""), zip64Record("three", "33333")};
  expectEveryCut(records, archiveBytes(records), failsFromTheWholeSignatureOn);
}

TEST(CutArchives, AnArchiveWithOtherExtraFieldsFailsExactlyWhereAHeaderIsCut) {
  Records records = {plainRecord("one", "11"), plainRecord("two", ""), plainRecord("three", "33333")};
  records[0].extra = extraFieldBytes(0x5455, "times");
  records[1].extra = extraFieldBytes(0xCAFE, "");
  records[2].extra = extraFieldBytes(0x7875, "owner") + extraFieldBytes(0x5455, "x") + extraFieldBytes(9, "");
  expectEveryCut(records, archiveBytes(records), failsFromTheWholeSignatureOn);
}

TEST(CutArchives, AnArchiveWithoutExtraFieldsOpensWhereANameIsCut) {
  const Records records = {plainRecord("one", "11"), plainRecord("two", ""), plainRecord("three", "33333")};
  expectEveryCut(records, archiveBytes(records), failsUpToTheNamesFirstByte);
}

TEST(CutArchives, ARecordWithoutANameOpensWhereOnlyTheLastByteOfItsHeaderIsMissing) {
  const Records records = {plainRecord("one", "11"), plainRecord("", "nameless")};
  expectEveryCut(records, archiveBytes(records), [](const Place& place, std::size_t bytesOfHeader) {
    if (bytesOfHeader < 4) return Cut::opens;
    // One byte of the extra fields' length is a length in which nothing is left to meet the end.
    if (place.record.name.empty()) return bytesOfHeader < 29 ? Cut::fails : Cut::opens;
    return bytesOfHeader <= 30 ? Cut::fails : Cut::opens;
  });
}

TEST(CutArchives, AFieldThatOverrunsItsAreaOpensWhereOnlyItsOverhangIsCut) {
  LocalRecord overrunning = plainRecord("two", "data");
  // Of a field of 4 and 20 bytes the area covers 4 and 2.
  overrunning.extra = extraFieldBytes(0x5455, patternBytes(20));
  overrunning.extraLength = 6;
  const Records records = {plainRecord("one", "11"), overrunning};
  expectEveryCut(records, archiveBytes(records), [](const Place& place, std::size_t bytesOfHeader) {
    if (!place.record.extraLength) return failsUpToTheNamesFirstByte(place, bytesOfHeader);
    if (bytesOfHeader < 4) return Cut::opens;
    return bytesOfHeader < 33 + 6 ? Cut::fails : Cut::opens;
  });
}

TEST(CutArchives, ACutNameBeginsWithTheBytesThatAreThereAndDoesNotHideTheOthers) {
  const TemporaryDirectory folder;
  const std::string first = plainRecord("first", "11").bytes();
  const LocalRecord second = plainRecord("second", "22");
  for (std::size_t letters = 1; letters < second.name.size(); ++letters) {
    writeFile(folder / "a.zip", first + second.header().substr(0, 30 + letters));
    Error error;
    const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip", &error);
    ASSERT_TRUE(reader) << errorText(error);
    const Lines paths = reader->relativePaths();
    ASSERT_EQ(2U, paths.size());
    EXPECT_EQ("first", paths[0]);
    // What is not there reads as zeros, not as whatever the memory held.
    std::string cutName = second.name.substr(0, letters);
    cutName.resize(second.name.size(), '\0');
    EXPECT_EQ(cutName, paths[1]);
    EXPECT_FALSE(reader->dataForRelativePath(paths[1]));
    EXPECT_EQ("11", bytesOf(reader->dataForRelativePath("first")));
  }
}

TEST(CutArchives, ACutInTheTailLosesNoEntryWhateverTheGridOfTheDirectory) {
  const TemporaryDirectory folder;
  // The lengths of the names move the later records of the tail on and off the grid of four bytes.
  for (const char* name : {"1", "12", "123", "1234"}) {
    const Records records = {plainRecord(name, "a"), plainRecord("other", "b"), plainRecord("third", "c")};
    const std::string whole = archiveBytes(records);
    const std::size_t tail = placesOf(records).back().end;
    for (std::size_t length = tail; length <= whole.size(); ++length) {
      LogCapture log;
      writeFile(folder / "a.zip", whole.substr(0, length));
      Error error;
      const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip", &error);
      ASSERT_TRUE(reader) << name << " " << length << " " << errorText(error);
      EXPECT_FALSE(error);
      EXPECT_EQ((Lines{name, "other", "third"}), reader->relativePaths());
      EXPECT_EQ("a", bytesOf(reader->dataForRelativePath(name)));
      EXPECT_EQ("b", bytesOf(reader->dataForRelativePath("other")));
      EXPECT_EQ("c", bytesOf(reader->dataForRelativePath("third")));
    }
  }
}

TEST(CutArchives, ACutInsideDataExtractsWhatIsThere) {
  const TemporaryDirectory folder;
  const Records records = {zip64Record("a", "first"), zip64Record("b", "second"), zip64Record("c", "third")};
  const std::string whole = archiveBytes(records);
  for (const Place& place : placesOf(records)) {
    for (std::size_t length = place.data; length <= place.end; ++length) {
      writeFile(folder / "a.zip", whole.substr(0, length));
      const std::string out = folder / std::to_string(length);
      Error error;
      EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", out, &error)) << errorText(error);
      for (const Place& other : placesOf(records)) {
        if (other.data > length)
          EXPECT_FALSE(fs::exists(out + "/" + other.record.name));
        else
          EXPECT_EQ(other.record.data.substr(0, length - other.data),
                    readFile(out + "/" + other.record.name));
      }
    }
  }
}

TEST(CutArchives, ALargeArchiveOpensAtACutInsideEachOfItsBlocks) {
  const TemporaryDirectory folder;
  const Records records = {zip64Record("a", "first"), zip64Record("b", patternBytes(2 * 1048576 + 3)),
                           zip64Record("c", "third")};
  const std::string whole = archiveBytes(records);
  const std::vector<Place> places = placesOf(records);
  for (const std::size_t present : {std::size_t{0}, std::size_t{1}, std::size_t{65536}, std::size_t{1048575},
                                    std::size_t{1048576}, std::size_t{1048577}, std::size_t{2097154}}) {
    writeFile(folder / "a.zip", whole.substr(0, places[1].data + present));
    const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
    ASSERT_TRUE(reader);
    EXPECT_EQ((Lines{"a", "b"}), reader->relativePaths());
    EXPECT_EQ("first", bytesOf(reader->dataForRelativePath("a")));
    EXPECT_TRUE(reader->writeDataForRelativePath("b", folder / "out"));
    EXPECT_TRUE(readFile(folder / "out") == records[1].data.substr(0, present)) << present;
  }
}

}  // namespace
