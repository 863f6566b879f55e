// Packing a list of sources: the exact form, what is chosen, what is left out, and where the archive appears.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

namespace fs = std::filesystem;

namespace {

using KQTest::Error;
using Names = std::vector<std::string>;
using Why = KQZipLeftOut::Why;

constexpr std::size_t mebibyte = 1048576;

KQZipPackingOptions exact(unsigned threads = 1) { return {.form = KQZipForm::Exact, .threads = threads}; }

KQ::NSDate dateOf(long long seconds) { return KQ::NSDate(std::chrono::seconds(seconds)); }

Names namesOf(const KQZipPackingList& list) {
  Names names;
  for (std::size_t i = 0; i < list.count(); ++i) names.push_back(list.item(i).name);
  return names;
}

// "path: reason" of each, the path without the folder in front.
Names leftOutOf(const KQZipPackingList& list, const std::string& folder = {}) {
  Names items;
  for (const KQZipLeftOut& item : list.leftOut()) {
    const bool isInside = !folder.empty() && item.path.rfind(folder + "/", 0) == 0;
    items.push_back((isInside ? item.path.substr(folder.size() + 1) : item.path) + ": " + item.reason);
  }
  return items;
}

// Names and data as the library's own archive has them.
std::vector<std::pair<std::string, std::string>> contentsOf(const std::string& path) {
  std::vector<std::pair<std::string, std::string>> contents;
  Error error;
  const auto archive = KQZipArchive::open(path, &error);
  EXPECT_NE(nullptr, archive) << KQTest::describe(error);
  if (!archive) return contents;
  EXPECT_TRUE(archive->problems().empty());
  for (const auto& entry : archive->entries()) {
    const auto data = archive->data(entry, &error);
    EXPECT_NE(nullptr, data) << entry.name() << KQTest::describe(error);
    if (data)
      contents.emplace_back(entry.name(),
                            std::string(reinterpret_cast<const char*>(data->bytes()), data->length()));
  }
  return contents;
}

std::string memoryArchive(KQZipPackingList& list, const KQZipPackingOptions& options) {
  const auto stream = KQ::NSOutputStream::outputStreamToMemory();
  stream->open();
  Error error;
  EXPECT_TRUE(list.pack(*stream, options, &error)) << KQTest::describe(error);
  const auto data = stream->NSStreamDataWrittenToMemoryStreamKey();
  return {reinterpret_cast<const char*>(data->bytes()), data->length()};
}

Names itemsIn(const std::string& folder) {
  Names names;
  for (const auto& item : fs::directory_iterator(folder)) names.push_back(item.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// A tree that depends on the seed alone: names that are hidden, not ASCII, composed and decomposed; files
// that are empty, small, about as large as a block, and larger; links and empty folders.
class RandomTree {
 public:
  RandomTree(std::string root, unsigned seed) : root_(std::move(root)), chooser_(seed) {
    fs::create_directory(root_);
    fill(root_, 3);
  }

 private:
  void fill(const std::string& folder, int depth) {
    const unsigned items = 3 + below(30);
    for (unsigned i = 0; i < items && left_ > 0; ++i, --left_) {
      const std::string path = folder + "/" + name();
      if (fs::exists(fs::symlink_status(path))) continue;
      const unsigned kind = below(20);
      if (kind < 3 && depth > 0) {
        fs::create_directory(path);
        fill(path, depth - 1);
      } else if (kind == 3) {
        fs::create_directory(path);
      } else if (kind == 4) {
        fs::create_symlink("target", path);
      } else {
        KQTest::writeFile(path, noise_.substr(below(1000), size()));
        KQTest::setModificationDate(path, static_cast<long long>(below(2000000000)), below(1000000000));
      }
    }
  }

  std::string name() {
    static const std::vector<std::string> parts{
        "a", "B", "z", ".", "-", " ", "é", "e\xCC\x81", "o\xCC\x88", "\xF0\x9F\x98\x80", "_", "0", "~"};
    std::string name;
    const unsigned length = 1 + below(4);
    for (unsigned i = 0; i < length; ++i) name += parts[below(static_cast<unsigned>(parts.size()))];
    return name == "." || name == ".." ? "dots" : name;
  }

  std::size_t size() {
    const unsigned kind = below(100);
    if (kind == 0) return mebibyte - 200 + below(400);
    if (kind == 1) return mebibyte + below(3 * mebibyte);
    if (kind < 5) return 100000 + below(900000);
    if (kind < 10) return 0;
    return below(5000);
  }

  unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(chooser_); }

  std::string root_;
  std::mt19937 chooser_;
  std::string noise_ = KQTest::patternBytes(4 * mebibyte);
  unsigned left_ = 250;
};

class KQZipPackingListTest : public testing::Test {
 protected:
  std::string pack(KQZipPackingList& list, const KQZipPackingOptions& options = {.threads = 1}) const {
    const std::string path = tree / "packed.zip";
    fs::remove(path);
    Error error;
    EXPECT_TRUE(list.pack(path, options, &error)) << KQTest::describe(error);
    return path;
  }

  KQTest::SourceTree tree;
};

// The exact form

TEST_F(KQZipPackingListTest, TheExactFormIsWhatTheWriterMakesOfRandomTrees) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    const std::string folder = tree / ("tree-" + std::to_string(seed));
    const RandomTree random(folder, seed);
    const bool keepsName = seed % 2 == 0;
    ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(tree / "writer.zip", folder, keepsName));
    const std::string expected = KQTest::readFile(tree / "writer.zip");
    for (const unsigned threads : {1U, 2U, 5U}) {
      KQZipPackingList list;
      list.addTree(folder, {.name = keepsName ? KQ::lastPathComponent(folder) : ""});
      EXPECT_TRUE(expected == KQTest::readFile(pack(list, exact(threads)))) << seed << " " << threads;
      EXPECT_TRUE(expected == memoryArchive(list, exact(threads))) << seed << " " << threads;
    }
    fs::remove(tree / "writer.zip");
  }
}

