// Sources that are not what their attributes say while they are packed: the tool never reports success for an
// archive that does not read back.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "Support/SourceTree.h"
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

}  // namespace

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
