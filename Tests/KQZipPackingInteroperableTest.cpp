// What other programs make of an archive that was packed in the interoperable form: names, bytes, kinds,
// permissions and times.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Support/Bytes.h"
#include "Support/GoldenArchive.h"
#include "Support/OtherPrograms.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

using KQTest::Error;

// What an item of a tree is: "file 0644 1234 contents", "folder 0755 1234", "link target".
using Items = std::map<std::string, std::string>;

long long timeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::lstat(path.c_str(), &status)) << path;
  return status.st_mtime;
}

std::string octal(fs::perms permissions) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(permissions));
  return text.data();
}

Items itemsBelow(const std::string& folder) {
  Items items;
  for (const auto& item : fs::recursive_directory_iterator(folder)) {
    const std::string path = item.path().string();
    const std::string name = path.substr(folder.size() + 1);
    const fs::file_status status = item.symlink_status();
    if (fs::is_symlink(status)) {
      items[name] = "link " + fs::read_symlink(path).string();
      continue;
    }
    items[name] = (fs::is_directory(status) ? "folder " : "file ") + octal(status.permissions()) + " " +
                  std::to_string(timeOf(path));
    if (fs::is_regular_file(status)) items[name] += " " + KQTest::readFile(path);
  }
  return items;
}

// Times below the second, which not every program keeps, are left out of the sources.
class KQZipPackingInteroperableTest : public testing::Test {
 protected:
  KQZipPackingInteroperableTest() {
    file("plain.txt", "plain", 1600000001);
    file("empty", "", 1600000003);
    file("folder/deep/odd second", "odd", 1234567891);
    file(".hidden", "h", 1600000005);
    file("read only", "r", 1600000007, 0444);
    file("runs", "#!/bin/sh\n", 1600000009, 0755);
    file("private", "p", 1600000011, 0600);
    file("\xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80", "not ASCII", 1600000013);
    file("e\xCC\x81", "decomposed", 1600000015);
    file("1970", "start", 1);
    file("1979", "before MS-DOS", 300000001);
    file("large", KQTest::patternBytes(1500000), 1600000017);
    fs::create_directories(tree / "tree/empty folder");
    fs::create_directory(tree / "tree/closed");
    setUp("empty folder", 1500000001, 0755);
    setUp("closed", 1500000003, 0700);
    fs::create_symlink("plain.txt", tree / "tree/link");
    fs::create_symlink("nowhere at all", tree / "tree/dangling");
    fs::create_symlink("folder", tree / "tree/to folder");
    setUp("folder/deep", 1500000005, 0750);
    setUp("folder", 1500000007, 0755);
  }

  void file(const std::string& name, const std::string& contents, long long seconds,
            unsigned permissions = 0644) const {
    KQTest::writeFile(tree / ("tree/" + name), contents);
    setUp(name, seconds, permissions);
  }

  void setUp(const std::string& name, long long seconds, unsigned permissions) const {
    fs::permissions(tree / ("tree/" + name), static_cast<fs::perms>(permissions));
    KQTest::setModificationDate(tree / ("tree/" + name), seconds);
  }

  void pack(unsigned threads = 2) const {
    KQZipPackingList list;
    list.addTree(tree / "tree");
    Error error;
    ASSERT_TRUE(list.pack(tree / "a.zip", {.threads = threads}, &error)) << KQTest::describe(error);
    EXPECT_TRUE(list.leftOut().empty());
  }

  // Runs the program, in another time zone than that of the packing, and returns what it made.
  Items extracted(std::vector<std::string> command) const {
    fs::create_directory(tree / "out");
    command.insert(command.begin(), {"env", "TZ=Pacific/Auckland"});
    const auto result = KQTest::runOtherProgram(command, tree / "out");
    EXPECT_EQ(0, result.exitStatus) << result.output << result.errors;
    return itemsBelow(tree / "out");
  }

  KQTest::SourceTree tree;
};

void expectSame(const Items& expected, const Items& found) {
  for (const auto& [name, item] : expected) {
    const auto other = found.find(name);
    ASSERT_NE(found.end(), other) << name;
    EXPECT_EQ(item.substr(0, 200), other->second.substr(0, 200)) << name;
    EXPECT_TRUE(item == other->second) << name;
  }
  EXPECT_EQ(expected.size(), found.size());
}

TEST_F(KQZipPackingInteroperableTest, UnzipGivesBackTheTree) {
  if (!KQTest::isHere("unzip")) GTEST_SKIP() << "no unzip";
  pack();
  expectSame(itemsBelow(tree / "tree"), extracted({"unzip", "-q", "../a.zip"}));
}

TEST_F(KQZipPackingInteroperableTest, BsdtarGivesBackTheTree) {
  if (!KQTest::isHere("bsdtar")) GTEST_SKIP() << "no bsdtar";
  file("new\nline", "n", 1600000019);
  pack();
  Items expected = itemsBelow(tree / "tree");
  // It composes the names that it reads.
  auto decomposed = expected.extract("e\xCC\x81");
  decomposed.key() = "\xC3\xA9";
  expected.insert(std::move(decomposed));
  expectSame(expected, extracted({"bsdtar", "-xpf", "../a.zip"}));
}

