#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;

using KQTest::bytesOf;
using KQTest::Error;
using KQTest::errorText;
using KQTest::patternBytes;
using KQTest::readFile;
using KQTest::readFrom;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;

using Reader = std::shared_ptr<KQZipFileReader>;

constexpr std::size_t mebibyte = 1048576;

const std::string composed = "caf\xC3\xA9";
const std::string decomposed = "cafe\xCC\x81";

struct File {
  std::string contents;
  long long date = 0;
};

/// What an archive is expected to hold, by path.
using Files = std::map<std::string, File, KQ::NSStringLess>;

/// The local time of a date with its odd second cut off, which is what an entry keeps.
std::string evenSecond(long long date) {
  const auto seconds = static_cast<std::time_t>(date);
  std::tm fields{};
  localtime_r(&seconds, &fields);
  return KQTest::localTime(std::chrono::system_clock::from_time_t(seconds - fields.tm_sec % 2));
}

void writeFiles(const fs::path& folder, const Files& files) {
  for (const auto& [path, file] : files) {
    writeFile(folder / path, file.contents);
    KQTest::setModificationDate(folder / path, file.date, 987654321);
  }
}

/// Compares everything that a reader says with what is expected, in full.
void expectArchiveHolds(const std::string& archive, const Files& expected) {
  Error error;
  const Reader reader = KQZipFileReader::initWithZipPath(archive, &error);
  ASSERT_TRUE(reader) << errorText(error);
  std::vector<std::string> paths;
  for (const auto& [path, file] : expected) paths.push_back(path);
  ASSERT_EQ(paths, reader->relativePaths());
  for (const auto& [path, file] : expected) {
    const auto attributes = reader->attributesForRelativePath(path);
    ASSERT_TRUE(attributes);
    EXPECT_EQ(file.contents.size(), attributes->NSFileSize) << path;
    EXPECT_EQ(evenSecond(file.date), KQTest::localTime(*attributes->NSFileModificationDate)) << path;
    EXPECT_EQ(file.contents.empty() ? KQ::NSFileTypeDirectory : KQ::NSFileTypeRegular, attributes->NSFileType)
        << path;
    const auto data = bytesOf(reader->dataForRelativePath(path));
    EXPECT_EQ(!file.contents.empty(), data.has_value()) << path;
    EXPECT_TRUE(data.value_or("") == file.contents) << path;
    const auto stream = reader->streamForRelativePath(path);
    ASSERT_TRUE(stream);
    EXPECT_TRUE(readFrom(*stream, file.contents.size()) == file.contents) << path;
    stream->close();
  }
}

/// Compares a folder with what is expected: every file in full, and nothing else. A file without contents is
/// a folder there.
void expectFolderHolds(const fs::path& folder, const Files& expected) {
  std::map<std::string, std::string> found;
  for (const auto& item : fs::recursive_directory_iterator(folder)) {
    const std::string path = item.path().lexically_relative(folder).string();
    if (item.is_regular_file()) found[path] = readFile(item.path());
    if (item.is_directory() && fs::is_empty(item.path())) found[path] = "";
  }
  std::map<std::string, std::string> wanted;
  for (const auto& [path, file] : expected) wanted[path] = file.contents;
  ASSERT_EQ(wanted.size(), found.size());
  for (const auto& [path, contents] : wanted) {
    ASSERT_TRUE(found.count(path) == 1) << path;
    EXPECT_TRUE(found[path] == contents) << path;
    EXPECT_EQ(contents.empty(), fs::is_directory(folder / path)) << path;
  }
}

void expectTreeComesBack(const fs::path& folder, const Files& expected, const std::string& archive,
                         const std::string& destination) {
  Error error;
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(archive, folder.string(), false, &error))
      << errorText(error);
  expectArchiveHolds(archive, expected);
  KQTest::LogCapture log;
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(archive, destination, &error)) << errorText(error);
  EXPECT_FALSE(error);
  expectFolderHolds(destination, expected);
  EXPECT_EQ(std::vector<std::string>(), log.lines());
}

