#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/EightThreads.h"
#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/ScriptedSystem.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

using KQ::NSProgress;
using Lines = std::vector<std::string>;

constexpr std::size_t mebibyte = 1048576;

/// Runs the test that is running once more, in a process where nothing was done before.
void expectPassesInAProcessOfItsOwn() {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(test.test_suite_name()) + "." + test.name();
  const ProcessResult result = runProcess(
      {"env", "-u", "GTEST_OUTPUT", "-u", "GTEST_TOTAL_SHARDS", "-u", "GTEST_SHARD_INDEX",
       "KQZIP_TEST_OWN_PROCESS=1", fs::read_symlink("/proc/self/exe").string(), "--gtest_filter=" + name});
  EXPECT_EQ(0, result.exitStatus) << result.output << result.errors;
  EXPECT_NE(std::string::npos, result.output.find("[  PASSED  ] 1 test.")) << result.output;
}

/// A tree of small files and of some with several blocks, and the archive that it gives.
class WriterThreads : public ::testing::Test {
 protected:
  WriterThreads() {
    for (std::size_t i = 10; i < 40; ++i) {
      const std::size_t size = i % 13 == 0 ? 2 * mebibyte + 1 : i * 100;
      const std::string name = "folder " + std::to_string(i / 10) + "/" + std::to_string(i);
      const std::string contents = patternBytes(size, static_cast<unsigned>(i));
      tree_.file("tree/" + name, contents);
      entries_.push_back(SourceTree::entry(name, contents));
    }
    whole_ = goldenArchive(entries_);
  }

  std::string archive(std::size_t number) const { return tree_ / ("archive " + std::to_string(number)); }

  void addAll(KQZipFileWriter& writer) const {
    for (const GoldenEntry& entry : entries_) writer.addFilePath(tree_ / ("tree/" + entry.name), entry.name);
  }

  SourceTree tree_;
  std::vector<GoldenEntry> entries_;
  std::string whole_;
};

}  // namespace

TEST_F(WriterThreads, EightWritersPackTheSameFilesAtOnce) {
  const LogCapture log;
  onEightThreads([this](std::size_t number) {
    KQZipFileWriter writer;
    addAll(writer);
    Error error;
    EXPECT_TRUE(writer.writeToZipPath(archive(number), &error)) << errorText(error);
    EXPECT_FALSE(NSProgress::currentProgress());
  });
  for (std::size_t number = 0; number < threadCount; ++number)
    expectSameBytes(whole_, readFile(archive(number)));
  EXPECT_EQ(Lines(), log.lines());
}

TEST_F(WriterThreads, OfEightWritersThatSeeNothingAtOnePathOneSucceedsAndItsArchiveIsWhole) {
  const LogCapture log;
  std::vector<GoldenEntry> entries;
  for (std::size_t number = 0; number < threadCount; ++number) {
    const std::string name = "written by " + std::to_string(number);
    const std::string contents = patternBytes(100 + 1000 * number, static_cast<unsigned>(number));
    tree_.file(name, contents);
    entries.push_back(SourceTree::entry(name, contents));
  }
  const std::size_t rounds = 50;
  for (std::size_t round = 0; round < rounds; ++round) {
    const std::string path = archive(round);
    // The threads meet where they open this path, and open it when the last has come.
    std::atomic<std::size_t> waiting{threadCount};
    ScriptedSystem system;
    system.act({.name = "open", .path = path}, [&waiting](const auto&) {
      --waiting;
      while (waiting > 0) std::this_thread::yield();
    });
    std::atomic<std::size_t> successes{0};
    std::atomic<std::size_t> winner{0};
    onEightThreads([&](std::size_t number) {
      KQZipFileWriter writer;
      writer.addFilePath(tree_ / entries[number].name, entries[number].name);
      Error error;
      if (writer.writeToZipPath(path, &error)) {
        ++successes;
        winner = number;
      } else {
        EXPECT_EQ("-1 Could not write to zip path " + path, errorText(error));
      }
    });
    ASSERT_EQ(0U, waiting) << "they have met";
    ASSERT_EQ(1U, successes) << "in round " << round;
    expectSameBytes(goldenArchive({entries[winner]}), readFile(path));
  }
  EXPECT_EQ(rounds * (threadCount - 1), log.lines().size());
}

