#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/ErrorExpectations.h"
#include "Support/FileSizeLimit.h"
#include "Support/LogCapture.h"
#include "Support/NamedPipe.h"
#include "Support/Surroundings.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

namespace {

namespace fs = std::filesystem;

using KQ::NSProgress;
using KQTest::archiveBytes;
using KQTest::Error;
using KQTest::errorText;
using KQTest::LocalRecord;
using KQTest::LogCapture;
using KQTest::NamedPipe;
using KQTest::patternBytes;
using KQTest::plainRecord;
using KQTest::readFile;
using KQTest::SystemCalls;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;
using KQTest::zip64Record;

using Lines = std::vector<std::string>;
using Progress = std::shared_ptr<NSProgress>;
using Reader = std::shared_ptr<KQZipFileReader>;

constexpr std::size_t mebibyte = 1048576;
constexpr std::size_t threeBlocksAndAByte = 3 * mebibyte + 1;
const std::string cancelled = "-90 Cancelled By User.";

Reader readerOn(const std::string& path, const std::vector<LocalRecord>& records) {
  writeFile(path, archiveBytes(records));
  Reader reader = KQZipFileReader::initWithZipPath(path);
  EXPECT_TRUE(reader);
  return reader;
}

/// What the file manager itself says to creating a folder, which must fail.
Error errorOfCreatingFolder(const std::string& path) {
  Error error;
  EXPECT_FALSE(KQ::NSFileManager::createDirectoryAtPath(path, true, &error));
  return error;
}

void expectSameError(const Error& expected, const Error& actual) {
  ASSERT_TRUE(expected);
  ASSERT_TRUE(actual);
  EXPECT_EQ(KQ::NSPOSIXErrorDomain, actual->domain());
  EXPECT_EQ(expected->domain(), actual->domain());
  EXPECT_EQ(expected->code(), actual->code());
  EXPECT_EQ(expected->localizedDescription(), actual->localizedDescription());
}

/// The progress of a caller who watches and cancels, current on the thread while it exists.
class Caller {
 public:
  Caller() : progress(NSProgress::progressWithTotalUnitCount(1)) {
    progress->becomeCurrentWithPendingUnitCount(1);
  }
  ~Caller() { progress->resignCurrent(); }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  const Progress progress;
};

/// Takes the log lines and calls back on each, on the thread that logs.
class LogHook {
 public:
  explicit LogHook(std::function<void()> step)
      : previous_(KQ::NSSetLogSink([this, step = std::move(step)](const std::string& line) {
          lines.push_back(line);
          step();
        })) {}
  ~LogHook() { KQ::NSSetLogSink(previous_); }
  LogHook(const LogHook&) = delete;
  LogHook& operator=(const LogHook&) = delete;

  Lines lines;

 private:
  KQ::NSLogSink previous_;
};

/// An extra field that calls back when a scan meets it.
class StepField : public KQZipExtraField {
 public:
  static constexpr std::uint16_t identifier = 0x5374;
  static bool isValidForIdentifier(std::uint16_t candidate) { return candidate == identifier; }
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) override {
    if (step) step();
    return KQZipExtraField::parseFromStream(stream, error);
  }
  static inline std::function<void()> step;
};

LocalRecord withStep(LocalRecord record) {
  record.extra += KQTest::extraFieldBytes(StepField::identifier, "step");
  return record;
}

/// Runs `body` in a child process whose files cannot grow beyond `limit` bytes.
void withFilesUpTo(rlim_t limit, const std::function<void()>& body) {
  KQTest::inChildProcess([limit, &body] {
    std::signal(SIGXFSZ, SIG_IGN);
    KQTest::withFileSizeLimit(limit, body);
  });
}

// One entry.

TEST(ExtractionOfOneEntry, AnUnknownPathIsASuccessThatWritesNothing) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  writeFile(folder / "kept", "kept");
  LogCapture log;
  const Error before = KQTest::earlierError();
  Error error = before;
  EXPECT_TRUE(reader->writeDataForRelativePath("unknown", folder / "new/file", &error));
  EXPECT_TRUE(reader->writeDataForRelativePath("A", folder / "kept", &error));
  EXPECT_TRUE(reader->writeDataForRelativePath("unknown", folder / "new/file"));
  EXPECT_EQ(before, error);
  EXPECT_FALSE(fs::exists(folder / "new"));
  EXPECT_EQ("kept", readFile(folder / "kept"));
  EXPECT_EQ(Lines(), log.lines());
}

TEST(ExtractionOfOneEntry, AnUnknownPathMakesNoProgress) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  const Progress progress = NSProgress::progressWithTotalUnitCount(1);
  progress->becomeCurrentWithPendingUnitCount(1);
  EXPECT_TRUE(reader->writeDataForRelativePath("unknown", folder / "file"));
  EXPECT_EQ(progress, NSProgress::currentProgress());
  progress->resignCurrent();
  // Resigning counts the children made meanwhile, and there were none.
  EXPECT_EQ(0, progress->completedUnitCount());
}

TEST(ExtractionOfOneEntry, AnUnknownPathIsASuccessUnderACancelledProgressToo) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  const Caller caller;
  caller.progress->cancel();
  EXPECT_TRUE(reader->writeDataForRelativePath("unknown", folder / "file"));
  EXPECT_EQ(caller.progress, NSProgress::currentProgress());
}

TEST(ExtractionOfOneEntry, AnEntryWithoutDataBecomesAnEmptyFile) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("empty", ""), plainRecord("folder/", "")});
  writeFile(folder / "old", "replaced");
  for (const char* path : {"empty", "folder/"}) {
    for (const char* target : {"new", "below/new", "old"}) {
      Error error;
      EXPECT_TRUE(reader->writeDataForRelativePath(path, folder / target, &error)) << errorText(error);
      EXPECT_TRUE(fs::is_regular_file(folder / target)) << target;
      EXPECT_EQ("", readFile(folder / target));
    }
  }
}