/// A tree of every kind that archiving a folder knows: nested and hidden folders, hidden files, an empty file
/// and an empty folder, links, names outside ASCII, files at the border of a block.
Files makeTreeOfEveryKind(const fs::path& folder) {
  Files files;
  long long date = 1500000001;
  const auto add = [&](const std::string& path, const std::string& contents) {
    files[path] = {contents, date += 86399};
  };
  add("readme.txt", "hello");
  add("empty", "");
  add("nested/one/two/three/deep.bin", patternBytes(70000, 1));
  add("nested/one/B", "B");
  add("nested/one/b", "b");
  add("nested/one two/with spaces.txt", "spaces");
  add(".hidden folder/visible", "not hidden by its folder");
  add(composed, "composed");
  add(decomposed, "decomposed");
  add("\xE6\x97\xA5\xE6\x9C\xAC/\xF0\x9F\x97\x9C.zip", "PK\x03\x04 is only data here");
  add("blocks/1048575", patternBytes(mebibyte - 1, 2));
  add("blocks/1048576", patternBytes(mebibyte, 3));
  add("blocks/1048577", patternBytes(mebibyte + 1, 4));
  add("blocks/3145729", patternBytes(3 * mebibyte + 1, 5));
  writeFiles(folder, files);
  writeFile(folder / ".hidden", "not packed");
  writeFile(folder / "nested/.hidden", "not packed");
  fs::create_directory(folder / "empty folder");
  fs::create_symlink("readme.txt", folder / "link to a file");
  fs::create_symlink("nested", folder / "link to a folder");
  fs::create_symlink("nowhere", folder / "link to nothing");
  return files;
}

TEST(RoundTrip, ATreeOfEveryKindComesBack) {
  const TemporaryDirectory folder;
  fs::create_directory(folder / "tree");
  const Files files = makeTreeOfEveryKind(folder / "tree");
  expectTreeComesBack(folder / "tree", files, folder / "a.zip", folder / "out");
}

TEST(RoundTrip, ATreeKeptWithItsParentFolderComesBackBelowIt) {
  const TemporaryDirectory folder;
  fs::create_directory(folder / "tree");
  Files below;
  for (const auto& [path, file] : makeTreeOfEveryKind(folder / "tree")) below["tree/" + path] = file;
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(folder / "a.zip", folder / "tree", true));
  expectArchiveHolds(folder / "a.zip", below);
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  expectFolderHolds(folder / "out", below);
}

TEST(RoundTrip, AnExtractedTreePacksToAnArchiveThatHoldsTheSame) {
  const TemporaryDirectory folder;
  fs::create_directory(folder / "tree");
  Files files = makeTreeOfEveryKind(folder / "tree");
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(folder / "one.zip", folder / "tree", false));
  ASSERT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "one.zip", folder / "out"));
  // The empty file came back as a folder, which is not packed; dates are not restored.
  files.erase("empty");
  for (auto& [path, file] : files) {
    file.date = 1600000000;
    KQTest::setModificationDate(folder.path() / "out" / path, file.date);
  }
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(folder / "two.zip", folder / "out", false));
  expectArchiveHolds(folder / "two.zip", files);
}

TEST(RoundTrip, DatesComeBackToTheEvenSecondInAnyZone) {
  const TemporaryDirectory folder;
  const std::vector<long long> dates = {
      320803200,   // 1980-03-02 00:00:00
      320803201,   //
      951782399,   // 2000-02-28 23:59:59
      951825600,   // 2000-02-29 12:00:00
      1603587601,  // 2020-10-25 01:00:01, around the end of daylight saving in Europe
      1603591203,  //
      1616893199,  // 2021-03-28 00:59:59, around its beginning
      1616893200,  //
      2147483646,  // 2038-01-19 03:14:06
  };
  Files files;
  for (const long long date : dates) files["at " + std::to_string(date)] = {std::to_string(date), date};
  writeFiles(folder / "tree", files);
  for (const char* zone :
       {"UTC0", "IST-5:30", "CET-1CEST,M3.5.0,M10.5.0/3", "PST8PDT,M3.2.0,M11.1.0", "<+1245>-12:45"}) {
    const KQTest::TimeZone set(zone);
    const std::string archive = folder / (std::string(zone).substr(0, 3) + ".zip");
    ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(archive, folder / "tree", false));
    expectArchiveHolds(archive, files);
  }
}

