// Sources that are not what their attributes say while they are packed: the tool never reports success for an
// archive that does not read back.

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "Support/ChangingSource.h"
#include "Support/RunningProgram.h"
#include "Support/SourceTree.h"
#include "Support/StoppedProgram.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

std::string changed(const std::string& name, const std::string& archive) {
  return "\"" + name + "\" changed while it was packed, so the archive cannot be read back (left at " +
         archive + "; remove it and pack again)";
}

// A file of the system that has bytes and claims to have none, like one that grows while it is packed.
constexpr char growing[] = "/proc/version";

// A file of the system that claims to have more bytes than it has, like one that shrinks.
constexpr char shrinking[] = "/sys/kernel/profiling";

bool isThere(const char* path, bool claimsMore) {
  std::error_code error;
  if (!fs::is_regular_file(path, error)) return false;
  const auto claimed = fs::file_size(path, error);
  return !error && (claimed > readFile(path).size()) == claimsMore;
}

// Runs the tool, stopped at a moment of its reading of `path` for `change` to happen.
ProcessResult runToolWithChange(const std::vector<std::string>& arguments, const std::string& path,
                                SourceMoment moment, const std::function<void()>& change) {
  RunningProgram tool(stoppedAt(path, fileMoment(moment), stopWhole, toolCommand(arguments)));
  tool.waitUntilItStops();
  change();
  tool.send(SIGCONT);
  return tool.finish();
}

bool hasOneLength(const GoldenEntry& entry) {
  return entry.localSize == entry.data.size() && entry.centralSize == entry.data.size();
}

std::string hexadecimal(std::uint32_t value) {
  std::array<char, 9> text{};
  std::snprintf(text.data(), text.size(), "%08x", value);
  return text.data();
}

class ToolSourceChange : public testing::TestWithParam<NamedMoment> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(AtEachMoment, ToolSourceChange, testing::ValuesIn(sourceMoments()),
                         [](const auto& moment) { return moment.param.name; });

TEST_P(ToolSourceChange, NeverEndsInSuccessForAnArchiveThatDoesNotReadBack) {
  const std::string old = patternBytes(1048576 + 1234);
  for (const SourceChange& change : sourceChanges()) {
    for (const bool verifies : {false, true}) {
      SCOPED_TRACE(change.name + (verifies ? ", verified" : ""));
      const SourceTree folder;
      folder.file("tree/a", "in front");
      folder.file("tree/b", old);
      folder.file("tree/c", "behind");
      const std::string archive = folder / "out.zip";
      std::vector<std::string> arguments{"create", archive, folder / "tree"};
      arguments.emplace_back(verifies ? "--verify" : "--exact");
      const ProcessResult result = runToolWithChange(arguments, folder / "tree/b", GetParam().moment,
                                                     [&] { change.apply(folder, "tree/b"); });

      const GoldenEntry entry = changedEntry("b", old, GetParam().moment, change);
      if (!verifies) {
        expectSameBytes(
            goldenArchive({SourceTree::entry("a", "in front"), entry, SourceTree::entry("c", "behind")}),
            readFile(archive));
      }
      if (!hasOneLength(entry)) {
        expectFailed(result, changed("b", archive));
      } else if (verifies && crcOf(entry.data) != entry.crc) {
        expectFailed(result, archive + ": 1 problem found (remove it and pack again)",
                     "b: CRC-32 is " + hexadecimal(crcOf(entry.data)) + ", header says " +
                         hexadecimal(entry.crc) + "\n");
      } else {
        expectDone(result);
      }
    }
  }
}

TEST(ToolChangingSources, AFileThatGrowsIsNamed) {
  if (!isThere(growing, false)) GTEST_SKIP() << growing << " is not there";
  const SourceTree folder;
  folder.file("a.txt", "before");
  folder.file("zz.txt", "behind");
  const std::string archive = folder / "out.zip";
  expectFailed(runTool({"create", archive, folder / "a.txt", growing, folder / "zz.txt"}),
               changed("version", archive));
}

TEST(ToolChangingSources, TheLastFileThatGrowsIsNamed) {
  if (!isThere(growing, false)) GTEST_SKIP() << growing << " is not there";
  const SourceTree folder;
  folder.file("a.txt", "before");
  const std::string archive = folder / "out.zip";
  expectFailed(runTool({"create", archive, folder / "a.txt", growing}), changed("version", archive));
}

TEST(ToolChangingSources, AFileThatShrinksIsNamed) {
  if (!isThere(shrinking, true)) GTEST_SKIP() << shrinking << " is not there";
  const SourceTree folder;
  folder.file("a.txt", "before");
  folder.file("zz.txt", "behind");
  const std::string archive = folder / "out.zip";
  expectFailed(runTool({"create", archive, folder / "a.txt", shrinking, folder / "zz.txt"}),
               changed("profiling", archive));
}

TEST(ToolChangingSources, VerifyingAfterwardsIsQuietWhenAllIsRight) {
  const SourceTree folder;
  folder.file("tree/a.txt", "one");
  folder.file("tree/b.bin", patternBytes(1048577));
  expectDone(runTool({"create", "--verify", folder / "out.zip", folder / "tree"}));
  expectDone(runTool({"verify", folder / "out.zip"}), "2 entries, 1048580 bytes: all right\n");
}
