#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/RunningProgram.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;

using Streams = RunningProgram::Streams;

/// What a terminal shows of what was printed to it.
class Screen {
 public:
  explicit Screen(const std::string& printed) {
    for (const char character : printed) {
      if (character == '\r')
        column_ = 0;
      else if (character == '\n')
        lines_.emplace_back();
      else
        put(character);
    }
  }

  /// The lines, without blanks at their ends.
  std::vector<std::string> lines() const {
    std::vector<std::string> trimmed;
    for (const std::string& line : lines_) trimmed.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
    return trimmed;
  }

  /// The column behind the rightmost character ever printed.
  std::size_t width() const { return width_; }

 private:
  void put(char character) {
    std::string& line = lines_.back();
    if (line.size() <= column_) line.resize(column_ + 1, ' ');
    line[column_++] = character;
    width_ = std::max(width_, column_);
  }

  std::vector<std::string> lines_{""};
  std::size_t column_ = 0;
  std::size_t width_ = 0;
};

using Lines = std::vector<std::string>;

std::uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

std::string sparseFile(const std::string& path, std::uint64_t length) {
  writeFile(path, "");
  fs::resize_file(path, length);
  return path;
}

std::string headerOfLength(const std::string& name, std::uint64_t length) {
  LocalRecord record = plainRecord(name, "");
  record.size = 0xFFFFFFFF;
  record.extra = zip64FieldBytes(length, length);
  return record.header();
}

/// Whether a progress line of this shape was printed, rewritten in its place.
bool showsLine(const std::string& printed, const std::string& shape) {
  return std::regex_search(printed, std::regex("\r" + shape + " *(\r|$)"));
}

/// An archive whose entry "a" is small, and "large" takes several times as long to read as the line takes to
/// appear. Its checksum is wrong, and there is no central directory.
std::string slowArchive(const std::string& path, std::uint64_t length = gibibyte) {
  const std::string start = plainRecord("a", "1").bytes() + headerOfLength("large", length);
  writeFile(path, start);
  fs::resize_file(path, start.size() + length);
  std::ofstream(path, std::ios::binary | std::ios::app) << endRecordBytes();
  return path;
}

}  // namespace

TEST(ToolTerminal, CreateShowsOneLineThatIsErasedAtTheEnd) {
  const TemporaryDirectory folder;
  const std::string archive = folder / "a.zip";
  RunningProgram tool(toolCommand({"create", archive, sparseFile(folder / "large", 64 * gibibyte)}),
                      Streams::ErrorsOnTerminal, 300);
  tool.readErrorsUntil("%");
  tool.send(SIGINT);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(130, result.exitStatus);
  EXPECT_EQ("", result.output);
  EXPECT_TRUE(showsLine(result.errors, "[0-9]+%  [0-9.]+ (bytes|[KMG]iB)  [0-9]+:[0-9][0-9]"))
      << result.errors;
  EXPECT_EQ((Lines{"kqzip: interrupted (partial archive left at " + archive + ")", ""}),
            Screen(result.errors).lines());
}

TEST(ToolTerminal, ExtractCountsEntriesAndErasesItsLine) {
  const TemporaryDirectory folder;
  const std::string target = folder / "out/large";
  RunningProgram tool(
      toolCommand({"extract", "-C", folder / "out", slowArchive(folder / "a.zip", 16 * gibibyte)}),
      Streams::ErrorsOnTerminal, 300);
  tool.readErrorsUntil("1/2 entries");
  tool.send(SIGINT);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(130, result.exitStatus);
  EXPECT_TRUE(showsLine(result.errors, "[5-9][0-9]%  1/2 entries  [0-9]+:[0-9][0-9]")) << result.errors;
  EXPECT_EQ((Lines{"kqzip: interrupted (partial file left at " + target + ")", ""}),
            Screen(result.errors).lines());
}

