#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/Bytes.h"
#include "Support/GoldenArchive.h"
#include "Support/SourceTree.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"
#include "Support/Tool.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

const std::uint64_t mebibyte = 1048576;
const std::uint64_t gibibyte = 1024 * mebibyte;
const std::uint64_t saturated = 0xFFFFFFFF;
const std::uint64_t million = 1000000;

bool largeTestsAreWanted() { return std::getenv("KQZIP_LARGE_TESTS") != nullptr; }

// Names that sort like their numbers.
std::string numberedName(std::uint64_t number) {
  std::string name = "n000000";
  for (std::size_t i = name.size() - 1; number != 0; --i, number /= 10)
    name[i] = static_cast<char>('0' + number % 10);
  return name;
}

// The CRC of `length` zeros, without going through all of them.
std::uint32_t crcOfZeros(std::uint64_t length) {
  const std::string block(mebibyte, '\0');
  const uLong blockCrc = crcOf(block);
  uLong crc = 0;
  for (std::uint64_t i = 0; i < length / mebibyte; ++i)
    crc = crc32_combine(crc, blockCrc, static_cast<z_off_t>(mebibyte));
  const std::string rest(length % mebibyte, '\0');
  return static_cast<std::uint32_t>(crc32_combine(crc, crcOf(rest), static_cast<z_off_t>(rest.size())));
}

std::string partOfFile(const std::string& path, std::uint64_t offset, std::uint64_t length) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(offset));
  std::string bytes(length, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(length));
  EXPECT_EQ(static_cast<std::streamsize>(length), file.gcount());
  return bytes;
}

// Makes a file of somewhat more than 4 GiB that is all hole but for its front, its end and the bytes around
// 4 GiB. Returns its CRC.
std::uint32_t writeSparseFileWithMarks(const std::string& path) {
  const std::uint64_t size = 4 * gibibyte + 5000;
  const std::string mark = patternBytes(100);
  fs::resize_file(path, size);
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  uLong crc = 0;
  std::uint64_t end = 0;
  for (const std::uint64_t offset : {std::uint64_t{0}, 4 * gibibyte - 50, size - 100}) {
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(mark.data(), static_cast<std::streamsize>(mark.size()));
    const std::uint64_t hole = offset - end;
    crc = crc32_combine(crc, crcOfZeros(hole), static_cast<z_off_t>(hole));
    crc = crc32_combine(crc, crcOf(mark), static_cast<z_off_t>(mark.size()));
    end = offset + mark.size();
  }
  file.close();
  setModificationDate(path, SourceTree::date);
  return static_cast<std::uint32_t>(crc);
}

// Reads as much as the file has, and compares all of it.
void expectStreamGivesFile(KQ::NSInputStream& stream, const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<char> expected(mebibyte);
  std::vector<char> actual(mebibyte);
  for (std::uint64_t left = fs::file_size(path); left != 0;) {
    const std::uint64_t length = std::min(left, mebibyte);
    file.read(expected.data(), static_cast<std::streamsize>(length));
    ASSERT_EQ(static_cast<std::streamsize>(length), file.gcount());
    ASSERT_EQ(static_cast<std::int64_t>(length),
              stream.read(reinterpret_cast<std::uint8_t*>(actual.data()), length));
    ASSERT_EQ(0, std::memcmp(expected.data(), actual.data(), length)) << left << " bytes before the end";
    left -= length;
  }
}

// Takes whole blocks of zeros by counting them only and keeps everything else.
class ZeroCountingStream : public KQ::NSOutputStream {
 public:
  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override {
    const std::string block(reinterpret_cast<const char*>(buffer), maxLength);
    offset += maxLength;
    if (maxLength == mebibyte && block == std::string(mebibyte, '\0'))
      ++zeroBlocks;
    else
      kept += block;
    return static_cast<std::int64_t>(maxLength);
  }
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override { return offset; }

  std::uint64_t offset = 0;
  std::uint64_t zeroBlocks = 0;
  std::string kept;
};

