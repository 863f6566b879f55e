// What the tool prints for a person, sizes in units and help, and for a program, JSON.

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/RunningProgram.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

/// A folder in which the tool runs, in UTC.
class Folder {
 public:
  Folder() : zone_("UTC0") {}

  void archive(const std::string& bytes, const std::string& name = "a.zip") const {
    writeFile(folder_ / name, bytes);
  }
  void archive(const std::vector<LocalRecord>& records) const { archive(archiveBytes(records)); }

  ProcessResult run(const std::vector<std::string>& arguments) const {
    return runTool(arguments, folder_.path().string());
  }

  std::string operator/(const std::string& path) const { return folder_ / path; }

 private:
  TemporaryDirectory folder_;
  TimeZone zone_;
};

/// A record that says it has so many bytes, and has them, all of them 0.
LocalRecord zeros(const std::string& name, std::size_t length) {
  return plainRecord(name, std::string(length, '\0'));
}

/// The document as another program reads it: its members in their order, everything outside ASCII escaped. A
/// member that is there twice is an error.
std::string readAsJSON(const std::string& document) {
  const TemporaryDirectory folder;
  writeFile(folder / "document", document);
  const ProcessResult result = runProcess({"python3", "-c", R"(
import json, sys
def members(pairs):
    assert len(dict(pairs)) == len(pairs)
    return dict(pairs)
with open(sys.argv[1], 'rb') as file:
    print(json.dumps(json.loads(file.read().decode('utf-8', 'strict'), object_pairs_hook=members)))
)",
                                           folder / "document"});
  EXPECT_EQ("", result.errors) << document;
  return result.output;
}

/// Expects that the tool printed this document, one line that ends, read and written by another program.
void expectDocument(const ProcessResult& result, const std::string& document, int exitStatus = 0) {
  EXPECT_EQ(exitStatus, result.exitStatus) << result.errors;
  EXPECT_EQ(document + "\n", readAsJSON(result.output));
  EXPECT_EQ("}\n", result.output.substr(result.output.size() - 2));
}

std::string hexOf(const std::string& data) {
  std::string text;
  for (int shift = 28; shift >= 0; shift -= 4) text += "0123456789abcdef"[(crcOf(data) >> shift) & 15U];
  return text;
}

/// An entry of a plain record at this offset, as `list --json` has it.
std::string entryDocument(const LocalRecord& record, const std::string& escapedName, std::size_t offset,
                          const std::string& bytes = {}) {
  const bool isFolder = !record.name.empty() && record.name.back() == '/';
  const std::string nameBytes = bytes.empty() ? "" : R"("nameBytes": ")" + bytes + "\", ";
  return R"({"name": ")" + escapedName + "\", " + nameBytes + R"("type": ")" +
         (isFolder ? "folder" : "file") + R"(", "size": )" + std::to_string(record.data.size()) +
         R"(, "modified": "2020-06-15T12:34:56+00:00", "crc32": ")" + hexOf(record.data) +
         R"(", "offset": )" + std::to_string(offset) + R"(, "dataOffset": )" +
         std::to_string(offset + 30 + record.name.size()) + "}";
}

}  // namespace

// ---- sizes for a person ----

TEST(ToolHumanReadable, LongListingHasSizesInUnitsInOneColumn) {
  const Folder folder;
  folder.archive({zeros("a", 0), zeros("b", 1023), zeros("c", 1024), zeros("d", 1587), zeros("e", 1048575),
                  zeros("f", 1048576), zeros("g", 1625293)});
  const std::string expected =
      "-     0 B 2020-06-15 12:34:56 a\n"
      "-  1023 B 2020-06-15 12:34:56 b\n"
      "- 1.0 KiB 2020-06-15 12:34:56 c\n"
      "- 1.5 KiB 2020-06-15 12:34:56 d\n"
      "- 1.0 MiB 2020-06-15 12:34:56 e\n"
      "- 1.0 MiB 2020-06-15 12:34:56 f\n"
      "- 1.6 MiB 2020-06-15 12:34:56 g\n";
  expectDone(folder.run({"list", "-lh", "a.zip"}), expected);
  expectDone(folder.run({"list", "--human-readable", "--long", "a.zip"}), expected);
  // Without sizes there is nothing to change.
  expectDone(folder.run({"list", "-h", "a.zip"}), "a\nb\nc\nd\ne\nf\ng\n");
}

