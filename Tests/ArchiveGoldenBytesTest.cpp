#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Support/Bytes.h"
#include "Support/GoldenArchive.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

const std::size_t mebibyte = 1048576;

// One letter, e with an acute accent, as one code point and as two.
const std::string composed = "\xC3\xA9";
const std::string decomposed = "e\xCC\x81";

std::string fromHex(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    while (text[i] == ' ') ++i;
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// A tree of everything that archiving has to tell apart, in the zone five and a half hours east of Greenwich.
class ArchiveGoldenBytes : public ::testing::Test {
 protected:
  struct File {
    std::string name;
    std::string contents;
    long long date;  // seconds since 1970
    std::uint16_t time16;
    std::uint16_t date16;
  };

  ArchiveGoldenBytes() : zone_("KQT-05:30") {}

  // The files that belong into the archive, in its order: by the code points of the decomposed names.
  static const std::vector<File>& files() {
    static const std::vector<File> list = {
        {".cache/.deep/inner.txt", "visible file, hidden folders", 951827696, dosTime(18, 4, 56),
         dosDate(2000, 2, 29)},
        {".cache/data.bin", patternBytes(1000, 1), 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {"B.txt", "upper case first\n", 1640975399, dosTime(23, 59, 59), dosDate(2021, 12, 31)},
        {"a b.txt", "a blank", 1640975400, 0, dosDate(2022, 1, 1)},
        {"a-b/c.txt", "a hyphen", 1640975401, 0, dosDate(2022, 1, 1)},
        {"a.txt", "a point", 1640975402, dosTime(0, 0, 2), dosDate(2022, 1, 1)},
        {"a/z.txt", "a slash", 315513000, 0, dosDate(1980, 1, 1)},
        {"b.txt", "before the first year", 315512999, dosTime(23, 59, 58), dosDate(2107, 12, 31)},
        {"blocks/1MiB", patternBytes(mebibyte, 2), 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {"blocks/1MiB+1", patternBytes(mebibyte + 1, 3), 1600000002, dosTime(17, 56, 42),
         dosDate(2020, 9, 13)},
        {"blocks/3MiB+1", patternBytes(3 * mebibyte + 1, 4), 1600000003, dosTime(17, 56, 42),
         dosDate(2020, 9, 13)},
        {"e.txt", "plain", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {"empty.txt", "", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {"ez.txt", "the last letter of the plain alphabet", 1600000000, dosTime(17, 56, 40),
         dosDate(2020, 9, 13)},
        {decomposed + ".txt", "two code points", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {composed + ".txt", "one code point", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {decomposed + "/in.txt", "folder of two", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {composed + "/in.txt", "folder of one", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {"f.txt", "after every form of e", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {"nested/deep/deeper/leaf.txt", "leaf", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        // A Hangul syllable decomposes to U+1100 U+1161, in front of U+3042, although its bytes are greater.
        {"\xEA\xB0\x80.txt", "Hangul", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {"\xE3\x81\x82.txt", "Hiragana", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        // A wide letter is only compatible with the plain one, and a pair of surrogates is one code point.
        {"\xEF\xBC\xA1.txt", "wide", 1600000000, dosTime(17, 56, 40), dosDate(2020, 9, 13)},
        {"\xF0\x9F\x98\x80.txt", "beyond the basic plane", 1600000000, dosTime(17, 56, 40),
         dosDate(2020, 9, 13)},
    };
    return list;
  }

  void makeTree() const {
    // Made in reverse, so that neither the order of making nor of inodes is the order of names.
    const std::vector<File>& list = files();
    for (auto file = list.rbegin(); file != list.rend(); ++file) {
      writeFile(folder_.path() / "Folder" / file->name, file->contents);
      setModificationDate(folder_.path() / "Folder" / file->name, file->date, 999999999);
    }
    // None of these may leave a trace.
    const fs::path root = folder_.path() / "Folder";
    writeFile(root / ".hidden", "hidden");
    writeFile(root / ".cache/.x", "hidden in hidden");
    writeFile(root / "nested/.DS_Store", "hidden in nested");
    fs::create_directory(root / "empty");
    fs::create_directory(root / ".empty");
    fs::create_symlink("a.txt", root / "link-to-a-file");
    fs::create_directory_symlink("nested", root / "link-to-a-folder");
    fs::create_symlink("nowhere", root / "link-to-nothing");
    fs::create_directory_symlink("..", root / "nested/link-upwards");
  }

  static std::string expectedArchive(const std::string& prefix) {
    std::vector<GoldenEntry> entries;
    for (const File& file : files())
      entries.emplace_back(prefix + file.name, file.contents, file.time16, file.date16);
    return goldenArchive(entries);
  }

  TemporaryDirectory folder_;
  TimeZone zone_;
};

}  // namespace

// The two archives that are written out byte by byte keep the builder of all others honest.

TEST_F(ArchiveGoldenBytes, AnEmptyArchiveIsTheseNinetyEightBytes) {
  KQZipFileWriter writer;
  ASSERT_TRUE(writer.writeToZipPath(folder_ / "empty.zip"));

  const std::string expected = fromHex(
      "504b0606 2c00000000000000 1e03 2d00 00000000 00000000 0000000000000000 0000000000000000"
      "6200000000000000 0000000000000000"
      "504b0607 00000000 0000000000000000 01000000"
      "504b0506 0000 0000 0000 0000 62000000 00000000 0000");
  ASSERT_EQ(98U, expected.size());
  expectSameBytes(expected, readFile(folder_ / "empty.zip"));
  expectSameBytes(expected, goldenArchive({}), "the builder");
}

TEST_F(ArchiveGoldenBytes, AnArchiveOfOneFileIsTheseBytes) {
  writeFile(folder_ / "source", "hello");
  setModificationDate(folder_ / "source", 1640975399);
  KQZipFileWriter writer;
  writer.addFilePath(folder_ / "source", "a.txt");
  ASSERT_TRUE(writer.writeToZipPath(folder_ / "one.zip"));

  const std::string expected = fromHex(
      "504b0304 2d00 0000 0000 7dbf 9f53 86a61036 ffffffff ffffffff 0500 1c00"
      "612e747874"
      "0100 1800 0500000000000000 0500000000000000 0000000000000000"
      "68656c6c6f"
      "504b0102 1e03 2d00 0000 0000 7dbf 9f53 86a61036 ffffffff ffffffff 0500 1c00 0000 0000 0000 00000000"
      "00000000"
      "612e747874"
      "0100 1800 0500000000000000 0500000000000000 0000000000000000"
      "504b0606 2c00000000000000 1e03 2d00 00000000 00000000 0100000000000000 0100000000000000"
      "b100000000000000 4400000000000000"
      "504b0607 00000000 9300000000000000 01000000"
      "504b0506 0000 0000 0100 0100 b1000000 44000000 0000");
  ASSERT_EQ(68U + 79U + 98U, expected.size());
  expectSameBytes(expected, readFile(folder_ / "one.zip"));
  expectSameBytes(expected,
                  goldenArchive({GoldenEntry("a.txt", "hello", dosTime(23, 59, 59), dosDate(2021, 12, 31))}),
                  "the builder");
}

TEST_F(ArchiveGoldenBytes, ATreeOfEverythingGivesExactlyTheForetoldBytes) {
  makeTree();
  Error error = earlierError();
  const Error before = error;
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(folder_ / "tree.zip", folder_ / "Folder", false, &error));
  EXPECT_EQ(before, error);
  expectSameBytes(expectedArchive(""), readFile(folder_ / "tree.zip"));
}

TEST_F(ArchiveGoldenBytes, KeepingTheParentPutsItsNameInFrontOfEveryNameAndChangesNothingElse) {
  makeTree();
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(folder_ / "tree.zip", folder_ / "Folder", true));
  expectSameBytes(expectedArchive("Folder/"), readFile(folder_ / "tree.zip"));
}

TEST_F(ArchiveGoldenBytes, FilesAddedOneByOneInAnyOrderGiveTheSameBytesAsTheTree) {
  makeTree();
  KQZipFileWriter writer;
  for (std::size_t i = 0; i < files().size(); ++i) {
    // 7 and the number of files have no common divisor, so every file is visited once.
    ASSERT_NE(0U, files().size() % 7);
    const std::string& name = files()[i * 7 % files().size()].name;
    writer.addFilePath((folder_.path() / "Folder" / name).string(), name);
  }
  ASSERT_TRUE(writer.writeToZipPath(folder_ / "files.zip"));
  expectSameBytes(expectedArchive(""), readFile(folder_ / "files.zip"));

  const auto memory = KQ::NSOutputStream::outputStreamToMemory();
  memory->open();
  ASSERT_TRUE(writer.writeToStream(*memory));
  const auto data = memory->NSStreamDataWrittenToMemoryStreamKey();
  ASSERT_NE(nullptr, data);
  expectSameBytes(expectedArchive(""),
                  std::string(reinterpret_cast<const char*>(data->bytes()), data->length()), "in memory");
}

TEST_F(ArchiveGoldenBytes, EntriesAtOffsetsBehindALargeFileCarryTheirTrueOffsets) {
  // 3 MiB + 1 byte in front puts the second entry on an odd offset beyond every buffer.
  const std::string large = patternBytes(3 * mebibyte + 1, 9);
  writeFile(folder_ / "large", large);
  writeFile(folder_ / "small", "x");
  setModificationDate(folder_ / "large", 1600000000);
  setModificationDate(folder_ / "small", 1600000000);
  KQZipFileWriter writer;
  writer.addFilePath(folder_ / "large", "1");
  writer.addFilePath(folder_ / "small", "2");
  ASSERT_TRUE(writer.writeToZipPath(folder_ / "offsets.zip"));

  const std::string archive = readFile(folder_ / "offsets.zip");
  const GoldenEntry first("1", large, dosTime(17, 56, 40), dosDate(2020, 9, 13));
  const GoldenEntry second("2", "x", dosTime(17, 56, 40), dosDate(2020, 9, 13));
  expectSameBytes(goldenArchive({first, second}), archive);
  const std::size_t offset = 30 + 1 + 28 + 3 * mebibyte + 1;
  EXPECT_EQ(Bytes().u64(offset).string(), archive.substr(offset + 30 + 1 + 4 + 16, 8));
}
