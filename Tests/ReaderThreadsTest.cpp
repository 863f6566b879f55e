#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/EightThreads.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;

using KQ::NSProgress;
using KQTest::archiveBytes;
using KQTest::bytesOf;
using KQTest::Error;
using KQTest::errorText;
using KQTest::LocalRecord;
using KQTest::LogCapture;
using KQTest::onEightThreads;
using KQTest::patternBytes;
using KQTest::plainRecord;
using KQTest::readFile;
using KQTest::TemporaryDirectory;
using KQTest::threadCount;
using KQTest::writeFile;
using KQTest::zip64Record;

using Reader = std::shared_ptr<KQZipFileReader>;
using Records = std::vector<LocalRecord>;

constexpr std::size_t mebibyte = 1048576;

/// Records whose paths are in sorted order, of sizes on both sides of a block.
Records someRecords() {
  Records records;
  const std::vector<std::size_t> sizes = {1, 5000, 65536, 0, 100, mebibyte + 1, 4095, 70000};
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    const std::string path = "folder " + std::to_string(i / 3) + "/" + std::to_string(i);
    const std::string data = patternBytes(sizes[i], static_cast<unsigned>(i));
    records.push_back(i % 2 == 0 ? plainRecord(path, data) : zip64Record(path, data));
  }
  return records;
}

std::vector<std::string> pathsOf(const Records& records) {
  std::vector<std::string> paths;
  for (const LocalRecord& record : records) paths.push_back(record.name);
  return paths;
}

TEST(ReaderThreads, EightThreadsUseOneReaderAtOnce) {
  const TemporaryDirectory folder;
  const Records records = someRecords();
  writeFile(folder / "a.zip", archiveBytes(records));
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  onEightThreads([&](std::size_t number) {
    const std::string out = folder / ("out " + std::to_string(number));
    for (std::size_t round = 0; round < 2; ++round) {
      EXPECT_EQ(pathsOf(records), reader->relativePaths());
      for (std::size_t i = 0; i < records.size(); ++i) {
        // Each thread begins with another entry.
        const LocalRecord& record = records[(i + number) % records.size()];
        const auto attributes = reader->attributesForRelativePath(record.name);
        EXPECT_EQ(record.data.size(), attributes->NSFileSize);
        EXPECT_EQ("2020-06-15 12:34:56", KQTest::localTime(*attributes->NSFileModificationDate));
        EXPECT_TRUE(bytesOf(reader->dataForRelativePath(record.name)).value_or("") == record.data);
        const auto stream = reader->streamForRelativePath(record.name);
        EXPECT_TRUE(KQTest::readFrom(*stream, record.data.size()) == record.data);
        stream->close();
        Error error;
        EXPECT_TRUE(reader->writeDataForRelativePath(record.name, out, &error)) << errorText(error);
        EXPECT_TRUE(readFile(out) == record.data);
        EXPECT_FALSE(reader->dataForRelativePath("unknown"));
      }
    }
  });
}

TEST(ReaderThreads, EightThreadsWriteBelowOneFolderThatNoneOfThemFinds) {
  const TemporaryDirectory folder;
  const Records records = someRecords();
  writeFile(folder / "a.zip", archiveBytes(records));
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  onEightThreads([&](std::size_t number) {
    const LocalRecord& record = records[number];
    Error error;
    EXPECT_TRUE(reader->writeDataForRelativePath(record.name,
                                                 folder / ("new/deep/er/" + std::to_string(number)), &error))
        << errorText(error);
    EXPECT_TRUE(readFile(folder / ("new/deep/er/" + std::to_string(number))) == record.data);
  });
}

TEST(ReaderThreads, EightThreadsOpenAndExtractOneArchiveAtOnce) {
  const TemporaryDirectory folder;
  const Records records = someRecords();
  writeFile(folder / "a.zip", archiveBytes(records));
  LogCapture log;
  onEightThreads([&](std::size_t number) {
    const std::string out = folder / ("out " + std::to_string(number));
    Error error;
    EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", out, &error)) << errorText(error);
    for (const LocalRecord& record : records) {
      if (record.data.empty())
        EXPECT_TRUE(fs::is_directory(fs::path(out) / record.name));
      else
        EXPECT_TRUE(readFile(fs::path(out) / record.name) == record.data);
    }
  });
  EXPECT_EQ(std::vector<std::string>(), log.lines());
}

TEST(ReaderThreads, EightThreadsFailOnDamagedArchivesAtOnce) {
  const TemporaryDirectory folder;
  writeFile(folder / "unknown.zip", plainRecord("a", "1").bytes() + "%PDF");
  writeFile(folder / "cut.zip", plainRecord("a", "1").bytes().substr(0, 20));
  LogCapture log;
  onEightThreads([&](std::size_t number) {
    const bool cut = number % 2 == 0;
    for (int round = 0; round < 20; ++round) {
      Error error;
      EXPECT_FALSE(KQZipFileReader::initWithZipPath(folder / (cut ? "cut.zip" : "unknown.zip"), &error));
      EXPECT_EQ(cut ? "no error" : "-100 got unexpected bytes looking for known signatures: 46445025",
                errorText(error));
    }
  });
  EXPECT_EQ(std::vector<std::string>(20 * threadCount / 2,
                                     "Failed to parse KQZipFileLocalHeader from stream: (null)"),
            log.lines());
}

