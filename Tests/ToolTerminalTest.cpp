#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/RunningProgram.h"
#include "Support/SparseFile.h"
#include "Support/StoppedProgram.h"
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

const std::string bar = "\\[#*\\.*\\]  ";
const std::string size = "[0-9.]+ ([KMG]i)?B";
const std::string duration = "[0-9:]*[0-9]:[0-9][0-9]";

/// The tool with these arguments on a terminal that can rewrite a line; `environment` changes what else it
/// finds.
std::vector<std::string> onTerminal(const std::vector<std::string>& arguments,
                                    const std::vector<std::string>& environment = {"NO_COLOR=1"}) {
  std::vector<std::string> command{"/usr/bin/env", "-u", "NO_COLOR", "TERM=xterm"};
  command.insert(command.end(), environment.begin(), environment.end());
  const std::vector<std::string> tool = toolCommand(arguments);
  command.insert(command.end(), tool.begin(), tool.end());
  return command;
}

/// What the tool prints on one terminal for both streams.
std::string printedBy(const std::vector<std::string>& command) {
  return RunningProgram(command, Streams::BothOnTerminal, 300).finish().errors;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// A file that no other process can open for some time.
class LeasedFile {
 public:
  explicit LeasedFile(const std::string& path) : file_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    // Sent when another process wants to open the file.
    std::signal(SIGIO, SIG_IGN);
    isHeld_ = fcntl(file_, F_SETLEASE, F_WRLCK) == 0;
  }
  ~LeasedFile() { close(file_); }
  LeasedFile(const LeasedFile&) = delete;
  LeasedFile& operator=(const LeasedFile&) = delete;

  bool isHeld() const { return isHeld_; }

 private:
  int file_;
  bool isHeld_ = false;
};

