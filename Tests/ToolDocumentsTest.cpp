// The manual page and the completions say what the tool can be told, and nothing else.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/OtherPrograms.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

const fs::path toolSources = fs::path(KQZIP_SOURCE_DIRECTORY) / "Tools/kqzip";
const std::string manual = (toolSources / "kqzip.1").string();
const std::string bashCompletion = (toolSources / "completions/kqzip.bash").string();
const std::string zshCompletion = (toolSources / "completions/_kqzip").string();

using Words = std::set<std::string>;

/// The options of the tool, "" for its own, and of each of its commands.
using Options = std::map<std::string, Words>;

/// Everything in `text` that the first group of `shape` matches.
Words matches(const std::string& text, const std::string& shape) {
  const std::regex expression(shape);
  Words found;
  for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match)
    found.insert((*match)[1]);
  return found;
}

Words commandsOfTool() {
  const std::string help = runTool({"--help"}).output;
  return matches(help.substr(help.find("\nCommands:\n")), "\n  ([a-z]+) ");
}

Words optionsInHelp(const std::vector<std::string>& arguments) {
  Words options;
  for (const std::string& names : matches(runTool(arguments).output, "\n  (-[^ ]+)")) {
    std::istringstream list(names);
    for (std::string option; std::getline(list, option, ',');) options.insert(option);
  }
  return options;
}

Options optionsOfTool() {
  Options options{{"", optionsInHelp({"--help"})}};
  for (const std::string& command : commandsOfTool()) options[command] = optionsInHelp({command, "--help"});
  return options;
}

bool isThere(const std::string& program) { return runProcess({program, "-c", "exit 0"}).exitStatus == 0; }

/// Completes a command line in a folder with archives.
class Completion {
 public:
  Completion() {
    fs::create_directory(folder_ / "folder");
    fs::create_directory(folder_ / "odd folder");
    writeFile(folder_ / "text.txt", "");
    writeFile(folder_ / "col:on.zip", "");
    writeFile(folder_ / "my archive.ZIP",
              archiveBytes({plainRecord("plain", "1"), plainRecord("dir/one two", "2"),
                            plainRecord("dir/$(touch ran)", "3"), plainRecord("dir/sub/x", "4"),
                            plainRecord("*", "5"), plainRecord("quote'\"\\", "6"),
                            plainRecord("line\nend", "7"), plainRecord("dir/sub/y", "8")}));
  }

  /// What the words behind "kqzip " may go on as. `part` is what readline takes for the last word, where that
  /// is not what stands behind the last blank.
  Words of(const std::string& words, const std::string& part = "") const {
    const std::string line = "'" + std::string(KQZIP_TOOL) + "' " + words;
    const std::string last = part.empty() ? line.substr(line.rfind(' ') + 1) : part;
    const ProcessResult result = runProcess({"bash", "--norc", "-c",
                                             R"(
compopt() { :; }
source "$0" || exit
COMP_LINE=$1 COMP_POINT=${#1} COMP_WORDS=("$2") COMP_CWORD=0
before=$(shopt -p)
_kqzip
[[ $(shopt -p) == "$before" ]] || echo "the shell's options changed" >&2
for reply in "${COMPREPLY[@]}"; do printf '%s\0' "$reply"; done
)",
                                             bashCompletion, line, last},
                                            folder_.path().string());
    EXPECT_EQ("", result.errors);
    EXPECT_FALSE(fs::exists(folder_ / "ran"));
    Words replies;
    std::istringstream list(result.output);
    for (std::string reply; std::getline(list, reply, '\0');) EXPECT_TRUE(replies.insert(reply).second);
    return replies;
  }

 private:
  TemporaryDirectory folder_;
};

}  // namespace

// ---- the manual page ----

TEST(ToolManual, HasEveryOptionOfEveryCommandAndNoOther) {
  Options expected = optionsOfTool();
  // Said once for all of them.
  for (auto& [command, options] : expected) {
    const std::size_t erased = command.empty() ? 1 : options.erase("--help");
    EXPECT_EQ(1U, erased) << command;
  }
  Options described{{"", {}}};
  std::istringstream page(readFile(manual));
  std::string command;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind(".Sh ", 0) == 0) command.clear();
    if (line.rfind(".Ss ", 0) == 0) described[command = line.substr(4)];
    if (line.rfind(".It Fl ", 0) != 0) continue;
    for (const std::string& option : matches(line, "Fl ([^ ]+)")) described[command].insert("-" + option);
  }
  EXPECT_EQ(expected, described);
}

TEST(ToolManual, HasASynopsisOfEveryCommand) {
  const std::string page = readFile(manual);
  const std::size_t start = page.find(".Sh SYNOPSIS");
  const std::string synopsis = page.substr(start, page.find(".Sh DESCRIPTION") - start);
  EXPECT_EQ(commandsOfTool(), matches(synopsis, "\n\\.Cm ([a-z]+)"));
}

TEST(ToolManual, IsWellFormed) {
  if (!isHere("mandoc")) GTEST_SKIP() << "mandoc is not on this machine";
  EXPECT_EQ(0, runProcess({"mandoc", "-T", "ascii", manual}).exitStatus);
  const ProcessResult result = runProcess({"mandoc", "-T", "lint", "-W", "warning", manual});
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ("", result.output);
}

// ---- the completion for bash ----

TEST(ToolBashCompletion, KnowsEveryOptionAndCommandOfTheTool) {
  const Completion completion;
  EXPECT_EQ(commandsOfTool(), completion.of(""));
  EXPECT_EQ(commandsOfTool(), completion.of("help "));
  for (const auto& [command, options] : optionsOfTool())
    EXPECT_EQ(options, completion.of(command.empty() ? "-" : command + " -")) << command;
}