class LargeArchives : public ::testing::Test {
 protected:
  // Three small entries written to a stream that says it stands at `startOffset`.
  void expectArchiveAt(std::uint64_t startOffset) const {
    SCOPED_TRACE("at offset " + std::to_string(startOffset));
    KQZipFileWriter writer;
    std::vector<GoldenEntry> entries;
    for (const char* name : {"a", "b", "c"}) {
      writer.addFilePath(tree_.file(name, name), name);
      entries.push_back(SourceTree::entry(name, name));
    }
    TestOutputStream stream;
    stream.startOffset = startOffset;
    ASSERT_TRUE(writer.writeToStream(stream));
    expectSameBytes(goldenArchive(entries, startOffset), stream.bytes);
  }

  SourceTree tree_;
};

// An entry of the three that expectArchiveAt() writes: 30 bytes, a name of 1, the Zip64 field, 1 byte.
const std::uint64_t smallEntryLength = 60;

}  // namespace

TEST_F(LargeArchives, CountsOf65536EntriesAreZeroInTheClassicRecordAndTrueInTheZip64Record) {
  const std::uint64_t count = 65536;
  const std::string source = tree_.file("source", "x");
  KQZipFileWriter writer;
  std::vector<GoldenEntry> entries;
  const GoldenEntry model = SourceTree::entry("", "x");
  for (std::uint64_t i = 0; i < count; ++i) {
    // Added from the back, so that sorting has something to do.
    writer.addFilePath(source, numberedName(count - 1 - i));
    entries.push_back(model);
    entries.back().name = numberedName(i);
  }
  ASSERT_TRUE(writer.writeToZipPath(tree_ / "many.zip"));

  const std::string archive = readFile(tree_ / "many.zip");
  expectSameBytes(goldenArchive(entries), archive);
  ASSERT_GE(archive.size(), endRecordsLength);
  const std::string endRecords = archive.substr(archive.size() - endRecordsLength);
  EXPECT_EQ(Bytes().u64(65536).u64(65536).string(), endRecords.substr(24, 16));
  EXPECT_EQ(Bytes().u16(0).u16(0).string(), endRecords.substr(56 + 20 + 8, 4));
}

TEST_F(LargeArchives, OffsetsBeyond4GiBStandInTheZip64FieldsAndRecords) {
  expectArchiveAt(gibibyte * 4);
  expectArchiveAt(gibibyte * 5 + 12345);
  expectArchiveAt(std::uint64_t{1} << 62);
}

TEST_F(LargeArchives, TheLastOffsetBelowTheMarkerIsWrittenAndTheMarkerItselfOnIsSaturated) {
  // Each of the three entries and the directory in turn stands just below, at and just above the marker.
  for (std::uint64_t record = 0; record <= 3; ++record) {
    const std::uint64_t atMarker = saturated - record * smallEntryLength;
    expectArchiveAt(atMarker - 1);
    expectArchiveAt(atMarker);
    expectArchiveAt(atMarker + 1);
  }
}

TEST_F(LargeArchives, ADirectoryAtTheMarkerHasSaturatedAndTrueOffsetsAtTheirPlaces) {
  // Spelled out once, next to the comparison of whole archives.
  KQZipFileWriter writer;
  writer.addFilePath(tree_.file("a", "a"), "a");
  TestOutputStream stream;
  stream.startOffset = 0x100000000;
  ASSERT_TRUE(writer.writeToStream(stream));
  const std::string& bytes = stream.bytes;
  const std::uint64_t directory = smallEntryLength;
  const std::uint64_t zip64Record = directory + 46 + 1 + 28;
  const std::uint64_t locator = zip64Record + 56;
  const std::uint64_t classic = locator + 20;
  ASSERT_EQ(classic + 22, bytes.size());
  EXPECT_EQ(Bytes().u64(0x100000000).string(), bytes.substr(31 + 20, 8)) << "local Zip64 field";
  EXPECT_EQ(Bytes().u32(saturated).string(), bytes.substr(directory + 42, 4)) << "central header";
  EXPECT_EQ(Bytes().u64(0x100000000).string(), bytes.substr(directory + 47 + 20, 8)) << "central Zip64 field";
  EXPECT_EQ(Bytes().u64(0x100000000 + directory).string(), bytes.substr(zip64Record + 48, 8));
  EXPECT_EQ(Bytes().u64(0x100000000 + zip64Record).string(), bytes.substr(locator + 8, 8));
  EXPECT_EQ(Bytes().u32(saturated).string(), bytes.substr(classic + 16, 4)) << "classic record";
}