TEST_F(KQZipPackingListTest, TheInteroperableFormIsTheSameForEveryNumberOfThreads) {
  const RandomTree random(tree / "tree", 7);
  std::string first;
  for (const unsigned threads : {1U, 2U, 3U, 5U, 0U}) {
    KQZipPackingList list;
    list.addTree(tree / "tree");
    const std::string packed = KQTest::readFile(pack(list, {.threads = threads}));
    EXPECT_TRUE(packed == memoryArchive(list, {.threads = threads}));
    if (first.empty()) first = packed;
    EXPECT_TRUE(first == packed) << threads;
  }
}

TEST_F(KQZipPackingListTest, TheExactFormOfDatesOutsideOfTheRangeWrapsAsTheWritersDoes) {
  for (const long long seconds : {0LL, 315532799LL, 2208988800LL, 4417858800LL, -3000000000LL, 1LL})
    KQTest::setModificationDate(tree.file("tree/" + std::to_string(seconds), "x"), seconds);
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(tree / "writer.zip", tree / "tree", false));
  KQZipPackingList list;
  list.addTree(tree / "tree");
  EXPECT_TRUE(KQTest::readFile(tree / "writer.zip") == KQTest::readFile(pack(list, exact())));
}

TEST_F(KQZipPackingListTest, TheExactFormNamesWhatItHasNoPlaceFor) {
  tree.file("tree/a.txt", "a");
  tree.file("tree/.hidden", "h");
  tree.file("tree/.folder/b.txt", "b");
  fs::create_directory(tree / "tree/empty");
  fs::create_symlink("a.txt", tree / "tree/link");
  KQZipPackingList list;
  list.addTree(tree / "tree");
  list.addFolder("f");
  list.addLink("a.txt", "l");
  pack(list, exact());
  EXPECT_EQ((Names{".folder/b.txt", "a.txt"}), namesOf(list));
  EXPECT_EQ((Names{".hidden: it is hidden", "empty: it is a folder", "link: it is a link",
                   "f: it is a folder", "l: it is a link"}),
            leftOutOf(list, tree / "tree"));
}