TEST_F(WriterThreads, SomePackAFolderWhileOthersReadAnArchiveOfIt) {
  writeFile(tree_ / "read.zip", whole_);
  const LogCapture log;
  onEightThreads([this](std::size_t number) {
    Error error;
    if (number % 2 == 0) {
      EXPECT_TRUE(KQZipFileWriter::createZipFileAtPath(archive(number), tree_ / "tree", false, &error))
          << errorText(error);
      expectSameBytes(whole_, readFile(archive(number)));
      return;
    }
    const auto reader = KQZipFileReader::initWithZipPath(tree_ / "read.zip", &error);
    ASSERT_TRUE(reader) << errorText(error);
    EXPECT_EQ(entries_.size(), reader->relativePaths().size());
    for (const GoldenEntry& entry : entries_)
      EXPECT_TRUE(bytesOf(reader->dataForRelativePath(entry.name)).value_or("") == entry.data) << entry.name;
  });
  EXPECT_EQ(Lines(), log.lines());
}

TEST_F(WriterThreads, FractionsMayBeReadFromOutsideAndNeverGoBack) {
  KQZipFileWriter writer;
  addAll(writer);
  const auto progress = NSProgress::progressWithTotalUnitCount(1);
  std::atomic<bool> done{false};
  std::vector<std::thread> watchers;
  for (int i = 0; i < 4; ++i) {
    watchers.emplace_back([&] {
      double last = 0;
      while (!done) {
        const double fraction = progress->fractionCompleted();
        EXPECT_GE(fraction, last);
        EXPECT_LE(fraction, 1);
        EXPECT_LE(progress->completedUnitCount(), progress->totalUnitCount());
        last = fraction;
      }
    });
  }
  progress->becomeCurrentWithPendingUnitCount(1);
  EXPECT_TRUE(writer.writeToZipPath(archive(0)));
  progress->resignCurrent();
  done = true;
  for (std::thread& watcher : watchers) watcher.join();
  EXPECT_EQ(1, progress->fractionCompleted());
  expectSameBytes(whole_, readFile(archive(0)));
}

TEST_F(WriterThreads, CancellingAPackingFromAnotherThreadAtAnyMomentLeavesABeginning) {
  KQZipFileWriter writer;
  addAll(writer);
  std::mt19937 generator(5);
  std::uniform_real_distribution<double> moment(0, 1.1);
  for (std::size_t round = 0; round < 14; ++round) {
    SCOPED_TRACE(round);
    // Two of the moments are no chance: before the start, and not at all.
    const double threshold = round == 0 ? 0 : round == 1 ? 2 : moment(generator);
    const auto progress = NSProgress::progressWithTotalUnitCount(1);
    progress->becomeCurrentWithPendingUnitCount(1);
    std::atomic<bool> done{false};
    std::thread canceller([&] {
      while (!done && progress->fractionCompleted() < threshold) std::this_thread::yield();
      if (!done) progress->cancel();
    });
    while (round == 0 && !progress->isCancelled()) std::this_thread::yield();
    const LogCapture log;
    Error error;
    const bool written = writer.writeToZipPath(archive(round), &error);
    done = true;
    canceller.join();
    progress->resignCurrent();
    EXPECT_FALSE(NSProgress::currentProgress());
    const std::string bytes = readFile(archive(round));
    expectSameBytes(whole_.substr(0, bytes.size()), bytes, "what is there is the beginning of the archive");
    EXPECT_EQ(written, bytes.size() == whole_.size());
    EXPECT_EQ(written ? "no error" : "-90 Cancelled by user.", errorText(error));
    if (round <= 1) {
      EXPECT_EQ(round == 1, written);
    }
    fs::remove(archive(round));
  }
}

