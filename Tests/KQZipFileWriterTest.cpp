#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Support/Bytes.h"
#include "Support/FileMoments.h"
#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

const std::uint64_t mebibyte = 1048576;

using Lines = std::vector<std::string>;

std::uint64_t localHeaderLength(const std::string& name) { return 30 + name.size() + zip64FieldLength; }

// A stream that must not be opened or closed, and that knows how much had arrived when it was flushed.
class WatchedStream : public TestOutputStream {
 public:
  void open() override { ++opened; }
  void close() override { ++closed; }
  bool flush() override {
    flushedAt = bytes.size();
    return TestOutputStream::flush();
  }

  int opened = 0;
  int closed = 0;
  std::size_t flushedAt = 0;
};

// While an entry is written its progress is current and the writer's is below it on the thread's stack.
std::shared_ptr<KQ::NSProgress> writersProgress() {
  const auto entrys = KQ::NSProgress::currentProgress();
  if (entrys) {
    entrys->resignCurrent();
    auto writers = KQ::NSProgress::currentProgress();
    entrys->becomeCurrentWithPendingUnitCount(1);
    if (writers) return writers;
  }
  ADD_FAILURE() << "the writer's progress is not current";
  return KQ::NSProgress::progressWithTotalUnitCount(0);
}

class KQZipFileWriterTest : public ::testing::Test {
 protected:
  KQZipFileWriterTest() { EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress()); }
  ~KQZipFileWriterTest() override {
    EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress());
    while (const auto left = KQ::NSProgress::currentProgress()) left->resignCurrent();
  }

  // Makes a source file and adds it; what the archive is to hold for it is the result.
  GoldenEntry add(KQZipFileWriter& writer, const std::string& name, const std::string& contents) {
    const std::string source = "source" + std::to_string(++sources_);
    writer.addFilePath(tree_.file(source, contents), name);
    return SourceTree::entry(name, contents);
  }

  // The source file made by the n-th add(), from 1.
  std::string source(int number) const { return tree_ / ("source" + std::to_string(number)); }

  // Calls `action` once, in front of the first write that begins at `offset` or later.
  static void whenAt(TestOutputStream& stream, std::uint64_t offset, std::function<void()> action) {
    const auto previous = stream.beforeWrite;
    stream.beforeWrite = [&stream, offset, action = std::move(action), previous,
                          done = false](std::size_t number) mutable {
      if (previous) previous(number);
      if (done || stream.bytes.size() < offset) return;
      done = true;
      action();
    };
  }

  // Three small entries, a to c, and where each of them and the directory begin.
  void addThree(KQZipFileWriter& writer) {
    const std::vector<std::pair<std::string, std::string>> files = {
        {"a", "first"}, {"b", "second!"}, {"c", "third file"}};
    std::uint64_t offset = 0;
    for (const auto& [name, contents] : files) {
      three_.push_back(add(writer, name, contents));
      offsets_.push_back(offset);
      offset += localHeaderLength(name) + contents.size();
    }
    offsets_.push_back(offset);
  }

  SourceTree tree_;
  int sources_ = 0;
  std::vector<GoldenEntry> three_;
  std::vector<std::uint64_t> offsets_;
};

}  // namespace

// What is written.

TEST_F(KQZipFileWriterTest, WithoutEntriesItWritesTheThreeEndRecordsAndNothingElse) {
  KQZipFileWriter writer;
  TestOutputStream stream;
  Error error = earlierError();
  const Error before = error;
  EXPECT_TRUE(writer.writeToStream(stream, &error));
  EXPECT_EQ(98U, stream.bytes.size());
  expectSameBytes(goldenArchive({}), stream.bytes);
  EXPECT_EQ(before, error);
}

TEST_F(KQZipFileWriterTest, EntriesFollowTheOrderOfTheirNamesAndNotThatOfAdding) {
  KQZipFileWriter writer;
  const GoldenEntry third = add(writer, "b.txt", "third");
  const GoldenEntry second = add(writer, "a/z.txt", "second");
  const GoldenEntry first = add(writer, "B.txt", "first");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({first, second, third}), stream.bytes);
}

TEST_F(KQZipFileWriterTest, NamesAreOrderedByCanonicalEquivalenceAndEquivalentOnesByTheirBytes) {
  KQZipFileWriter writer;
  const GoldenEntry last = add(writer, "f", "6");
  const GoldenEntry composed = add(writer, "\xC3\xA9", "4");
  const GoldenEntry inFolder = add(writer, "\xC3\xA9/x", "5");
  const GoldenEntry decomposed = add(writer, "e\xCC\x81", "3");
  const GoldenEntry plain = add(writer, "e", "1");
  const GoldenEntry later = add(writer, "ez", "2");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({plain, later, decomposed, composed, inFolder, last}), stream.bytes);
}

TEST_F(KQZipFileWriterTest, ALaterFileUnderTheSamePathReplacesTheEarlierOne) {
  KQZipFileWriter writer;
  add(writer, "same", "the first is forgotten");
  const GoldenEntry other = add(writer, "other", "other");
  const GoldenEntry second = add(writer, "same", "second");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({other, second}), stream.bytes);
}

TEST_F(KQZipFileWriterTest, AReplacedFileIsNeverLookedAt) {
  KQZipFileWriter writer;
  writer.addFilePath(tree_ / "missing", "same");
  const GoldenEntry entry = add(writer, "same", "here");
  TestOutputStream stream;
  LogCapture log;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({entry}), stream.bytes);
  EXPECT_EQ(Lines{}, log.lines());
}

TEST_F(KQZipFileWriterTest, OneFileMayBeAddedUnderSeveralPaths) {
  KQZipFileWriter writer;
  const std::string path = tree_.file("file", "contents");
  writer.addFilePath(path, "2");
  writer.addFilePath(path, "1");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({SourceTree::entry("1", "contents"), SourceTree::entry("2", "contents")}),
                  stream.bytes);
}

TEST_F(KQZipFileWriterTest, AFileIsFirstLookedAtWhenItIsWritten) {
  KQZipFileWriter writer;
  LogCapture log;
  writer.addFilePath(tree_ / "created-later", "created");
  writer.addFilePath(tree_.file("grows", "short"), "grown");
  writer.addFilePath(tree_.file("shrinks", "a longer text"), "shrunk");
  EXPECT_EQ(Lines{}, log.lines());

  tree_.file("created-later", "now it is here");
  tree_.file("grows", "short no longer");
  tree_.file("shrinks", "a");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(
      goldenArchive({SourceTree::entry("created", "now it is here"),
                     SourceTree::entry("grown", "short no longer"), SourceTree::entry("shrunk", "a")}),
      stream.bytes);
}