TEST(ToolBashCompletion, GoesOnWithWhatIsWritten) {
  const Completion completion;
  EXPECT_EQ(Words{"create"}, completion.of("cr"));
  EXPECT_EQ(Words{"verify"}, completion.of("help ver"));
  EXPECT_EQ(Words{"--json"}, completion.of("list --j"));
  EXPECT_EQ(Words{}, completion.of("list --nothing"));
  EXPECT_EQ(Words{}, completion.of("pack "));
}

TEST(ToolBashCompletion, ShowsArchivesAndFoldersForAnArchive) {
  const Completion completion;
  const Words archives{"col:on.zip", "folder", "my archive.ZIP", "odd folder"};
  for (const std::string command : {"create", "conform", "list", "extract", "cat", "verify"})
    EXPECT_EQ(archives, completion.of(command + " ")) << command;
  EXPECT_EQ(Words{"my archive.ZIP"}, completion.of("list -l my"));
  EXPECT_EQ(Words{"my archive.ZIP"}, completion.of("list my\\ ar", "my\\ ar"));
  EXPECT_EQ(Words{"my archive.ZIP"}, completion.of("list 'my ar", "'my ar"));
  EXPECT_EQ(Words{"my archive.ZIP"}, completion.of("list \"my ar", "\"my ar"));
  // An archive may have any name.
  EXPECT_EQ(Words{"text.txt"}, completion.of("list te"));
  EXPECT_EQ(Words{}, completion.of("list nothing"));
}

TEST(ToolBashCompletion, ShowsEveryFileForASource) {
  const Completion completion;
  const Words files{"col:on.zip", "folder", "my archive.ZIP", "odd folder", "text.txt"};
  EXPECT_EQ(files, completion.of("create new.zip "));
  EXPECT_EQ(files, completion.of("create -k new.zip text.txt "));
}

TEST(ToolBashCompletion, ShowsNamesInTheArchiveFolderByFolder) {
  const Completion completion;
  for (const std::string command : {"cat", "extract"}) {
    const std::string start = command + " 'my archive.ZIP' ";
    EXPECT_EQ((Words{"*", "dir/", "line\nend", "plain", "quote'\"\\"}), completion.of(start));
    EXPECT_EQ((Words{"dir/$(touch ran)", "dir/one two", "dir/sub/"}), completion.of(start + "dir/"));
    EXPECT_EQ((Words{"dir/sub/x", "dir/sub/y"}), completion.of(start + "dir/sub/"));
    EXPECT_EQ(Words{"dir/one two"}, completion.of(start + "dir/one\\ t", "dir/one\\ t"));
    EXPECT_EQ(Words{"dir/$(touch ran)"}, completion.of(start + "dir/\\$"));
    EXPECT_EQ(Words{"*"}, completion.of(start + "\\*"));
    EXPECT_EQ(Words{"quote'\"\\"}, completion.of(start + "quote\\'"));
  }
  EXPECT_EQ(Words{"plain"}, completion.of("extract -q my\\ archive.ZIP -- pl"));
  EXPECT_EQ(Words{"plain"}, completion.of("extract -C folder my\\ archive.ZIP dir/sub/x pl"));
  // There is one name to be given, and it must be in an archive.
  EXPECT_EQ(Words{}, completion.of("cat my\\ archive.ZIP plain "));
  EXPECT_EQ(Words{}, completion.of("cat text.txt "));
  EXPECT_EQ(Words{}, completion.of("cat '$(touch ran)' "));
}

TEST(ToolBashCompletion, ShowsFoldersForTheFolderToExtractTo) {
  const Completion completion;
  const Words folders{"folder", "odd folder"};
  EXPECT_EQ(folders, completion.of("extract -C "));
  EXPECT_EQ(folders, completion.of("extract -qC "));
  EXPECT_EQ(folders, completion.of("extract --directory "));
  EXPECT_EQ(folders, completion.of("extract --directory=", "="));
  EXPECT_EQ(Words{"odd folder"}, completion.of("extract --directory=od", "od"));
  // Behind "--" it is no option.
  EXPECT_EQ((Words{"col:on.zip", "folder", "my archive.ZIP", "odd folder"}), completion.of("extract -- "));
}

TEST(ToolBashCompletion, LeavesAwayWhatStandsBeforeTheColonThatReadlineStopsAt) {
  const Completion completion;
  EXPECT_EQ(Words{"on.zip"}, completion.of("list col:o", "o"));
  EXPECT_EQ(Words{"on.zip"}, completion.of("list col:", ":"));
  EXPECT_EQ(Words{"col:on.zip"}, completion.of("list col\\:o"));
}

// ---- the completion for zsh ----

TEST(ToolZshCompletion, KnowsEveryOptionAndCommandOfTheToolAndNoOther) {
  const std::string text = readFile(zshCompletion);
  Words expected;
  for (const auto& [command, options] : optionsOfTool()) {
    for (const std::string& option : options) {
      if (option.rfind("--", 0) == 0) expected.insert(option);
    }
  }
  EXPECT_EQ(expected, matches(text, "(--[a-z]+(-[a-z]+)?)"));
  EXPECT_EQ(commandsOfTool(), matches(text, "\n    '([a-z]+):"));
  EXPECT_EQ(commandsOfTool(), matches(text, "\n    ([a-z]+)\\)\n"));
}

TEST(ToolZshCompletion, IsAScriptThatZshCanRead) {
  if (!isThere("zsh")) GTEST_SKIP() << "no zsh here";
  const ProcessResult result = runProcess({"zsh", "-n", zshCompletion});
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ("", result.errors);
}