TEST_F(KQZipPackingListTest, AnEmptyListGivesAnArchiveWithoutEntries) {
  KQZipFileWriter writer;
  ASSERT_TRUE(writer.writeToZipPath(tree / "writer.zip"));
  KQZipPackingList list;
  EXPECT_EQ(KQTest::readFile(tree / "writer.zip"), KQTest::readFile(pack(list, exact())));
  EXPECT_EQ(98U, KQTest::readFile(pack(list)).size());
}

// Sources

TEST_F(KQZipPackingListTest, SourcesOfEveryKindArePackedInTheOrderOfTheirNames) {
  const std::string large = KQTest::patternBytes(3 * mebibyte + 17, 3);
  tree.file("tree/file", "from a tree");
  fs::create_symlink("file", tree / "tree/link");
  KQTest::TestInputStream stream(large);
  const auto shared = std::shared_ptr<KQ::NSInputStream>(std::shared_ptr<void>(), &stream);
  for (const unsigned threads : {1U, 3U}) {
    stream.position = 0;
    KQZipPackingList list;
    list.addTree(tree / "tree", {.name = "tree"});
    list.addItem(tree.file("single", "an item"), "item");
    list.addItem(tree / "tree", "folder");
    list.addItem(tree / "tree/link", "followed");
    list.addItem(tree / "tree/link", "kept", KQZipLinks::Keep);
    list.addData("bytes", "data");
    list.addData(std::shared_ptr<const KQ::NSData>(), "nothing");
    list.addData(large, "large data");
    list.addStream(shared, large.size(), "stream");
    list.addFolder("made folder");
    list.addLink("anywhere", "made link");
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"data", "bytes"},
                                                                {"folder/", ""},
                                                                {"followed", "from a tree"},
                                                                {"item", "an item"},
                                                                {"kept", "file"},
                                                                {"large data", large},
                                                                {"made folder/", ""},
                                                                {"made link", "anywhere"},
                                                                {"nothing", ""},
                                                                {"stream", large},
                                                                {"tree/", ""},
                                                                {"tree/file", "from a tree"},
                                                                {"tree/link", "file"}}),
              contentsOf(pack(list, {.threads = threads})));
    EXPECT_EQ(Names(), leftOutOf(list));
  }
}

TEST_F(KQZipPackingListTest, AStreamThatEndsEarlyOrFailsIsLeftOutAndTheRestIsPacked) {
  for (const std::size_t length : {100U, 2000000U}) {
    const auto shorter = std::make_shared<KQTest::TestInputStream>(std::string(length - 1, 's'));
    const auto failing = std::make_shared<KQTest::TestInputStream>(std::string(length, 'f'));
    failing->failAtRead = 1;
    KQZipPackingList list;
    list.addStream(shorter, length, "b");
    list.addStream(failing, length, "c");
    list.addData("a", "a");
    list.addData("d", "d");
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"a", "a"}, {"d", "d"}}),
              contentsOf(pack(list)));
    EXPECT_EQ((Names{"b: it changed while it was packed", "c: Input/output error"}), leftOutOf(list));
  }
}