TEST_F(KQZipPackingInteroperableTest, SevenZipGivesBackTheTree) {
  if (!KQTest::isHere("7zz")) GTEST_SKIP() << "no 7zz";
  file("2040", "later", 2208988801);
  pack();
  Items expected = itemsBelow(tree / "tree");
  // It leaves a link out that leads nowhere, or makes a file of it, as its version has it.
  expected.erase("dangling");
  Items found = extracted({"7zz", "x", "-snld", "-bso0", "-bsp0", "../a.zip"});
  found.erase("dangling");
  expectSame(expected, found);
}

TEST_F(KQZipPackingInteroperableTest, PythonReadsNamesBytesAndAttributes) {
  if (!KQTest::isHere("python3")) GTEST_SKIP() << "no python3";
  file("new\nline", "n", 1600000019);
  pack();
  KQTest::writeFile(tree / "read.py", R"(
import stat, sys, zipfile
archive = zipfile.ZipFile("a.zip")
assert archive.testzip() is None
for info in archive.infolist():
    mode = info.external_attr >> 16
    data = archive.read(info)
    path = "tree/" + info.filename
    import os
    found = os.lstat(path.rstrip("/"))
    assert stat.S_IFMT(mode) == stat.S_IFMT(found.st_mode), info
    assert stat.S_ISLNK(mode) or stat.S_IMODE(mode) == stat.S_IMODE(found.st_mode), info
    if stat.S_ISLNK(mode):
        assert data == os.readlink(path).encode(), info
    elif stat.S_ISREG(mode):
        assert data == open(path, "rb").read(), info
    print(ascii(info.filename))
)");
  const auto result = KQTest::runOtherProgram({"python3", "read.py"}, tree.path().string());
  EXPECT_EQ(0, result.exitStatus) << result.errors;
  EXPECT_NE(std::string::npos, result.output.find("'new\\nline'"));
  EXPECT_EQ(static_cast<long>(itemsBelow(tree / "tree").size()),
            std::count(result.output.begin(), result.output.end(), '\n'));
}

TEST_F(KQZipPackingInteroperableTest, ZipAndSevenZipTestIt) {
  pack();
  if (KQTest::isHere("zip")) {
    const auto result = KQTest::runOtherProgram({"zip", "-q", "-T", "a.zip"}, tree.path().string());
    EXPECT_EQ(0, result.exitStatus) << result.output << result.errors;
  }
  if (KQTest::isHere("7zz")) {
    const auto result =
        KQTest::runOtherProgram({"7zz", "t", "-bso0", "-bsp0", "a.zip"}, tree.path().string());
    EXPECT_EQ(0, result.exitStatus) << result.output << result.errors;
  }
}

TEST_F(KQZipPackingInteroperableTest, TheLibrarysOwnReaderAndArchiveReadIt) {
  file("2040", "later", 2208988801);
  file("2110", "much later", 4417858801);
  file("1900", "earlier", -2208988799);
  pack();
  Error error;
  const auto reader = KQZipFileReader::initWithZipPath(tree / "a.zip", &error);
  ASSERT_NE(nullptr, reader);
  const auto data = reader->dataForRelativePath("plain.txt");
  ASSERT_NE(nullptr, data);
  EXPECT_EQ("plain", std::string(reinterpret_cast<const char*>(data->bytes()), data->length()));

  const auto archive = KQZipArchive::open(tree / "a.zip", &error);
  ASSERT_NE(nullptr, archive);
  KQZipReport report;
  EXPECT_TRUE(archive->verify({}, report, &error)) << KQTest::describe(error);
  for (const auto& entry : archive->entries()) {
    const std::string path = tree / ("tree/" + entry.name());
    const std::string item = path.ends_with('/') ? path.substr(0, path.size() - 1) : path;
    EXPECT_EQ(std::chrono::seconds(timeOf(item)), entry.modificationDate().time_since_epoch()) << path;
  }
}

// The bytes

