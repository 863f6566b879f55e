// The pages in Documentation/ say what the library does: its bytes, its messages, its examples.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

const fs::path sources = KQZIP_SOURCE_DIRECTORY;

std::string page(const std::string& name) { return KQTest::readFile(sources / "Documentation" / name); }

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The code blocks of a page whose opening line is "```" and `language`.
std::vector<std::string> codeBlocks(const std::string& text, const std::string& language) {
  std::vector<std::string> blocks;
  bool inside = false;
  bool wanted = false;
  for (const std::string& line : linesOf(text)) {
    if (line.rfind("```", 0) == 0) {
      wanted = !inside && line.substr(3) == language;
      if (wanted) blocks.emplace_back();
      inside = !inside;
    } else if (wanted) {
      blocks.back() += line + "\n";
    }
  }
  return blocks;
}

std::string withoutCodeBlocks(const std::string& text) {
  std::string rest;
  bool inside = false;
  for (const std::string& line : linesOf(text)) {
    if (line.rfind("```", 0) == 0)
      inside = !inside;
    else if (!inside)
      rest += line + "\n";
  }
  return rest;
}

// The texts of a page that stand between two backticks.
std::vector<std::string> codeSpans(const std::string& text) {
  std::vector<std::string> spans;
  for (std::size_t start = text.find('`'); start != std::string::npos; start = text.find('`', start)) {
    const std::size_t end = text.find('`', start + 1);
    if (end == std::string::npos) break;
    spans.push_back(text.substr(start + 1, end - start - 1));
    start = end + 1;
  }
  return spans;
}