TEST(ToolHumanReadable, VerifySaysHowMuchItRead) {
  const Folder folder;
  folder.archive({zeros("a", 2000000), zeros("b", 3)});
  expectDone(folder.run({"verify", "-h", "a.zip"}), "2 entries, 1.9 MiB: all right\n");
  expectDone(folder.run({"verify", "--human-readable", "a.zip"}), "2 entries, 1.9 MiB: all right\n");
  folder.archive({zeros("a", 1)});
  expectDone(folder.run({"verify", "-h", "a.zip"}), "1 entry, 1 B: all right\n");
}

// ---- list --json ----

TEST(ToolListJSON, HasAnObjectForEachNameInTheReadersOrder) {
  const Folder folder;
  const std::vector<LocalRecord> records{plainRecord("b/", ""), plainRecord("a", "text"),
                                         plainRecord("a", "later")};
  folder.archive(records);
  const std::size_t last = records[0].bytes().size() + records[1].bytes().size();
  const ProcessResult result = folder.run({"list", "--json", "a.zip"});
  EXPECT_EQ("", result.errors);
  expectDocument(result, R"({"archive": "a.zip", "entries": [)" + entryDocument(records[2], "a", last) +
                             ", " + entryDocument(records[0], "b/", 0) + R"(], "problems": []})");
}

TEST(ToolListJSON, OfAnEmptyArchiveIsWhole) {
  const Folder folder;
  folder.archive(endRecordBytes());
  expectDocument(folder.run({"list", "--json", "a.zip"}),
                 R"({"archive": "a.zip", "entries": [], "problems": []})");
}

TEST(ToolListJSON, EscapesEveryCharacterThatNeedsIt) {
  const Folder folder;
  std::string name;
  std::string escaped;
  for (unsigned code = 0; code < 0x20; ++code) {
    name += static_cast<char>(code);
    const std::vector<std::pair<unsigned, std::string>> shortForms{
        {8, "\\b"}, {9, "\\t"}, {10, "\\n"}, {12, "\\f"}, {13, "\\r"}};
    std::string form = std::string("\\u00") + "01"[code / 16] + "0123456789abcdef"[code % 16];
    for (const auto& [character, shortForm] : shortForms) {
      if (character == code) form = shortForm;
    }
    escaped += form;
  }
  // DEL, the control characters beyond ASCII, and characters that only look like them.
  name += "\"\\/\x7F\xC2\x80\xC2\x9F\xC2\xA0\xC3\x82\xC3\x9F\xE6\x97\xA5\xF0\x9F\x98\x80";
  escaped += "\\\"\\\\/\\u007f\\u0080\\u009f\\u00a0\\u00c2\\u00df\\u65e5\\ud83d\\ude00";
  folder.archive({plainRecord(name, "1")});
  const ProcessResult result = folder.run({"list", "--json", "a.zip"});
  expectDocument(result, R"({"archive": "a.zip", "entries": [)" +
                             entryDocument(plainRecord(name, "1"), escaped, 0) + R"(], "problems": []})");
  for (const char character : result.output) {
    EXPECT_TRUE(character == '\n' || static_cast<unsigned char>(character) >= 0x20);
    EXPECT_NE('\x7F', character);
  }
  EXPECT_EQ(std::string::npos, result.output.find("\xC2\x80"));
  EXPECT_NE(std::string::npos, result.output.find("\xC2\xA0\xC3\x82\xC3\x9F\xE6\x97\xA5\xF0\x9F\x98\x80"));
}