TEST_F(WriterThreads, OneCancellationEndsThePackingOnEveryThreadBelowIt) {
  const auto all = NSProgress::progressWithTotalUnitCount(threadCount);
  const LogCapture log;
  onEightThreads([&](std::size_t number) {
    KQZipFileWriter writer;
    addAll(writer);
    all->becomeCurrentWithPendingUnitCount(1);
    // What the others have written by then is up to chance; this one has not begun.
    if (number == 0) all->cancel();
    Error error;
    const bool written = writer.writeToZipPath(archive(number), &error);
    all->resignCurrent();
    if (number == 0) {
      EXPECT_FALSE(written);
    }
    EXPECT_EQ(written ? "no error" : "-90 Cancelled by user.", errorText(error));
    const std::string bytes = readFile(archive(number));
    expectSameBytes(written ? whole_ : whole_.substr(0, bytes.size()), bytes);
    EXPECT_FALSE(NSProgress::currentProgress());
  });
}

TEST_F(WriterThreads, TheRegistryIsReadWhileArchivesAreParsed) {
  if (std::getenv("KQZIP_TEST_OWN_PROCESS") == nullptr) return expectPassesInAProcessOfItsOwn();
  // Whoever comes first makes the registry.
  LocalRecord record = plainRecord("b", "with a field that nobody knows");
  record.extra = extraFieldBytes(0x7777, "unknown");
  writeFile(tree_ / "read.zip", archiveBytes({zip64Record("a", "with a field that is known"), record}));
  onEightThreads([this](std::size_t number) {
    for (int round = 0; round < 50; ++round) {
      if (number % 2 == 0) {
        const auto& classes = KQZipExtraField::subclasses();
        ASSERT_EQ(1U, classes.size());
        EXPECT_TRUE(classes[0].isValidForIdentifier(1));
        EXPECT_FALSE(classes[0].isValidForIdentifier(0x7777));
      } else {
        const auto reader = KQZipFileReader::initWithZipPath(tree_ / "read.zip");
        ASSERT_TRUE(reader);
        EXPECT_EQ("with a field that is known", bytesOf(reader->dataForRelativePath("a")));
        EXPECT_EQ("with a field that nobody knows", bytesOf(reader->dataForRelativePath("b")));
      }
    }
  });
}

TEST_F(WriterThreads, CentralHeadersAreWrittenWhileTheirLocalHeadersAreReleased) {
  for (int round = 0; round < 30; ++round) {
    std::vector<std::shared_ptr<KQZipFileLocalHeader>> locals;
    std::vector<std::shared_ptr<KQZipCentralDirectoryFileHeader>> centrals;
    for (int i = 0; i < 20; ++i) {
      locals.push_back(KQZipFileLocalHeader::initWithSourceFile(tree_ / ("tree/" + entries_[0].name)));
      locals.back()->setOffset(1000);
      centrals.push_back(std::make_shared<KQZipCentralDirectoryFileHeader>());
      centrals.back()->setLocalHeader(locals.back());
      centrals.back()->copyPropertiesFromHeader(*locals.back());
    }
    std::atomic<bool> begun{false};
    std::thread releaser([&] {
      while (!begun) std::this_thread::yield();
      for (auto& local : locals) local.reset();
    });
    TestOutputStream stream;
    begun = true;
    for (const auto& central : centrals) {
      EXPECT_TRUE(central->writeToStream(stream));
      // Without a local header the record says that it is the first.
      const std::uint32_t offset = central->offsetOfLocalHeader();
      EXPECT_TRUE(offset == 0 || offset == 1000) << offset;
    }
    releaser.join();
    for (const auto& central : centrals) EXPECT_FALSE(central->localHeader());
  }
}