// The cells of each row of the page's tables that has `columns` of them and is no heading.
std::vector<std::vector<std::string>> rows(const std::string& text, std::size_t columns) {
  std::vector<std::vector<std::string>> found;
  for (const std::string& line : linesOf(text)) {
    std::vector<std::string> cells;
    for (std::size_t start = 1; start < line.size() && line[0] == '|';) {
      const std::size_t end = std::min(line.find('|', start), line.size());
      const std::string cell = line.substr(start, end - start);
      const std::size_t first = cell.find_first_not_of(' ');
      cells.push_back(
          first == std::string::npos ? "" : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
      start = end + 1;
    }
    if (cells.size() == columns && line.rfind("|--", 0) != 0) found.push_back(std::move(cells));
  }
  return found;
}

// What a C++ source is made of, as far as messages are concerned: comments and preprocessor lines are left
// out, and string literals that stand next to each other are one.
struct Token {
  bool isLiteral;
  std::string text;
};

std::vector<Token> tokensOf(const std::string& code) {
  static const std::regex pattern(
      R"re(//[^\n]*|/\*[^*]*\*+(?:[^/*][^*]*\*+)*/|(?:^|\n)[ \t]*#[^\n]*|"((?:[^"\\\n]|\\.)*)"|'(?:[^'\\\n]|\\.)*'|[A-Za-z_]\w*|[^\s\w])re");
  std::vector<Token> tokens;
  for (std::sregex_iterator match(code.begin(), code.end(), pattern), end; match != end; ++match) {
    const std::string text = match->str();
    if (text[0] == '"') {
      if (!tokens.empty() && tokens.back().isLiteral)
        tokens.back().text += (*match)[1].str();
      else
        tokens.push_back({true, (*match)[1].str()});
    } else if (text[0] != '/' && text[0] != '\n' && text[0] != '#' && text[0] != '\'') {
      tokens.push_back({false, text});
    }
  }
  return tokens;
}

// All tokens of the library but for Platform/, which knows no message of its own.
std::vector<Token> tokensOfTheLibrary() {
  std::vector<Token> tokens;
  for (const auto& file : fs::recursive_directory_iterator(sources / "Source")) {
    const std::string extension = file.path().extension().string();
    if ((extension != ".cpp" && extension != ".h") ||
        file.path().string().find("/Platform/") != std::string::npos)
      continue;
    for (Token& token : tokensOf(KQTest::readFile(file.path()))) tokens.push_back(std::move(token));
  }
  return tokens;
}

// Every literal that is a text for a person: neither a name of ours nor punctuation.
std::set<std::string> messagesInTheSources() {
  static const std::regex name("KQZip\\w*|C");
  std::set<std::string> messages;
  for (const Token& token : tokensOfTheLibrary()) {
    const bool hasLetter = token.text.find_first_of("abcdefghijklmnopqrstuvwxyz") != std::string::npos;
    if (token.isLiteral && hasLetter && !std::regex_match(token.text, name)) messages.insert(token.text);
  }
  return messages;
}

// The names of the error codes and their numbers, from the enumeration.
std::map<std::string, std::string> errorCodes() {
  const std::string header = KQTest::readFile(sources / "Source/KQZipErrorCodes.h");
  static const std::regex pattern("(KQZipError[A-Z]\\w*) = (-?\\d+)");
  std::map<std::string, std::string> codes;
  for (std::sregex_iterator match(header.begin(), header.end(), pattern), end; match != end; ++match)
    codes[(*match)[1].str()] = (*match)[2].str();
  return codes;
}

std::string inBackticks(const std::string& text) { return "`" + text + "`"; }

// The archive of the example in Format.md, as written or made interoperable.
std::string exampleArchive(bool interoperable = false) {
  const KQTest::TimeZone zone("UTC0");
  const KQTest::TemporaryDirectory directory;
  KQTest::writeFile(directory / "folder/hi.txt", "Hello\n");
  KQTest::setModificationDate(directory / "folder/hi.txt", 1709210096);
  EXPECT_TRUE(KQZipFileWriter::createZipFileAtPath(directory / "a.zip", directory / "folder", false));
  if (interoperable) {
    EXPECT_TRUE(KQZipMakeArchiveInteroperable(directory / "a.zip"));
  }
  return KQTest::readFile(directory / "a.zip");
}

std::string hexadecimal(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    std::array<char, 4> digits{};
    std::snprintf(digits.data(), digits.size(), "%02X",
                  static_cast<unsigned>(static_cast<unsigned char>(byte)));
    text += (text.empty() ? "" : " ") + std::string(digits.data());
  }
  return text;
}

// Sixteen bytes on a line, behind their offset and in front of their characters.
std::string dump(const std::string& bytes) {
  std::string text;
  for (std::size_t start = 0; start < bytes.size(); start += 16) {
    const std::string part = bytes.substr(start, 16);
    std::string characters;
    for (const char byte : part) characters += byte >= ' ' && byte <= '~' ? byte : '.';
    std::array<char, 80> line{};
    std::snprintf(line.data(), line.size(), "%04X  %-47s  %s\n", static_cast<unsigned>(start),
                  hexadecimal(part).c_str(), characters.c_str());
    text += line.data();
  }
  return text;
}

TEST(Documentation, TheArchiveInFormatIsTheOneThatTheLibraryWrites) {
  std::vector<std::string> dumps;
  for (const std::string& block : codeBlocks(page("Format.md"), ""))
    if (block.rfind("0000  ", 0) == 0) dumps.push_back(block);
  ASSERT_EQ(1U, dumps.size());
  EXPECT_EQ(dump(exampleArchive()), dumps[0]);
}

TEST(Documentation, TheFieldsOfTheExampleFollowEachOtherAndAreItsBytes) {
  const std::string archive = exampleArchive();
  static const std::regex bytes("`(?:[0-9A-F]{2} ?)+`");
  std::size_t position = 0;
  for (const auto& row : rows(page("Format.md"), 3)) {
    if (row[0].find_first_not_of("0123456789") != std::string::npos || !std::regex_match(row[1], bytes))
      continue;
    const std::size_t length = (row[1].size() - 1) / 3;
    EXPECT_EQ(std::to_string(position), row[0]) << row[2];
    EXPECT_EQ(inBackticks(hexadecimal(archive.substr(position, length))), row[1]) << row[2];
    position += length;
  }
  EXPECT_EQ(archive.size(), position);
}

TEST(Documentation, TheInteroperableExampleDiffersInTheThreePlacesThatFormatNames) {
  std::string expected = exampleArchive();
  expected.replace(108, 4, std::string("\0\0\xA4\x81", 4));
  expected[190] = '\x50';
  expected[238] = '\x50';
  EXPECT_EQ(dump(expected), dump(exampleArchive(true)));

  std::string format = page("Format.md");
  std::replace(format.begin(), format.end(), '\n', ' ');
  EXPECT_NE(std::string::npos,
            format.find(
                "the external attributes at 108 become `00 00 A4 81`, and the sizes at 190 and at 238 begin "
                "with `50` where they began with `B2`."));
}

TEST(Documentation, FormatHasTheAttributesThatFilesAndFoldersGet) {
  const KQTest::TemporaryDirectory directory;
  const std::string path = directory / "a.zip";
  KQTest::writeFile(path, KQTest::goldenArchive({KQTest::SourceTree::entry("file", ""),
                                                 KQTest::SourceTree::entry("folder/", "")}));
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(path));
  const std::string archive = KQTest::readFile(path);
  const std::size_t file = KQTest::ArchiveTail(archive).startOfDirectory;
  const std::size_t folder = file + 46 + std::string("file").size() + 28;
  std::vector<std::string> written;
  for (const std::size_t header : {file, folder}) {
    std::array<char, 11> text{};
    std::snprintf(text.data(), text.size(), "0x%08X",
                  static_cast<unsigned>(KQTest::numberAt(archive, header + 38, 4)));
    written.emplace_back(text.data());
  }

  std::vector<std::string> documented;
  static const std::regex number("0x[0-9A-F]{8}");
  for (const auto& row : rows(page("Format.md"), 3)) {
    if (row[0] != "external attributes of a central header") continue;
    for (std::sregex_iterator match(row[2].begin(), row[2].end(), number), end; match != end; ++match)
      documented.push_back(match->str());
  }
  EXPECT_EQ(written, documented);
  EXPECT_EQ((std::vector<std::string>{"0x81A40000", "0x41ED0010"}), written);
}

TEST(Documentation, TheTablesOfTheRecordsAddUpToTheirSizes) {
  // Each table ends where the fixed part of its record does.
  std::vector<std::size_t> sizes;
  for (const auto& row : rows(page("Format.md"), 4)) {
    const auto isNumber = [](const std::string& cell) {
      return !cell.empty() && cell.find_first_not_of("0123456789") == std::string::npos;
    };
    if (!isNumber(row[0]) || !isNumber(row[1])) continue;
    const std::size_t offset = std::stoul(row[0]);
    if (offset == 0) sizes.push_back(0);
    ASSERT_FALSE(sizes.empty());
    EXPECT_EQ(sizes.back(), offset) << row[2];
    sizes.back() = offset + std::stoul(row[1]);
  }
  EXPECT_EQ((std::vector<std::size_t>{30, 46, 28, 56, 20, 22, 9, 36}), sizes);
}

TEST(Documentation, EveryMessageOfTheSourcesStandsInErrors) {
  const std::set<std::string> messages = messagesInTheSources();
  EXPECT_EQ(1U, messages.count("Cancelled by user.")) << "the sources are read at all";
  const std::string errors = page("Errors.md");
  for (const std::string& message : messages)
    EXPECT_NE(std::string::npos, errors.find(inBackticks(message))) << message;
}

TEST(Documentation, ErrorsKnowsNoMessageThatTheSourcesDoNotMake) {
  const std::set<std::string> messages = messagesInTheSources();
  std::size_t found = 0;
  for (const std::string& span : codeSpans(withoutCodeBlocks(page("Errors.md")))) {
    // A name of the library or the tool has no blank, or is a command.
    if (span.find(' ') == std::string::npos || span.rfind("kqzip ", 0) == 0) continue;
    ++found;
    EXPECT_EQ(1U, messages.count(span)) << span;
  }
  EXPECT_LE(messages.size(), found);
}

TEST(Documentation, ErrorsHasEachCodeWithItsMessagesAndNoOther) {
  const std::vector<Token> tokens = tokensOfTheLibrary();
  std::map<std::string, std::string> codes = errorCodes();
  // A refusal names its message where it is decided on, and its code where the error is made.
  codes["refuse"] = codes.at("KQZipErrorRefusedPath");
  std::set<std::string> made;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    const auto code = codes.find(tokens[i].text);
    if (tokens[i].isLiteral || code == codes.end()) continue;
    // The message that goes with the code is the next literal of the statement.
    for (std::size_t k = i; k < tokens.size() && tokens[k].text != ";" && tokens[k].text != "}"; ++k) {
      if (!tokens[k].isLiteral) continue;
      made.insert(code->second + " " + inBackticks(tokens[k].text));
      break;
    }
  }
  std::set<std::string> documented;
  std::set<std::string> documentedCodes;
  for (const auto& row : rows(page("Errors.md"), 4)) {
    if (row[0] == "code") continue;
    documented.insert(row[0] + " " + row[1]);
    documentedCodes.insert(row[0]);
  }
  EXPECT_EQ(made, documented);
  for (const auto& [name, number] : codes) EXPECT_EQ(1U, documentedCodes.count(number)) << name;
}

