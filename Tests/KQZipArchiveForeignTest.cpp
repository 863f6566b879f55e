// Archives of other programs, opened as a whole and compared entry by entry with what Python sees in them.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/ErrorExpectations.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/OtherPrograms.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;

using KQTest::Error;
using KQTest::errorText;
using KQTest::LocalRecord;
using KQTest::patternBytes;
using KQTest::plainRecord;
using KQTest::readFile;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;

using Lines = std::vector<std::string>;

std::string hexadecimal(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x",
                  static_cast<unsigned>(static_cast<unsigned char>(byte)));
    text += digits.data();
  }
  return text;
}

// What Python's zipfile sees: a line for each entry. Names are shown by their stored bytes.
const char* const pythonsView = R"(
import stat, sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as archive:
    for entry in archive.infolist():
        stored = entry.orig_filename.encode('utf-8' if entry.flag_bits & 0x800 else 'cp437')
        mode = entry.external_attr >> 16
        kind = 'folder' if entry.is_dir() else 'link' if stat.S_ISLNK(mode) else 'file'
        try:
            data = archive.read(entry).hex() if entry.compress_type == 0 else '-'
        except RuntimeError:
            data = '-'
        print(stored.hex(), kind, entry.compress_size, entry.file_size, '%08x' % entry.CRC, entry.compress_type,
              entry.flag_bits, entry.header_offset, '%o' % (mode & 0o777), data)
)";