TEST_F(KQZipFileWriterTest, NamesAreWrittenAsTheyStand) {
  KQZipFileWriter writer;
  const GoldenEntry empty = add(writer, "", "no name");
  const GoldenEntry parent = add(writer, "../up", "up");
  const GoldenEntry absolute = add(writer, "/etc/x", "absolute");
  const GoldenEntry doubled = add(writer, "a//b", "doubled");
  const GoldenEntry folder = add(writer, "folder/", "");
  const GoldenEntry percent = add(writer, "percent %@ %n %s", "percent");
  const GoldenEntry nul = add(writer, std::string("z\0z", 3), "nul");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({empty, parent, absolute, doubled, folder, percent, nul}), stream.bytes);
}

TEST_F(KQZipFileWriterTest, ANameLongerThanItsLengthFieldIsWrittenWholeUnderATruncatedLength) {
  KQZipFileWriter writer;
  const std::string name(65539, 'n');
  const GoldenEntry entry = add(writer, name, "data");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({entry}), stream.bytes);
  EXPECT_EQ(Bytes().u16(3).string(), stream.bytes.substr(26, 2));
  EXPECT_EQ(name, stream.bytes.substr(30, name.size()));
}

TEST_F(KQZipFileWriterTest, AFolderAsTheSourceCountsWithItsSizeAndGivesNoData) {
  KQZipFileWriter writer;
  fs::create_directory(tree_ / "folder");
  setModificationDate(tree_ / "folder", SourceTree::date);
  struct stat status {};
  ASSERT_EQ(0, lstat((tree_ / "folder").c_str(), &status));
  writer.addFilePath(tree_ / "folder", "folder");
  GoldenEntry entry = SourceTree::entry("folder", "");
  entry.localSize = entry.centralSize = static_cast<std::uint64_t>(status.st_size);
  TestOutputStream stream;
  EXPECT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({entry}), stream.bytes);
}

TEST_F(KQZipFileWriterTest, ALinkAsTheSourceCountsWithItsOwnSizeAndGivesTheDataOfItsTarget) {
  KQZipFileWriter writer;
  const std::string contents = "longer than the path of the link";
  tree_.file("target", contents);
  fs::create_symlink("target", tree_ / "link");
  setModificationDate(tree_ / "link", SourceTree::date);
  writer.addFilePath(tree_ / "link", "link");
  GoldenEntry entry = SourceTree::entry("link", contents);
  entry.localSize = entry.centralSize = std::string("target").size();
  TestOutputStream stream;
  EXPECT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({entry}), stream.bytes);
}

// The stream.

TEST_F(KQZipFileWriterTest, TheStreamIsNeitherOpenedNorClosedAndIsFlushedBehindTheLastByte) {
  KQZipFileWriter writer;
  addThree(writer);
  WatchedStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  EXPECT_EQ(0, stream.opened);
  EXPECT_EQ(0, stream.closed);
  EXPECT_GE(stream.flushes, 1);
  EXPECT_EQ(goldenArchive(three_).size(), stream.bytes.size());
  EXPECT_EQ(stream.bytes.size(), stream.flushedAt);
}

TEST_F(KQZipFileWriterTest, EveryOffsetCountsFromWhatTheStreamSays) {
  KQZipFileWriter writer;
  addThree(writer);
  TestOutputStream stream;
  stream.startOffset = 1000;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive(three_, 1000), stream.bytes);
}

TEST_F(KQZipFileWriterTest, AStreamWithoutAnOffsetCountsAsStandingAtZero) {
  KQZipFileWriter writer;
  addThree(writer);
  TestOutputStream stream;
  stream.hasOffset = false;
  ASSERT_TRUE(writer.writeToStream(stream));

  std::string expected;
  std::string headers;
  for (const GoldenEntry& entry : three_) {
    expected += goldenLocalHeader(entry, 0) + entry.data;
    headers += goldenCentralHeader(entry, 0);
  }
  // The locator's offset is read from the stream as well.
  std::string endRecords = goldenEndRecords(three_.size(), 0, headers.size());
  endRecords.replace(56 + 8, 8, 8, '\0');
  expectSameBytes(expected + headers + endRecords, stream.bytes);
}

// Sources that go or change.

TEST_F(KQZipFileWriterTest, AVanishedSourceFailsWithItsErrorAndEndsTheRun) {
  KQZipFileWriter writer;
  addThree(writer);
  fs::remove(source(2));
  const std::string logged = "failed to calculate crc: failed to open stream at " + source(2);

  LogCapture log;
  Error error = earlierError();
  TestOutputStream stream;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -50, "Can't calculate CRC of " + source(2));
  expectSameBytes(goldenLocalHeader(three_[0], 0) + three_[0].data, stream.bytes);
  EXPECT_EQ(Lines{logged}, log.lines());

  TestOutputStream again;
  EXPECT_FALSE(writer.writeToStream(again));
  expectSameBytes(stream.bytes, again.bytes);
  EXPECT_EQ((Lines{logged, logged}), log.lines());
}

TEST_F(KQZipFileWriterTest, ASourceThatMayNotBeReadFailsAsAVanishedOneDoes) {
  KQZipFileWriter writer;
  addThree(writer);
  fs::permissions(source(2), fs::perms::none);
  inUnprivilegedChildProcess([&] {
    LogCapture log;
    Error error;
    TestOutputStream stream;
    EXPECT_FALSE(writer.writeToStream(stream, &error));
    expectError(error, -50, "Can't calculate CRC of " + source(2));
    expectSameBytes(goldenLocalHeader(three_[0], 0) + three_[0].data, stream.bytes);
    EXPECT_EQ(Lines{"failed to calculate crc: failed to open stream at " + source(2)}, log.lines());
  });
}

TEST_F(KQZipFileWriterTest, ASourcePathWithANULByteIsNotCutShort) {
  KQZipFileWriter writer;
  const std::string path = tree_.file("file", "contents") + std::string("\0.txt", 5);
  writer.addFilePath(path, "entry");
  LogCapture log;
  Error error;
  TestOutputStream stream;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -50, "Can't calculate CRC of " + path);
  EXPECT_EQ("", stream.bytes);
}