TEST(ExtractionOfOneEntry, DataComesWholeAtEverySizeAroundTheBlocks) {
  const TemporaryDirectory folder;
  std::vector<LocalRecord> records;
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{4096}, std::size_t{65535}, std::size_t{65536}, std::size_t{65537},
        mebibyte - 1, mebibyte, mebibyte + 1, 2 * mebibyte, threeBlocksAndAByte}) {
    records.push_back(
        zip64Record(std::to_string(size), patternBytes(size, static_cast<unsigned>(records.size()))));
  }
  const Reader reader = readerOn(folder / "a.zip", records);
  for (const LocalRecord& record : records) {
    Error error;
    EXPECT_TRUE(reader->writeDataForRelativePath(record.name, folder / record.name, &error));
    EXPECT_FALSE(error);
    EXPECT_TRUE(readFile(folder / record.name) == record.data) << record.name;
  }
}

TEST(ExtractionOfOneEntry, AnExistingFileIsReplacedAndNotJustOverwritten) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "short")});
  writeFile(folder / "a", "something much longer than the entry");
  EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "a"));
  EXPECT_EQ("short", readFile(folder / "a"));
}

TEST(ExtractionOfOneEntry, MissingParentFoldersAreCreated) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "one/two/three/file"));
  EXPECT_EQ("data", readFile(folder / "one/two/three/file"));
}

TEST(ExtractionOfOneEntry, ATargetWithoutAFolderGoesIntoTheCurrentOne) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  KQTest::inChildProcess([&] {
    ASSERT_EQ(0, chdir(folder.path().c_str()));
    Error error;
    EXPECT_TRUE(reader->writeDataForRelativePath("a", "file", &error)) << errorText(error);
  });
  EXPECT_EQ("data", readFile(folder / "file"));
}

TEST(ExtractionOfOneEntry, NoAttributesOfTheEntryAreApplied) {
  const TemporaryDirectory folder;
  LocalRecord old = plainRecord("a", "data");
  old.modDate = 0x0A21;  // 1 January 1985
  const Reader reader = readerOn(folder / "a.zip", {old});
  EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "a"));
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  const std::string dateInArchive =
      KQTest::localTime(*reader->attributesForRelativePath("a")->NSFileModificationDate);
  EXPECT_EQ("1985-01-01 12:34:56", dateInArchive);
  for (const char* path : {"a", "out/a"}) {
    const auto attributes = KQ::NSFileManager::attributesOfItemAtPath(folder / path);
    ASSERT_TRUE(attributes);
    EXPECT_NE(dateInArchive, KQTest::localTime(*attributes->NSFileModificationDate));
  }
}

TEST(ExtractionOfOneEntry, TheCrcIsNotChecked) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", plainRecord("a", "data").header() + "Data");
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "a"));
  EXPECT_EQ("Data", readFile(folder / "a"));
}

TEST(ExtractionOfOneEntry, AnArchiveThatEndsEarlyIsASuccessWithAShortFile) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(2 * mebibyte + 5);
  for (const std::size_t present :
       {std::size_t{0}, std::size_t{1}, mebibyte, mebibyte + 7, 2 * mebibyte + 4}) {
    LocalRecord record = zip64Record("a", data);
    writeFile(folder / "a.zip", record.header() + data.substr(0, present));
    const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
    ASSERT_TRUE(reader);
    const Error before = KQTest::earlierError();
    Error error = before;
    EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "out", &error)) << present;
    EXPECT_EQ(before, error);
    EXPECT_TRUE(readFile(folder / "out") == data.substr(0, present)) << present;
    EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "whole", &error));
    EXPECT_TRUE(readFile(folder / "whole/a") == data.substr(0, present)) << present;
  }
}

TEST(ExtractionOfOneEntry, AParentThatIsAFileFailsWithTheFileManagersErrorAndIsNotLogged) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  writeFile(folder / "file", "kept");
  for (const char* parent : {"file", "file/below", "file/deep/below"}) {
    const Error expected = errorOfCreatingFolder(folder / parent);
    LogCapture log;
    Error error = KQTest::earlierError();
    EXPECT_FALSE(reader->writeDataForRelativePath("a", (folder / parent) + "/target", &error));
    expectSameError(expected, error);
    EXPECT_FALSE(reader->writeDataForRelativePath("a", (folder / parent) + "/target"));
    EXPECT_EQ(Lines(), log.lines());
    EXPECT_FALSE(NSProgress::currentProgress());
  }
  EXPECT_EQ("kept", readFile(folder / "file"));
}

TEST(ExtractionOfOneEntry, AParentThatMayNotBeCreatedFailsWithTheFileManagersError) {
  KQTest::inUnprivilegedChildProcess([] {
    const TemporaryDirectory folder;
    const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
    fs::create_directory(folder / "locked");
    fs::permissions(folder / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    Error error;
    EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "locked/new/target", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(EACCES, error->code());
    expectSameError(errorOfCreatingFolder(folder / "locked/new"), error);
  });
}

TEST(ExtractionOfOneEntry, ATargetThatCannotBeOpenedIsAFailureThatLeavesTheSlotAsItWas) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(
      folder / "a.zip", {plainRecord("small", "data"), plainRecord("large", patternBytes(mebibyte + 1))});
  fs::create_directories(folder / "folder/inside");
  for (const char* path : {"small", "large"}) {
    LogCapture log;
    Error error;
    EXPECT_FALSE(reader->writeDataForRelativePath(path, folder / "folder", &error));
    EXPECT_FALSE(error) << errorText(error);
    const Error before = KQTest::earlierError();
    error = before;
    EXPECT_FALSE(reader->writeDataForRelativePath(path, folder / "folder", &error));
    EXPECT_EQ(before, error);
    EXPECT_EQ(Lines(), log.lines());
    EXPECT_FALSE(NSProgress::currentProgress());
  }
  EXPECT_TRUE(fs::exists(folder / "folder/inside"));
}