TEST(ToolTerminal, VerifyPrintsItsLinesBesideTheProgress) {
  const TemporaryDirectory folder;
  const std::string archive = slowArchive(folder / "a.zip", 2 * gibibyte);
  RunningProgram tool(toolCommand({"verify", archive}), Streams::BothOnTerminal, 300);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_TRUE(showsLine(result.errors, "[5-9][0-9]%  1/2 entries  [0-9]+:[0-9][0-9]")) << result.errors;
  const Lines lines = Screen(result.errors).lines();
  ASSERT_EQ(5U, lines.size()) << result.errors;
  EXPECT_EQ(0U, lines[0].find("large: CRC-32 is "));
  EXPECT_EQ("a: is not in the central directory", lines[1]);
  EXPECT_EQ("large: is not in the central directory", lines[2]);
  EXPECT_EQ("kqzip: " + archive + ": 3 problems found", lines[3]);
  EXPECT_EQ("", lines[4]);
}

TEST(ToolTerminal, TheLineIsNeverAsWideAsTheTerminal) {
  const TemporaryDirectory folder;
  const std::string archive = slowArchive(folder / "a.zip", 256 * gibibyte);
  const std::string message = "kqzip: interrupted";
  for (const int columns : {2, 9}) {
    RunningProgram tool(toolCommand({"verify", archive}), Streams::ErrorsOnTerminal,
                        static_cast<unsigned short>(columns));
    // The first character of the percentage is as good a sign as any.
    tool.readErrorsUntil("\r5");
    tool.send(SIGINT);
    const std::string printed = tool.finish().errors;
    const std::string line = printed.substr(0, printed.find(message));
    EXPECT_EQ(static_cast<std::size_t>(columns - 1), Screen(line).width()) << printed;
    EXPECT_EQ((Lines{message, ""}), Screen(printed).lines());
  }
}

TEST(ToolTerminal, QuietShowsNothingHoweverLongItTakes) {
  const TemporaryDirectory folder;
  const std::string archive = slowArchive(folder / "a.zip");
  RunningProgram verify(toolCommand({"verify", "-q", archive}), Streams::ErrorsOnTerminal);
  EXPECT_EQ("kqzip: " + archive + ": 3 problems found\r\n", verify.finish().errors);

  // So much is not written before a line would have been shown.
  constexpr std::uint64_t much = gibibyte / 2;
  const std::string target = folder / "out/large";
  RunningProgram extract(toolCommand({"extract", "-q", "-C", folder / "out", archive}),
                         Streams::ErrorsOnTerminal);
  waitUntil([&] { return sizeOf(target) > much; });
  extract.send(SIGINT);
  EXPECT_EQ("kqzip: interrupted (partial file left at " + target + ")\r\n", extract.finish().errors);
  fs::remove(target);

  const std::string created = folder / "b.zip";
  RunningProgram create(
      toolCommand({"create", "--quiet", created, sparseFile(folder / "large", 2 * gibibyte)}),
      Streams::ErrorsOnTerminal);
  waitUntil([&] { return sizeOf(created) > 0; });
  create.send(SIGINT);
  EXPECT_EQ("kqzip: interrupted (partial archive left at " + created + ")\r\n", create.finish().errors);
}

TEST(ToolTerminal, NothingIsShownWhereStandardErrorIsNoTerminal) {
  const TemporaryDirectory folder;
  const std::string archive = slowArchive(folder / "a.zip");
  const ProcessResult result = runTool({"verify", archive});
  EXPECT_EQ("kqzip: " + archive + ": 3 problems found\n", result.errors);
  EXPECT_EQ(0U, result.output.find("large: CRC-32 is "));
}

TEST(ToolTerminal, ListAndCatShowNoProgress) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "text\n")}));
  RunningProgram list(toolCommand({"list", folder / "a.zip"}), Streams::BothOnTerminal);
  EXPECT_EQ("a\r\n", list.finish().errors);
  RunningProgram cat(toolCommand({"cat", folder / "a.zip", "a"}), Streams::BothOnTerminal);
  EXPECT_EQ("text\r\n", cat.finish().errors);
}