TEST_F(KQZipFileWriterTest, ASourceThatVanishesBehindItsHeaderFailsWithoutAnError) {
  KQZipFileWriter writer;
  addThree(writer);
  LogCapture log;
  for (const bool withSlot : {true, false}) {
    tree_.file("source2", three_[1].data);
    TestOutputStream stream;
    whenAt(stream, offsets_[1], [&] { fs::remove(source(2)); });
    Error error = earlierError();
    const Error before = error;
    EXPECT_FALSE(writer.writeToStream(stream, withSlot ? &error : nullptr));
    EXPECT_EQ(before, error);
    expectSameBytes(
        goldenLocalHeader(three_[0], 0) + three_[0].data + goldenLocalHeader(three_[1], offsets_[1]),
        stream.bytes);
  }
  // The header describes itself by its class, its address, its name and its source.
  ASSERT_EQ(2U, log.lines().size());
  const std::string front = "<KQZipFileLocalHeader: 0x";
  const std::string behind = " path:b source:" + source(2) + "> failed to open file at " + source(2);
  for (const std::string& line : log.lines()) {
    ASSERT_EQ(front, line.substr(0, front.size()));
    const std::size_t end = line.find_first_not_of("0123456789abcdef", front.size());
    ASSERT_NE(std::string::npos, end) << line;
    EXPECT_GT(end, front.size()) << line;
    EXPECT_EQ(behind, line.substr(end));
  }
}

TEST_F(KQZipFileWriterTest, ASourceThatVanishesBehindItsEntryLeavesTheDirectoryWithoutItsSize) {
  // The directory asks for the attributes once more. That they are gone is logged and is no failure.
  KQZipFileWriter writer;
  addThree(writer);
  LogCapture log;
  TestOutputStream stream;
  whenAt(stream, offsets_[2], [&] { fs::remove(source(1)); });
  Error error = earlierError();
  const Error before = error;
  EXPECT_TRUE(writer.writeToStream(stream, &error));
  EXPECT_EQ(before, error);
  three_[0].centralSize = 0;
  expectSameBytes(goldenArchive(three_), stream.bytes);
  EXPECT_EQ(Lines{"failed to get attributes for " + source(1)}, log.lines());
}

TEST_F(KQZipFileWriterTest, ASourceThatChangesBehindItsHeaderIsCopiedAsItThenIs) {
  for (const std::string& changed :
       {std::string("grown beyond what the header says"), std::string("2"), std::string()}) {
    sources_ = 0;
    three_.clear();
    offsets_.clear();
    KQZipFileWriter writer;
    addThree(writer);
    TestOutputStream stream;
    whenAt(stream, offsets_[1], [&] {
      writeFile(source(2), changed);
      setModificationDate(source(2), SourceTree::date + 60);
    });
    EXPECT_TRUE(writer.writeToStream(stream));
    // CRC and size of the local header are those of before; the directory takes size and date anew.
    three_[1].data = changed;
    three_[1].centralSize = changed.size();
    three_[1].centralTime = dosTime(12, 27, 40);
    expectSameBytes(goldenArchive(three_), stream.bytes, changed);
  }
}

TEST_F(KQZipFileWriterTest, WritingTwiceGivesTheSameEntriesWithTheOffsetsOfEachStream) {
  KQZipFileWriter writer;
  addThree(writer);
  for (const std::uint64_t startOffset : {0U, 5000U, 0U}) {
    TestOutputStream stream;
    stream.startOffset = startOffset;
    ASSERT_TRUE(writer.writeToStream(stream));
    expectSameBytes(goldenArchive(three_, startOffset), stream.bytes);
  }
}

TEST_F(KQZipFileWriterTest, AFileAddedBetweenTwoWritesIsInTheSecond) {
  KQZipFileWriter writer;
  const GoldenEntry second = add(writer, "b", "b");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive({second}), stream.bytes);

  const GoldenEntry first = add(writer, "a", "a");
  const GoldenEntry replaced = add(writer, "b", "replaced");
  TestOutputStream again;
  ASSERT_TRUE(writer.writeToStream(again));
  expectSameBytes(goldenArchive({first, replaced}), again.bytes);
}

TEST_F(KQZipFileWriterTest, ASecondWriteKeepsTheCRCAndTheAttributesOfTheFirst) {
  KQZipFileWriter writer;
  GoldenEntry entry = add(writer, "a", "first");
  TestOutputStream stream;
  ASSERT_TRUE(writer.writeToStream(stream));

  writeFile(source(1), "changed since");
  setModificationDate(source(1), SourceTree::date + 60);
  const auto permissions = writer.permissionsOfSources()("a");
  ASSERT_EQ(0, ::chmod(source(1).c_str(), 0751));
  TestOutputStream again;
  ASSERT_TRUE(writer.writeToStream(again));
  EXPECT_EQ(permissions, writer.permissionsOfSources()("a"));
  // A CRC, a size and a date that stand are not taken anew; the directory's header is a new one each time.
  entry.data = "changed since";
  entry.centralSize = entry.data.size();
  entry.centralTime = dosTime(12, 27, 40);
  expectSameBytes(goldenArchive({entry}), again.bytes);
}

TEST_F(KQZipFileWriterTest, AWriteThatFailedMayBeRepeatedOnceTheSourceIsBack) {
  KQZipFileWriter writer;
  addThree(writer);
  fs::remove(source(3));
  LogCapture log;
  TestOutputStream failing;
  EXPECT_FALSE(writer.writeToStream(failing));
  tree_.file("source3", three_[2].data);
  TestOutputStream stream;
  EXPECT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive(three_), stream.bytes);
}

TEST_F(KQZipFileWriterTest, AWriterCannotBeCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<KQZipFileWriter>);
  EXPECT_FALSE(std::is_copy_assignable_v<KQZipFileWriter>);
}

TEST_F(KQZipFileWriterTest, SeveralWritersWorkAtOnce) {
  std::vector<std::vector<GoldenEntry>> entries(4);
  std::vector<KQZipFileWriter> writers(4);
  for (std::size_t i = 0; i < writers.size(); ++i) {
    for (const char* name : {"a", "b", "c"})
      entries[i].push_back(add(writers[i], name, patternBytes(3000, static_cast<unsigned>(i))));
  }
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < writers.size(); ++i) {
    threads.emplace_back(
        [&, i] { EXPECT_TRUE(writers[i].writeToZipPath(tree_ / (std::to_string(i) + ".zip"))); });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < writers.size(); ++i)
    expectSameBytes(goldenArchive(entries[i]), readFile(tree_ / (std::to_string(i) + ".zip")));
}

// Writing to a path.

TEST_F(KQZipFileWriterTest, APathGetsTheSameBytesAsAStream) {
  KQZipFileWriter writer;
  addThree(writer);
  LogCapture log;
  Error error = earlierError();
  const Error before = error;
  ASSERT_TRUE(writer.writeToZipPath(tree_ / "out.zip", &error));
  EXPECT_EQ(before, error);
  EXPECT_EQ(Lines{}, log.lines());
  expectSameBytes(goldenArchive(three_), readFile(tree_ / "out.zip"));
}

TEST_F(KQZipFileWriterTest, AnAbsentPathIsRefused) {
  KQZipFileWriter writer;
  addThree(writer);
  LogCapture log;
  Error error = earlierError();
  EXPECT_FALSE(writer.writeToZipPath(std::nullopt, &error));
  expectError(error, -1, "Could not write to zip path (null)");
  EXPECT_FALSE(writer.writeToZipPath(std::nullopt));
  EXPECT_EQ(
      (Lines{"failed writing to path: (null) " + describe(error), "failed writing to path: (null) (null)"}),
      log.lines());
}