TEST_F(KQZipPackingListTest, AStreamGoesIntoAStreamWhenItIsSmallOrCanGoBack) {
  const std::string large = KQTest::patternBytes(2 * mebibyte, 4);
  const auto back = std::make_shared<KQTest::TestInputStream>("skipped" + large);
  back->position = 7;
  const auto forward = std::make_shared<KQTest::TestInputStream>("small");
  forward->hasOffset = false;
  const auto tooLarge = std::make_shared<KQTest::TestInputStream>(large);
  tooLarge->hasOffset = false;
  KQZipPackingList list;
  list.addStream(back, large.size(), "back");
  list.addStream(forward, 5, "forward");
  list.addStream(tooLarge, large.size(), "too large");
  KQTest::writeFile(tree / "s.zip", memoryArchive(list, {}));
  EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"back", large}, {"forward", "small"}}),
            contentsOf(tree / "s.zip"));
  EXPECT_EQ((Names{"too large: Illegal seek"}), leftOutOf(list));
}

TEST_F(KQZipPackingListTest, EntriesHaveDateAndPermissionsOfTheirOwnWhereGiven) {
  KQTest::setModificationDate(tree.file("file", "x"), 1234567891);
  ASSERT_EQ(0, ::chmod((tree / "file").c_str(), 0640));
  KQZipPackingList list;
  list.addItem(tree / "file", "as it is");
  list.addItem(tree / "file", "given", KQZipLinks::Keep, {.date = dateOf(1000000001), .permissions = 04604});
  list.addData("x", "data", {.date = dateOf(-1), .permissions = 0400});
  list.addFolder("folder", {.date = dateOf(3), .permissions = 0711});
  const auto archive = KQZipArchive::open(pack(list));
  ASSERT_NE(nullptr, archive);
  const auto expect = [&archive](const char* name, long long seconds, unsigned permissions) {
    const auto entry = archive->find(name);
    ASSERT_TRUE(entry) << name;
    EXPECT_EQ(dateOf(seconds), entry->modificationDate()) << name;
    EXPECT_EQ(permissions, entry->permissions()) << name;
  };
  expect("as it is", 1234567891, 0640);
  expect("given", 1000000001, 0604);
  expect("data", -1, 0400);
  expect("folder/", 3, 0711);
}

TEST_F(KQZipPackingListTest, AListMayBePackedAgain) {
  KQZipPackingList list;
  list.addItem(tree.file("file", "first"), "file");
  pack(list);
  tree.file("file", "second, which is longer");
  EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"file", "second, which is longer"}}),
            contentsOf(pack(list)));
}

// What is chosen

TEST_F(KQZipPackingListTest, ATreeIsTakenWholeUnlessAskedOtherwise) {
  tree.file("tree/.git/config", "c");
  tree.file("tree/.env", "e");
  fs::create_directory(tree / "tree/empty");
  fs::create_symlink("nowhere", tree / "tree/dangling");
  KQZipPackingList list;
  list.addTree(tree / "tree");
  pack(list);
  EXPECT_EQ((Names{".env", ".git/", ".git/config", "dangling", "empty/"}), namesOf(list));
  EXPECT_EQ(Names(), leftOutOf(list));
}

TEST_F(KQZipPackingListTest, HiddenFoldersAreLeftOutWithAllBelow) {
  tree.file("tree/.git/config", "c");
  tree.file("tree/.env", "e");
  tree.file("tree/seen/.unseen", "u");
  KQZipPackingList list;
  list.addTree(tree / "tree", {.hidden = false});
  pack(list);
  EXPECT_EQ(Names{"seen/"}, namesOf(list));
  EXPECT_EQ((Names{".env: it is hidden", ".git: it is hidden", "seen/.unseen: it is hidden"}),
            leftOutOf(list, tree / "tree"));
  for (const KQZipLeftOut& item : list.leftOut()) EXPECT_EQ(Why::Chosen, item.why);
}

