// Other programs, run as they are, on archives that were made interoperable: whether they test them, list
// every name and give every byte back.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/OtherPrograms.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

using Command = std::vector<std::string>;

/// How a program is asked. Each command runs in a folder with the archive "a.zip"; an empty one is nothing
/// that the program offers.
struct Program {
  std::string name;
  Command test;     ///< Checks the archive, with the exit status as its answer.
  Command list;     ///< Prints the names, one a line.
  Command extract;  ///< Extracts everything to the folder "out", which exists.
  bool givesPermissions = false;
  bool composesNames = false;  ///< Whether an accent and its letter become one character.
};

std::ostream& operator<<(std::ostream& stream, const Program& program) { return stream << program.name; }

Command python(const std::string& body) {
  return {"python3", "-c", "import zipfile\narchive = zipfile.ZipFile('a.zip')\n" + body};
}

const Program unzip{"unzip",
                    {"unzip", "-tqq", "a.zip"},
                    {"zipinfo", "-1", "a.zip"},
                    {"unzip", "-q", "a.zip", "-d", "out"},
                    true};
const Program zip{"zip", {"zip", "-qT", "a.zip"}, {}, {}};
const Program bsdtar{"bsdtar", {},  {"bsdtar", "-tf", "a.zip"}, {"bsdtar", "-xf", "a.zip", "-C", "out"},
                     true,     true};
const Program sevenZip{"7zz",
                       {"7zz", "t", "a.zip"},
                       {"sh", "-c", "7zz l -slt -ba -sccUTF-8 a.zip | sed -n 's/^Path = //p'"},
                       {"7zz", "x", "-oout", "a.zip"},
                       true};
const Program pythonZipfile{"python3", python("assert archive.testzip() is None"),
                            python("print('\\n'.join(archive.namelist()))"),
                            python("archive.extractall('out')")};
// Without the statistics that the virtual machine leaves in the folder for temporary files.
const Program jar{"jar",
                  {},
                  {"jar", "-J-XX:-UsePerfData", "tf", "a.zip"},
                  {"sh", "-c", "cd out && jar -J-XX:-UsePerfData xf ../a.zip"}};

/// A text's lines, sorted: programs list in orders of their own.
std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

/// Runs a program that must succeed.
std::string outputOf(const Command& command, const std::string& folder) {
  const ProcessResult result = runOtherProgram(command, folder);
  EXPECT_EQ(0, result.exitStatus) << command.front() << ": " << result.errors << result.output;
  EXPECT_EQ(std::string::npos, result.errors.find("arning")) << result.errors;
  return result.output;
}

/// Whether Scripts/test was given --large.
bool isLargeRun() { return std::getenv("KQZIP_LARGE_TESTS") != nullptr; }

/// A test of each program, skipped where the machine does not have it.
class ArchivePrograms : public testing::TestWithParam<Program> {
 protected:
  void SetUp() override {
    if (!isHere(GetParam().name)) GTEST_SKIP() << GetParam().name << " is not on this machine";
  }

  /// Makes an archive with the tool from files of all sorts.
  void createArchive() {
    for (const auto& [name, contents] : files_) {
      folder_.file("tree/" + name, contents);
      ASSERT_EQ(0, chmod((folder_ / ("tree/" + name)).c_str(), modeOf(name)));
    }
    expectDone(runTool({"create", "--verify", folder_ / "a.zip", folder_ / "tree"}));
    fs::create_directory(folder_ / "out");
  }

  static mode_t modeOf(const std::string& name) {
    return name == "run.sh" ? 0755 : name == "empty" ? 0600 : 0644;
  }

  /// An entry's name as the program gives it.
  static std::string nameOf(const std::string& name) {
    return GetParam().composesNames && name == decomposed ? "\xC3\xA9.txt" : name;
  }

  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& [name, contents] : files_) names.push_back(nameOf(name));
    std::sort(names.begin(), names.end());
    return names;
  }

  static constexpr char decomposed[] = "e\xCC\x81.txt";

  const SourceTree folder_;
  const std::map<std::string, std::string> files_{{"a.txt", "hello"},
                                                  {decomposed, "accent"},
                                                  {"empty", ""},
                                                  {"folder/b.bin", patternBytes(100000)},
                                                  {"folder/with space/\xC3\xBC.txt", "umlaut"},
                                                  {"large.bin", patternBytes(1048577, 2)},
                                                  {"run.sh", "#!/bin/sh\n"},
                                                  {"\xE6\x97\xA5\xE6\x9C\xAC/\xE8\xAA\x9E.txt", "words"},
                                                  {"\xF0\x9F\x98\x80.txt", "smile"}};
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(EachProgram, ArchivePrograms,
                         testing::Values(unzip, zip, bsdtar, sevenZip, pythonZipfile, jar),
                         [](const auto& program) { return program.param.name; });