TEST_F(KQZipFileWriterTest, TheEmptyPathIsTheCurrentDirectoryAndExists) {
  KQZipFileWriter writer;
  LogCapture log;
  Error error;
  EXPECT_FALSE(writer.writeToZipPath("", &error));
  expectError(error, -1, "Could not write to zip path ");
  EXPECT_EQ(Lines{"failed writing to path:  " + describe(error)}, log.lines());
}

TEST_F(KQZipFileWriterTest, AnythingThatExistsAtThePathIsRefusedAndLeftUntouched) {
  KQZipFileWriter writer;
  addThree(writer);
  const std::string file = tree_.file("file.zip", "precious");
  const std::string emptyFile = tree_.file("empty.zip", "");
  const std::string folder = tree_ / "folder.zip";
  fs::create_directory(folder);
  const std::string link = tree_ / "link.zip";
  fs::create_symlink("file.zip", link);
  const std::string pipe = tree_ / "pipe.zip";
  ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
  // Held open, so that a writer that opened it would fail this test and not wait for a reader.
  const int holder = open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(holder, 0);

  for (const std::string& path : {file, emptyFile, folder, link, pipe}) {
    LogCapture log;
    Error error = earlierError();
    EXPECT_FALSE(writer.writeToZipPath(path, &error));
    expectError(error, -1, "Could not write to zip path " + path);
    EXPECT_FALSE(writer.writeToZipPath(path));
    EXPECT_EQ((Lines{"failed writing to path: " + path + " " + describe(error),
                     "failed writing to path: " + path + " (null)"}),
              log.lines());
  }
  EXPECT_EQ("precious", readFile(file));
  EXPECT_EQ("", readFile(emptyFile));
  EXPECT_TRUE(fs::is_empty(folder));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_TRUE(fs::is_fifo(pipe));
  char byte = 0;
  EXPECT_EQ(-1, read(holder, &byte, 1)) << "something was written into the pipe";
  close(holder);
  EXPECT_EQ(SourceTree::date, [&file] {
    struct stat status {};
    EXPECT_EQ(0, stat(file.c_str(), &status));
    return static_cast<long long>(status.st_mtime);
  }());
}

TEST_F(KQZipFileWriterTest, ALinkThatLeadsNowhereIsRefusedAndNotWrittenThrough) {
  KQZipFileWriter writer;
  addThree(writer);
  const std::string path = tree_ / "out.zip";
  fs::create_symlink("elsewhere.zip", path);
  LogCapture log;
  Error error = earlierError();
  EXPECT_FALSE(writer.writeToZipPath(path, &error));
  expectError(error, -1, "Could not write to zip path " + path);
  EXPECT_FALSE(writer.writeToZipPath(path));
  EXPECT_EQ((Lines{"failed writing to path: " + path + " " + describe(error),
                   "failed writing to path: " + path + " (null)"}),
            log.lines());
  EXPECT_EQ("elsewhere.zip", fs::read_symlink(path));
  EXPECT_FALSE(fs::exists(tree_ / "elsewhere.zip"));
}

TEST_F(KQZipFileWriterTest, WhatComesIntoBeingBeforeTheFileIsCreatedIsRefusedAndLeftUntouched) {
  const std::string path = tree_ / "out.zip";
  const std::vector<std::pair<std::string, std::function<void()>>> arrivals{
      {"a file", [&] { writeFile(path, "somebody else's"); }},
      {"a folder", [&] { fs::create_directory(path); }},
      {"a link", [&] { fs::create_symlink("elsewhere.zip", path); }}};
  for (const auto& [what, arrive] : arrivals) {
    SCOPED_TRACE(what);
    fs::remove(path);
    KQZipFileWriter writer;
    addThree(writer);
    const auto all = KQ::NSProgress::progressWithTotalUnitCount(5);
    all->becomeCurrentWithPendingUnitCount(5);
    LogCapture log;
    Error error = earlierError();
    {
      const AtFileMoment moment(path, {0, FileMoment::Call::Open}, arrive);
      EXPECT_FALSE(writer.writeToZipPath(path, &error));
      EXPECT_TRUE(moment.hasCome());
    }
    expectError(error, -1, "Could not write to zip path " + path);
    EXPECT_EQ(Lines{"failed writing to path: " + path + " " + describe(error)}, log.lines());
    EXPECT_EQ(all, KQ::NSProgress::currentProgress());
    all->resignCurrent();
    EXPECT_EQ(0, all->completedUnitCount()) << "no progress was made beneath it";
    EXPECT_FALSE(fs::exists(tree_ / "elsewhere.zip"));
    if (fs::is_regular_file(path)) {
      EXPECT_EQ("somebody else's", readFile(path));
    }
  }
}

TEST_F(KQZipFileWriterTest, AParentThatIsNoExistingFolderIsRefused) {
  KQZipFileWriter writer;
  addThree(writer);
  const std::string file = tree_.file("file", "precious");
  fs::create_symlink("nothing", tree_ / "dangling");
  for (const std::string& path : {tree_ / "missing/out.zip", tree_ / "missing/deeper/out.zip",
                                  file + "/out.zip", tree_ / "dangling/out.zip"}) {
    LogCapture log;
    Error error = earlierError();
    EXPECT_FALSE(writer.writeToZipPath(path, &error));
    expectError(error, -1, "Could not write to zip path " + path + " because parent directory doesn't exist");
    EXPECT_FALSE(writer.writeToZipPath(path));
    EXPECT_EQ((Lines{"failed writing to path: " + path + " " + describe(error),
                     "failed writing to path: " + path + " (null)"}),
              log.lines());
  }
  EXPECT_FALSE(fs::exists(tree_ / "missing"));
  EXPECT_FALSE(fs::exists(tree_ / "nothing"));
  EXPECT_EQ("precious", readFile(file));
}

TEST_F(KQZipFileWriterTest, ARefusedPathTouchesNeitherTheSourcesNorTheProgress) {
  KQZipFileWriter writer;
  writer.addFilePath(tree_ / "missing", "missing");
  LogCapture log;
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(5);
  all->becomeCurrentWithPendingUnitCount(5);
  EXPECT_FALSE(writer.writeToZipPath(tree_ / "no/out.zip"));
  EXPECT_EQ(all, KQ::NSProgress::currentProgress());
  all->resignCurrent();
  EXPECT_EQ(0, all->completedUnitCount()) << "no progress was made beneath it";
  EXPECT_EQ(1U, log.lines().size());
}