TEST(RoundTrip, DatesComeBackAsTheInstantTheyWere) {
  const KQTest::TimeZone utc("UTC0");
  const TemporaryDirectory folder;
  writeFile(folder / "tree/odd", "1");
  writeFile(folder / "tree/even", "2");
  KQTest::setModificationDate(folder / "tree/odd", 1600000001, 999999999);
  KQTest::setModificationDate(folder / "tree/even", 1600000002, 1);
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(folder / "a.zip", folder / "tree", false));
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  const auto at = [](long long seconds) { return KQ::NSDate(std::chrono::seconds(seconds)); };
  EXPECT_TRUE(at(1600000000) == reader->attributesForRelativePath("odd")->NSFileModificationDate);
  EXPECT_TRUE(at(1600000002) == reader->attributesForRelativePath("even")->NSFileModificationDate);
}

TEST(RoundTrip, OfFilesAddedUnderOnePathTheLastComesBack) {
  const TemporaryDirectory folder;
  KQZipFileWriter writer;
  Files files;
  for (int i = 0; i < 50; ++i) {
    const std::string source = folder / std::to_string(i);
    const File file = {"contents " + std::to_string(i), 1600000000 + 2 * i};
    writeFile(source, file.contents);
    KQTest::setModificationDate(source, file.date);
    const std::string path = "path " + std::to_string(i % 7);
    writer.addFilePath(source, path);
    files[path] = file;
  }
  ASSERT_TRUE(writer.writeToZipPath(folder / "a.zip"));
  expectArchiveHolds(folder / "a.zip", files);
}

TEST(RoundTrip, AnArchiveWrittenToAStreamAndReadFromOneListsTheSame) {
  const TemporaryDirectory folder;
  fs::create_directory(folder / "tree");
  const Files files = makeTreeOfEveryKind(folder / "tree");
  KQZipFileWriter writer;
  for (const auto& [path, file] : files) writer.addFilePath(folder / ("tree/" + path), path);
  const auto written = KQ::NSOutputStream::outputStreamToMemory();
  written->open();
  ASSERT_TRUE(writer.writeToStream(*written));
  written->close();
  const auto read = KQ::NSInputStream::inputStreamWithData(written->NSStreamDataWrittenToMemoryStreamKey());
  read->open();
  const Reader reader = KQZipFileReader::initWithStream(*read);
  ASSERT_TRUE(reader);
  std::vector<std::string> paths;
  for (const auto& [path, file] : files) {
    paths.push_back(path);
    EXPECT_EQ(file.contents.size(), reader->attributesForRelativePath(path)->NSFileSize);
  }
  EXPECT_EQ(paths, reader->relativePaths());
}

/// Makes up small trees: each depends on its seed alone.
class RandomTree {
 public:
  explicit RandomTree(unsigned seed) : generator_(seed) {}

  std::size_t upTo(std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(0, most)(generator_);
  }