TEST_F(KQZipPackingListTest, LinksAreKeptFollowedOrLeftOut) {
  tree.file("tree/folder/file", "f");
  fs::create_symlink("folder/file", tree / "tree/to file");
  fs::create_symlink("folder", tree / "tree/to folder");
  fs::create_symlink("..", tree / "tree/folder/up");
  fs::create_symlink("itself", tree / "tree/itself");
  fs::create_symlink("nowhere", tree / "tree/dangling");
  const auto namesWith = [this](KQZipLinks links, Names* leftOut) {
    KQZipPackingList list;
    list.addTree(tree / "tree", {.links = links});
    pack(list);
    *leftOut = leftOutOf(list, tree / "tree");
    return namesOf(list);
  };
  Names leftOut;
  EXPECT_EQ((Names{"dangling", "folder/", "folder/file", "folder/up", "itself", "to file", "to folder"}),
            namesWith(KQZipLinks::Keep, &leftOut));
  EXPECT_EQ(Names(), leftOut);
  EXPECT_EQ((Names{"folder/", "folder/file", "to file", "to folder/", "to folder/file"}),
            namesWith(KQZipLinks::Follow, &leftOut));
  EXPECT_EQ(
      (Names{"dangling: No such file or directory", "folder/up: Too many levels of symbolic links",
             "itself: Too many levels of symbolic links", "to folder/up: Too many levels of symbolic links"}),
      leftOut);
  EXPECT_EQ((Names{"folder/", "folder/file"}), namesWith(KQZipLinks::LeaveOut, &leftOut));
  EXPECT_EQ((Names{"dangling: it is a link", "folder/up: it is a link", "itself: it is a link",
                   "to file: it is a link", "to folder: it is a link"}),
            leftOut);
}

TEST_F(KQZipPackingListTest, PatternsIncludeAndExclude) {
  tree.file("tree/src/a.c", "a");
  tree.file("tree/src/a.o", "o");
  tree.file("tree/src/deep/b.c", "b");
  tree.file("tree/docs/c.md", "c");
  KQZipPackingList list;
  list.addTree(tree / "tree", {.name = "p", .including = {"*.c", "p/docs"}, .excluding = {"p/src/deep"}});
  pack(list);
  EXPECT_EQ((Names{"p/docs/", "p/docs/c.md", "p/src/a.c"}), namesOf(list));
  EXPECT_EQ((Names{"src/a.o: not included", "src/deep: it is excluded"}), leftOutOf(list, tree / "tree"));
}

TEST_F(KQZipPackingListTest, WhatIsNoFileFolderOrLinkIsNamed) {
  fs::create_directory(tree / "tree");
  ASSERT_EQ(0, ::mkfifo((tree / "tree/pipe").c_str(), 0600));
  KQZipPackingList list;
  list.addTree(tree / "tree");
  list.addItem(tree / "tree/pipe", "again");
  pack(list);
  ASSERT_EQ(2U, list.leftOut().size());
  for (const KQZipLeftOut& item : list.leftOut()) {
    EXPECT_EQ(tree / "tree/pipe", item.path);
    EXPECT_EQ("it is no file, folder or link", item.reason);
    EXPECT_EQ(Why::Special, item.why);
  }
}

TEST_F(KQZipPackingListTest, ExaminingTellsWhatWouldBePackedAndWritesNothing) {
  tree.file("tree/a", "12345");
  tree.file("tree/.b", "x");
  KQZipPackingList list;
  list.addTree(tree / "tree", {.hidden = false});
  list.addData("123", "data");
  ASSERT_TRUE(list.examine());
  ASSERT_EQ((Names{"a", "data"}), namesOf(list));
  EXPECT_EQ(5U, list.item(0).length);
  EXPECT_EQ(3U, list.item(1).length);
  EXPECT_EQ(Names{".b: it is hidden"}, leftOutOf(list, tree / "tree"));
  EXPECT_EQ(Names{"tree"}, itemsIn(tree.path()));
}

// What cannot be packed