TEST(Documentation, ErrorsShowsErrorsAsTheyAreShown) {
  const std::string errors = page("Errors.md");
  const auto own = KQ::NSError::errorWithDomain("KQZipErrorDomain", -51, "Error writing file");
  EXPECT_NE(std::string::npos, errors.find("```\n" + own->description() + "\n```"));
  const auto system = KQ::NSError::errorWithPOSIXCode(ENOENT, "a/b.txt");
  EXPECT_NE(std::string::npos, errors.find("```\n" + system->localizedDescription() + "\n```"));
}

TEST(Documentation, CodeIsTakenFromTheExamples) {
  std::string examples;
  for (const auto& file : fs::directory_iterator(sources / "Examples"))
    if (file.path().extension() == ".cpp") examples += KQTest::readFile(file.path());
  std::size_t blocks = 0;
  for (const auto& file : fs::directory_iterator(sources / "Documentation")) {
    if (file.path().extension() != ".md") continue;
    for (const std::string& block : codeBlocks(KQTest::readFile(file.path()), "cpp")) {
      ++blocks;
      EXPECT_NE(std::string::npos, examples.find(block)) << file.path() << "\n" << block;
    }
  }
  EXPECT_LE(4U, blocks);
}

TEST(Documentation, TheChangelogBeginsWithTheVersionOfTheProject) {
  const std::string changelog = KQTest::readFile(sources / "CHANGELOG.md");
  static const std::regex heading("\n## ([0-9]+\\.[0-9]+\\.[0-9]+)[,\n]");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(changelog, match, heading));
  EXPECT_EQ(KQTest::projectVersion(), match[1].str());
}

TEST(Documentation, FilesThatAPageNamesExist) {
  static const std::regex named(
      "\\]\\(([^)#]+)|((?:Benchmarks|Documentation|Examples|Fuzzing|Scripts|Source|Tests|Tools)/[\\w./]*)");
  std::vector<fs::path> pages{"README.md", "SECURITY.md", "CHANGELOG.md"};
  for (const auto& file : fs::directory_iterator(sources / "Documentation"))
    if (file.path().extension() == ".md") pages.push_back("Documentation" / file.path().filename());
  std::size_t found = 0;
  for (const fs::path& page : pages) {
    const std::string text = withoutCodeBlocks(KQTest::readFile(sources / page));
    for (std::sregex_iterator match(text.begin(), text.end(), named), end; match != end; ++match) {
      ++found;
      const std::string link = (*match)[1].str();
      if (link.rfind("https://", 0) == 0) continue;
      fs::path path = link.empty() ? fs::path((*match)[2].str()) : page.parent_path() / link;
      if (path.string().back() == '.') path = path.string().substr(0, path.string().size() - 1);
      EXPECT_TRUE(fs::exists(sources / path)) << page << ": " << path;
    }
  }
  EXPECT_LE(30U, found);
}

}  // namespace