TEST_F(KQZipFileWriterTest, APlainNameIsWrittenIntoTheCurrentDirectory) {
  KQZipFileWriter writer;
  addThree(writer);
  inChildProcess([&] {
    fs::create_directory(tree_ / "here");
    ASSERT_EQ(0, chdir((tree_ / "here").c_str()));
    Error error;
    ASSERT_TRUE(writer.writeToZipPath("a.zip", &error)) << describe(error);
    expectSameBytes(goldenArchive(three_), readFile(tree_ / "here/a.zip"));
  });
}

TEST_F(KQZipFileWriterTest, ALinkToAFolderIsAParentLikeAnyFolder) {
  KQZipFileWriter writer;
  addThree(writer);
  fs::create_directory(tree_ / "folder");
  fs::create_directory_symlink("folder", tree_ / "link");
  ASSERT_TRUE(writer.writeToZipPath(tree_ / "link/out.zip"));
  expectSameBytes(goldenArchive(three_), readFile(tree_ / "folder/out.zip"));
}

TEST_F(KQZipFileWriterTest, CharactersInAPathNeverActAsFormatDirectives) {
  KQZipFileWriter writer;
  const std::string path = tree_.file("100%@ %s %n %llu.zip", "precious");
  LogCapture log;
  Error error;
  EXPECT_FALSE(writer.writeToZipPath(path, &error));
  expectError(error, -1, "Could not write to zip path " + path);
  EXPECT_EQ(Lines{"failed writing to path: " + path + " " + describe(error)}, log.lines());

  const std::string vanished = tree_ / "%@%@%s";
  writer.addFilePath(vanished, "%@");
  EXPECT_FALSE(writer.writeToZipPath(tree_ / "out.zip", &error));
  expectError(error, -50, "Can't calculate CRC of " + vanished);
  EXPECT_EQ("failed to calculate crc: failed to open stream at " + vanished, log.lines().at(1));
  EXPECT_EQ("closing stream because writing failed: " + describe(error), log.lines().at(2));
}

TEST_F(KQZipFileWriterTest, WhatTheStreamAddsWhileItIsWrittenToIsForTheNextWrite) {
  for (const std::string name : {"0 in front", "b", "z behind"}) {
    SCOPED_TRACE(name);
    three_.clear();
    KQZipFileWriter writer;
    addThree(writer);
    const std::string added = tree_.file("added to " + name, "added");
    TestOutputStream stream;
    stream.beforeWrite = [&](std::size_t) { writer.addFilePath(added, name); };
    EXPECT_TRUE(writer.writeToStream(stream));
    expectSameBytes(goldenArchive(three_), stream.bytes);

    std::map<std::string, GoldenEntry> entries;
    for (const GoldenEntry& entry : three_) entries[entry.name] = entry;
    entries[name] = SourceTree::entry(name, "added");
    std::vector<GoldenEntry> sorted;
    for (const auto& [entryName, entry] : entries) sorted.push_back(entry);
    TestOutputStream next;
    EXPECT_TRUE(writer.writeToStream(next));
    expectSameBytes(goldenArchive(sorted), next.bytes);
  }
}

TEST_F(KQZipFileWriterTest, AFailureIsLoggedBeforeTheStreamIsClosed) {
  KQZipFileWriter writer;
  addThree(writer);
  fs::remove(source(3));
  const std::string path = tree_ / "out.zip";
  std::vector<std::pair<std::string, std::uintmax_t>> sizeAtLine;
  const KQ::NSLogSink previous =
      KQ::NSSetLogSink([&](const std::string& line) { sizeAtLine.emplace_back(line, fs::file_size(path)); });
  EXPECT_FALSE(writer.writeToZipPath(path));
  KQ::NSSetLogSink(previous);
  ASSERT_EQ(2U, sizeAtLine.size());
  EXPECT_EQ("closing stream because writing failed: (null)", sizeAtLine[1].first);
  // The close passes on what is buffered.
  EXPECT_LT(sizeAtLine[1].second, fs::file_size(path));
}

TEST_F(KQZipFileWriterTest, AFailedWriteIsLoggedAndLeavesThePartlyWrittenFile) {
  KQZipFileWriter writer;
  addThree(writer);
  fs::remove(source(3));
  const std::string path = tree_ / "out.zip";
  const std::string partial = goldenLocalHeader(three_[0], 0) + three_[0].data +
                              goldenLocalHeader(three_[1], offsets_[1]) + three_[1].data;

  LogCapture log;
  Error error = earlierError();
  EXPECT_FALSE(writer.writeToZipPath(path, &error));
  expectError(error, -50, "Can't calculate CRC of " + source(3));
  EXPECT_EQ((Lines{"failed to calculate crc: failed to open stream at " + source(3),
                   "closing stream because writing failed: " + describe(error)}),
            log.lines());
  expectSameBytes(partial, readFile(path));

  // The rest of a failed write stands in the way of the next.
  tree_.file("source3", three_[2].data);
  EXPECT_FALSE(writer.writeToZipPath(path, &error));
  expectError(error, -1, "Could not write to zip path " + path);
  expectSameBytes(partial, readFile(path));
  fs::remove(path);
  EXPECT_TRUE(writer.writeToZipPath(path, &error));
  expectSameBytes(goldenArchive(three_), readFile(path));
}

TEST_F(KQZipFileWriterTest, AFailedWriteWithoutASlotLogsAnAbsentError) {
  KQZipFileWriter writer;
  addThree(writer);
  fs::remove(source(1));
  LogCapture log;
  EXPECT_FALSE(writer.writeToZipPath(tree_ / "out.zip"));
  EXPECT_EQ((Lines{"failed to calculate crc: failed to open stream at " + source(1),
                   "closing stream because writing failed: (null)"}),
            log.lines());
  EXPECT_EQ("", readFile(tree_ / "out.zip"));
}

TEST_F(KQZipFileWriterTest, APathWithANULByteIsNotCutShort) {
  KQZipFileWriter writer;
  addThree(writer);
  const std::string path = tree_ / "out" + std::string("\0.zip", 5);
  LogCapture log;
  Error error;
  EXPECT_FALSE(writer.writeToZipPath(path, &error));
  ASSERT_NE(nullptr, error);
  EXPECT_EQ("KQZipErrorDomain", error->domain());
  EXPECT_FALSE(fs::exists(tree_ / "out"));
}