TEST(ReaderThreads, EachThreadHasProgressOfItsOwn) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes(someRecords()));
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  onEightThreads([&](std::size_t number) {
    const bool cancels = number % 2 == 0;
    const auto progress = NSProgress::progressWithTotalUnitCount(1);
    progress->becomeCurrentWithPendingUnitCount(1);
    if (cancels) progress->cancel();
    Error error;
    EXPECT_EQ(!cancels, KQZipFileReader::unzipFileAtPath(folder / "a.zip",
                                                         folder / ("out " + std::to_string(number)), &error));
    EXPECT_EQ(cancels ? "-90 Cancelled By User." : "no error", errorText(error));
    EXPECT_EQ(!cancels, progress == NSProgress::currentProgress());
    progress->resignCurrent();
    EXPECT_FALSE(NSProgress::currentProgress());
  });
}

/// Checks what a cancelled extraction left: in the order of the paths some files that are whole, at most one
/// that was begun, and then none.
void expectFrontOfRecords(const Records& records, const fs::path& destination) {
  bool ended = false;
  for (const LocalRecord& record : records) {
    const fs::path path = destination / record.name;
    if (!fs::exists(path)) {
      ended = true;
      continue;
    }
    EXPECT_FALSE(ended) << record.name;
    const std::string written = readFile(path);
    EXPECT_TRUE(written == record.data.substr(0, written.size())) << record.name;
    // Between two blocks is where a copy stops.
    if (written.size() != record.data.size()) {
      EXPECT_EQ(0U, written.size() % mebibyte) << record.name;
      ended = true;
    }
  }
}

/// Records for the cancellations: many small ones and some of several blocks, in the order of their paths.
Records recordsToCancel() {
  Records records;
  for (int i = 10; i < 50; ++i) {
    const std::size_t size = i % 13 == 0 ? 2 * mebibyte + 1 : 3000;
    records.push_back(zip64Record(std::to_string(i), patternBytes(size, static_cast<unsigned>(i))));
  }
  return records;
}

TEST(ReaderThreads, CancellingAnExtractionFromAnotherThreadAtAnyMomentStopsItInOrder) {
  const TemporaryDirectory folder;
  const Records records = recordsToCancel();
  writeFile(folder / "a.zip", archiveBytes(records));
  std::mt19937 generator(7);
  std::uniform_real_distribution<double> moment(0, 1.1);
  for (int round = 0; round < 14; ++round) {
    const fs::path out = folder / ("out " + std::to_string(round));
    // Two of the moments are no chance: before the start, and not at all.
    const double threshold = round == 0 ? 0 : round == 1 ? 2 : moment(generator);
    const auto progress = NSProgress::progressWithTotalUnitCount(1);
    progress->becomeCurrentWithPendingUnitCount(1);
    std::atomic<bool> begun{false};
    std::atomic<bool> done{false};
    std::thread canceller([&] {
      while (!done && progress->fractionCompleted() < threshold) std::this_thread::yield();
      if (!done) progress->cancel();
      begun = true;
    });
    if (round == 0) {
      while (!begun) std::this_thread::yield();
    }
    Error error;
    const bool extracted = KQZipFileReader::unzipFileAtPath(folder / "a.zip", out.string(), &error);
    done = true;
    canceller.join();
    if (round == 0) {
      EXPECT_FALSE(extracted);
      EXPECT_FALSE(fs::exists(out / records[1].name));
    }
    if (round == 1) {
      EXPECT_TRUE(extracted);
    }
    if (extracted) {
      EXPECT_FALSE(error) << errorText(error);
      EXPECT_TRUE(fs::exists(out / records.back().name));
    } else {
      EXPECT_EQ("-90 Cancelled By User.", errorText(error));
      EXPECT_NE(progress, NSProgress::currentProgress());
    }
    expectFrontOfRecords(records, out);
    progress->resignCurrent();
    EXPECT_FALSE(NSProgress::currentProgress());
    fs::remove_all(out);
  }
}

TEST(ReaderThreads, CancellingTheCopyOfOneEntryFromAnotherThreadAtAnyMomentKeepsWholeBlocks) {
  const TemporaryDirectory folder;
  const Records records = {plainRecord("a", patternBytes(6 * mebibyte + 5))};
  writeFile(folder / "a.zip", archiveBytes(records));
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  std::mt19937 generator(11);
  std::uniform_real_distribution<double> moment(0, 1.1);
  for (int round = 0; round < 8; ++round) {
    const double threshold = moment(generator);
    const auto progress = NSProgress::progressWithTotalUnitCount(1);
    progress->becomeCurrentWithPendingUnitCount(1);
    std::atomic<bool> done{false};
    std::thread canceller([&] {
      while (!done && progress->fractionCompleted() < threshold) std::this_thread::yield();
      if (!done) progress->cancel();
    });
    Error error;
    const bool written = reader->writeDataForRelativePath("a", folder / "out/a", &error);
    done = true;
    canceller.join();
    EXPECT_EQ(written ? "no error" : "-90 Cancelled By User.", errorText(error));
    if (written) {
      EXPECT_EQ(records[0].data.size(), fs::file_size(folder / "out/a"));
    }
    expectFrontOfRecords(records, folder / "out");
    progress->resignCurrent();
    EXPECT_FALSE(NSProgress::currentProgress());
    fs::remove_all(folder / "out");
  }
}

}  // namespace