/// The tool on a terminal, with its reading of a file held in the middle, and nothing else of it.
class HeldTool {
 public:
  HeldTool(const TemporaryDirectory& folder, const std::string& name,
           const std::vector<std::string>& arguments, const std::string& file)
      : pipe_(makePipe(folder / (name + "-" + arguments.front()))),
        program_(
            stoppedAt(file, {1, FileMoment::Call::Read, 1048576, 2 * 1048576}, pipe_, onTerminal(arguments)),
            Streams::ErrorsOnTerminal, 300) {
    // Nobody has the other end open before the tool is there.
    waitUntil([this] { return (hold_ = open(pipe_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; });
  }
  ~HeldTool() { letGo(); }
  HeldTool(const HeldTool&) = delete;
  HeldTool& operator=(const HeldTool&) = delete;

  RunningProgram& program() { return program_; }

  /// Lets it go on to its end.
  ProcessResult finish() {
    letGo();
    return program_.finish();
  }

 private:
  static std::string makePipe(const std::string& path) {
    EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
    return path;
  }

  void letGo() {
    if (hold_ >= 0) close(hold_);
    hold_ = -1;
  }

  std::string pipe_;
  RunningProgram program_;
  int hold_ = -1;
};

/// An archive with one entry that is right and one that is not.
std::string wrongArchive(const std::string& path) {
  std::string bytes = archiveBytes({plainRecord("a", "1"), plainRecord("b", "xyz")});
  bytes.replace(bytes.find("xyz"), 3, "XYZ");
  writeFile(path, bytes);
  return path;
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
  RunningProgram tool(onTerminal({"create", archive, sparseFile(folder / "large", 64 * gibibyte)}),
                      Streams::ErrorsOnTerminal, 300);
  tool.readErrorsUntil("%");
  tool.send(SIGINT);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(130, result.exitStatus);
  EXPECT_EQ("", result.output);
  EXPECT_TRUE(showsLine(result.errors, bar + "[0-9]+%  " + size + ".*")) << result.errors;
  EXPECT_EQ((Lines{"kqzip: interrupted (partial archive left at " + archive + ")", ""}),
            Screen(result.errors).lines());
}

TEST(ToolTerminal, ExtractCountsEntriesAndErasesItsLine) {
  const TemporaryDirectory folder;
  KQTest::writeSparseArchive(folder / "a.zip", {plainRecord("a", "1")}, "large", 16 * gibibyte);
  RunningProgram tool(onTerminal({"extract", "-C", folder / "out", folder / "a.zip"}),
                      Streams::ErrorsOnTerminal, 300);
  tool.readErrorsUntil("1/2 entries");
  tool.send(SIGINT);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(130, result.exitStatus);
  EXPECT_TRUE(showsLine(result.errors, bar + "[0-9]+%  1/2 entries.*")) << result.errors;
  EXPECT_EQ((Lines{"kqzip: interrupted", ""}), Screen(result.errors).lines());
}

TEST(ToolTerminal, VerifyPrintsItsLinesBesideTheProgress) {
  const TemporaryDirectory folder;
  const std::string archive = slowArchive(folder / "a.zip", 2 * gibibyte);
  RunningProgram tool(onTerminal({"verify", archive}), Streams::BothOnTerminal, 300);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_TRUE(showsLine(result.errors, bar + "[0-9]+%  1/2 entries.*")) << result.errors;
  const Lines lines = Screen(result.errors).lines();
  ASSERT_EQ(5U, lines.size()) << result.errors;
  EXPECT_EQ(0U, lines[0].find("large: CRC-32 is "));
  EXPECT_EQ("a: is not in the central directory", lines[1]);
  EXPECT_EQ("large: is not in the central directory", lines[2]);
  EXPECT_EQ("kqzip: " + archive + ": 3 problems found (kqzip extract gives back what can be read, unchecked)",
            lines[3]);
  EXPECT_EQ("", lines[4]);
}

TEST(ToolTerminal, TheLineHasABarARateAndTheTimeThatIsLeft) {
  const TemporaryDirectory folder;
  RunningProgram tool(onTerminal({"verify", slowArchive(folder / "a.zip", 256 * gibibyte)}),
                      Streams::ErrorsOnTerminal, 80);
  tool.readErrorsUntil(" left");
  tool.send(SIGINT);
  const std::string printed = tool.finish().errors;
  EXPECT_TRUE(
      showsLine(printed, "\\[#*\\.{20,30}\\]  [0-9]+%  1/2 entries  " + size + "/s  " + duration + " left"))
      << printed;
  EXPECT_EQ((Lines{"kqzip: interrupted", ""}), Screen(printed).lines());
}

TEST(ToolTerminal, ALargeEntryCountsForMoreThanASmallOne) {
  const TemporaryDirectory folder;
  RunningProgram tool(onTerminal({"verify", slowArchive(folder / "a.zip", 256 * gibibyte)}),
                      Streams::ErrorsOnTerminal, 80);
  tool.readErrorsUntil("1/2 entries");
  tool.send(SIGINT);
  const std::string printed = tool.finish().errors;
  EXPECT_TRUE(showsLine(printed, bar + "0%  1/2 entries.*")) << printed;
}

TEST(ToolTerminal, TheLineIsNeverAsWideAsTheTerminal) {
  const TemporaryDirectory folder;
  const std::string archive = slowArchive(folder / "a.zip", 256 * gibibyte);
  const std::string message = "kqzip: interrupted";
  struct Narrow {
    unsigned short columns;
    std::string sign;
    std::string shape;
  };
  const std::vector<Narrow> terminals{{2, "\r0", "0"},
                                      {9, "0%", "0%"},
                                      {16, "1/2 entries", "0%  1/2 entries"},
                                      {30, "1/2 entries", "\\[\\.{10}\\]  0%  1/2 entries"}};
  for (const auto& [columns, sign, shape] : terminals) {
    SCOPED_TRACE(columns);
    RunningProgram tool(onTerminal({"verify", archive}), Streams::ErrorsOnTerminal, columns);
    tool.readErrorsUntil(sign);
    tool.send(SIGINT);
    const std::string printed = tool.finish().errors;
    const std::string line = printed.substr(0, printed.find(message));
    EXPECT_LT(Screen(line).width(), std::size_t{columns}) << printed;
    EXPECT_TRUE(showsLine(printed, shape)) << printed;
    EXPECT_EQ((Lines{message, ""}), Screen(printed).lines());
  }
}

TEST(ToolTerminal, ASecondInterruptionErasesTheLineToo) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", "text");
  const LeasedFile lease(folder / "file");
  if (!lease.isHeld()) GTEST_SKIP() << "no file can be leased here";
  // What waits to open the file does not end by itself.
  RunningProgram tool(onTerminal({"create", folder / "a.zip", folder / "file"}), Streams::ErrorsOnTerminal,
                      80);
  tool.readErrorsUntil("%");
  tool.sendUntilItEnds(SIGINT);
  const ProcessResult result = tool.finish();
  EXPECT_EQ(130, result.exitStatus);
  EXPECT_EQ((Lines{"kqzip: interrupted", ""}), Screen(result.errors).lines());
}

TEST(ToolTerminal, QuietShowsNothingHoweverLongItTakes) {
  const TemporaryDirectory folder;
  writeFile(folder / "tree/large", patternBytes(3 * 1048576));
  expectDone(runTool({"create", folder / "a.zip", folder / "tree"}));
  struct Example {
    std::string held;  // The file whose reading is held in its middle.
    std::vector<std::string> quiet;
    std::vector<std::string> shown;
  };
  const std::string archive = folder / "a.zip";
  const std::string source = folder / "tree/large";
  const std::vector<Example> examples{
      {source,
       {"create", "--quiet", folder / "b.zip", folder / "tree"},
       {"create", folder / "c.zip", folder / "tree"}},
      {archive, {"verify", "-q", archive}, {"verify", archive}},
      {archive, {"extract", "-q", "-C", folder / "b", archive}, {"extract", "-C", folder / "c", archive}}};
  for (const Example& example : examples) {
    SCOPED_TRACE(example.quiet.front());
    HeldTool quiet(folder, "quiet", example.quiet, example.held);
    // This one is held after the other and has shown its line: the other has had its time.
    HeldTool shown(folder, "shown", example.shown, example.held);
    shown.program().readErrorsUntil("%");
    expectDone(quiet.finish());
    EXPECT_TRUE(showsLine(shown.finish().errors, bar + "[0-9]+%.*"));
  }
}

TEST(ToolTerminal, NothingIsShownWhereStandardErrorIsNoTerminal) {
  const TemporaryDirectory folder;
  const std::string archive = slowArchive(folder / "a.zip");
  const ProcessResult result = runTool({"verify", archive});
  EXPECT_EQ(
      "kqzip: " + archive + ": 3 problems found (kqzip extract gives back what can be read, unchecked)\n",
      result.errors);
  EXPECT_EQ(0U, result.output.find("large: CRC-32 is "));
}

TEST(ToolTerminal, ListAndCatShowNoProgress) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "text\n")}));
  RunningProgram list(onTerminal({"list", folder / "a.zip"}), Streams::BothOnTerminal);
  EXPECT_EQ("a\r\n", list.finish().errors);
  RunningProgram cat(onTerminal({"cat", folder / "a.zip", "a"}), Streams::BothOnTerminal);
  EXPECT_EQ("text\r\n", cat.finish().errors);
}

