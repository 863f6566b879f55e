// The system that the tests of faults put under the library does what they tell it, and nothing else.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Support/ScriptedSystem.h"
#include "Support/TemporaryDirectory.h"

using namespace KQ;
using namespace KQTest;
namespace fs = std::filesystem;

namespace {

class ScriptedSystemTest : public ::testing::Test {
 protected:
  static NSSystem& system() { return NSSystem::current(); }

  NSHandle create(const std::string& name, unsigned mode = NSOpenToWrite | NSOpenCreating | NSOpenEmptying) {
    const NSHandle opened = system().open(NSCurrentFolder, (directory_ / name).c_str(), mode, 0666);
    EXPECT_LE(0, opened);
    return opened;
  }

  static std::int64_t write(NSHandle file, const std::string& bytes) {
    const NSPiece piece{bytes.data(), bytes.size()};
    return system().write(file, &piece, 1);
  }

  TemporaryDirectory directory_;
};

TEST_F(ScriptedSystemTest, CallsAreRecordedWithWhatTheyConcern) {
  fs::create_directory(directory_ / "folder");
  ScriptedSystem scripted;
  const NSHandle folder = create("folder", NSOpenToRead | NSOpenFolder);
  const NSHandle file = system().open(folder, "file", NSOpenToWrite | NSOpenCreating, 0666);
  EXPECT_EQ(5, write(file, "12345"));
  EXPECT_EQ(2, system().writeAt(file, "ab", 2, 1));
  EXPECT_EQ(0, system().close(file));
  EXPECT_EQ(-ENOENT, system().rename(folder, "nothing", folder, "something"));
  EXPECT_EQ(0, system().close(folder));

  const std::string path = directory_ / "folder/file";
  const std::vector<ScriptedSystem::Call> calls = scripted.calls();
  ASSERT_EQ(7U, calls.size());
  const std::vector<std::pair<std::string, std::string>> expected{{"open", directory_ / "folder"},
                                                                  {"open", path},
                                                                  {"write", path},
                                                                  {"writeAt", path},
                                                                  {"close", path},
                                                                  {"rename", directory_ / "folder/nothing"},
                                                                  {"close", directory_ / "folder"}};
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i].first, calls[i].name) << i;
    EXPECT_EQ(expected[i].second, calls[i].path) << i;
  }
  EXPECT_EQ(5U, calls[2].length);
  EXPECT_EQ(1U, calls[3].offset);
  EXPECT_EQ(directory_ / "folder/something", calls[5].otherPath);
  EXPECT_EQ(-ENOENT, calls[5].result);
  EXPECT_EQ(7U, scripted.bytesWritten());
  EXPECT_EQ(2U, scripted.count("open"));
  EXPECT_EQ("1ab45", readFile(path));
}

TEST_F(ScriptedSystemTest, OnlyTheCallsThatWereNamedFail) {
  ScriptedSystem scripted;
  scripted.fail({.number = 2, .name = "write", .path = directory_ / "b"}, EIO);
  scripted.fail({.number = 4, .andLater = true, .name = "write"}, ENOSPC);
  const NSHandle a = create("a");
  const NSHandle b = create("b");
  EXPECT_EQ(1, write(a, "1"));
  EXPECT_EQ(1, write(b, "1"));
  EXPECT_EQ(-EIO, write(b, "2"));
  EXPECT_EQ(-ENOSPC, write(a, "2"));
  EXPECT_EQ(-ENOSPC, write(a, "2"));
  EXPECT_EQ(0, system().close(a));
  EXPECT_EQ(0, system().close(b));
  EXPECT_EQ("1", readFile(directory_ / "a"));
  EXPECT_EQ("1", readFile(directory_ / "b"));
}

TEST_F(ScriptedSystemTest, TransfersAreCutShort) {
  ScriptedSystem scripted;
  scripted.halve({.number = 1, .name = "write"});
  scripted.shorten({.number = 2, .name = "write"}, 3);
  const NSHandle file = create("file");
  EXPECT_EQ(4, write(file, "12345678"));
  EXPECT_EQ(3, write(file, "abcdefgh"));
  EXPECT_EQ(0, system().close(file));
  EXPECT_EQ("1234abc", readFile(directory_ / "file"));
}

TEST_F(ScriptedSystemTest, AFileWhoseClosingFailsLosesWhatWasWritten) {
  writeFile(directory_ / "in place", "0123456789");
  ScriptedSystem scripted;
  scripted.fail({.name = "close"}, EIO);
  const NSHandle made = create("new");
  EXPECT_EQ(10, write(made, "0123456789"));
  EXPECT_EQ(-EIO, system().close(made));
  EXPECT_EQ("01234", readFile(directory_ / "new"));
  const NSHandle changed = create("in place", NSOpenToRead | NSOpenToWrite);
  EXPECT_EQ(2, system().writeAt(changed, "ab", 2, 0));
  EXPECT_EQ(2, system().writeAt(changed, "cd", 2, 4));
  EXPECT_EQ(-EIO, system().close(changed));
  EXPECT_EQ("0123cd6789", readFile(directory_ / "in place")) << "the first is gone, the second is not";
  for (const NSHandle file : {made, changed}) EXPECT_EQ(-EBADF, NSSystem().close(file));
}