TEST_F(KQZipFileWriterTest, AFileThatCannotBeCreatedFailsAtItsFirstWrite) {
  fs::create_directory(tree_ / "locked");
  fs::permissions(tree_ / "locked", fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_read |
                                        fs::perms::others_exec);
  KQZipFileWriter three;
  addThree(three);
  KQZipFileWriter empty;
  inUnprivilegedChildProcess([&] {
    for (KQZipFileWriter* writer : {&three, &empty}) {
      LogCapture log;
      Error error = earlierError();
      EXPECT_FALSE(writer->writeToZipPath(tree_ / "locked/out.zip", &error));
      expectError(error, -51, "Error writing file");
      EXPECT_FALSE(writer->writeToZipPath(tree_ / "locked/out.zip"));
      EXPECT_EQ((Lines{"stream writing failed: " + describe(error),
                       "closing stream because writing failed: " + describe(error),
                       "stream writing failed: (null)", "closing stream because writing failed: (null)"}),
                log.lines());
      EXPECT_FALSE(fs::exists(tree_ / "locked/out.zip"));
    }
  });
}

// Progress.

TEST_F(KQZipFileWriterTest, TheWritersProgressHasOneUnitForEachEntry) {
  KQZipFileWriter writer;
  addThree(writer);
  TestOutputStream stream;
  std::vector<std::int64_t> completed;
  std::shared_ptr<KQ::NSProgress> writers;
  for (std::size_t i = 0; i < 3; ++i) {
    whenAt(stream, offsets_[i], [&] {
      const auto entrys = KQ::NSProgress::currentProgress();
      writers = writersProgress();
      EXPECT_NE(entrys, writers);
      completed.push_back(writers->completedUnitCount());
      EXPECT_EQ(3, writers->totalUnitCount());
      EXPECT_TRUE(writers->isCancellable());
      EXPECT_FALSE(writers->isPausable());
    });
  }
  std::int64_t inDirectory = -1;
  whenAt(stream, offsets_[3], [&] {
    EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress()) << "resigned behind the last entry";
    if (writers) inDirectory = writers->completedUnitCount();
  });
  ASSERT_TRUE(writer.writeToStream(stream));
  ASSERT_NE(nullptr, writers);
  EXPECT_EQ((std::vector<std::int64_t>{0, 1, 2}), completed);
  EXPECT_EQ(3, inDirectory);
  EXPECT_EQ(3, writers->completedUnitCount());
  EXPECT_TRUE(writers->isFinished());
  EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress());
}

TEST_F(KQZipFileWriterTest, EachWriteMakesAProgressOfItsOwn) {
  KQZipFileWriter writer;
  addThree(writer);
  std::vector<std::shared_ptr<KQ::NSProgress>> seen;
  for (int i = 0; i < 2; ++i) {
    TestOutputStream stream;
    whenAt(stream, 0, [&] { seen.push_back(writersProgress()); });
    ASSERT_TRUE(writer.writeToStream(stream));
  }
  ASSERT_EQ(2U, seen.size());
  EXPECT_NE(seen[0], seen[1]);
}

TEST_F(KQZipFileWriterTest, AnEntrysProgressCountsTheCRCAndTheCopyInBytes) {
  KQZipFileWriter writer;
  const std::string contents = patternBytes(3 * mebibyte);
  const GoldenEntry entry = add(writer, "large", contents);
  TestOutputStream stream;
  std::vector<std::int64_t> completed;
  std::shared_ptr<KQ::NSProgress> entrys;
  // In front of the header, and of each block of data.
  for (const std::uint64_t offset :
       {std::uint64_t{0}, localHeaderLength("large"), localHeaderLength("large") + mebibyte,
        localHeaderLength("large") + 2 * mebibyte}) {
    whenAt(stream, offset, [&] {
      entrys = KQ::NSProgress::currentProgress();
      ASSERT_NE(nullptr, entrys);
      completed.push_back(entrys->completedUnitCount());
      EXPECT_EQ(static_cast<std::int64_t>(6 * mebibyte), entrys->totalUnitCount());
      EXPECT_TRUE(entrys->isCancellable());
      EXPECT_FALSE(entrys->isPausable());
    });
  }
  ASSERT_TRUE(writer.writeToStream(stream));
  // The CRC never counts its first block.
  const auto unit = static_cast<std::int64_t>(mebibyte);
  EXPECT_EQ((std::vector<std::int64_t>{2 * unit, 2 * unit, 3 * unit, 4 * unit}), completed);
  ASSERT_NE(nullptr, entrys);
  EXPECT_EQ(5 * unit, entrys->completedUnitCount());
  expectSameBytes(goldenArchive({entry}), stream.bytes);
}

TEST_F(KQZipFileWriterTest, TheCallersProgressAdvancesWithTheEntriesAndTheirBytes) {
  KQZipFileWriter writer;
  addThree(writer);
  const std::string contents = patternBytes(2 * mebibyte);
  add(writer, "d", contents);
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(100);
  all->setCompletedUnitCount(20);
  all->becomeCurrentWithPendingUnitCount(80);

  TestOutputStream stream;
  std::vector<double> fractions;
  std::vector<std::uint64_t> offsets = offsets_;  // a, b, c and d
  offsets.push_back(offsets_[3] + localHeaderLength("d") + mebibyte);
  for (const std::uint64_t offset : offsets)
    whenAt(stream, offset, [&] { fractions.push_back(all->fractionCompleted()); });
  ASSERT_TRUE(writer.writeToStream(stream));

  // Of the last entry's 4 MiB, the CRC counts 1 MiB and the first block another.
  const std::vector<double> expected = {0.2, 0.4, 0.6, 0.8 + 0.2 * 0.25, 0.8 + 0.2 * 0.5};
  ASSERT_EQ(expected.size(), fractions.size());
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(expected[i], fractions[i], 1e-12) << i;

  EXPECT_EQ(all, KQ::NSProgress::currentProgress());
  EXPECT_EQ(100, all->completedUnitCount());
  all->resignCurrent();
  EXPECT_EQ(100, all->completedUnitCount()) << "the units are counted once";
  EXPECT_DOUBLE_EQ(1.0, all->fractionCompleted());
}

TEST_F(KQZipFileWriterTest, EmptyFilesAreWorthAUnitToo) {
  KQZipFileWriter writer;
  for (const char* name : {"a", "b", "c", "d"}) add(writer, name, "");
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  std::vector<double> fractions;
  for (std::size_t i = 0; i < 4; ++i) {
    whenAt(stream, i * localHeaderLength("a"), [&] {
      fractions.push_back(all->fractionCompleted());
      ASSERT_NE(nullptr, KQ::NSProgress::currentProgress());
      EXPECT_EQ(0, KQ::NSProgress::currentProgress()->totalUnitCount());
    });
  }
  ASSERT_TRUE(writer.writeToStream(stream));
  EXPECT_EQ((std::vector<double>{0, 0.25, 0.5, 0.75}), fractions);
  EXPECT_EQ(1, all->completedUnitCount());
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, AWriterWithoutEntriesHasAProgressWithoutUnits) {
  KQZipFileWriter writer;
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(3);
  all->becomeCurrentWithPendingUnitCount(2);
  TestOutputStream stream;
  EXPECT_TRUE(writer.writeToStream(stream));
  EXPECT_EQ(0, all->completedUnitCount()) << "0 of 0 units is not finished";
  EXPECT_EQ(all, KQ::NSProgress::currentProgress());
  all->resignCurrent();
  EXPECT_EQ(2, all->completedUnitCount()) << "the writer's progress was a child of the caller's";
}