TEST(ExtractionOfOneEntry, AFullDiskIsAFailureWithoutAnErrorHoweverSmallTheFile) {
  const TemporaryDirectory folder;
  const std::string small = patternBytes(5000);
  const std::string large = patternBytes(threeBlocksAndAByte);
  const Reader reader = readerOn(
      folder / "a.zip", {plainRecord("tiny", "x"), plainRecord("small", small), plainRecord("large", large)});
  struct Case {
    const char* path;
    const std::string& data;
    rlim_t limit;
  };
  const std::string tiny = "x";
  for (const Case& full :
       {Case{"tiny", tiny, 0}, Case{"small", small, 0}, Case{"small", small, 1000},
        Case{"small", small, 4999}, Case{"large", large, 0}, Case{"large", large, mebibyte},
        Case{"large", large, mebibyte + mebibyte / 2}, Case{"large", large, 3 * mebibyte}}) {
    withFilesUpTo(full.limit, [&] {
      LogCapture log;
      const Error before = KQTest::earlierError();
      Error error = before;
      EXPECT_FALSE(reader->writeDataForRelativePath(full.path, folder / "out", &error)) << full.limit;
      EXPECT_EQ(before, error) << errorText(error);
      EXPECT_FALSE(reader->writeDataForRelativePath(full.path, folder / "out"));
      EXPECT_EQ(Lines(), log.lines());
      EXPECT_FALSE(NSProgress::currentProgress());
    });
    const std::string written = readFile(folder / "out");
    EXPECT_LE(written.size(), full.limit);
    EXPECT_TRUE(written == full.data.substr(0, written.size())) << full.limit;
  }
}

TEST(ExtractionOfOneEntry, AFileThatJustFitsIsASuccess) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(mebibyte + 1);
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", data)});
  withFilesUpTo(mebibyte + 1, [&] { EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "out")); });
  EXPECT_TRUE(readFile(folder / "out") == data);
}

TEST(ExtractionOfOneEntry, AReadErrorIsAFailureWithoutAnError) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  // A folder can be opened, and every read from it fails.
  fs::remove(folder / "a.zip");
  fs::create_directory(folder / "a.zip");
  LogCapture log;
  const Error before = KQTest::earlierError();
  Error error = before;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "out", &error));
  EXPECT_EQ(before, error);
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "out"));
  EXPECT_EQ("", readFile(folder / "out"));
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_FALSE(NSProgress::currentProgress());
}

TEST(ExtractionOfOneEntry, EveryReadOrWriteThatFailsIsAFailureWithoutAnErrorThatKeepsWhatWasWritten) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(threeBlocksAndAByte);
  const Reader reader =
      readerOn(folder / "a.zip", {plainRecord("a", data), plainRecord("small", "x"), plainRecord("c", "")});
  for (const char* path : {"a", "small"}) {
    const std::string whole = path == std::string("a") ? data : "x";
    std::size_t count = 0;
    {
      SystemCalls calls;
      calls.cannotMove = true;
      ASSERT_TRUE(reader->writeDataForRelativePath(path, folder / "out"));
      count = calls.transfers.size();
    }
    EXPECT_GE(count, 2U);
    for (std::size_t number = 1; number <= count; ++number) {
      const Error before = KQTest::earlierError();
      Error error = before;
      {
        SystemCalls calls;
        calls.cannotMove = true;
        calls.failAt = number;
        EXPECT_FALSE(reader->writeDataForRelativePath(path, folder / "out", &error)) << number;
      }
      EXPECT_EQ(before, error) << errorText(error);
      EXPECT_FALSE(NSProgress::currentProgress());
      const std::string written = readFile(folder / "out");
      EXPECT_TRUE(written == whole.substr(0, written.size())) << number;
    }
  }
}

TEST(ExtractionOfOneEntry, AReadErrorBehindTheFirstBlockKeepsThatBlock) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(threeBlocksAndAByte);
  const LocalRecord record = plainRecord("a", data);
  const Reader reader = readerOn(folder / "a.zip", {record});
  const auto dataOffset = static_cast<std::int64_t>(record.header().size());
  {
    SystemCalls calls;
    calls.beforeTransfer = [&calls, dataOffset](const SystemCalls::Transfer& transfer) {
      if (transfer.offset >= dataOffset + static_cast<std::int64_t>(mebibyte))
        calls.failAt = calls.transfers.size() + 1;
    };
    Error error;
    EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "out", &error));
    EXPECT_FALSE(error) << errorText(error);
    ASSERT_NE(0U, calls.failAt);
  }
  EXPECT_TRUE(readFile(folder / "out") == data.substr(0, mebibyte));
}

TEST(ExtractionOfOneEntry, TransfersThatMoveLessOrAreInterruptedLoseNothing) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(mebibyte + 1);
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", data)});
  {
    SystemCalls calls;
    calls.longestTransfer = 5000;
    calls.interruptEveryOther = true;
    EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "out"));
    EXPECT_GT(calls.interruptions, 0U);
  }
  EXPECT_TRUE(readFile(folder / "out") == data);
}

TEST(ExtractionOfOneEntry, AnArchiveThatWasRemovedIsAFailureWithoutAnErrorWhereThereIsData) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  fs::remove(folder / "a.zip");
  const LogCapture log;
  const Error before = KQTest::earlierError();
  Error error = before;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "new/out", &error));
  EXPECT_EQ(before, error);
  EXPECT_FALSE(NSProgress::currentProgress());
  // The target is made before anything is read.
  EXPECT_EQ("", readFile(folder / "new/out"));
  EXPECT_EQ(Lines(), log.lines());
}

TEST(ExtractionOfOneEntry, AnEntryWithoutDataNeedsNoArchive) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("empty", "")});
  fs::remove(folder / "a.zip");
  const Error before = KQTest::earlierError();
  Error error = before;
  EXPECT_TRUE(reader->writeDataForRelativePath("empty", folder / "new/out", &error));
  EXPECT_EQ(before, error);
  EXPECT_FALSE(NSProgress::currentProgress());
  EXPECT_EQ("", readFile(folder / "new/out"));
}

