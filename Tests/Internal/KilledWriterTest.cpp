// A writer that is killed at any moment leaves the beginning of its archive. From that the tool gives back
// every entry whose data is there in full, and it claims nothing to be whole that is not.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Support/GoldenArchive.h"
#include "Support/RunningProgram.h"
#include "Support/ScriptedSystem.h"
#include "Support/SourceTree.h"
#include "Support/TemporaryDirectory.h"
#include "Support/Tool.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

// How far the process gets: the calls that it may make, of which the next kills it, and the bytes that it may
// write, after the last of which it is killed.
struct Life {
  std::size_t calls = SIZE_MAX;
  std::uint64_t bytes = UINT64_MAX;
};

void die() { kill(getpid(), SIGKILL); }

// The same every time, unless the environment gives another one.
unsigned seedOfThisRun() {
  const char* const given = std::getenv("KQZIP_TEST_SEED");
  return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : 20240229;
}

class KilledWriter : public ::testing::Test {
 protected:
  // Small files below names of all lengths, and some larger than the stream's buffer and than a block.
  KilledWriter() {
    add("00 large", patternBytes(1048576 + 5000));
    for (unsigned i = 10; i < 25; ++i)
      add(std::to_string(i) + std::string(i * 7 % 40, 'n'), patternBytes(i * i * i % 2500, i));
    add("30 medium", patternBytes(70000, 3));
    add("40 empty", "");
    add("50/deeper/small", "small");
    add("60 medium", patternBytes(66000, 4));
    add("70 small", "the last");
    whole_ = goldenArchive(entries_);
    std::uint64_t end = 0;
    for (const GoldenEntry& entry : entries_) {
      begins_.push_back(end);
      end += goldenLocalHeader(entry, end).size() + entry.data.size();
      ends_.push_back(end);
    }
  }

  bool pack() const { return KQZipFileWriter::createZipFileAtPath(archive_, tree_ / "tree", false); }

  // Packs in a process that lives so long. Whether it was killed.
  bool packFor(Life length) const {
    fs::remove(archive_);
    const pid_t child = fork();
    if (child == 0) {
      ScriptedSystem system;
      if (length.calls != SIZE_MAX) system.act({.number = length.calls + 1}, [](const auto&) { die(); });
      system.limitRoom(length.bytes, die);
      _exit(pack() ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    EXPECT_TRUE(killed || status == 0) << status;
    return killed;
  }

  // The calls of a process that nothing kills.
  std::size_t callsOfAll() {
    const ScriptedSystem system;
    EXPECT_TRUE(pack());
    // What is written by other calls than those that are counted would never be cut.
    EXPECT_EQ(whole_.size(), system.bytesWritten());
    fs::remove(archive_);
    return system.count();
  }

  // Checks what the tool makes of what is there of the archive. Only the directory depends on its form.
  void expectWhatIsThere(bool isExact = true) const {
    if (!fs::exists(archive_)) return;
    const std::string bytes = readFile(archive_);
    SCOPED_TRACE("archive of " + std::to_string(bytes.size()) + " of " + std::to_string(whole_.size()));
    const std::size_t known = isExact ? bytes.size() : std::min<std::size_t>(bytes.size(), ends_.back());
    expectSameBytes(whole_.substr(0, known), bytes.substr(0, known), "what is there is a beginning");
    const int status = bytes.size() == whole_.size() ? 0 : 1;

    std::string names;
    std::map<std::string, std::string> files;
    for (std::size_t i = 0; i < entries_.size() && ends_[i] <= bytes.size(); ++i) {
      names += entries_[i].name + "\n";
      files[entries_[i].name] = entries_[i].data;
    }
    const ProcessResult list = runTool({"list", archive_});
    EXPECT_EQ(status, list.exitStatus);
    EXPECT_EQ(names, list.output);

    const std::string out = tree_ / "out";
    EXPECT_EQ(status, runTool({"extract", "-C", out, archive_}).exitStatus);
    EXPECT_TRUE(files == filesBelow(out))
        << "extracted are " << filesBelow(out).size() << " of " << files.size();
    fs::remove_all(out);

    const ProcessResult verified = runTool({"verify", archive_});
    EXPECT_EQ(status, verified.exitStatus);
    if (status == 0) return;
    const std::string withoutEntries = bytes.size() < 4
                                           ? " (check that it is the right file)"
                                           : " (no entry can be read back, get the archive again)";
    EXPECT_EQ(
        "kqzip: " + archive_ + ": 1 problem found" +
            (files.empty() ? withoutEntries : " (kqzip extract gives back what can be read, unchecked)") +
            "\n",
        verified.errors);
    if (const auto cut = entryCutInItsData(bytes.size())) {
      EXPECT_EQ(*cut + "\n", verified.output);
    }
  }

  SourceTree tree_;
  std::string archive_ = tree_ / "a.zip";
  std::vector<GoldenEntry> entries_;
  std::vector<std::uint64_t> begins_;
  std::vector<std::uint64_t> ends_;
  std::string whole_;

 private:
  void add(const std::string& name, const std::string& contents) {
    tree_.file("tree/" + name, contents);
    entries_.push_back(SourceTree::entry(name, contents));
  }

  static std::map<std::string, std::string> filesBelow(const fs::path& folder) {
    std::map<std::string, std::string> files;
    if (!fs::exists(folder)) return files;
    for (const auto& item : fs::recursive_directory_iterator(folder)) {
      if (item.is_regular_file()) files[fs::relative(item.path(), folder).string()] = readFile(item.path());
    }
    return files;
  }

  // What the tool says of an entry that has its header and not all of its data.
  std::optional<std::string> entryCutInItsData(std::uint64_t length) const {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const std::uint64_t data = ends_[i] - entries_[i].data.size();
      if (data <= length && length < ends_[i]) {
        return entries_[i].name + ": ends after " + std::to_string(length - data) + " of " +
               std::to_string(entries_[i].data.size()) + " bytes";
      }
    }
    return std::nullopt;
  }
};

}  // namespace