TEST_F(KQZipPackingListTest, WhatCannotBeReadIsNamedAndLeftOut) {
  tree.file("tree/a", "a");
  tree.file("tree/closed", "c");
  tree.file("tree/shut/inside", "i");
  tree.file("tree/bad\xFF", "b");
  tree.file("tree/z", "z");
  fs::permissions(tree / "tree/closed", fs::perms::none);
  fs::permissions(tree / "tree/shut", fs::perms::none);
  KQTest::inUnprivilegedChildProcess([this] {
    const KQTest::TemporaryDirectory folder;
    KQZipPackingList list;
    list.addTree(tree / "tree");
    list.addItem(tree / "missing", "missing");
    Error error;
    EXPECT_TRUE(list.pack(folder / "a.zip", {}, &error));
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ((Names{"a", "shut/", "z"}), namesOf(list));
    const std::string illegal = std::generic_category().message(EILSEQ);
    EXPECT_EQ((Names{"bad\xFF: " + illegal, "shut: Permission denied",
                     (tree / "missing") + ": No such file or directory", "closed: Permission denied"}),
              leftOutOf(list, tree / "tree"));
    for (const KQZipLeftOut& item : list.leftOut()) EXPECT_EQ(Why::Failed, item.why);
  });
  fs::permissions(tree / "tree/shut", fs::perms::all);
}

TEST_F(KQZipPackingListTest, TheFirstFailureFailsTheWholeWhenAsked) {
  tree.file("tree/a", "a");
  tree.file("tree/closed", "c");
  fs::permissions(tree / "tree/closed", fs::perms::none);
  KQTest::inUnprivilegedChildProcess([this] {
    const KQTest::TemporaryDirectory folder;
    KQZipPackingList list;
    list.addTree(tree / "tree");
    for (const unsigned threads : {1U, 4U}) {
      Error error;
      EXPECT_FALSE(list.pack(folder / "a.zip", {.threads = threads, .failingAtOnce = true}, &error));
      KQTest::expectError(error, "NSPOSIXErrorDomain", EACCES,
                          (tree / "tree/closed") + ": Permission denied");
      EXPECT_EQ(Names(), itemsIn(folder.path()));
    }
  });
}

TEST_F(KQZipPackingListTest, TwoSourcesWithOneNameAreRefusedBeforeAnythingIsWritten) {
  const auto expectRefused = [this](KQZipPackingList& list, const std::string& name) {
    Error error;
    EXPECT_FALSE(list.pack(tree / "a.zip", {}, &error));
    KQTest::expectError(error, KQZipErrorSourceRefused, name + " is the name of two sources");
    EXPECT_FALSE(list.examine({}, &error));
    EXPECT_FALSE(fs::exists(tree / "a.zip"));
  };
  KQZipPackingList same;
  same.addData("1", "x/y");
  same.addData("2", "x/y");
  expectRefused(same, "x/y");
  KQZipPackingList folders;
  folders.addFolder("f");
  folders.addFolder("f/");
  expectRefused(folders, "f");
  KQZipPackingList above;
  above.addData("1", "x");
  above.addData("2", "x-y");
  above.addData("3", "x/y/z");
  expectRefused(above, "x");
  KQZipPackingList fileAndFolder;
  fileAndFolder.addData("1", "x");
  fileAndFolder.addFolder("x");
  expectRefused(fileAndFolder, "x");
}

TEST_F(KQZipPackingListTest, NamesThatLeadElsewhereAreRefused) {
  for (const std::string name : {"", "/", "/a", "../a", "a/../b", "a//b", "./a", "a/.", "..", "a\xFF"}) {
    KQZipPackingList list;
    list.addData("x", name);
    Error error;
    EXPECT_FALSE(list.pack(tree / "a.zip", {}, &error)) << name;
    EXPECT_NE(nullptr, error);
    if (error) {
      EXPECT_EQ(KQZipErrorSourceRefused, error->code());
    }
  }
  KQZipPackingList list;
  list.addData("x", std::string(65535, 'n'));
  EXPECT_FALSE(list.pack(tree / "a.zip"));
  KQZipPackingList fitting;
  fitting.addData("x", std::string(65534, 'n'));
  EXPECT_TRUE(fitting.pack(tree / "a.zip"));
}

// Where the archive appears