TEST(ExtractionOfOneEntry, AParentThatCannotBeMadeIsReportedForAnArchiveThatWasRemovedToo) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  fs::remove(folder / "a.zip");
  writeFile(folder / "file", "");
  Error error;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "file/out", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(KQ::NSPOSIXErrorDomain, error->domain());
}

// The progress of one entry.

TEST(ExtractionOfOneEntry, NothingStaysCurrentAfterASuccess) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data"), plainRecord("empty", "")});
  for (const char* path : {"a", "empty"}) {
    EXPECT_TRUE(reader->writeDataForRelativePath(path, folder / "out"));
    EXPECT_FALSE(NSProgress::currentProgress());
    const Caller caller;
    EXPECT_TRUE(reader->writeDataForRelativePath(path, folder / "out"));
    EXPECT_EQ(caller.progress, NSProgress::currentProgress());
  }
}

TEST(ExtractionOfOneEntry, NothingStaysCurrentAfterAFailureThatIsNoCancellation) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  writeFile(folder / "file", "");
  const Caller caller;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "file/below"));
  EXPECT_EQ(caller.progress, NSProgress::currentProgress());
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder.path().string()));
  EXPECT_EQ(caller.progress, NSProgress::currentProgress());
}

TEST(ExtractionOfOneEntry, ACompleteCopyFinishesTheCallersUnit) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", patternBytes(mebibyte + 1))});
  const Caller caller;
  EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "out"));
  EXPECT_EQ(1, caller.progress->completedUnitCount());
  EXPECT_TRUE(caller.progress->isFinished());
}

TEST(ExtractionOfOneEntry, ADataAreaThatEndsEarlyDoesNotFinishTheCallersUnitByItself) {
  const TemporaryDirectory folder;
  LocalRecord record = plainRecord("a", "half");
  record.size = 8;
  writeFile(folder / "a.zip", record.bytes());
  const Reader reader = KQZipFileReader::initWithZipPath(folder / "a.zip");
  ASSERT_TRUE(reader);
  const Progress progress = NSProgress::progressWithTotalUnitCount(1);
  progress->becomeCurrentWithPendingUnitCount(1);
  EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "out"));
  EXPECT_EQ(0, progress->completedUnitCount());
  progress->resignCurrent();
  EXPECT_EQ(1, progress->completedUnitCount());
}

TEST(ExtractionOfOneEntry, ThreeMebibytesAndAByteAreCountedInFourSteps) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(threeBlocksAndAByte);
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", data)});
  NamedPipe pipe(folder / "pipe");
  const Caller caller;
  std::string copied;
  std::vector<double> fractions;
  std::thread watcher([&] {
    // The first byte of a block can only be read once the blocks before it have been counted.
    copied = pipe.read(1);
    fractions.push_back(caller.progress->fractionCompleted());
    for (int block = 1; block <= 3; ++block) {
      copied += pipe.read(mebibyte);
      fractions.push_back(caller.progress->fractionCompleted());
    }
    copied += pipe.readToEnd();
  });
  Error error;
  EXPECT_TRUE(reader->writeDataForRelativePath("a", folder / "pipe", &error));
  watcher.join();
  EXPECT_TRUE(copied == data);
  ASSERT_EQ(4U, fractions.size());
  for (std::size_t block = 0; block < fractions.size(); ++block) {
    EXPECT_NEAR(static_cast<double>(block * mebibyte) / static_cast<double>(threeBlocksAndAByte),
                fractions[block], block == 3 ? 1e-6 : 1e-9)
        << block;
  }
}

TEST(ExtractionOfOneEntry, ACancelledProgressStopsTheCopyBehindTheFirstBlock) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(threeBlocksAndAByte);
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", data)});
  const Progress progress = NSProgress::progressWithTotalUnitCount(1);
  progress->becomeCurrentWithPendingUnitCount(1);
  progress->cancel();
  LogCapture log;
  Error error = KQTest::earlierError();
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "out", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ("KQZipErrorDomain", error->domain());
  EXPECT_EQ(cancelled, errorText(error));
  EXPECT_TRUE(readFile(folder / "out") == data.substr(0, mebibyte));
  EXPECT_EQ(Lines(), log.lines());

  // The copy's progress, in bytes, stays current until the caller resigns its own.
  const Progress left = NSProgress::currentProgress();
  ASSERT_TRUE(left);
  EXPECT_NE(progress, left);
  EXPECT_TRUE(left->isCancelled());
  EXPECT_EQ(static_cast<std::int64_t>(threeBlocksAndAByte), left->totalUnitCount());
  EXPECT_EQ(static_cast<std::int64_t>(mebibyte), left->completedUnitCount());
  progress->resignCurrent();
  EXPECT_FALSE(NSProgress::currentProgress());
}

TEST(ExtractionOfOneEntry, ACancelledCopyOfOneBlockFailsAlthoughTheFileIsWhole) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  const Caller caller;
  caller.progress->cancel();
  Error error;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "out", &error));
  EXPECT_EQ(cancelled, errorText(error));
  EXPECT_EQ("data", readFile(folder / "out"));
  const Progress left = NSProgress::currentProgress();
  EXPECT_NE(caller.progress, left);
  EXPECT_EQ(4, left->totalUnitCount());
  EXPECT_EQ(4, left->completedUnitCount());
}

TEST(ExtractionOfOneEntry, AnEntryWithoutDataIsWrittenUnderACancelledProgressWhichStaysCurrent) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("empty", "")});
  const Caller caller;
  caller.progress->cancel();
  Error error;
  EXPECT_TRUE(reader->writeDataForRelativePath("empty", folder / "out", &error));
  EXPECT_FALSE(error) << errorText(error);
  EXPECT_EQ("", readFile(folder / "out"));
  const Progress left = NSProgress::currentProgress();
  EXPECT_NE(caller.progress, left);
  EXPECT_TRUE(left->isCancelled());
  EXPECT_EQ(0, left->totalUnitCount());
}