TEST_P(ArchivePrograms, TestListAndExtractEveryEntry) {
  createArchive();
  const std::string folder = folder_.path().string();
  const Program& program = GetParam();
  if (!program.test.empty()) outputOf(program.test, folder);
  if (!program.list.empty()) {
    EXPECT_EQ(names(), sortedLines(outputOf(program.list, folder)));
  }
  if (program.extract.empty()) return;
  outputOf(program.extract, folder);
  std::size_t found = 0;
  for (const auto& item : fs::recursive_directory_iterator(folder_ / "out")) {
    if (item.is_regular_file()) ++found;
  }
  EXPECT_EQ(files_.size(), found);
  for (const auto& [name, contents] : files_) {
    expectSameBytes(contents, readFile(folder_ / ("out/" + nameOf(name))), name);
    if (!program.givesPermissions) continue;
    struct stat status {};
    ASSERT_EQ(0, stat((folder_ / ("out/" + nameOf(name))).c_str(), &status));
    EXPECT_EQ(modeOf(name), status.st_mode & 07777U) << name;
  }
}

TEST_P(ArchivePrograms, TakeAnArchiveThatConformWasRunOn) {
  createArchive();
  fs::remove(folder_ / "a.zip");
  expectDone(runTool({"create", "--exact", folder_ / "a.zip", folder_ / "tree"}));
  expectDone(runTool({"conform", folder_ / "a.zip"}));
  const std::string folder = folder_.path().string();
  const Program& program = GetParam();
  if (!program.test.empty()) outputOf(program.test, folder);
  if (!program.list.empty()) {
    EXPECT_EQ(names(), sortedLines(outputOf(program.list, folder)));
  }
}

TEST_P(ArchivePrograms, TakeFoldersAsFolders) {
  const std::string exact = goldenArchive(
      {SourceTree::entry("d/", ""), SourceTree::entry("d/\xC3\xBC/", ""), SourceTree::entry("f", "x")});
  writeFile(folder_ / "a.zip", interoperableArchive(exact));
  fs::create_directory(folder_ / "out");
  const Program& program = GetParam();
  const std::string folder = folder_.path().string();
  if (!program.test.empty()) outputOf(program.test, folder);
  if (program.extract.empty()) return;
  outputOf(program.extract, folder);
  EXPECT_TRUE(fs::is_directory(folder_ / "out/d/\xC3\xBC"));
  EXPECT_EQ("x", readFile(folder_ / "out/f"));
}

TEST_P(ArchivePrograms, TakeSeventyThousandEntries) {
  if (!isLargeRun()) GTEST_SKIP() << "KQZIP_LARGE_TESTS is not set";
  const std::string file = folder_.file("source", "text");
  KQZipFileWriter writer;
  std::vector<std::string> expected;
  for (int i = 100000; i < 170000; ++i) {
    expected.push_back("folder/\xC3\xBC" + std::to_string(i));
    writer.addFilePath(file, expected.back());
  }
  Error error;
  ASSERT_TRUE(writer.writeToZipPath(folder_ / "a.zip", &error)) << describe(error);
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(folder_ / "a.zip", &error)) << describe(error);
  const std::string folder = folder_.path().string();
  const Program& program = GetParam();
  if (!program.test.empty()) outputOf(program.test, folder);
  if (!program.list.empty()) {
    EXPECT_TRUE(expected == sortedLines(outputOf(program.list, folder)));
  }
}

TEST_P(ArchivePrograms, TakeAnEntryBeyond4GiB) {
  if (!isLargeRun()) GTEST_SKIP() << "KQZIP_LARGE_TESTS is not set";
  // An entry of zeros, which is a hole in the file, and one behind it.
  const std::uint64_t length = std::uint64_t{4} << 30;
  const std::string zeros(1048576, '\0');
  uLong crc = 0;
  for (std::uint64_t done = 0; done < length; done += zeros.size())
    crc = crc32(crc, reinterpret_cast<const Bytef*>(zeros.data()), static_cast<uInt>(zeros.size()));
  GoldenEntry large = SourceTree::entry("large", "");
  large.crc = static_cast<std::uint32_t>(crc);
  large.localSize = large.centralSize = length;
  const GoldenEntry behind = SourceTree::entry("\xC3\xBC behind", "text");
  const std::string header = goldenLocalHeader(large, 0);
  const std::uint64_t second = header.size() + length;
  const std::string record = goldenLocalHeader(behind, second) + behind.data;
  const std::string directory = goldenCentralHeader(large, 0) + goldenCentralHeader(behind, second);
  const std::string archive = folder_ / "a.zip";
  writeFile(archive, header);
  fs::resize_file(archive, second);
  std::ofstream(archive, std::ios::binary | std::ios::app)
      << record << directory << goldenEndRecords(2, second + record.size(), directory.size());
  Error error;
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(archive, &error)) << describe(error);
  expectDone(runTool({"verify", "-q", archive}));

  const std::string folder = folder_.path().string();
  const Program& program = GetParam();
  if (!program.test.empty()) outputOf(program.test, folder);
  if (!program.list.empty()) {
    EXPECT_EQ((std::vector<std::string>{"large", "\xC3\xBC behind"}),
              sortedLines(outputOf(program.list, folder)));
  }
}