TEST_F(LargeArchives, ASparseSourceBeyond4GiBPushesTheRestBeyond4GiB) {
  if (!largeTestsAreWanted()) GTEST_SKIP() << "moves 4 GiB twice; set KQZIP_LARGE_TESTS to run it";
  const std::uint64_t size = 4 * gibibyte + 1;
  const std::string source = tree_.file("sparse", "");
  fs::resize_file(source, size);
  setModificationDate(source, SourceTree::date);

  KQZipFileWriter writer;
  writer.addFilePath(source, "1");
  writer.addFilePath(tree_.file("small", "small"), "2");
  ZeroCountingStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));

  // The data is 4,096 blocks and one byte; all but the blocks is kept and compared.
  GoldenEntry large = SourceTree::entry("1", "");
  large.crc = crcOfZeros(size);
  large.localSize = large.centralSize = size;
  const GoldenEntry small = SourceTree::entry("2", "small");
  const std::uint64_t secondOffset = 59 + size;
  const std::uint64_t directory = secondOffset + 59 + 5;
  const std::string headers = goldenCentralHeader(large, 0) + goldenCentralHeader(small, secondOffset);
  EXPECT_EQ(4096U, stream.zeroBlocks);
  expectSameBytes(goldenLocalHeader(large, 0) + std::string(1, '\0') +
                      goldenLocalHeader(small, secondOffset) + "small" + headers +
                      goldenEndRecords(2, directory, headers.size()),
                  stream.kept);
}

TEST_F(LargeArchives, TheToolPacksAnEntryBeyond4GiBAndToolAndLibraryReadItBack) {
  if (!largeTestsAreWanted()) GTEST_SKIP() << "writes a file of 4 GiB; set KQZIP_LARGE_TESTS to run it";
  if (fs::space(tree_.path()).available < 5 * gibibyte) GTEST_SKIP() << "less than 5 GiB of space is free";
  const std::string source = tree_.file("tree/1", "");
  GoldenEntry large = SourceTree::entry("1", "");
  large.crc = writeSparseFileWithMarks(source);
  const std::uint64_t size = fs::file_size(source);
  large.localSize = large.centralSize = size;
  tree_.file("tree/2", "small");
  const std::string archive = tree_ / "large.zip";
  expectDone(runTool({"create", "--exact", "--verify", archive, tree_ / "tree"}));

  const GoldenEntry small = SourceTree::entry("2", "small");
  const std::uint64_t secondOffset = 59 + size;
  const std::uint64_t directory = secondOffset + 59 + 5;
  const std::string headers = goldenCentralHeader(large, 0) + goldenCentralHeader(small, secondOffset);
  const std::string tail = goldenLocalHeader(small, secondOffset) + "small" + headers +
                           goldenEndRecords(2, directory, headers.size());
  ASSERT_EQ(secondOffset + tail.size(), fs::file_size(archive));
  expectSameBytes(goldenLocalHeader(large, 0), partOfFile(archive, 0, 59));
  expectSameBytes(tail, partOfFile(archive, secondOffset, tail.size()));

  const std::string date = "2020-09-13 12:26:40 ";
  expectDone(runTool({"list", "-l", archive}),
             "- " + std::to_string(size) + " " + date + "1\n" + "-          5 " + date + "2\n");
  expectDone(runTool({"cat", archive, "2"}), "small");

  const auto reader = KQZipFileReader::initWithZipPath(archive);
  ASSERT_TRUE(reader);
  EXPECT_EQ((std::vector<std::string>{"1", "2"}), reader->relativePaths());
  EXPECT_EQ(size, reader->attributesForRelativePath("1")->NSFileSize);
  EXPECT_EQ("small", bytesOf(reader->dataForRelativePath("2")));
  expectStreamGivesFile(*reader->streamForRelativePath("1"), source);
}