Lines pythonsLines(const std::string& archive) {
  const auto result = KQTest::runOtherProgram({"python3", "-c", pythonsView, archive});
  EXPECT_EQ(0, result.exitStatus) << result.errors;
  Lines lines;
  std::istringstream stream(result.output);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string lineOf(const KQZipArchive& archive, const KQZipArchiveEntry& entry) {
  const std::array<const char*, 3> kinds{"file", "folder", "link"};
  std::array<char, 9> crc{};
  std::snprintf(crc.data(), crc.size(), "%08x", static_cast<unsigned>(entry.crc32()));
  std::ostringstream line;
  Error error;
  const auto data = archive.data(entry, &error);
  line << hexadecimal(entry.storedName()) << ' ' << kinds.at(static_cast<std::size_t>(entry.kind())) << ' '
       << entry.length() << ' ' << entry.uncompressedLength() << ' ' << crc.data() << ' ' << entry.method()
       << ' ' << entry.flags() << ' ' << entry.localHeaderOffset() << ' ' << std::oct
       << entry.permissions().value_or(0) << ' ' << (data ? hexadecimal(KQTest::bytesOf(data).value()) : "-");
  EXPECT_TRUE(data || (error && error->code() == KQZipErrorEntryRefused)) << errorText(error);
  return line.str();
}

Lines linesOf(const KQZipArchive& archive) {
  Lines lines;
  for (const KQZipArchiveEntry& entry : archive.entries()) lines.push_back(lineOf(archive, entry));
  return lines;
}

std::shared_ptr<KQZipArchive> opened(const std::string& path) {
  Error error;
  auto archive = KQZipArchive::open(path, &error);
  EXPECT_TRUE(archive) << errorText(error);
  return archive;
}

// A folder with what archives hold, beside which they are made.
class Sources {
 public:
  Sources() {
    writeFile(folder_ / "in/a.txt", "alpha");
    writeFile(folder_ / "in/d/large", patternBytes(70000));
    writeFile(folder_ / "in/d/empty", "");
    writeFile(folder_ / "in/d/\xC3\xA4", "PK\7\10 PK\3\4");
    fs::create_symlink("../a.txt", folder_ / "in/d/link");
    fs::permissions(folder_ / "in/a.txt", fs::perms(0604));
  }

  std::string archive() const { return folder_ / "a.zip"; }
  std::string operator/(const std::string& name) const { return folder_ / name; }

  // Runs a command in the folder of the sources that makes ../a.zip.
  void make(const std::string& command) const {
    fs::remove(archive());
    const auto result = KQTest::runOtherProgram({"sh", "-c", command}, folder_ / "in");
    ASSERT_EQ(0, result.exitStatus) << command << ": " << result.errors;
  }

 private:
  TemporaryDirectory folder_;
};

struct Program {
  std::string name;
  std::string command;
};

const std::vector<Program> programs{
    {"zip", "zip -q -0 -y -r ../a.zip ."},
    {"zip", "zip -q -0 -r - . | cat > ../a.zip"},
    {"zip", "zip -q -0 -r ../a.zip . && echo comment | zip -q -z ../a.zip"},
    {"zip", "zip -q -r ../a.zip ."},
    {"zip", "zip -q -0 -e -P secret -r ../a.zip ."},
    {"bsdtar", "bsdtar --format zip --options zip:compression=store -cf ../a.zip a.txt d"},
    {"bsdtar", "bsdtar --format zip --options zip:compression=store -cf - a.txt d | cat > ../a.zip"},
    {"7zz", "7zz a -mx0 -snl ../a.zip . > ../log"},
    {"python3", "python3 -m zipfile -c ../a.zip a.txt d"},
};

TEST(KQZipArchiveForeign, SeesWhatPythonSees) {
  if (!KQTest::isHere("python3")) GTEST_SKIP() << "python3 is not on this machine";
  const Sources sources;
  for (const Program& program : programs) {
    if (!KQTest::isHere(program.name)) continue;
    sources.make(program.command);
    const auto archive = opened(sources.archive());
    EXPECT_EQ(pythonsLines(sources.archive()), linesOf(*archive)) << program.command;
  }
}

TEST(KQZipArchiveForeign, SeesTheSameBehindAnotherProgram) {
  if (!KQTest::isHere("python3")) GTEST_SKIP() << "python3 is not on this machine";
  const Sources sources;
  for (const Program& program : programs) {
    if (!KQTest::isHere(program.name)) continue;
    sources.make(program.command);
    const std::string prefix = "#!/bin/sh\nPK\3\4 " + patternBytes(5000);
    writeFile(sources.archive(), prefix + readFile(sources.archive()));
    const auto archive = opened(sources.archive());
    EXPECT_EQ(prefix.size(), archive->prefixLength()) << program.command;
    EXPECT_EQ(pythonsLines(sources.archive()), linesOf(*archive)) << program.command;
    if (!KQTest::isHere("zip")) continue;
    // The same with offsets that count from the file's first byte.
    EXPECT_EQ(0, KQTest::runOtherProgram({"zip", "-q", "-A", sources.archive()}).exitStatus);
    EXPECT_EQ(pythonsLines(sources.archive()), linesOf(*opened(sources.archive()))) << program.command;
  }
}

// The scan knows neither attributes nor what a directory leaves out, but all else.
TEST(KQZipArchiveForeign, FindsTheSameWithoutADirectory) {
  const Sources sources;
  for (const Program& program : programs) {
    if (!KQTest::isHere(program.name)) continue;
    sources.make(program.command);
    const auto whole = opened(sources.archive());
    const std::string bytes = readFile(sources.archive());
    writeFile(sources.archive(), bytes.substr(0, bytes.find("PK\1\2")));
    const auto cut = opened(sources.archive());
    ASSERT_EQ(whole->entries().size(), cut->entries().size()) << program.command;
    EXPECT_FALSE(cut->problems().empty()) << program.command;
    for (const KQZipArchiveEntry& entry : whole->entries()) {
      const auto found = cut->find(entry.name());
      ASSERT_TRUE(found) << program.command << entry.name();
      EXPECT_EQ(KQTest::bytesOf(whole->data(entry)), KQTest::bytesOf(cut->data(*found)))
          << program.command << entry.name();
      EXPECT_EQ(entry.crc32(), found->crc32()) << program.command << entry.name();
    }
  }
}

std::string withField(std::uint16_t identifier, const std::string& data) {
  return KQTest::extraFieldBytes(identifier, data);
}

std::string number(std::uint64_t value, std::size_t width) {
  std::string bytes;
  for (std::size_t i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

std::string unicodePath(const std::string& stored, const std::string& name) {
  return withField(0x7075, "\x01" + number(KQTest::crcOf(stored), 4) + name);
}

// An archive whose central headers have the extra fields of the local ones.
std::string withCentralFields(const std::vector<LocalRecord>& records) {
  std::string bytes;
  std::string directory;
  for (const LocalRecord& record : records) {
    std::string header = KQTest::centralHeaderBytes(record, static_cast<std::uint32_t>(bytes.size()));
    KQTest::setNumberAt(header, 30, 2, record.extra.size());
    directory += header + record.extra;
    bytes += record.bytes();
  }
  return bytes + directory +
         KQTest::endRecordBytes(static_cast<std::uint16_t>(records.size()),
                                static_cast<std::uint32_t>(directory.size()),
                                static_cast<std::uint32_t>(bytes.size()));
}

TEST(KQZipArchiveForeign, NamesAreUTF8OrTheUnicodeFieldsOrCodePage437) {
  const TemporaryDirectory folder;
  std::vector<LocalRecord> records;
  const auto add = [&records](const std::string& stored, std::uint16_t flags, const std::string& extra) {
    records.push_back(plainRecord(stored, "x"));
    records.back().flags = flags;
    records.back().extra = extra;
  };
  add("flagged-\xC3\xA4", 0x0800, "");
  add("field-\x84", 0, unicodePath("field-\x84", "field-\xC3\xB6"));
  add("stale-\x84", 0, unicodePath("other", "stale"));
  add("plain-\xC3\xA4", 0, "");
  add("dos-\x84\xE1", 0, "");
  add("e\xCC\x81", 0, "");
  writeFile(folder / "a.zip", withCentralFields(records));
  const auto archive = opened(folder / "a.zip");
  Lines names;
  for (const KQZipArchiveEntry& entry : archive->entries()) names.push_back(entry.name());
  EXPECT_EQ((Lines{"flagged-\xC3\xA4", "field-\xC3\xB6", "stale-\xC3\xA4", "plain-\xC3\xA4",
                   "dos-\xC3\xA4\xC3\x9F", "e\xCC\x81"}),
            names);
  for (const std::string& name : names) EXPECT_TRUE(archive->find(name)) << name;
  EXPECT_FALSE(archive->find("\xC3\xA9"));
}

TEST(KQZipArchiveForeign, DatesAreTheWideFieldsOrTheTimestampsOrTheOldOnes) {
  const KQTest::TimeZone zone("UTC0");
  const TemporaryDirectory folder;
  const std::string timestamp = withField(0x5455, "\1" + number(1000000001, 4));
  const std::string before1970 = withField(0x5455, "\1" + number(0xFFFFFFFF, 4));
  // A hundred nanoseconds after 2100-01-01, counted from 1601.
  const std::uint64_t ticks = (4102444800 + 11644473600) * 10000000 + 1;
  const std::string wide = withField(
      0x000A, number(0, 4) + number(1, 2) + number(24, 2) + number(ticks, 8) + std::string(16, '\0'));
  std::vector<LocalRecord> records;
  for (const std::string& extra : {std::string(), timestamp, before1970, wide, timestamp + wide}) {
    records.push_back(plainRecord("n" + std::to_string(records.size()), "x"));
    records.back().extra = extra;
  }
  writeFile(folder / "a.zip", withCentralFields(records));
  std::vector<std::int64_t> seconds;
  const auto archive = opened(folder / "a.zip");
  for (const KQZipArchiveEntry& entry : archive->entries())
    seconds.push_back(
        std::chrono::floor<std::chrono::seconds>(entry.modificationDate()).time_since_epoch().count());
  EXPECT_EQ((std::vector<std::int64_t>{1592224496, 1000000001, -1, 4102444800, 4102444800}), seconds);
  EXPECT_EQ(std::chrono::nanoseconds(100), archive->find("n4")->modificationDate() -
                                               archive->find("n3")->modificationDate() +
                                               std::chrono::nanoseconds(100));
}

TEST(KQZipArchiveForeign, UpToThreeBytesAfterTheExtraFieldsHaveNoMeaning) {
  const TemporaryDirectory folder;
  for (std::size_t count = 1; count <= 3; ++count) {
    LocalRecord record = plainRecord("a", "alpha");
    record.extra = withField(0x5455, "\1" + number(1000000001, 4)) + std::string(count, '\0');
    writeFile(folder / "a.zip", withCentralFields({record}));
    const auto archive = opened(folder / "a.zip");
    EXPECT_EQ("alpha", KQTest::bytesOf(archive->data(*archive->find("a"))));
    KQZipReport report;
    EXPECT_TRUE(archive->verify({}, report)) << report.problems().front().text;
  }
}

TEST(KQZipArchiveForeign, OfEqualNamesTheLastInTheDirectoryCounts) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", KQTest::archiveBytes({plainRecord("a/b", "1"), plainRecord("c", "2"),
                                                    plainRecord("a//b", "3"), plainRecord("a/./b", "4")}));
  const auto archive = opened(folder / "a.zip");
  EXPECT_EQ(2U, archive->entries().size());
  EXPECT_EQ("4", KQTest::bytesOf(archive->data(*archive->find("a/b"))));
  KQZipReport report;
  EXPECT_FALSE(archive->verify({}, report));
  EXPECT_EQ(2U, report.problems().size());
  EXPECT_EQ(2U, report.entriesWithProblems());
  EXPECT_EQ("a/b", report.problems().front().entry);
  EXPECT_EQ(KQZipProblemKind::SameName, report.problems().front().kind);
}

TEST(KQZipArchiveForeign, PartsOfSplitArchivesAreNamed) {
  const TemporaryDirectory folder;
  std::string bytes = KQTest::archiveBytes({plainRecord("a", "alpha")});
  // The last part: the entry's own bytes are in the first one, and other ones in their place.
  bytes.replace(0, 30, 30, 'x');
  const std::size_t end = bytes.rfind("PK\5\6");
  KQTest::setNumberAt(bytes, end + 4, 2, 1);
  writeFile(folder / "a.zip", bytes);
  const auto archive = opened(folder / "a.zip");
  ASSERT_FALSE(archive->problems().empty());
  EXPECT_EQ("the archive is split, and this is part 2 of it", archive->problems().front().text);
  Error error;
  EXPECT_FALSE(archive->data(*archive->find("a"), &error));
  EXPECT_EQ("-201 a is not given back: is on another part of the split archive", errorText(error));

  const std::string first = "PK\7\10" + plainRecord("a", "alpha").bytes();
  writeFile(folder / "b.zip", first);
  EXPECT_EQ("the archive is split, and this is part 1 of it",
            opened(folder / "b.zip")->problems().front().text);
}

}  // namespace
