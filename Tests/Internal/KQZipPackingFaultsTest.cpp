// Packing when calls of the system fail, sources change and disks are full.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Support/ScriptedSystem.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

namespace fs = std::filesystem;

namespace {

using KQTest::Error;
using KQTest::ScriptedSystem;
using Contents = std::map<std::string, std::string>;

constexpr std::size_t mebibyte = 1048576;

class KQZipPackingFaultsTest : public testing::Test {
 protected:
  KQZipPackingFaultsTest() {
    add("a", "first");
    add("b/large", KQTest::patternBytes(2 * mebibyte + 100));
    add("b/small", std::string(3000, 's'));
    add("c", KQTest::patternBytes(mebibyte / 2, 2));
    add("d/e/deep", "deep");
    add("large too", KQTest::patternBytes(mebibyte + 1, 3));
    add("z", "");
    fs::create_symlink("a", folder / "tree/link");
    expected_["link"] = "a";
    for (const char* const name : {"b/", "d/", "d/e/"}) expected_[name] = "";
    KQTest::writeFile(folder / "out/old.zip", "old");
  }

  void add(const std::string& name, const std::string& contents) {
    KQTest::writeFile(folder / ("tree/" + name), contents);
    expected_[name] = contents;
  }

  std::string archive(bool replacing) const { return folder / (replacing ? "out/old.zip" : "out/new.zip"); }

  // Packs the tree. What it says has to be true, whatever the system does.
  bool pack(KQZipPackingOptions options, KQZipPackingList* list, Error* error) const {
    list->addTree(folder / "tree");
    return list->pack(archive(options.replacing), options, error);
  }

  void expectTruth(bool packed, const KQZipPackingOptions& options, const KQZipPackingList& list,
                   const Error& error, bool mayLeaveTemporary = false) const {
    std::set<std::string> items;
    for (const auto& item : fs::directory_iterator(folder / "out")) {
      const bool isTemporary = item.path().extension() == ".part";
      if (isTemporary && mayLeaveTemporary)
        fs::remove(item.path());
      else
        items.insert(item.path().filename().string());
    }
    if (!packed) {
      EXPECT_NE(nullptr, error);
      EXPECT_EQ(std::set<std::string>{"old.zip"}, items);
      EXPECT_EQ("old", KQTest::readFile(folder / "out/old.zip"));
      return;
    }
    EXPECT_EQ(nullptr, error) << KQTest::describe(error);
    EXPECT_EQ(
        options.replacing ? std::set<std::string>{"old.zip"} : (std::set<std::string>{"new.zip", "old.zip"}),
        items);
    expectSound(archive(options.replacing), list);
  }

  // The archive has everything but what the list names, whole.
  void expectSound(const std::string& packed, const KQZipPackingList& list) const {
    Error error;
    const auto opened = KQZipArchive::open(packed, &error);
    ASSERT_NE(nullptr, opened) << KQTest::describe(error);
    KQZipReport report;
    EXPECT_TRUE(opened->verify({.threads = 1}, report, &error)) << KQTest::describe(error);
    std::set<std::string> leftOut;
    for (const KQZipLeftOut& item : list.leftOut()) leftOut.insert(item.path);
    for (const auto& [name, contents] : expected_) {
      const auto entry = opened->find(name);
      // Of a folder that was not read all below is missing.
      const std::string source = folder / ("tree/" + name);
      const bool isLeftOut = std::any_of(leftOut.begin(), leftOut.end(), [&source](const std::string& path) {
        return source == path || source == path + "/" || source.rfind(path + "/", 0) == 0;
      });
      EXPECT_TRUE(entry || isLeftOut) << name;
      if (!entry) continue;
      const auto data = opened->data(*entry);
      ASSERT_NE(nullptr, data) << name;
      const std::string found(reinterpret_cast<const char*>(data->bytes()), data->length());
      EXPECT_TRUE(contents == found) << name;
    }
  }

  void cleanUp(bool replacing) const {
    fs::remove(archive(false));
    if (replacing) KQTest::writeFile(folder / "out/old.zip", "old");
  }