TEST_F(KQZipPackingInteroperableTest, TheBytesAreThoseThatTheFormatHas) {
  const KQTest::TimeZone zone("UTC0");
  KQZipPackingList list;
  const auto date = [](long long seconds) { return KQ::NSDate(std::chrono::seconds(seconds)); };
  list.addData("Hello\n", "\xC3\xA9", {.date = date(1709210097), .permissions = 0640});
  list.addFolder("f", {.date = date(4417858801), .permissions = 0711});
  list.addLink("f", "l", {.date = date(1)});
  ASSERT_TRUE(list.pack(tree / "b.zip"));

  struct Expected {
    std::string name;
    std::string data;
    std::uint64_t flags, time, date, crc, attributes;
    std::string timeField;
    std::uint64_t offset = 0;
  };
  const std::string stamp = KQTest::Bytes().u16(0x5455).u16(5).text("\x01").u32(1709210097);
  const std::string first = KQTest::Bytes().u16(0x5455).u16(5).text("\x01").u32(1);
  const std::uint64_t ticks = (4417858801ULL + 11644473600ULL) * 10000000ULL;
  const std::string wide =
      KQTest::Bytes().u16(0x000A).u16(32).u32(0).u16(1).u16(24).u64(ticks).u64(ticks).u64(ticks);
  // 2110 is clamped to the end of 2107, 1970 to the start of 1980. The folder comes first, then the link.
  std::vector<Expected> entries{
      {"f/", "", 0, 0xBF7D, 0xFF9F, 0, 0x41C90010, wide},
      {"l", "f", 0, 0, 0x0021, 0x76D32BE0, 0xA1FF0000, first},
      {"\xC3\xA9", "Hello\n", 0x0800, 0x645C, 0x585D, 0x31963516, 0x81A00000, stamp},
  };
  // The order is that of the decomposed names: "e" with its accent comes before "f".
  std::rotate(entries.begin(), entries.end() - 1, entries.end());
  std::string bytes;
  for (Expected& entry : entries) {
    entry.offset = bytes.size();
    bytes +=
        KQTest::Bytes().text("PK\x03\x04").u16(45).u16(entry.flags).u16(0).u16(entry.time).u16(entry.date);
    bytes += KQTest::Bytes().u32(entry.crc).u32(0xFFFFFFFF).u32(0xFFFFFFFF).u16(entry.name.size());
    bytes += KQTest::Bytes().u16(28 + entry.timeField.size()).text(entry.name).u16(1).u16(24);
    bytes += KQTest::Bytes().u64(entry.data.size()).u64(entry.data.size()).u64(entry.offset);
    bytes += entry.timeField + entry.data;
  }
  const std::size_t start = bytes.size();
  for (const Expected& entry : entries) {
    bytes += KQTest::Bytes().text("PK\x01\x02").u16(0x031E).u16(45).u16(entry.flags).u16(0).u16(entry.time);
    bytes += KQTest::Bytes().u16(entry.date).u32(entry.crc).u32(0xFFFFFFFF).u32(0xFFFFFFFF);
    bytes += KQTest::Bytes().u16(entry.name.size()).u16(28 + entry.timeField.size()).u16(0).u16(0).u16(0);
    bytes += KQTest::Bytes().u32(entry.attributes).u32(entry.offset).text(entry.name).u16(1).u16(24);
    bytes += KQTest::Bytes().u64(entry.data.size()).u64(entry.data.size()).u64(entry.offset);
    bytes += entry.timeField;
  }
  const std::size_t size = bytes.size() - start;
  const std::size_t end = bytes.size();
  bytes += KQTest::Bytes().text("PK\x06\x06").u64(44).u16(0x031E).u16(45).u32(0).u32(0).u64(3).u64(3);
  bytes += KQTest::Bytes().u64(size).u64(start).text("PK\x06\x07").u32(0).u64(end).u32(1);
  bytes += KQTest::Bytes().text("PK\x05\x06").u16(0).u16(0).u16(3).u16(3).u32(size).u32(start).u16(0);
  EXPECT_EQ(KQTest::hex(bytes), KQTest::hex(KQTest::readFile(tree / "b.zip")));
}

TEST_F(KQZipPackingInteroperableTest, ASparseFileBeyond4GiBIsPackedWithWhatFollows) {
  if (std::getenv("KQZIP_LARGE_TESTS") == nullptr)
    GTEST_SKIP() << "writes an archive of 5 GiB; set KQZIP_LARGE_TESTS to run it";
  constexpr std::uint64_t size = 5ULL << 30;
  KQTest::writeFile(tree / "sparse/large", "");
  fs::resize_file(tree / "sparse/large", size);
  KQTest::writeFile(tree / "sparse/small", "after it");
  KQZipPackingList list;
  list.addTree(tree / "sparse");
  Error error;
  ASSERT_TRUE(list.pack(tree / "large.zip", {}, &error)) << KQTest::describe(error);
  const auto archive = KQZipArchive::open(tree / "large.zip", &error);
  ASSERT_NE(nullptr, archive);
  EXPECT_EQ(size, archive->find("large")->length());
  EXPECT_LT(size, archive->find("small")->localHeaderOffset());
  KQZipReport report;
  EXPECT_TRUE(archive->verify({}, report, &error)) << KQTest::describe(error);
  if (KQTest::isHere("unzip")) {
    const auto result = KQTest::runOtherProgram({"unzip", "-tq", "large.zip"}, tree.path().string());
    EXPECT_EQ(0, result.exitStatus) << result.output << result.errors;
  }
}

TEST_F(KQZipPackingInteroperableTest, CountsAreSaturated) {
  KQZipPackingList list;
  for (int i = 0; i < 65537; ++i) list.addFolder(std::to_string(i), {.date = KQ::NSDate()});
  ASSERT_TRUE(list.pack(tree / "many.zip"));
  EXPECT_EQ(65537U, list.count());
  const std::string archive = KQTest::readFile(tree / "many.zip");
  EXPECT_EQ("\xFF\xFF\xFF\xFF", archive.substr(archive.size() - 14, 4));
  const auto opened = KQZipArchive::open(tree / "many.zip");
  ASSERT_NE(nullptr, opened);
  EXPECT_EQ(65537U, opened->entries().size());
}

}  // namespace