TEST_F(KQZipPackingListTest, APathWhereSomethingIsIsRefused) {
  tree.file("a.zip", "old");
  fs::create_symlink("nowhere", tree / "link.zip");
  fs::create_directory(tree / "folder.zip");
  KQZipPackingList list;
  list.addData("x", "x");
  const Names before = itemsIn(tree.path());
  for (const char* const name : {"a.zip", "link.zip", "folder.zip"}) {
    Error error;
    EXPECT_FALSE(list.pack(tree / name, {}, &error));
    KQTest::expectError(error, -1, "Could not write to zip path " + tree / name);
  }
  Error error;
  EXPECT_FALSE(list.pack(tree / "folder.zip", {.replacing = true}, &error));
  KQTest::expectError(error, -1, "Could not write to zip path " + tree / "folder.zip");
  for (const char* const name : {"missing/b.zip", "a.zip/b.zip"}) {
    EXPECT_FALSE(list.pack(tree / name, {}, &error));
    KQTest::expectError(
        error, -1, "Could not write to zip path " + tree / name + " because parent directory doesn't exist");
  }
  EXPECT_EQ(before, itemsIn(tree.path()));
  EXPECT_EQ("old", KQTest::readFile(tree / "a.zip"));
}

TEST_F(KQZipPackingListTest, AnArchiveIsReplacedWithItsPermissionsWhenAsked) {
  tree.file("a.zip", "old");
  ASSERT_EQ(0, ::chmod((tree / "a.zip").c_str(), 0600));
  KQZipPackingList list;
  list.addData("x", "x");
  ASSERT_TRUE(list.pack(tree / "a.zip", {.replacing = true, .synchronising = true}));
  EXPECT_EQ(1U, contentsOf(tree / "a.zip").size());
  EXPECT_EQ(fs::perms(0600), fs::status(tree / "a.zip").permissions());
  EXPECT_EQ(Names{"a.zip"}, itemsIn(tree.path()));
}

TEST_F(KQZipPackingListTest, AReplacedLinkIsReplacedItself) {
  tree.file("old", "old");
  fs::create_symlink("old", tree / "a.zip");
  KQZipPackingList list;
  list.addData("x", "x");
  ASSERT_TRUE(list.pack(tree / "a.zip", {.replacing = true}));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(tree / "a.zip")));
  EXPECT_EQ("old", KQTest::readFile(tree / "old"));
}

TEST_F(KQZipPackingListTest, TheReplacedArchiveIsNotPacked) {
  tree.file("tree/a.zip", "old");
  tree.file("tree/b", "b");
  fs::create_hard_link(tree / "tree/a.zip", tree / "tree/c");
  KQZipPackingList list;
  list.addTree(tree / "tree");
  ASSERT_TRUE(list.pack(tree / "tree/a.zip", {.replacing = true}));
  EXPECT_EQ(Names{"b"}, namesOf(list));
  EXPECT_EQ((Names{"a.zip: the archive", "c: the archive"}), leftOutOf(list, tree / "tree"));
  EXPECT_EQ(Why::Archive, list.leftOut()[0].why);
}

TEST_F(KQZipPackingListTest, ANameWithoutRoomForTheTemporaryOneIsTaken) {
  for (const std::string& name :
       {std::string(255, 'n'), std::string(83, 'x') + "é" + std::string(170, 'n')}) {
    KQZipPackingList list;
    list.addData("x", "x");
    Error error;
    EXPECT_TRUE(list.pack(tree / name, {}, &error)) << KQTest::describe(error);
    EXPECT_EQ(Names{name}, itemsIn(tree.path()));
    fs::remove(tree / name);
  }
}