  KQTest::TemporaryDirectory folder;
  Contents expected_;
};

TEST_F(KQZipPackingFaultsTest, EveryCallMayFail) {
  for (const bool replacing : {false, true}) {
    const KQZipPackingOptions options{.threads = 1, .replacing = replacing, .synchronising = true};
    for (std::size_t number = 1;; ++number) {
      KQZipPackingList list;
      Error error;
      bool packed = false;
      ScriptedSystem::Call failing;
      {
        ScriptedSystem system;
        system.fail({.number = number}, EIO);
        packed = pack(options, &list, &error);
        if (system.count() < number) break;
        failing = system.calls()[number - 1];
      }
      SCOPED_TRACE(std::to_string(number) + " " + failing.name + " " + failing.path);
      // The folder of an archive that has appeared already: its name may not be on the disk.
      const bool isLast = failing.name == "synchronise" && failing.path == folder / "out";
      if (isLast) {
        EXPECT_FALSE(packed);
        expectSound(archive(replacing), list);
      } else {
        expectTruth(packed, options, list, error, failing.name == "remove");
      }
      if (failing.isWrite() || failing.name == "renameToNew" || failing.name == "rename") {
        EXPECT_FALSE(packed);
      }
      cleanUp(replacing);
      ASSERT_LT(number, 1000U);
    }
    cleanUp(replacing);
  }
}

TEST_F(KQZipPackingFaultsTest, CallsMayFailWhileSeveralThreadsWork) {
  std::mt19937 chooser(1);
  for (int round = 0; round < 60; ++round) {
    const KQZipPackingOptions options{.threads = 3, .replacing = round % 2 == 0};
    KQZipPackingList list;
    Error error;
    bool packed = false;
    const std::size_t number = 1 + chooser() % 70;
    std::string name;
    {
      ScriptedSystem system;
      system.fail({.number = number}, EIO);
      packed = pack(options, &list, &error);
      if (system.count() >= number) name = system.calls()[number - 1].name;
    }
    SCOPED_TRACE(std::to_string(number) + " " + name);
    expectTruth(packed, options, list, error, name == "remove");
    cleanUp(options.replacing);
  }
}

TEST_F(KQZipPackingFaultsTest, AFailureThatIsAskedForEndsThePackingAtEachReading) {
  for (std::size_t number = 1;; ++number) {
    KQZipPackingList list;
    Error error;
    bool packed = false;
    std::size_t reads = 0;
    {
      ScriptedSystem system;
      system.fail({.number = number,
                   .matches =
                       [this](const ScriptedSystem::Call& call) {
                         return call.name == "readAt" && call.path.rfind(folder / "tree", 0) == 0;
                       }},
                  EIO);
      packed = pack({.threads = 1, .failingAtOnce = true}, &list, &error);
      for (const auto& call : system.calls())
        reads += call.name == "readAt" && call.path.rfind(folder / "tree", 0) == 0 ? 1 : 0;
    }
    if (reads < number) {
      EXPECT_TRUE(packed);
      break;
    }
    EXPECT_FALSE(packed);
    ASSERT_NE(nullptr, error);
    EXPECT_EQ(EIO, error->code());
    expectTruth(packed, {}, list, error);
  }
}

TEST_F(KQZipPackingFaultsTest, ShortTransfersMakeTheSameArchive) {
  const auto bytesWith = [this](const std::function<void(ScriptedSystem&)>& script, unsigned threads) {
    KQZipPackingList list;
    Error error;
    {
      ScriptedSystem system;
      script(system);
      EXPECT_TRUE(pack({.threads = threads}, &list, &error)) << KQTest::describe(error);
    }
    expectTruth(true, {}, list, error);
    std::string bytes = KQTest::readFile(archive(false));
    cleanUp(false);
    return bytes;
  };
  const std::string plain = bytesWith([](ScriptedSystem&) {}, 1);
  for (const unsigned threads : {1U, 3U}) {
    EXPECT_TRUE(plain == bytesWith([](ScriptedSystem& system) { system.halve({}); }, threads));
    EXPECT_TRUE(plain == bytesWith([](ScriptedSystem& system) { system.lackOptionalCalls(); }, threads));
    EXPECT_TRUE(plain == bytesWith([](ScriptedSystem& system) { system.hideTypes(); }, threads));
  }
}

TEST_F(KQZipPackingFaultsTest, WithoutSecondNamesAnArchiveAppearsAllTheSame) {
  for (const bool isTaken : {false, true}) {
    KQZipPackingList list;
    Error error;
    bool packed = false;
    {
      ScriptedSystem system;
      system.lackOptionalCalls();
      system.fail({.name = "addName"}, EPERM);
      if (isTaken)
        system.act({.name = "addName"},
                   [this](const auto&) { KQTest::writeFile(folder / "out/new.zip", "another's"); });
      packed = pack({.threads = 1}, &list, &error);
    }
    EXPECT_EQ(!isTaken, packed);
    if (isTaken) {
      KQTest::expectError(error, -1, "Could not write to zip path " + archive(false));
      EXPECT_EQ("another's", KQTest::readFile(archive(false)));
    } else {
      expectTruth(packed, {}, list, error);
    }
    cleanUp(false);
  }
}

TEST_F(KQZipPackingFaultsTest, WhatAppearsAtThePathMeanwhileIsNotReplaced) {
  for (const bool isPlain : {false, true}) {
    KQZipPackingList list;
    Error error;
    {
      ScriptedSystem system;
      if (isPlain) system.lackOptionalCalls();
      system.act({.name = isPlain ? "addName" : "renameToNew"},
                 [this](const auto&) { KQTest::writeFile(folder / "out/new.zip", "another's"); });
      EXPECT_FALSE(pack({.threads = 1}, &list, &error));
    }
    KQTest::expectError(error, -1, "Could not write to zip path " + archive(false));
    EXPECT_EQ("another's", KQTest::readFile(archive(false)));
    cleanUp(false);
    EXPECT_EQ(1, std::distance(fs::directory_iterator(folder / "out"), fs::directory_iterator()));
  }
}

TEST_F(KQZipPackingFaultsTest, AFullDiskLeavesEverythingAsItWas) {
  for (std::uint64_t room = 0; room < 3600000; room += 400000) {
    for (const unsigned threads : {1U, 3U}) {
      const KQZipPackingOptions options{.threads = threads, .replacing = true};
      KQZipPackingList list;
      Error error;
      {
        ScriptedSystem system;
        system.limitRoom(room);
        EXPECT_FALSE(pack(options, &list, &error));
      }
      ASSERT_NE(nullptr, error);
      EXPECT_EQ(ENOSPC, error->code());
      expectTruth(false, options, list, error);
    }
  }
}

TEST_F(KQZipPackingFaultsTest, ALargeFileThatChangesItsLengthIsLeftOutAndTheRestIsPacked) {
  const std::string path = folder / "tree/b/large";
  const auto sizes = {0U, 100U, static_cast<unsigned>(mebibyte + 5), static_cast<unsigned>(3 * mebibyte)};
  for (const auto size : sizes) {
    // The file is read in nine steps; the first look at it was before.
    for (const std::size_t number : {1U, 2U, 5U, 9U}) {
      for (const unsigned threads : {1U, 3U}) {
        SCOPED_TRACE(std::to_string(size) + " " + std::to_string(number) + " " + std::to_string(threads));
        KQTest::writeFile(path, expected_["b/large"]);
        KQZipPackingList list;
        Error error;
        bool packed = false;
        {
          ScriptedSystem system;
          system.act({.number = number, .name = "readAt", .path = path},
                     [&](const auto&) { fs::resize_file(path, size); });
          packed = pack({.threads = threads}, &list, &error);
        }
        EXPECT_TRUE(packed);
        ASSERT_EQ(1U, list.leftOut().size());
        EXPECT_EQ(path, list.leftOut()[0].path);
        EXPECT_EQ("it changed while it was packed", list.leftOut()[0].reason);
        expectTruth(packed, {}, list, error);
        cleanUp(false);
      }
    }
  }
}

TEST_F(KQZipPackingFaultsTest, ASmallFileThatChangesIsPackedAsOneReadGaveIt) {
  const std::string path = folder / "tree/b/small";
  for (const std::size_t size : {std::size_t{0}, std::size_t{10}, std::size_t{5000}, 3 * mebibyte}) {
    for (const unsigned threads : {1U, 3U}) {
      KQTest::writeFile(path, std::string(3000, 's'));
      KQZipPackingList list;
      Error error;
      bool packed = false;
      {
        ScriptedSystem system;
        // Once it was opened and looked at.
        system.act({.number = 1, .name = "readAt", .path = path},
                   [&](const auto&) { KQTest::writeFile(path, std::string(size, 's')); });
        packed = pack({.threads = threads}, &list, &error);
      }
      EXPECT_TRUE(packed);
      EXPECT_TRUE(list.leftOut().empty());
      expected_["b/small"] = std::string(size, 's');
      expectTruth(packed, {}, list, error);
      cleanUp(false);
    }
  }
}

TEST_F(KQZipPackingFaultsTest, AFileThatBecomesAPipeOrALinkIsNotFollowed) {
  const std::string path = folder / "tree/c";
  KQZipPackingList list;
  Error error;
  {
    ScriptedSystem system;
    system.act({.name = "open", .path = path}, [&](const auto&) {
      fs::remove(path);
      fs::create_symlink(folder / "out/old.zip", path);
    });
    EXPECT_TRUE(pack({.threads = 1}, &list, &error));
  }
  ASSERT_EQ(1U, list.leftOut().size());
  EXPECT_EQ("Too many levels of symbolic links", list.leftOut()[0].reason);
  expectTruth(true, {}, list, error);
}

TEST_F(KQZipPackingFaultsTest, ALargeFileThatChangesBetweenItsTwoReadingsFailsAStream) {
  const std::string path = folder / "tree/b/large";
  std::string changed = expected_["b/large"];
  changed[1000] = static_cast<char>(changed[1000] + 1);
  KQZipPackingList list;
  list.addTree(folder / "tree");
  KQTest::TestOutputStream stream;
  Error error;
  {
    ScriptedSystem system;
    // The first reading takes nine steps.
    system.act({.number = 10, .name = "readAt", .path = path},
               [&](const auto&) { KQTest::writeFile(path, changed); });
    EXPECT_FALSE(list.pack(stream, {.threads = 1}, &error));
  }
  KQTest::expectError(error, -50, path + " changed while it was packed");
}

TEST_F(KQZipPackingFaultsTest, AStreamThatTakesLessOrNothingIsWrittenAgainOrFails) {
  KQTest::TestOutputStream whole;
  const auto packInto = [this](KQTest::TestOutputStream& stream, Error* error) {
    KQZipPackingList list;
    list.addTree(folder / "tree");
    return list.pack(stream, {.threads = 2}, error);
  };
  Error error;
  ASSERT_TRUE(packInto(whole, &error));
  EXPECT_EQ(1, whole.flushes);
  for (std::size_t number = 1; number <= whole.writes.size(); ++number) {
    KQTest::TestOutputStream shortened;
    shortened.shortenAtWrite = static_cast<std::int64_t>(number);
    EXPECT_TRUE(packInto(shortened, &error));
    EXPECT_TRUE(whole.bytes == shortened.bytes);
    for (const int result : {0, -1}) {
      KQTest::TestOutputStream failing;
      failing.failAtWrite = static_cast<std::int64_t>(number);
      failing.failResult = result;
      EXPECT_FALSE(packInto(failing, &error));
      KQTest::expectError(error, -51, "Error writing file");
    }
  }
  KQTest::TestOutputStream unflushed;
  unflushed.flushResult = false;
  EXPECT_FALSE(packInto(unflushed, &error));
  KQTest::expectError(error, -51, "Error writing file");
}

TEST_F(KQZipPackingFaultsTest, WhatTheDiskGivesBackIsComparedWithWhatWasMeant) {
  // A byte of each local header, of the directory and of the end records is changed behind the library's
  // back.
  for (const std::uint64_t fromEnd : {1U, 60U, 90U, 150U, 1000U}) {
    KQZipPackingList list;
    Error error;
    {
      ScriptedSystem system;
      std::string path;
      system.act({.number = 1,
                  .matches =
                      [](const ScriptedSystem::Call& call) {
                        return call.name == "readAt" && call.path.ends_with(".part");
                      }},
                 [fromEnd](const ScriptedSystem::Call& call) {
                   std::fstream file(call.path, std::ios::in | std::ios::out | std::ios::binary);
                   file.seekg(-static_cast<std::streamoff>(fromEnd), std::ios::end);
                   const char byte = static_cast<char>(file.peek() ^ 1);
                   file.seekp(-static_cast<std::streamoff>(fromEnd), std::ios::end);
                   file.put(byte);
                 });
      EXPECT_FALSE(pack({.threads = 1}, &list, &error)) << fromEnd;
    }
    KQTest::expectError(error, -51, archive(false) + " does not hold what was written to it");
    expectTruth(false, {}, list, error);
  }
}

// The entries of the archive, in order, with where their records begin and end.
struct Record {
  std::string name;
  std::uint64_t start;
  std::uint64_t end;
};

std::vector<Record> recordsOf(const std::string& path) {
  std::vector<Record> records;
  const auto archive = KQZipArchive::open(path);
  if (!archive) return records;
  for (const auto& entry : archive->entries())
    records.push_back(
        {entry.name(), entry.localHeaderOffset(), archive->dataOffset(entry).value_or(0) + entry.length()});
  return records;
}

TEST_F(KQZipPackingFaultsTest, AKilledProcessLeavesATemporaryFileWithEveryEntryBeforeTheFirstThatIsNotWhole) {
  KQZipPackingList packed;
  Error error;
  ASSERT_TRUE(pack({.threads = 1}, &packed, &error));
  const std::string whole = KQTest::readFile(archive(false));
  const std::vector<Record> records = recordsOf(archive(false));
  ASSERT_EQ(expected_.size(), records.size());
  fs::remove(archive(false));
  std::size_t mostEntries = 0;
  for (std::size_t number = 1; number < 200; ++number) {
    const pid_t child = fork();
    if (child == 0) {
      ScriptedSystem system;
      system.act({.number = number}, [](const auto&) { kill(getpid(), SIGKILL); });
      KQZipPackingList list;
      Error failure;
      _exit(pack({.threads = 1}, &list, &failure) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    if (WIFEXITED(status)) break;
    for (const auto& item : fs::directory_iterator(folder / "out")) {
      const std::string path = item.path().string();
      if (path == archive(false)) {
        EXPECT_TRUE(whole == KQTest::readFile(path)) << number;
      } else if (path.ends_with(".part")) {
        const std::string part = KQTest::readFile(path);
        const auto opened = KQZipArchive::open(path);
        std::size_t given = 0;
        for (const Record& record : records) {
          if (part.compare(0, record.end, whole, 0, record.end) != 0) break;
          ASSERT_NE(nullptr, opened) << number;
          const auto entry = opened->find(record.name);
          ASSERT_TRUE(entry) << number << " " << record.name;
          EXPECT_NE(nullptr, opened->data(*entry)) << number << " " << record.name;
          ++given;
        }
        mostEntries = std::max(mostEntries, given);
      }
      if (path != folder / "out/old.zip") fs::remove(path);
    }
    EXPECT_EQ("old", KQTest::readFile(folder / "out/old.zip"));
  }
  EXPECT_EQ(records.size(), mostEntries);
}

TEST_F(KQZipPackingFaultsTest, FewOpenFilesAreEnoughForManyLargeOnes) {
  for (int i = 0; i < 40; ++i) add("many/" + std::to_string(i), std::string(mebibyte + 10, 'm'));
  expected_["many/"] = "";
  KQTest::inChildProcess([this] {
    const rlimit few{20, 20};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    KQZipPackingList list;
    Error error;
    EXPECT_TRUE(pack({.threads = 4}, &list, &error)) << KQTest::describe(error);
    EXPECT_TRUE(list.leftOut().empty());
    expectTruth(true, {}, list, error);
  });
}

TEST_F(KQZipPackingFaultsTest, ASmallFileCostsFourCallsAndAProgressOneMore) {
  const auto callsFor = [this](const std::string& name, int files, bool isWatched) {
    for (int i = 0; i < files; ++i)
      KQTest::writeFile(folder / (name + "/" + std::to_string(i)), std::string(100, 'x'));
    const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
    if (isWatched) all->becomeCurrentWithPendingUnitCount(1);
    KQZipPackingList list;
    list.addTree(folder / name);
    ScriptedSystem system;
    EXPECT_TRUE(list.pack(folder / (name + ".zip"), {.threads = 1}));
    if (isWatched) all->resignCurrent();
    // What is listed, and the local time, are no calls of the system.
    return system.count() - system.count("next") - system.count("localTime");
  };
  const std::size_t base = callsFor("few", 300, false);
  const std::size_t more = callsFor("many", 900, false);
  // Where a folder's list does not tell what its items are, each is asked for once more.
  const std::size_t calls = KQZIP_FOLDERS_TELL_TYPES ? 4 : 5;
  EXPECT_LE(more - base, calls * 600 + 40U);
  EXPECT_LE(callsFor("watched", 900, true) - callsFor("less watched", 300, true), (calls + 1) * 600 + 40U);
}

}  // namespace