TEST_F(KilledWriter, LeavesEveryWholeEntryWhereverItsBytesEnd) {
  const unsigned seed = seedOfThisRun();
  SCOPED_TRACE("KQZIP_TEST_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&random](std::uint64_t end) {
    return std::uniform_int_distribution<std::uint64_t>(0, end - 1)(random);
  };
  for (int i = 0; i < 150; ++i) {
    // A third anywhere, a third around an entry's beginning or end, a third behind the entries.
    std::uint64_t bytes = below(whole_.size());
    if (i % 3 == 1) {
      const std::uint64_t edge = i % 2 == 0 ? begins_[below(begins_.size())] : ends_[below(ends_.size())];
      bytes = edge + below(120) - std::min<std::uint64_t>(edge, 60);
    }
    if (i % 3 == 2) bytes = ends_.back() + below(whole_.size() - ends_.back());
    ASSERT_TRUE(packFor({SIZE_MAX, bytes}));
    ASSERT_EQ(bytes, fs::exists(archive_) ? fs::file_size(archive_) : 0);
    expectWhatIsThere();
    if (HasFailure()) return;
  }
}

TEST_F(KilledWriter, LeavesEveryWholeEntryWhicheverCallIsItsLast) {
  const unsigned seed = seedOfThisRun();
  SCOPED_TRACE("KQZIP_TEST_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  const std::size_t all = callsOfAll();
  ASSERT_GT(all, 100U);
  std::set<std::uint64_t> sizes;
  for (int i = 0; i < 100; ++i) {
    const std::size_t calls = std::uniform_int_distribution<std::size_t>(0, all - 1)(random);
    SCOPED_TRACE("killed at call " + std::to_string(calls + 1));
    ASSERT_TRUE(packFor({calls, UINT64_MAX}));
    // The tool need not look twice at one archive.
    const std::uint64_t size = fs::exists(archive_) ? fs::file_size(archive_) : 0;
    if (sizes.insert(size).second) expectWhatIsThere();
    if (HasFailure()) return;
  }
}

TEST_F(KilledWriter, IsNotKilledWhenItMayWriteEverything) {
  EXPECT_FALSE(packFor({SIZE_MAX, whole_.size()}));
  expectWhatIsThere();
  EXPECT_EQ(whole_.size(), fs::file_size(archive_));
}

TEST_F(KilledWriter, TheToolKilledFromOutsideLeavesEveryWholeEntry) {
  const unsigned seed = seedOfThisRun();
  SCOPED_TRACE("KQZIP_TEST_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  for (int i = 0; i < 40; ++i) {
    fs::remove(archive_);
    const std::uint64_t enough = std::uniform_int_distribution<std::uint64_t>(0, whole_.size() - 1)(random) %
                                 (i % 2 == 0 ? 70000 : UINT64_MAX);
    const bool isExact = i % 4 < 2;
    std::vector<std::string> command{"create", archive_, tree_ / "tree"};
    if (isExact) command.emplace_back("--exact");
    RunningProgram tool(toolCommand(command));
    // How far beyond that the tool gets is up to the system: here the seed does not repeat a run to the byte.
    waitUntil([&] { return fs::exists(archive_) && fs::file_size(archive_) >= enough; });
    tool.send(SIGKILL);
    const ProcessResult result = tool.finish();
    if (result.exitStatus != 128 + SIGKILL) {
      expectDone(result);
      EXPECT_EQ(whole_.size(), fs::file_size(archive_));
    }
    expectWhatIsThere(isExact);
    if (HasFailure()) return;
  }
}