TEST(ToolTerminal, ATerminalThatCannotRewriteALineShowsNoProgress) {
  const TemporaryDirectory folder;
  const std::string archive = slowArchive(folder / "a.zip");
  for (const std::vector<std::string>& environment :
       std::vector<std::vector<std::string>>{{"TERM=dumb"}, {"TERM="}, {"-u", "TERM"}}) {
    SCOPED_TRACE(environment.back());
    std::vector<std::string> command{"/usr/bin/env"};
    command.insert(command.end(), environment.begin(), environment.end());
    const std::vector<std::string> tool = toolCommand({"verify", archive});
    command.insert(command.end(), tool.begin(), tool.end());
    RunningProgram verify(command, Streams::ErrorsOnTerminal, 300);
    EXPECT_EQ(
        "kqzip: " + archive + ": 3 problems found (kqzip extract gives back what can be read, unchecked)\r\n",
        verify.finish().errors);
  }
}

TEST(ToolColour, MarksOnATerminalWhatIsWrongAndWhatIsRight) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "1")}));
  EXPECT_EQ("1 entry, 1 byte: \x1B[32mall right\x1B[0m\r\n",
            printedBy(onTerminal({"verify", folder / "a.zip"}, {})));
  const std::string printed = printedBy(onTerminal({"verify", wrongArchive(folder / "b.zip")}, {}));
  EXPECT_TRUE(contains(printed, "b: \x1B[31mCRC-32 is ")) << printed;
  EXPECT_TRUE(contains(printed, "\x1B[31mkqzip:\x1B[0m " + (folder / "b.zip") + ": 1 problem found"))
      << printed;
  EXPECT_EQ(0U, printedBy(onTerminal({"pack"}, {})).find("\x1B[31mkqzip:\x1B[0m there is no command"));
}

TEST(ToolColour, IsNotUsedWhereItIsNotWantedOrNotUnderstood) {
  const TemporaryDirectory folder;
  const std::string archive = wrongArchive(folder / "a.zip");
  const std::vector<std::vector<std::string>> environments{
      {"NO_COLOR=1"}, {"NO_COLOR=0"}, {"TERM=dumb"}, {"TERM="}, {"NO_COLOR=", "TERM=dumb"}};
  for (const auto& environment : environments) {
    SCOPED_TRACE(environment.front());
    const std::string printed = printedBy(onTerminal({"verify", archive}, environment));
    EXPECT_TRUE(contains(printed, "b: CRC-32 is ")) << printed;
    EXPECT_FALSE(contains(printed, "\x1B")) << printed;
  }
  // An empty NO_COLOR is none.
  EXPECT_TRUE(contains(printedBy(onTerminal({"verify", archive}, {"NO_COLOR="})), "\x1B[31m"));
}

TEST(ToolColour, GoesToNoPipe) {
  const TemporaryDirectory folder;
  const std::string archive = wrongArchive(folder / "a.zip");
  const ProcessResult piped = runProcess(onTerminal({"verify", archive}, {}));
  EXPECT_EQ(1, piped.exitStatus);
  EXPECT_FALSE(contains(piped.output + piped.errors, "\x1B"));
  // Each stream is looked at by itself.
  const ProcessResult half =
      RunningProgram(onTerminal({"verify", archive}, {}), Streams::ErrorsOnTerminal, 300).finish();
  EXPECT_FALSE(contains(half.output, "\x1B")) << half.output;
  EXPECT_TRUE(contains(half.errors, "\x1B[31mkqzip:")) << half.errors;
}