TEST_F(KQZipPackingListTest, AFolderThatCannotBeListedTakesAnArchive) {
  fs::create_directory(tree / "drop");
  fs::permissions(tree / "drop", fs::perms(0333));
  KQTest::inUnprivilegedChildProcess([this] {
    KQZipPackingList list;
    list.addData("x", "x");
    Error error;
    EXPECT_TRUE(list.pack(tree / "drop/a.zip", {.synchronising = true}, &error)) << KQTest::describe(error);
  });
  fs::permissions(tree / "drop", fs::perms::all);
  EXPECT_EQ(Names{"a.zip"}, itemsIn(tree / "drop"));
}

TEST_F(KQZipPackingListTest, AFolderThatTakesNoFilesIsNamedWithTheArchive) {
  fs::create_directory(tree / "locked");
  fs::permissions(tree / "locked", fs::perms(0555));
  KQTest::inUnprivilegedChildProcess([this] {
    KQZipPackingList list;
    list.addData("x", "x");
    Error error;
    EXPECT_FALSE(list.pack(tree / "locked/a.zip", {}, &error));
    KQTest::expectError(error, "NSPOSIXErrorDomain", EACCES, (tree / "locked/a.zip") + ": Permission denied");
  });
}

// Progress

TEST_F(KQZipPackingListTest, ProgressCountsBytesAndEnds) {
  tree.file("tree/small", std::string(1000, 's'));
  tree.file("tree/large", std::string(3 * mebibyte, 'l'));
  KQZipPackingList list;
  list.addTree(tree / "tree");
  for (const unsigned threads : {1U, 3U}) {
    const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
    all->becomeCurrentWithPendingUnitCount(1);
    pack(list, {.threads = threads});
    EXPECT_DOUBLE_EQ(1, all->fractionCompleted());
    memoryArchive(list, {.threads = threads});
    all->resignCurrent();
    EXPECT_TRUE(all->isFinished());
  }
}

TEST_F(KQZipPackingListTest, ACancelledPackingLeavesNothing) {
  tree.file("tree/a", "a");
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  all->cancel();
  KQZipPackingList list;
  list.addTree(tree / "tree");
  list.addData("x", "x");
  Error error;
  EXPECT_FALSE(list.pack(tree / "a.zip", {}, &error));
  all->resignCurrent();
  KQTest::expectError(error, -90, "Cancelled by user.");
  EXPECT_EQ(Names{"tree"}, itemsIn(tree.path()));
}

TEST_F(KQZipPackingListTest, CancellingEndsWithinABlock) {
  const auto stream = std::make_shared<KQTest::TestInputStream>(std::string(20 * mebibyte, 's'));
  for (const unsigned threads : {1U, 3U}) {
    stream->position = 0;
    const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
    all->becomeCurrentWithPendingUnitCount(1);
    stream->beforeRead = [&](std::size_t) {
      if (stream->position >= 5 * mebibyte) all->cancel();
    };
    KQZipPackingList list;
    list.addStream(stream, 20 * mebibyte, "s");
    Error error;
    EXPECT_FALSE(list.pack(tree / "a.zip", {.threads = threads}, &error));
    all->resignCurrent();
    KQTest::expectError(error, -90, "Cancelled by user.");
    EXPECT_GE(6 * mebibyte, stream->position);
    EXPECT_EQ(Names(), itemsIn(tree.path()));
  }
}

// Streams

TEST_F(KQZipPackingListTest, OffsetsCountFromTheStreamsFirstByte) {
  KQZipPackingList list;
  list.addData("x", "x", {.date = dateOf(0)});
  list.addData(KQTest::patternBytes(2 * mebibyte), "y", {.date = dateOf(0)});
  KQTest::TestOutputStream stream;
  stream.bytes = "#!/bin/sh\n";
  ASSERT_TRUE(list.pack(stream));
  KQTest::writeFile(tree / "a.zip", stream.bytes);
  const auto archive = KQZipArchive::open(tree / "a.zip");
  ASSERT_NE(nullptr, archive);
  EXPECT_EQ(10U, archive->prefixLength());
  EXPECT_EQ(2U, contentsOf(tree / "a.zip").size());
}

}  // namespace