TEST_F(ScriptedSystemTest, WhatIsOptionalIsNotHere) {
  writeFile(directory_ / "source", "0123456789");
  ScriptedSystem scripted;
  scripted.lackOptionalCalls();
  const NSHandle source = create("source", NSOpenToRead);
  const NSHandle target = create("target");
  EXPECT_EQ(-ENOSYS, system().sendAt(target, source, 5, 0));
  EXPECT_EQ(-ENOSYS, system().copyAt(target, 0, source, 0, 5));
  EXPECT_EQ(-ENOSYS, system().reserve(target, 5));
  EXPECT_EQ(-ENOSYS, system().willReadAll(source));
  EXPECT_EQ(-ENOSYS, system().openBeneath(NSCurrentFolder, "any", NSOpenToRead, 0));
  EXPECT_EQ(-ENOSYS, system().renameToNew(NSCurrentFolder, "any", NSCurrentFolder, "other"));
  EXPECT_EQ(5, write(target, "plain"));
  for (const NSHandle file : {source, target}) EXPECT_EQ(0, system().close(file));
}

TEST_F(ScriptedSystemTest, TheRoomIsForAllFilesTogether) {
  ScriptedSystem scripted;
  int ends = 0;
  scripted.limitRoom(10, [&ends] { ++ends; });
  const NSHandle a = create("a");
  const NSHandle b = create("b");
  EXPECT_EQ(6, write(a, "123456"));
  EXPECT_EQ(0, ends);
  EXPECT_EQ(4, system().writeAt(b, "abcdef", 6, 0));
  EXPECT_EQ(1, ends);
  EXPECT_EQ(-ENOSPC, write(a, "7"));
  EXPECT_EQ(1, ends);
  for (const NSHandle file : {a, b}) EXPECT_EQ(0, system().close(file));
  EXPECT_EQ("123456", readFile(directory_ / "a"));
  EXPECT_EQ("abcd", readFile(directory_ / "b"));
}

TEST_F(ScriptedSystemTest, AFolderThatCannotBeListedIsClosedAndAListingMayFailLater) {
  writeFile(directory_ / "one", "");
  writeFile(directory_ / "two", "");
  ScriptedSystem scripted;
  scripted.hideTypes();
  scripted.fail({.number = 1, .name = "list"}, EMFILE);
  scripted.fail({.number = 2, .name = "next"}, EIO);
  const NSHandle closed = create("", NSOpenToRead | NSOpenFolder);
  std::unique_ptr<NSFolderListing> listing;
  EXPECT_EQ(-EMFILE, system().list(closed, &listing));
  EXPECT_EQ(-EBADF, NSSystem().close(closed));
  ASSERT_EQ(0, system().list(create("", NSOpenToRead | NSOpenFolder), &listing));
  NSListedItem item;
  EXPECT_EQ(1, listing->next(&item));
  EXPECT_EQ(NSItemType::Unknown, item.type);
  EXPECT_EQ(-EIO, listing->next(&item));
  EXPECT_EQ(1, listing->next(&item));
  EXPECT_EQ(0, listing->next(&item));
}

TEST_F(ScriptedSystemTest, AnyThreadMayCallAndEveryCallIsCountedOnce) {
  constexpr std::size_t rounds = 200;
  ScriptedSystem scripted;
  scripted.fail({.number = 3 * rounds, .name = "write"}, EIO);
  scripted.limitRoom(3 * rounds);
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([this, number] {
      const NSHandle file = create(std::to_string(number));
      for (std::size_t i = 0; i < rounds; ++i) write(file, "x");
      EXPECT_EQ(0, system().close(file));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(4 * rounds, scripted.count("write"));
  EXPECT_EQ(3 * rounds, scripted.bytesWritten());
  std::uint64_t size = 0;
  for (int number = 0; number < 4; ++number) size += fs::file_size(directory_ / std::to_string(number));
  EXPECT_EQ(3 * rounds, size);
}

TEST_F(ScriptedSystemTest, OtherThreadsMayBeLeftAlone) {
  ScriptedSystem scripted(ScriptedSystem::Threads::TheMakers);
  scripted.fail({.name = "write"}, EIO);
  const NSHandle file = create("file");
  std::thread([file] { EXPECT_EQ(2, write(file, "ok")); }).join();
  EXPECT_EQ(-EIO, write(file, "not"));
  EXPECT_EQ(1U, scripted.count("write"));
  EXPECT_EQ(0, system().close(file));
}

TEST_F(ScriptedSystemTest, ItIsGoneWithItsScript) {
  {
    ScriptedSystem scripted;
    scripted.fail({}, EIO);
    EXPECT_EQ(-EIO, system().open(NSCurrentFolder, (directory_ / "a").c_str(), NSOpenToRead, 0));
  }
  EXPECT_EQ(0, system().close(create("a")));
}

}  // namespace