TEST(ExtractionOfOneEntry, CancellingWithoutASlotIsAFailureLikeAny) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  const Caller caller;
  caller.progress->cancel();
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "out"));
  EXPECT_EQ("data", readFile(folder / "out"));
}

TEST(ExtractionOfOneEntry, AWriteThatFailsCountsBeforeACancellation) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", patternBytes(mebibyte + 1))});
  const Caller caller;
  caller.progress->cancel();
  const Error before = KQTest::earlierError();
  Error error = before;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder.path().string(), &error));
  EXPECT_EQ(before, error) << errorText(error);
  // Whatever the failure was, a cancelled progress stays.
  EXPECT_NE(caller.progress, NSProgress::currentProgress());
}

TEST(ExtractionOfOneEntry, AParentThatCannotBeCreatedCountsBeforeACancellation) {
  const TemporaryDirectory folder;
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", "data")});
  writeFile(folder / "file", "");
  const Caller caller;
  caller.progress->cancel();
  Error error;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "file/below", &error));
  expectSameError(errorOfCreatingFolder(folder / "file"), error);
  const Progress left = NSProgress::currentProgress();
  EXPECT_NE(caller.progress, left);
  EXPECT_EQ(4, left->totalUnitCount());
  EXPECT_EQ(0, left->completedUnitCount());
}

TEST(ExtractionOfOneEntry, CancellingFromAnotherThreadKeepsTheBlocksWritten) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(threeBlocksAndAByte);
  const Reader reader = readerOn(folder / "a.zip", {plainRecord("a", data)});
  NamedPipe pipe(folder / "pipe");
  const Caller caller;
  std::string copied;
  std::thread watcher([&] {
    copied = pipe.read(mebibyte + 1);
    caller.progress->cancel();
    copied += pipe.readToEnd();
  });
  Error error;
  EXPECT_FALSE(reader->writeDataForRelativePath("a", folder / "pipe", &error));
  watcher.join();
  EXPECT_EQ(cancelled, errorText(error));
  EXPECT_TRUE(copied == data.substr(0, 2 * mebibyte)) << copied.size();
  const Progress left = NSProgress::currentProgress();
  EXPECT_EQ(static_cast<std::int64_t>(threeBlocksAndAByte), left->totalUnitCount());
  EXPECT_EQ(static_cast<std::int64_t>(2 * mebibyte), left->completedUnitCount());
}

// A whole archive.

TEST(ExtractionOfAnArchive, EveryEntryIsRecreatedBelowTheDestination) {
  const TemporaryDirectory folder;
  const std::string large = patternBytes(threeBlocksAndAByte);
  writeFile(folder / "a.zip", archiveBytes({plainRecord("b.txt", "b"), plainRecord("a/c.txt", "c"),
                                            plainRecord("a/deep/er/d", "d"), zip64Record("large", large),
                                            plainRecord("folder/", "")}));
  LogCapture log;
  Error error;
  // The destination and the folder above it are missing.
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "not/there", &error))
      << errorText(error);
  EXPECT_FALSE(error);
  EXPECT_EQ("b", readFile(folder / "not/there/b.txt"));
  EXPECT_EQ("c", readFile(folder / "not/there/a/c.txt"));
  EXPECT_EQ("d", readFile(folder / "not/there/a/deep/er/d"));
  EXPECT_TRUE(readFile(folder / "not/there/large") == large);
  EXPECT_TRUE(fs::is_directory(folder / "not/there/folder"));
  EXPECT_EQ(Lines(), log.lines());
}

TEST(ExtractionOfAnArchive, ADestinationWithATrailingSlashAndOneThatExistsAreTheSame) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a/b", "new"), plainRecord("a/", "")}));
  writeFile(folder / "out/a/b", "older and longer");
  writeFile(folder / "out/other", "stays");
  LogCapture log;
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out/"));
  EXPECT_EQ("new", readFile(folder / "out/a/b"));
  EXPECT_EQ("stays", readFile(folder / "out/other"));
  EXPECT_EQ(Lines(), log.lines());
}

TEST(ExtractionOfAnArchive, AnEmptyDestinationIsTheCurrentFolder) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "data"), plainRecord("b/c", "more")}));
  fs::create_directory(folder / "here");
  KQTest::inChildProcess([&] {
    ASSERT_EQ(0, chdir((folder / "here").c_str()));
    Error error;
    EXPECT_TRUE(KQZipFileReader::unzipFileAtPath("../a.zip", "", &error)) << errorText(error);
  });
  EXPECT_EQ("data", readFile(folder / "here/a"));
  EXPECT_EQ("more", readFile(folder / "here/b/c"));
}

TEST(ExtractionOfAnArchive, AnEntryWithoutDataBecomesAFolderWhateverItsName) {
  const TemporaryDirectory folder;
  writeFile(folder / "source", "");
  KQZipFileWriter writer;
  writer.addFilePath(folder / "source", "was/an/empty.txt");
  ASSERT_TRUE(writer.writeToZipPath(folder / "a.zip"));
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  EXPECT_TRUE(fs::is_directory(folder / "out/was/an/empty.txt"));
}

TEST(ExtractionOfAnArchive, ANameThatEndsInASlashBecomesAFileWhenItHasData) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("odd/", "data")}));
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  EXPECT_EQ("data", readFile(folder / "out/odd"));
}

TEST(ExtractionOfAnArchive, AFolderThatComesAfterItsFilesDoesNoHarm) {
  const TemporaryDirectory folder;
  // "./" sorts before "b".
  writeFile(folder / "a.zip", archiveBytes({plainRecord("./b/file", "1"), plainRecord("b", ""),
                                            plainRecord("b/", ""), plainRecord("b/other", "2")}));
  LogCapture log;
  Error error;
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error)) << errorText(error);
  EXPECT_EQ("1", readFile(folder / "out/b/file"));
  EXPECT_EQ("2", readFile(folder / "out/b/other"));
  EXPECT_EQ(Lines(), log.lines());
}