TEST_F(KQZipFileWriterTest, AFailedDirectoryStillCompletesTheProgress) {
  KQZipFileWriter writer;
  addThree(writer);
  LogCapture log;
  TestOutputStream stream;
  std::shared_ptr<KQ::NSProgress> writers;
  whenAt(stream, 0, [&] { writers = writersProgress(); });
  whenAt(stream, offsets_[3], [&] {
    stream.failAtWrite = static_cast<std::int64_t>(stream.writes.size());
    // Taken back here, so that only the end of the write can complete it.
    if (writers) writers->setCompletedUnitCount(0);
  });
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -51, "Error writing file");
  ASSERT_NE(nullptr, writers);
  EXPECT_EQ(3, writers->completedUnitCount());
  EXPECT_EQ(offsets_[3], stream.bytes.size());
}

TEST_F(KQZipFileWriterTest, AFailedEntryLeavesTheThreadAsTheCallerHadIt) {
  KQZipFileWriter writer;
  addThree(writer);
  fs::remove(source(2));
  LogCapture log;
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  EXPECT_FALSE(writer.writeToStream(stream));
  EXPECT_EQ(all, KQ::NSProgress::currentProgress());
  EXPECT_FALSE(all->isCancelled());
  all->resignCurrent();
}

// Cancellation.

TEST_F(KQZipFileWriterTest, CancellingDuringTheSecondOfThreeEntriesEndsTheRunBehindIt) {
  KQZipFileWriter writer;
  addThree(writer);
  LogCapture log;
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  whenAt(stream, offsets_[1] + localHeaderLength("b"), [&] { all->cancel(); });
  Error error = earlierError();
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -90, "Cancelled by user.");
  // The block on its way when it was cancelled is the entry's last, so the entry is whole.
  expectSameBytes(goldenLocalHeader(three_[0], 0) + three_[0].data +
                      goldenLocalHeader(three_[1], offsets_[1]) + three_[1].data,
                  stream.bytes);
  EXPECT_EQ(Lines{}, log.lines());
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, CancellingDuringAHeaderKeepsTheDataBack) {
  KQZipFileWriter writer;
  addThree(writer);
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  whenAt(stream, offsets_[1], [&] { all->cancel(); });
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  // The entry itself reported "Operation was cancelled."; the writer's own words replace that.
  expectError(error, -90, "Cancelled by user.");
  expectSameBytes(
      goldenLocalHeader(three_[0], 0) + three_[0].data + goldenLocalHeader(three_[1], offsets_[1]),
      stream.bytes);
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, CancellingDuringALargeEntryStopsAtTheNextBlock) {
  KQZipFileWriter writer;
  const std::string contents = patternBytes(3 * mebibyte + 1);
  const GoldenEntry entry = add(writer, "large", contents);
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  whenAt(stream, localHeaderLength("large") + mebibyte, [&] { all->cancel(); });
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -90, "Cancelled by user.");
  expectSameBytes(goldenLocalHeader(entry, 0) + contents.substr(0, 2 * mebibyte), stream.bytes);
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, CancellingDuringTheLastEntryKeepsTheDirectoryBack) {
  KQZipFileWriter writer;
  addThree(writer);
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  whenAt(stream, offsets_[3], [&] { ADD_FAILURE() << "the directory was begun"; });
  whenAt(stream, offsets_[2] + localHeaderLength("c"), [&] { all->cancel(); });
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -90, "Cancelled by user.");
  EXPECT_EQ(offsets_[3], stream.bytes.size());
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, CancellingDuringTheDirectoryIsTooLate) {
  KQZipFileWriter writer;
  addThree(writer);
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  whenAt(stream, offsets_[3], [&] { all->cancel(); });
  Error error = earlierError();
  const Error before = error;
  EXPECT_TRUE(writer.writeToStream(stream, &error));
  EXPECT_EQ(before, error);
  expectSameBytes(goldenArchive(three_), stream.bytes);
  EXPECT_EQ(all, KQ::NSProgress::currentProgress());
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, ACancelledRunReportsTheCancellationEvenWhenTheEntryFailedAsWell) {
  KQZipFileWriter writer;
  addThree(writer);
  LogCapture log;
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  whenAt(stream, offsets_[1], [&] {
    all->cancel();
    stream.failAtWrite = static_cast<std::int64_t>(stream.writes.size());
  });
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -90, "Cancelled by user.");
  EXPECT_EQ(offsets_[1], stream.bytes.size());
  // Only the log still tells what happened to the entry.
  ASSERT_EQ(1U, log.lines().size());
  EXPECT_EQ("stream writing failed: " +
                describe(KQ::NSError::errorWithDomain("KQZipErrorDomain", -51, "Error writing file")),
            log.lines()[0]);
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, CancelledBeforeTheStartItWritesNoByteOfAFirstEntryWithData) {
  // The CRC is the first to notice.
  KQZipFileWriter writer;
  addThree(writer);
  LogCapture log;
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->cancel();
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  all->resignCurrent();
  expectError(error, -90, "Cancelled by user.");
  EXPECT_EQ("", stream.bytes);
  EXPECT_EQ(Lines{}, log.lines());
}

TEST_F(KQZipFileWriterTest, CancelledBeforeTheStartItStillWritesAFirstEntryWithoutData) {
  KQZipFileWriter writer;
  const GoldenEntry entry = add(writer, "a", "");
  add(writer, "b", "");
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->cancel();
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  all->resignCurrent();
  expectError(error, -90, "Cancelled by user.");
  expectSameBytes(goldenLocalHeader(entry, 0), stream.bytes);
}

TEST_F(KQZipFileWriterTest, WithoutEntriesThereIsNoPlaceToCancel) {
  KQZipFileWriter writer;
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->cancel();
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  EXPECT_TRUE(writer.writeToStream(stream));
  all->resignCurrent();
  expectSameBytes(goldenArchive({}), stream.bytes);
}

TEST_F(KQZipFileWriterTest, CancellingWithoutASlotFailsAllTheSame) {
  KQZipFileWriter writer;
  addThree(writer);
  for (std::size_t i = 0; i < 3; ++i) {
    const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
    all->becomeCurrentWithPendingUnitCount(1);
    TestOutputStream stream;
    whenAt(stream, offsets_[i], [&] { all->cancel(); });
    EXPECT_FALSE(writer.writeToStream(stream));
    EXPECT_EQ(offsets_[i] + localHeaderLength("a"), stream.bytes.size());
    all->resignCurrent();
  }
}