  /// One component of a path, which neither begins with "." nor holds a "/".
  std::string component() {
    static const std::vector<std::string> pieces = {"a",
                                                    "b",
                                                    "B",
                                                    "z",
                                                    "0",
                                                    "-",
                                                    "_",
                                                    " ",
                                                    "~",
                                                    "%@",
                                                    "%s",
                                                    "\\",
                                                    "'",
                                                    "\"",
                                                    "*",
                                                    "$HOME",
                                                    "\t",
                                                    ".x",
                                                    "..",
                                                    "PK\x03\x04",
                                                    "\x7F",
                                                    "\xC3\xA9",
                                                    "e\xCC\x81",
                                                    "\xC3\x9F",
                                                    "\xCE\xA9",
                                                    "\xE2\x84\xA6",
                                                    "\xED\x95\x9C",
                                                    "\xE1\x84\x92\xE1\x85\xA1\xE1\x86\xAB",
                                                    "\xE2\x80\xAE",
                                                    "\xEF\xBB\xBF",
                                                    "\xF0\x9F\x98\x80",
                                                    "\xF4\x8F\xBF\xBF"};
    std::string name;
    for (std::size_t i = upTo(upTo(9) == 0 ? 22 : 4) + 1; i > 0; --i) name += pieces[upTo(pieces.size() - 1)];
    if (name.front() == '.') name.insert(0, "n");
    return name;
  }

  std::string path() {
    std::string path = component();
    for (std::size_t depth = upTo(upTo(9) == 0 ? 12 : 3); depth > 0; --depth) path += "/" + component();
    return path;
  }

  std::string contents() {
    static const std::vector<std::size_t> borders = {0, 4096, 65536, mebibyte};
    // The large ones are rare, as they take most of the time.
    const std::size_t border = borders[upTo(29) == 0 ? 3 : upTo(2)];
    const std::size_t size = std::max<std::size_t>(border + upTo(2), 1) - 1;
    return patternBytes(size, static_cast<unsigned>(generator_()));
  }

  long long date() {
    // 1980-01-02 to 2037-12-31.
    return std::uniform_int_distribution<long long>(315619200, 2145830400)(generator_);
  }

 private:
  std::mt19937 generator_;
};

/// Whether `path` cannot stand beside the paths there are because one of them is a folder of another.
bool clashes(const Files& files, const std::string& path) {
  return std::any_of(files.begin(), files.end(), [&path](const auto& item) {
    return KQ::hasPrefix(item.first, path + "/") || KQ::hasPrefix(path, item.first + "/");
  });
}

class RandomTrees : public ::testing::TestWithParam<unsigned> {};

TEST_P(RandomTrees, ComeBackFromAFolder) {
  for (unsigned round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    RandomTree tree(GetParam() * 1000 + round);
    const TemporaryDirectory folder;
    Files files;
    for (std::size_t i = tree.upTo(7) + 1; i > 0; --i) {
      const std::string path = tree.path();
      if (!clashes(files, path)) files[path] = {tree.contents(), tree.date()};
    }
    writeFiles(folder / "tree", files);
    expectTreeComesBack(folder / "tree", files, folder / "a.zip", folder / "out");
  }
}

TEST_P(RandomTrees, ComeBackFromAListOfFilesWithDuplicates) {
  for (unsigned round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    RandomTree tree(GetParam() * 1000 + 500 + round);
    const TemporaryDirectory folder;
    KQZipFileWriter writer;
    Files files;
    std::vector<std::string> paths;
    for (std::size_t i = tree.upTo(7) + 1; i > 0; --i) {
      // Nothing forbids a path in an archive that no folder could hold.
      const bool again = !paths.empty() && tree.upTo(3) == 0;
      std::string path = again ? paths[tree.upTo(paths.size() - 1)] : tree.path();
      if (tree.upTo(9) == 0) path += "/";
      if (tree.upTo(9) == 0) path.insert(0, "/../");
      const File file = {tree.contents(), tree.date()};
      const std::string source = folder / ("source " + std::to_string(i));
      writeFile(source, file.contents);
      KQTest::setModificationDate(source, file.date);
      writer.addFilePath(source, path);
      files[path] = file;
      paths.push_back(path);
    }
    ASSERT_TRUE(writer.writeToZipPath(folder / "a.zip"));
    expectArchiveHolds(folder / "a.zip", files);
  }
}

INSTANTIATE_TEST_SUITE_P(RoundTrip, RandomTrees, ::testing::Range(0U, 12U));

}  // namespace