TEST(ExtractionOfAnArchive, OfTwoEntriesWithOnePathTheLaterOneIsWritten) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip",
            archiveBytes({plainRecord("a", "the longer first one"), plainRecord("a", "later")}));
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  EXPECT_EQ("later", readFile(folder / "out/a"));
}

TEST(ExtractionOfAnArchive, AnArchiveThatDoesNotExistOrIsEmptyExtractsNothingAndSucceeds) {
  const TemporaryDirectory folder;
  writeFile(folder / "empty.zip", "");
  for (const char* archive : {"missing.zip", "empty.zip"}) {
    const Error before = KQTest::earlierError();
    Error error = before;
    EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / archive, folder / "out", &error));
    EXPECT_EQ(before, error);
    EXPECT_FALSE(fs::exists(folder / "out"));
    EXPECT_FALSE(NSProgress::currentProgress());
  }
}

TEST(ExtractionOfAnArchive, AnArchiveThatCannotBeScannedFailsWithTheReadersErrorAndWritesNothing) {
  const TemporaryDirectory folder;
  LocalRecord compressed = plainRecord("b", "data");
  compressed.compression = 8;
  const std::string whole = plainRecord("a", "1").bytes();
  const std::vector<std::pair<std::string, std::string>> cases = {
      {whole + "%PDF", "-100 got unexpected bytes looking for known signatures: 46445025"},
      {whole + compressed.bytes(), "-101 File uses unsupported compression method."},
      {whole + whole.substr(0, 20), "no error"},
  };
  for (const auto& [bytes, text] : cases) {
    writeFile(folder / "a.zip", bytes);
    LogCapture log;
    Error error = KQTest::earlierError();
    const Caller caller;
    EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
    EXPECT_EQ(text, errorText(error));
    EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
    EXPECT_FALSE(fs::exists(folder / "out"));
    EXPECT_EQ(caller.progress, NSProgress::currentProgress());
  }
}

TEST(ExtractionOfAnArchive, AScanThatFailsUnderACancelledProgressLeavesNothingCurrent) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", "%PDF");
  const Caller caller;
  caller.progress->cancel();
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  EXPECT_EQ("-100 got unexpected bytes looking for known signatures: 46445025", errorText(error));
  EXPECT_EQ(caller.progress, NSProgress::currentProgress());
}

TEST(ExtractionOfAnArchive, EntriesAreWrittenInTheOrderOfTheirPathsAndAFailureStopsTheRest) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("b.txt", "b"), plainRecord("a/c.txt", "c")}));

  // A folder stands where the second one is to be written: the first one is there.
  fs::create_directories(folder / "out/b.txt");
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  EXPECT_EQ("c", readFile(folder / "out/a/c.txt"));

  // And where the first one is to be written: the second one is not.
  fs::create_directories(folder / "other/a/c.txt");
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "other"));
  EXPECT_FALSE(fs::exists(folder / "other/b.txt"));
}

TEST(ExtractionOfAnArchive, AFileThatCannotBeWrittenFailsItAndLeavesTheSlotAsItWas) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "1"), plainRecord("b", "2"),
                                            plainRecord("c", "3"), plainRecord("d", "")}));
  fs::create_directories(folder / "out/b");
  LogCapture log;
  const Error before = KQTest::earlierError();
  Error error = before;
  const Caller caller;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  EXPECT_EQ(before, error) << errorText(error);
  EXPECT_EQ("1", readFile(folder / "out/a"));
  EXPECT_FALSE(fs::exists(folder / "out/c"));
  EXPECT_FALSE(fs::exists(folder / "out/d"));
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_EQ(caller.progress, NSProgress::currentProgress());
}

TEST(ExtractionOfAnArchive, AFullDiskFailsItAtTheFileThatDoesNotFit) {
  const TemporaryDirectory folder;
  const std::string large = patternBytes(2 * mebibyte);
  writeFile(folder / "a.zip",
            archiveBytes({plainRecord("a", "fits"), plainRecord("b", large), plainRecord("c", "fits too")}));
  withFilesUpTo(mebibyte + 1, [&] {
    Error error;
    EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
    EXPECT_FALSE(error) << errorText(error);
  });
  EXPECT_EQ("fits", readFile(folder / "out/a"));
  EXPECT_LE(fs::file_size(folder / "out/b"), mebibyte + 1);
  EXPECT_FALSE(fs::exists(folder / "out/c"));
}

TEST(ExtractionOfAnArchive, AFolderThatCannotBeCreatedIsLoggedAndPassedOver) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", ""), plainRecord("b/", ""),
                                            plainRecord("c/d/", ""), plainRecord("e", "5")}));
  writeFile(folder / "out/a", "in the way");
  writeFile(folder / "out/b", "in the way");
  writeFile(folder / "out/c", "in the way");
  LogCapture log;
  const Error before = KQTest::earlierError();
  Error error = before;
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  EXPECT_EQ(before, error) << errorText(error);
  EXPECT_EQ((Lines{"failed to create directory at " + (folder / "out/a") + " for a",
                   "failed to create directory at " + (folder / "out/b") + " for b/",
                   "failed to create directory at " + (folder / "out/c/d") + " for c/d/"}),
            log.lines());
  EXPECT_EQ("5", readFile(folder / "out/e"));
  EXPECT_EQ("in the way", readFile(folder / "out/a"));
}

TEST(ExtractionOfAnArchive, CharactersInPathsAreNoFormatOfTheLogLine) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("100%@ %x %s%n", "")}));
  writeFile(folder / "out/100%@ %x %s%n", "in the way");
  LogCapture log;
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  EXPECT_EQ(Lines{"failed to create directory at " + (folder / "out/100%@ %x %s%n") + " for 100%@ %x %s%n"},
            log.lines());
}