TEST_F(LargeArchives, AMillionEntriesAreWrittenListedAndReadBack) {
  if (!largeTestsAreWanted()) GTEST_SKIP() << "takes long; set KQZIP_LARGE_TESTS to run it";
  const std::string source = tree_.file("source", "x");
  const std::string archive = tree_ / "many.zip";
  {
    KQZipFileWriter writer;
    for (std::uint64_t i = 0; i < million; ++i) writer.addFilePath(source, numberedName(i));
    ASSERT_TRUE(writer.writeToZipPath(archive));
  }

  // Every record has one length, so that its place is known.
  GoldenEntry entry = SourceTree::entry(numberedName(0), "x");
  const std::uint64_t localLength = goldenLocalHeader(entry, 0).size() + 1;
  const std::uint64_t centralLength = goldenCentralHeader(entry, 0).size();
  const std::uint64_t directory = million * localLength;
  const std::string endRecords = goldenEndRecords(million, directory, million * centralLength);
  ASSERT_EQ(directory + million * centralLength + endRecords.size(), fs::file_size(archive));
  expectSameBytes(endRecords, partOfFile(archive, directory + million * centralLength, endRecords.size()));

  const auto reader = KQZipFileReader::initWithZipPath(archive);
  ASSERT_TRUE(reader);
  const std::vector<std::string> paths = reader->relativePaths();
  ASSERT_EQ(million, paths.size());
  for (std::uint64_t i = 0; i < million; ++i) ASSERT_EQ(numberedName(i), paths[i]);
  for (std::uint64_t i = 0; i < million; i += 33333) {
    entry.name = numberedName(i);
    expectSameBytes(goldenLocalHeader(entry, i * localLength) + "x",
                    partOfFile(archive, i * localLength, localLength));
    expectSameBytes(goldenCentralHeader(entry, i * localLength),
                    partOfFile(archive, directory + i * centralLength, centralLength));
    EXPECT_EQ("x", bytesOf(reader->dataForRelativePath(entry.name)));
  }
}

TEST_F(LargeArchives, TheToolPacksListsAndVerifiesAMillionFiles) {
  if (!largeTestsAreWanted()) GTEST_SKIP() << "makes a million files; set KQZIP_LARGE_TESTS to run it";
  // Names of a few files only, so that they take no room on the disk.
  const std::uint64_t links = 20000;
  std::string names;
  std::uint64_t bytes = 0;
  std::string source;
  for (std::uint64_t i = 0; i < million; ++i) {
    const std::string contents = "contents " + std::to_string(i / links);
    if (i % links == 0) source = tree_.file("sources/" + std::to_string(i / links), contents);
    const std::string name = numberedName(i / 1000) + "/" + numberedName(i);
    if (i % 1000 == 0) fs::create_directories(tree_ / ("tree/" + numberedName(i / 1000)));
    fs::create_hard_link(source, tree_ / ("tree/" + name));
    names += name + "\n";
    bytes += contents.size();
  }
  const std::string archive = tree_ / "many.zip";
  expectDone(runTool({"create", archive, tree_ / "tree"}));
  const ProcessResult list = runTool({"list", archive});
  EXPECT_EQ(0, list.exitStatus);
  expectSameBytes(names, list.output);
  expectDone(runTool({"verify", archive}),
             "1000000 entries, " + std::to_string(bytes) + " bytes: all right\n");
  expectDone(runTool({"cat", archive, numberedName(999) + "/" + numberedName(999999)}), "contents 49");
}