TEST(ToolListJSON, ANameThatIsNotUTF8IsAlsoThereInHexadecimal) {
  const Folder folder;
  const LocalRecord record = plainRecord("bad\xFF\\\n", "1");
  folder.archive({record});
  expectDocument(folder.run({"list", "--json", "a.zip"}),
                 R"({"archive": "a.zip", "entries": [)" +
                     entryDocument(record, R"(bad\\xFF\\\\\\x0A)", 0, "626164ff5c0a") +
                     R"(], "problems": []})");
}

TEST(ToolListJSON, OfADamagedArchiveHasWhatIsWholeAndTheProblem) {
  const Folder folder;
  const LocalRecord whole = plainRecord("a", "1");
  folder.archive(whole.bytes() + plainRecord("bad\xFF", "12345").bytes().substr(0, 36));
  const std::string start = R"({"archive": "a.zip", "entries": [)" + entryDocument(whole, "a", 0);
  ProcessResult result = folder.run({"list", "--json", "a.zip"});
  expectDocument(
      result,
      start +
          R"(], "problems": [{"entry": "bad\\xFF", "entryBytes": "626164ff", "problem": "ends after 2 of 5 bytes"}]})",
      1);
  EXPECT_EQ(0U, result.errors.find("kqzip: a.zip: \"bad\\xFF\" ends after 2 of 5 bytes"));

  folder.archive(whole.bytes() + "JUNK");
  result = folder.run({"list", "--json", "a.zip"});
  expectDocument(result,
                 start + R"(], "problems": [{"entry": null, "problem": "unknown signature 4b4e554a at )" +
                     R"(offset 32"}]})",
                 1);
}

TEST(ToolListJSON, SaysHowFarLocalTimeIsFromUTC) {
  const Folder folder;
  folder.archive({plainRecord("a", "1")});
  LocalRecord winter = plainRecord("a", "1");
  winter.modDate = static_cast<std::uint16_t>((20 << 9) | (12 << 5) | 31);
  folder.archive(archiveBytes({winter}), "winter.zip");
  const std::vector<std::vector<std::string>> zones{
      {"UTC0", "a.zip", "2020-06-15T12:34:56+00:00"},
      {"EAST-9", "a.zip", "2020-06-15T12:34:56+09:00"},
      {"WEST3:30", "a.zip", "2020-06-15T12:34:56-03:30"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", "a.zip", "2020-06-15T12:34:56+02:00"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", "winter.zip", "2000-12-31T12:34:56+01:00"}};
  for (const auto& zone : zones) {
    const TimeZone set(zone[0]);
    const std::string document = readAsJSON(folder.run({"list", "--json", zone[1]}).output);
    EXPECT_NE(std::string::npos, document.find("\"modified\": \"" + zone[2] + "\"")) << document;
  }
}

TEST(ToolListJSON, OfAnArchiveThatCannotBeOpenedIsNothing) {
  const Folder folder;
  for (const std::string command : {"list", "verify"}) {
    const ProcessResult result = folder.run({command, "--json", "missing.zip"});
    EXPECT_EQ(1, result.exitStatus);
    EXPECT_EQ("", result.output);
    EXPECT_EQ(0U, result.errors.find(std::string("kqzip: missing.zip: ") + std::strerror(ENOENT)));
  }
}

TEST(ToolListJSON, GoesWithNoOtherForm) {
  const Folder folder;
  folder.archive({plainRecord("a", "1")});
  for (const std::string other : {"--long", "--null", "--human-readable"}) {
    expectWrongUsage(folder.run({"list", "--json", other, "a.zip"}),
                     "--json goes without --long, --null and --human-readable",
                     "kqzip list [OPTIONS] ARCHIVE");
  }
  expectWrongUsage(folder.run({"verify", "--json", "-h", "a.zip"}), "--json goes without --human-readable",
                   "kqzip verify [OPTIONS] ARCHIVE");
}

// ---- verify --json ----

TEST(ToolVerifyJSON, SaysThatAWholeArchiveIsAllRight) {
  const Folder folder;
  folder.archive({plainRecord("a", "123"), plainRecord("a", "4")});
  const std::string document =
      R"({"archive": "a.zip", "entries": 2, "bytes": 4, "problems": [], "ok": true})";
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"verify", "--json", "a.zip"}, {"verify", "-q", "--json", "a.zip"}}) {
    const ProcessResult result = folder.run(arguments);
    expectDocument(result, document);
    EXPECT_EQ("", result.errors);
  }
}