TEST(ExtractionOfAnArchive, AParentThatCannotBeCreatedIsLoggedAndTheCopyThenDecides) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip",
            archiveBytes({plainRecord("a", "1"), plainRecord("f/below/file", "2"), plainRecord("z", "3")}));
  writeFile(folder / "out/f", "in the way");
  const Error expected = errorOfCreatingFolder(folder / "out/f/below");
  LogCapture log;
  Error error = KQTest::earlierError();
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  expectSameError(expected, error);
  EXPECT_EQ(Lines{"failed to create parent directory at " + (folder / "out/f/below") + " for f/below/file"},
            log.lines());
  EXPECT_EQ("1", readFile(folder / "out/a"));
  EXPECT_FALSE(fs::exists(folder / "out/z"));
  EXPECT_FALSE(NSProgress::currentProgress());
}

TEST(ExtractionOfAnArchive, AFileAtTheParentPathFailsTheCopyAndIsNotLogged) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip",
            archiveBytes({plainRecord("a", "1"), plainRecord("f/file", "2"), plainRecord("z", "3")}));
  writeFile(folder / "out/f", "in the way");
  const Error expected = errorOfCreatingFolder(folder / "out/f");
  LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  expectSameError(expected, error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_EQ("1", readFile(folder / "out/a"));
  EXPECT_EQ("in the way", readFile(folder / "out/f"));
  EXPECT_FALSE(fs::exists(folder / "out/z"));
}

TEST(ExtractionOfAnArchive, AFileEntryInTheWayOfALaterOneStopsTheExtractionThere) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("f", "a file"), plainRecord("f/below", "2")}));
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  expectSameError(errorOfCreatingFolder(folder / "out/f"), error);
  EXPECT_EQ("a file", readFile(folder / "out/f"));
}

// The progress of a whole archive.

TEST(ExtractionOfAnArchive, ItsProgressCountsEntriesAndFoldersAreNotCountedDone) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip",
            archiveBytes({plainRecord("!", ""), plainRecord("a", "1"), plainRecord("b", "2"),
                          plainRecord("c/", ""), plainRecord("a", "again")}));
  writeFile(folder / "out/!", "in the way of a folder, so that there is a line to hook into");
  const Caller caller;
  Progress extraction;
  std::int64_t totalMeanwhile = 0;
  std::int64_t completedMeanwhile = -1;
  LogHook hook([&] {
    extraction = NSProgress::currentProgress();
    totalMeanwhile = extraction->totalUnitCount();
    completedMeanwhile = extraction->completedUnitCount();
  });
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  ASSERT_EQ(1U, hook.lines.size());
  EXPECT_NE(caller.progress, extraction);
  EXPECT_EQ(4, totalMeanwhile);
  EXPECT_EQ(0, completedMeanwhile);
  EXPECT_EQ(4, extraction->totalUnitCount());
  EXPECT_EQ(2, extraction->completedUnitCount());
  EXPECT_EQ(caller.progress, NSProgress::currentProgress());
}

TEST(ExtractionOfAnArchive, EachFileIsWorthOneUnitAndCountsByItsBytes) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(threeBlocksAndAByte);
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "a short one"), plainRecord("b", data),
                                            plainRecord("c", "another")}));
  fs::create_directory(folder / "out");
  NamedPipe pipe(folder / "out/b");
  const Caller caller;
  std::vector<double> fractions;
  std::thread watcher([&] {
    pipe.read(1);
    fractions.push_back(caller.progress->fractionCompleted());
    pipe.read(2 * mebibyte);
    fractions.push_back(caller.progress->fractionCompleted());
    pipe.readToEnd();
  });
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  watcher.join();
  ASSERT_EQ(2U, fractions.size());
  const double twoBlocks = static_cast<double>(2 * mebibyte) / static_cast<double>(threeBlocksAndAByte);
  EXPECT_NEAR(1.0 / 3, fractions[0], 1e-9);
  EXPECT_NEAR((1 + twoBlocks) / 3, fractions[1], 1e-9);
  EXPECT_EQ(1, caller.progress->completedUnitCount());
  EXPECT_EQ("another", readFile(folder / "out/c"));
}

TEST(ExtractionOfAnArchive, ItsProgressIsNotCurrentWhileTheArchiveIsScanned) {
  const TemporaryDirectory folder;
  KQZipExtraField::registerSubclass<StepField>();
  writeFile(folder / "a.zip", archiveBytes({withStep(plainRecord("a", "1"))}));
  const Caller caller;
  Progress duringScan;
  double fraction = -1;
  StepField::step = [&] {
    duringScan = NSProgress::currentProgress();
    fraction = caller.progress->fractionCompleted();
  };
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out"));
  StepField::step = nullptr;
  EXPECT_EQ(caller.progress, duringScan);
  EXPECT_EQ(0, fraction);
}

TEST(ExtractionOfAnArchive, CancellingDuringTheScanStopsBehindTheFirstFile) {
  const TemporaryDirectory folder;
  KQZipExtraField::registerSubclass<StepField>();
  const std::string data = patternBytes(mebibyte + 1);
  writeFile(folder / "a.zip", archiveBytes({withStep(plainRecord("a", data)), plainRecord("b", "2")}));
  const Caller caller;
  StepField::step = [&] { caller.progress->cancel(); };
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  StepField::step = nullptr;
  EXPECT_EQ(cancelled, errorText(error));
  EXPECT_TRUE(readFile(folder / "out/a") == data.substr(0, mebibyte));
  EXPECT_FALSE(fs::exists(folder / "out/b"));
}