TEST_F(KQZipFileWriterTest, AnotherThreadMayCancel) {
  KQZipFileWriter writer;
  addThree(writer);
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  whenAt(stream, offsets_[1], [&] { std::thread([&] { all->cancel(); }).join(); });
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -90, "Cancelled by user.");
  EXPECT_EQ(offsets_[1] + localHeaderLength("b"), stream.bytes.size());
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, CancellingTheWritersOwnProgressIsEnough) {
  KQZipFileWriter writer;
  addThree(writer);
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream stream;
  whenAt(stream, offsets_[1], [] { writersProgress()->cancel(); });
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -90, "Cancelled by user.");
  EXPECT_FALSE(all->isCancelled());
  all->resignCurrent();
}

TEST_F(KQZipFileWriterTest, CancellingOneEntryAloneFailsTheRunWithTheEntrysError) {
  KQZipFileWriter writer;
  addThree(writer);
  TestOutputStream stream;
  std::shared_ptr<KQ::NSProgress> writers;
  whenAt(stream, offsets_[1], [&] {
    writers = writersProgress();
    KQ::NSProgress::currentProgress()->cancel();
  });
  Error error;
  EXPECT_FALSE(writer.writeToStream(stream, &error));
  expectError(error, -90, "Operation was cancelled.");
  ASSERT_NE(nullptr, writers);
  EXPECT_FALSE(writers->isCancelled());
  EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress()) << "the writer's progress was resigned";
  EXPECT_EQ(offsets_[1] + localHeaderLength("b"), stream.bytes.size());
}

TEST_F(KQZipFileWriterTest, AfterACancellationTheProgressStaysCurrentUntilTheCallerResignsItsOwn) {
  KQZipFileWriter writer;
  addThree(writer);
  const auto outer = KQ::NSProgress::progressWithTotalUnitCount(1);
  outer->becomeCurrentWithPendingUnitCount(1);
  const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
  all->becomeCurrentWithPendingUnitCount(1);

  TestOutputStream stream;
  std::shared_ptr<KQ::NSProgress> writers;
  whenAt(stream, offsets_[1], [&] {
    writers = writersProgress();
    all->cancel();
  });
  EXPECT_FALSE(writer.writeToStream(stream));

  // On top is the entry's, 14 units for its 7 bytes; below it the writer's and then the caller's.
  const auto left = KQ::NSProgress::currentProgress();
  ASSERT_NE(nullptr, left);
  EXPECT_TRUE(left->isCancelled());
  EXPECT_EQ(14, left->totalUnitCount());
  left->resignCurrent();
  EXPECT_EQ(writers, KQ::NSProgress::currentProgress());

  all->resignCurrent();
  EXPECT_EQ(outer, KQ::NSProgress::currentProgress());
  EXPECT_FALSE(outer->isCancelled());
  outer->resignCurrent();
}

TEST_F(KQZipFileWriterTest, AfterACancellationTheWriterWritesAgainUnderAnotherProgress) {
  KQZipFileWriter writer;
  addThree(writer);
  const auto first = KQ::NSProgress::progressWithTotalUnitCount(1);
  first->becomeCurrentWithPendingUnitCount(1);
  TestOutputStream cancelled;
  whenAt(cancelled, offsets_[1], [&] { first->cancel(); });
  EXPECT_FALSE(writer.writeToStream(cancelled));
  first->resignCurrent();

  TestOutputStream stream;
  EXPECT_TRUE(writer.writeToStream(stream));
  expectSameBytes(goldenArchive(three_), stream.bytes);
}

TEST_F(KQZipFileWriterTest, ACancelledWriteToAPathIsLoggedAndLeavesThePartlyWrittenFile) {
  KQZipFileWriter writer;
  const GoldenEntry entry = add(writer, "a", "");
  add(writer, "b", "never reached");
  for (const bool withSlot : {true, false}) {
    const std::string path = tree_ / (withSlot ? "slot.zip" : "no-slot.zip");
    LogCapture log;
    const auto all = KQ::NSProgress::progressWithTotalUnitCount(1);
    all->cancel();
    all->becomeCurrentWithPendingUnitCount(1);
    Error error;
    EXPECT_FALSE(writer.writeToZipPath(path, withSlot ? &error : nullptr));
    all->resignCurrent();
    if (withSlot) expectError(error, -90, "Cancelled by user.");
    EXPECT_EQ(Lines{"closing stream because writing failed: " + describe(error)}, log.lines());
    expectSameBytes(goldenLocalHeader(entry, 0), readFile(path));
  }
}

// The permissions of the sources

TEST(KQZipFileWriterPermissions, AreThoseThatTheSourcesHadWhenTheyWereWritten) {
  const SourceTree tree;
  const std::map<std::string, mode_t> modes{{"a", 0755}, {"b", 0640}, {"c", 04711}, {"\xC3\xBC", 0400}};
  KQZipFileWriter writer;
  for (const auto& [name, mode] : modes) {
    tree.file(name, name);
    writer.addFilePath(tree / name, name);
  }
  const auto unwritten = writer.permissionsOfSources();
  for (const auto& [name, mode] : modes) EXPECT_EQ(std::nullopt, unwritten(name));

  for (const auto& [name, mode] : modes) ASSERT_EQ(0, ::chmod((tree / name).c_str(), mode));
  ASSERT_TRUE(writer.writeToZipPath(tree / "out.zip"));
  for (const auto& [name, mode] : modes) ASSERT_EQ(0, ::chmod((tree / name).c_str(), 0600));
  const auto permissions = writer.permissionsOfSources();
  for (const auto& [name, mode] : modes)
    EXPECT_EQ(std::optional<std::uint32_t>(mode), permissions(name)) << name;
  // In any order, again, and between names that it has not.
  for (const std::string name : {"c", "a", "missing", "", "c", "a", "b", "zz", "b"}) {
    const auto known = modes.find(name);
    EXPECT_EQ(known == modes.end() ? std::nullopt : std::optional<std::uint32_t>(known->second),
              permissions(name))
        << name;
  }
}

TEST(KQZipFileWriterPermissions, AreNotThoseOfASymbolicLink) {
  const SourceTree tree;
  tree.file("real", "contents");
  fs::create_symlink("real", tree / "link");
  KQZipFileWriter writer;
  writer.addFilePath(tree / "link", "link");
  ASSERT_TRUE(writer.writeToZipPath(tree / "out.zip"));
  EXPECT_EQ(std::nullopt, writer.permissionsOfSources()("link"));
}

TEST(KQZipFileWriterPermissions, OfAnEmptyWriterAreNone) {
  const KQZipFileWriter writer;
  EXPECT_EQ(std::nullopt, writer.permissionsOfSources()("a"));
}