TEST(ToolVerifyJSON, HasAnObjectForEachProblem) {
  const Folder folder;
  std::string bytes = archiveBytes({plainRecord("a", "x1"), plainRecord("b\n\xFF", "x2")});
  for (std::size_t at = bytes.find('x'); at != std::string::npos; at = bytes.find('x', at)) bytes[at] = 'X';
  folder.archive(bytes + "tail");
  const ProcessResult result = folder.run({"verify", "--json", "a.zip"});
  expectDocument(
      result,
      R"({"archive": "a.zip", "entries": 2, "bytes": 4, "problems": [{"entry": "a", "problem": "CRC-32 is )" +
          hexOf("X1") + ", header says " + hexOf("x1") +
          R"("}, {"entry": "b\\x0A\\xFF", "entryBytes": "620aff", "problem": "CRC-32 is )" + hexOf("X2") +
          ", header says " + hexOf("x2") +
          R"("}, {"entry": null, "problem": "unknown bytes behind the end of the archive, from offset )" +
          std::to_string(bytes.size()) + R"("}], "ok": false})",
      1);
  EXPECT_EQ(0U, result.errors.find("kqzip: a.zip: 3 problems found"));
}

TEST(ToolVerifyJSON, IsWholeEvenWhenItIsInterrupted) {
  const TemporaryDirectory folder;
  // The large entry takes minutes to read.
  constexpr std::uint64_t length = std::uint64_t{1} << 38;
  LocalRecord large = plainRecord("large", "");
  large.size = 0xFFFFFFFF;
  large.extra = zip64FieldBytes(length, length);
  const std::string bytes = plainRecord("a", "1").bytes() + large.header();
  writeFile(folder / "a.zip", bytes);
  fs::resize_file(folder / "a.zip", bytes.size() + length);
  RunningProgram tool(toolCommand({"verify", "--json", folder / "a.zip"}));
  tool.waitForOutput();
  tool.send(SIGINT);
  const ProcessResult result = tool.finish();
  expectDocument(result,
                 R"({"archive": ")" + (folder / "a.zip") +
                     R"(", "entries": 2, "bytes": 274877906945, "problems": [{"entry": null, "problem": )" +
                     R"("interrupted"}], "ok": false})",
                 130);
}

// ---- help ----

TEST(ToolHelp, OfACommandIsTheSameInBothForms) {
  const std::string all = runTool({"--help"}).output;
  expectDone(runTool({"help"}), all);
  expectDone(runTool({"-h"}), all);
  for (const std::string command : {"create", "list", "extract", "cat", "verify", "help"}) {
    SCOPED_TRACE(command);
    const std::string own = runTool({command, "--help"}).output;
    EXPECT_NE(all, own);
    EXPECT_NE(std::string::npos, own.find("\nUsage: kqzip " + command + " [OPTIONS]"));
    expectDone(runTool({"help", command}), own);
    EXPECT_NE(std::string::npos, all.find("\n  " + command + " "));
  }
}

TEST(ToolHelp, OfACommandThatDoesNotExistIsWrongUsage) {
  expectWrongUsage(runTool({"help", "pack"}), "there is no command \"pack\"",
                   "kqzip help [OPTIONS] [COMMAND]");
}

TEST(ToolHelp, IsNotWhatHMeansInACommand) {
  const Folder folder;
  folder.archive({plainRecord("a", "1")});
  expectDone(folder.run({"list", "-h", "a.zip"}), "a\n");
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"cat", "-h", "a.zip", "a"}, {"extract", "-h", "a.zip"}, {"create", "-h", "b.zip", "a.zip"}}) {
    const ProcessResult result = folder.run(arguments);
    EXPECT_EQ(2, result.exitStatus);
    EXPECT_NE(std::string::npos, result.errors.find("Try kqzip " + arguments[0] + " --help."))
        << result.errors;
  }
}