TEST(ExtractionOfAnArchive, ACancelledProgressStopsBehindTheFirstFolder) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip",
            archiveBytes({plainRecord("a", ""), plainRecord("b", ""), plainRecord("c", "3")}));
  const Progress progress = NSProgress::progressWithTotalUnitCount(1);
  progress->becomeCurrentWithPendingUnitCount(1);
  progress->cancel();
  Error error = KQTest::earlierError();
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ("KQZipErrorDomain", error->domain());
  EXPECT_EQ(cancelled, errorText(error));
  EXPECT_TRUE(fs::is_directory(folder / "out/a"));
  EXPECT_FALSE(fs::exists(folder / "out/b"));
  EXPECT_FALSE(fs::exists(folder / "out/c"));

  const Progress left = NSProgress::currentProgress();
  ASSERT_TRUE(left);
  EXPECT_NE(progress, left);
  EXPECT_TRUE(left->isCancelled());
  EXPECT_EQ(3, left->totalUnitCount());
  EXPECT_EQ(0, left->completedUnitCount());
  progress->resignCurrent();
  EXPECT_FALSE(NSProgress::currentProgress());
}

TEST(ExtractionOfAnArchive, WithoutEntriesACancelledProgressIsASuccessAndStaysCurrent) {
  const TemporaryDirectory folder;
  const Caller caller;
  caller.progress->cancel();
  Error error;
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(folder / "missing.zip", folder / "out", &error));
  EXPECT_FALSE(error) << errorText(error);
  const Progress left = NSProgress::currentProgress();
  EXPECT_NE(caller.progress, left);
  EXPECT_EQ(0, left->totalUnitCount());
}

TEST(ExtractionOfAnArchive, CancellingWithoutASlotIsAFailureLikeAny) {
  const TemporaryDirectory folder;
  writeFile(folder / "folders.zip", archiveBytes({plainRecord("a", ""), plainRecord("b", "")}));
  writeFile(folder / "files.zip", archiveBytes({plainRecord("a", "1"), plainRecord("b", "2")}));
  for (const char* archive : {"folders.zip", "files.zip"}) {
    const Caller caller;
    caller.progress->cancel();
    EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / archive, (folder / archive) + "-out"));
    EXPECT_TRUE(fs::exists((folder / archive) + "-out/a"));
    EXPECT_FALSE(fs::exists((folder / archive) + "-out/b"));
  }
}

TEST(ExtractionOfAnArchive, CancellingFromALogLineStopsBehindTheEntryThatLoggedIt) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip",
            archiveBytes({plainRecord("a", "1"), plainRecord("b", ""), plainRecord("c", "3")}));
  writeFile(folder / "out/b", "in the way");
  const Caller caller;
  LogHook hook([&] { caller.progress->cancel(); });
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  EXPECT_EQ(cancelled, errorText(error));
  EXPECT_EQ(Lines{"failed to create directory at " + (folder / "out/b") + " for b"}, hook.lines);
  EXPECT_EQ("1", readFile(folder / "out/a"));
  EXPECT_FALSE(fs::exists(folder / "out/c"));
  const Progress left = NSProgress::currentProgress();
  EXPECT_EQ(3, left->totalUnitCount());
  EXPECT_EQ(1, left->completedUnitCount());
}

TEST(ExtractionOfAnArchive, CancellingItsOwnProgressFromAHookLeavesTheCallersAlone) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("b", ""), plainRecord("c", "3")}));
  writeFile(folder / "out/b", "in the way");
  const Caller caller;
  LogHook hook([&] { NSProgress::currentProgress()->cancel(); });
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  EXPECT_EQ(cancelled, errorText(error));
  EXPECT_FALSE(caller.progress->isCancelled());
  EXPECT_FALSE(fs::exists(folder / "out/c"));
}

TEST(ExtractionOfAnArchive, AFileThatCannotBeWrittenCountsBeforeACancellation) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", archiveBytes({plainRecord("a", "1"), plainRecord("b", "2")}));
  fs::create_directories(folder / "out/a");
  const Caller caller;
  caller.progress->cancel();
  const Error before = KQTest::earlierError();
  Error error = before;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  EXPECT_EQ(before, error) << errorText(error);
  EXPECT_FALSE(fs::exists(folder / "out/b"));
}

TEST(ExtractionOfAnArchive, CancellingFromAnotherThreadKeepsWhatWasWrittenAndWritesNoMore) {
  const TemporaryDirectory folder;
  const std::string data = patternBytes(threeBlocksAndAByte);
  writeFile(folder / "a.zip",
            archiveBytes({plainRecord("a", "whole"), plainRecord("b", data), plainRecord("c", "never")}));
  fs::create_directory(folder / "out");
  NamedPipe pipe(folder / "out/b");
  const Progress progress = NSProgress::progressWithTotalUnitCount(1);
  progress->becomeCurrentWithPendingUnitCount(1);
  std::string copied;
  std::thread watcher([&] {
    copied = pipe.read(mebibyte + 1);
    progress->cancel();
    copied += pipe.readToEnd();
  });
  LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(folder / "a.zip", folder / "out", &error));
  watcher.join();
  EXPECT_EQ(cancelled, errorText(error));
  EXPECT_EQ("whole", readFile(folder / "out/a"));
  EXPECT_TRUE(copied == data.substr(0, 2 * mebibyte)) << copied.size();
  EXPECT_FALSE(fs::exists(folder / "out/c"));
  EXPECT_EQ(Lines(), log.lines());

  // The copy's progress stays on top of the extraction's, and both leave with the caller's.
  const Progress copy = NSProgress::currentProgress();
  ASSERT_TRUE(copy);
  EXPECT_EQ(static_cast<std::int64_t>(threeBlocksAndAByte), copy->totalUnitCount());
  copy->resignCurrent();
  const Progress extraction = NSProgress::currentProgress();
  ASSERT_TRUE(extraction);
  EXPECT_NE(progress, extraction);
  EXPECT_TRUE(extraction->isCancelled());
  EXPECT_EQ(3, extraction->totalUnitCount());
  EXPECT_EQ(1, extraction->completedUnitCount());
  progress->resignCurrent();
  EXPECT_FALSE(NSProgress::currentProgress());
}

}  // namespace
