#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "Support/Bytes.h"
#include "Support/FileSizeLimit.h"
#include "Support/GoldenArchive.h"
#include "Support/LogCapture.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using namespace KQTest;
namespace fs = std::filesystem;

namespace {

const std::size_t mebibyte = 1048576;

using Lines = std::vector<std::string>;

// What one write of the stream does in a run. Positions count from 1.
struct Fault {
  enum Kind { None, Error, ErrorForGood, Nothing, NothingForGood, OneByteOnly, AllButOneByte };
  Kind kind = None;
  std::size_t position = 0;
};

const char* nameOf(Fault::Kind kind) {
  switch (kind) {
    case Fault::None:
      return "no fault";
    case Fault::Error:
      return "an error";
    case Fault::ErrorForGood:
      return "an error for good";
    case Fault::Nothing:
      return "nothing taken";
    case Fault::NothingForGood:
      return "nothing taken for good";
    case Fault::OneByteOnly:
      return "one byte taken";
    default:
      return "all but one byte taken";
  }
}

Error writeError() { return KQ::NSError::errorWithDomain("KQZipErrorDomain", -51, "Error writing file"); }

// What a run on a faulty stream has to do, write by write: the layout of an archive, and of each write
// whether its failure ends the run (a field of a record), is passed over (the data of an extra field) or ends
// only the copy of an entry's data.
class ForetoldRun {
 public:
  ForetoldRun(const std::vector<GoldenEntry>& entries, Fault fault) : fault_(fault) {
    result = writeArchive(entries);
  }

  bool result = false;
  bool failedWithError = false;  // an error went into the slot, whatever the result
  std::size_t errors = 0;        // how often, which is how many lines are logged
  std::string bytes;
  std::vector<std::uint64_t> writes;

 private:
  std::int64_t put(const std::string& data) {
    writes.push_back(data.size());
    const std::size_t position = writes.size();
    const bool here = position == fault_.position;
    const bool hereOrLater = fault_.position != 0 && position >= fault_.position;
    std::size_t count = data.size();
    if (here && fault_.kind == Fault::Error) return -1;
    if (hereOrLater && fault_.kind == Fault::ErrorForGood) return -1;
    if (here && fault_.kind == Fault::Nothing) return 0;
    if (hereOrLater && fault_.kind == Fault::NothingForGood) return 0;
    if (here && fault_.kind == Fault::OneByteOnly) count = 1;
    if (here && fault_.kind == Fault::AllButOneByte && count > 1) --count;
    bytes += data.substr(0, count);
    return static_cast<std::int64_t>(count);
  }

  bool field(const std::string& data) {
    const std::int64_t count = put(data);
    if (count < 0) {
      failedWithError = true;
      ++errors;
    }
    return count > 0;
  }

  bool fields(const std::vector<std::string>& list) {
    return std::all_of(list.begin(), list.end(), [this](const std::string& data) { return field(data); });
  }

  static std::string u16(std::uint64_t value) { return Bytes().u16(value).string(); }
  static std::string u32(std::uint64_t value) { return Bytes().u32(value).string(); }
  static std::string u64(std::uint64_t value) { return Bytes().u64(value).string(); }

  bool zip64Field(std::uint64_t size, std::uint64_t offset) {
    if (!fields({u16(1), u16(24)})) return false;
    field(u64(size) + u64(size) + u64(offset));  // its failure is not reported by the result
    return true;
  }

  bool localEntry(const GoldenEntry& entry) {
    const std::uint64_t offset = bytes.size();
    offsets_.push_back(offset);
    if (!fields({u32(0x04034b50), u16(45), u16(0), u16(0), u16(entry.localTime), u16(entry.localDate),
                 u32(entry.crc), u32(0xFFFFFFFF), u32(0xFFFFFFFF), u16(entry.name.size()), u16(28),
                 entry.name}) ||
        !zip64Field(entry.localSize, offset))
      return false;
    for (std::size_t from = 0; from < entry.data.size(); from += mebibyte) {
      if (put(entry.data.substr(from, mebibyte)) < 1) break;
    }
    return true;
  }

  bool centralHeader(const GoldenEntry& entry, std::uint64_t offset) {
    return fields({u32(0x02014b50), u16(0x031E), u16(45), u16(0), u16(0), u16(entry.centralTime),
                   u16(entry.centralDate), u32(entry.crc), u32(0xFFFFFFFF), u32(0xFFFFFFFF),
                   u16(entry.name.size()), u16(28), u16(0), u16(0), u16(0), u32(0), u32(offset),
                   entry.name}) &&
           zip64Field(entry.centralSize, offset);
  }

  bool writeArchive(const std::vector<GoldenEntry>& entries) {
    for (const GoldenEntry& entry : entries) {
      if (!localEntry(entry)) return false;
    }
    const std::uint64_t start = bytes.size();
    // The size is reckoned before the directory is written, so no fault in it shows there.
    std::uint64_t size = endRecordsLength;
    for (const GoldenEntry& entry : entries) size += 46 + entry.name.size() + zip64FieldLength;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (!centralHeader(entries[i], offsets_[i])) return false;
    }
    const std::uint64_t endRecord = bytes.size();
    const std::uint64_t count = entries.size();
    return fields({u32(0x06064b50), u64(44), u16(0x031E), u16(45), u32(0), u32(0), u64(count), u64(count),
                   u64(size), u64(start)}) &&
           fields({u32(0x07064b50), u32(0), u64(endRecord), u32(1)}) &&
           fields({u32(0x06054b50), u16(0), u16(0), u16(count), u16(count), u32(size), u32(start), u16(0)});
  }

  Fault fault_;
  std::vector<std::uint64_t> offsets_;
};

void applyFault(TestOutputStream& stream, Fault fault, const std::vector<std::uint64_t>& writes) {
  const auto position = static_cast<std::int64_t>(fault.position);
  switch (fault.kind) {
    case Fault::None:
      break;
    case Fault::Error:
    case Fault::ErrorForGood:
    case Fault::Nothing:
    case Fault::NothingForGood:
      stream.failAtWrite = position;
      stream.failForGood = fault.kind == Fault::ErrorForGood || fault.kind == Fault::NothingForGood;
      stream.failResult = fault.kind == Fault::Error || fault.kind == Fault::ErrorForGood ? -1 : 0;
      break;
    case Fault::OneByteOnly:
    case Fault::AllButOneByte:
      stream.shortenAtWrite = position;
      stream.shortenTo = 1;
      if (fault.kind == Fault::AllButOneByte && writes[fault.position - 1] > 1)
        stream.shortenTo = writes[fault.position - 1] - 1;
      break;
  }
}

class ArchiveWritingFaults : public ::testing::Test {
 protected:
  void add(KQZipFileWriter& writer, const std::string& name, const std::string& contents) {
    writer.addFilePath(tree_.file("source" + std::to_string(entries_.size()), contents), name);
    entries_.push_back(SourceTree::entry(name, contents));
  }

  void addThree(KQZipFileWriter& writer) {
    add(writer, "a.txt", "the first");
    add(writer, "folder/b.txt", "");
    add(writer, "z", "the third of them");
  }

  // Runs the writer on a stream with the fault and compares the bytes, the writes, the result, the error and
  // the log with what was foretold.
  void expectForetoldRun(KQZipFileWriter& writer, Fault fault, const std::vector<std::uint64_t>& writes,
                         bool withSlot) const {
    SCOPED_TRACE(std::string(nameOf(fault.kind)) + " at write " + std::to_string(fault.position) +
                 (withSlot ? "" : ", without a slot"));
    const ForetoldRun foretold(entries_, fault);
    LogCapture log;
    TestOutputStream stream;
    applyFault(stream, fault, writes);
    Error error = earlierError();
    const Error before = error;

    EXPECT_EQ(foretold.result, writer.writeToStream(stream, withSlot ? &error : nullptr));
    expectSameBytes(foretold.bytes, stream.bytes);
    EXPECT_EQ(foretold.writes, stream.writes);
    if (foretold.failedWithError && withSlot)
      expectError(error, -51, "Error writing file");
    else
      EXPECT_EQ(before, error) << describe(error);
    EXPECT_EQ(
        Lines(foretold.errors, "stream writing failed: " + (withSlot ? describe(writeError()) : "(null)")),
        log.lines());
    EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress());
  }

  SourceTree tree_;
  std::vector<GoldenEntry> entries_;
};

}  // namespace

TEST_F(ArchiveWritingFaults, WithoutAFaultTheForetoldRunIsTheArchiveWriteByWrite) {
  KQZipFileWriter writer;
  addThree(writer);
  const ForetoldRun foretold(entries_, {});
  EXPECT_TRUE(foretold.result);
  expectSameBytes(goldenArchive(entries_), foretold.bytes);
  // 15 writes for each local header and 21 for each central one, two blocks of data, 22 for the end records.
  EXPECT_EQ(3U * 15 + 2 + 3 * 21 + 22, foretold.writes.size());
  expectForetoldRun(writer, {}, foretold.writes, true);
  expectForetoldRun(writer, {}, foretold.writes, false);
}

TEST_F(ArchiveWritingFaults, EveryFaultAtEveryWriteOfASmallArchiveDoesWhatItsPlaceAsksFor) {
  KQZipFileWriter writer;
  addThree(writer);
  const std::vector<std::uint64_t> writes = ForetoldRun(entries_, {}).writes;
  for (const Fault::Kind kind : {Fault::Error, Fault::ErrorForGood, Fault::Nothing, Fault::NothingForGood,
                                 Fault::OneByteOnly, Fault::AllButOneByte}) {
    for (std::size_t position = 1; position <= writes.size(); ++position) {
      expectForetoldRun(writer, {kind, position}, writes, true);
      expectForetoldRun(writer, {kind, position}, writes, false);
    }
  }
}

TEST_F(ArchiveWritingFaults, EveryFaultAtEveryWriteOfAFreshWriterDoesTheSame) {
  // A writer that has never written computes CRCs and attributes on the way.
  for (const Fault::Kind kind : {Fault::Error, Fault::Nothing, Fault::OneByteOnly}) {
    for (std::size_t position = 1; position <= 60; ++position) {
      entries_.clear();
      KQZipFileWriter writer;
      addThree(writer);
      expectForetoldRun(writer, {kind, position}, ForetoldRun(entries_, {}).writes, true);
    }
  }
}

TEST_F(ArchiveWritingFaults, EveryFaultAtEveryWriteOfAnEmptyArchiveFailsThere) {
  KQZipFileWriter writer;
  const std::vector<std::uint64_t> writes = ForetoldRun(entries_, {}).writes;
  ASSERT_EQ(22U, writes.size());
  for (const Fault::Kind kind : {Fault::Error, Fault::Nothing, Fault::OneByteOnly}) {
    for (std::size_t position = 1; position <= writes.size(); ++position) {
      expectForetoldRun(writer, {kind, position}, writes, true);
      EXPECT_EQ(kind == Fault::OneByteOnly, ForetoldRun(entries_, {kind, position}).result);
    }
  }
}

TEST_F(ArchiveWritingFaults, AFaultInADataBlockEndsTheCopyOfThatEntryOnly) {
  KQZipFileWriter writer;
  add(writer, "large", patternBytes(2 * mebibyte + 1));
  add(writer, "small", "small");
  const std::vector<std::uint64_t> writes = ForetoldRun(entries_, {}).writes;
  const std::size_t firstBlock = 16;
  ASSERT_EQ((std::vector<std::uint64_t>{mebibyte, mebibyte, 1}),
            std::vector<std::uint64_t>(writes.begin() + 15, writes.begin() + 18));
  for (const Fault::Kind kind : {Fault::Error, Fault::Nothing, Fault::OneByteOnly, Fault::AllButOneByte}) {
    for (std::size_t block = 0; block < 3; ++block) {
      expectForetoldRun(writer, {kind, firstBlock + block}, writes, true);
      EXPECT_TRUE(ForetoldRun(entries_, {kind, firstBlock + block}).result);
    }
  }
  for (const Fault::Kind kind : {Fault::ErrorForGood, Fault::NothingForGood}) {
    for (std::size_t block = 0; block < 3; ++block) {
      expectForetoldRun(writer, {kind, firstBlock + block}, writes, true);
      EXPECT_FALSE(ForetoldRun(entries_, {kind, firstBlock + block}).result);
    }
  }
}

TEST_F(ArchiveWritingFaults, AWriterRecoversFromEveryFaultOnItsNextStream) {
  for (std::size_t position = 1; position <= 132; position += 7) {
    entries_.clear();
    KQZipFileWriter writer;
    addThree(writer);
    LogCapture log;
    TestOutputStream failing;
    failing.failAtWrite = static_cast<std::int64_t>(position);
    failing.failForGood = true;
    EXPECT_FALSE(writer.writeToStream(failing));
    TestOutputStream stream;
    EXPECT_TRUE(writer.writeToStream(stream));
    expectSameBytes(goldenArchive(entries_), stream.bytes, "after a fault at " + std::to_string(position));
  }
}

TEST_F(ArchiveWritingFaults, AFailedFlushAtTheEndIsReportedAsAFailedWrite) {
  KQZipFileWriter three;
  addThree(three);
  KQZipFileWriter empty;
  const std::string expected = goldenArchive(entries_);
  for (KQZipFileWriter* writer : {&three, &empty}) {
    LogCapture log;
    for (const bool withSlot : {true, false}) {
      TestOutputStream stream;
      stream.flushResult = false;
      Error error = earlierError();
      EXPECT_FALSE(writer->writeToStream(stream, withSlot ? &error : nullptr));
      if (withSlot) expectError(error, -51, "Error writing file");
      expectSameBytes(writer == &three ? expected : goldenArchive({}), stream.bytes);
      EXPECT_EQ(nullptr, KQ::NSProgress::currentProgress());
    }
    EXPECT_EQ((Lines{"stream writing failed: " + describe(writeError()), "stream writing failed: (null)"}),
              log.lines());
  }
}

// Real failures of the system.

namespace {

// Writes an archive at each limit in turn, in a child process. It may only be called written when all of it
// is there.
void expectNeverWrittenUnlessWhole(KQZipFileWriter& writer, const std::string& whole,
                                   const std::set<std::uint64_t>& limits, const SourceTree& tree) {
  inChildProcess([&] {
    ASSERT_NE(SIG_ERR, std::signal(SIGXFSZ, SIG_IGN));
    const std::string path = tree / "full.zip";
    for (const std::uint64_t limit : limits) {
      SCOPED_TRACE("limit " + std::to_string(limit));
      LogCapture log;
      Error error = earlierError();
      bool written = false;
      withFileSizeLimit(limit, [&] { written = writer.writeToZipPath(path, &error); });
      const std::string bytes = readFile(path);
      fs::remove(path);
      EXPECT_EQ(limit >= whole.size(), written);
      if (written) {
        expectSameBytes(whole, bytes);
        EXPECT_EQ(Lines{}, log.lines());
        continue;
      }
      expectError(error, -51, "Error writing file");
      expectSameBytes(whole.substr(0, bytes.size()), bytes, "what is there is a part of the archive");
      EXPECT_LE(bytes.size(), limit);
      EXPECT_EQ((Lines{"stream writing failed: " + describe(error),
                       "closing stream because writing failed: " + describe(error)}),
                log.lines());
    }
  });
}

// Passes everything on to a stream to a file; during one of its writes, counted from 1, the disk is full.
class BrieflyFullStream : public KQ::NSOutputStream {
 public:
  BrieflyFullStream(const std::string& path, std::size_t fullAtWrite)
      : file_(outputStreamToFileAtPath(path)), fullAtWrite_(fullAtWrite) {
    file_->open();
  }
  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override {
    if (++writes != fullAtWrite_) return file_->write(buffer, maxLength);
    std::int64_t count = 0;
    withFileSizeLimit(0, [&] { count = file_->write(buffer, maxLength); });
    failed = count < 0;
    return count;
  }
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override {
    return file_->NSStreamFileCurrentOffsetKey();
  }
  bool flush() override { return file_->flush(); }
  void close() override { file_->close(); }

  std::size_t writes = 0;
  bool failed = false;  // the write met the full disk and not only the buffer

 private:
  std::shared_ptr<KQ::NSOutputStream> file_;
  std::size_t fullAtWrite_;
};

}  // namespace

TEST_F(ArchiveWritingFaults, OnAFullDiskASmallArchiveIsNeverCalledWrittenUnlessItIsWhole) {
  KQZipFileWriter writer;
  addThree(writer);
  const std::string whole = goldenArchive(entries_);
  std::set<std::uint64_t> limits;
  for (std::uint64_t limit = 0; limit <= whole.size() + 1; ++limit) limits.insert(limit);
  expectNeverWrittenUnlessWhole(writer, whole, limits, tree_);
}

TEST_F(ArchiveWritingFaults, OnAFullDiskALargeArchiveIsNeverCalledWrittenUnlessItIsWhole) {
  KQZipFileWriter writer;
  add(writer, "1", patternBytes(300000, 1));
  add(writer, "2", "small");
  add(writer, "3", patternBytes(mebibyte + 100, 2));
  add(writer, "4", patternBytes(70000, 3));
  const std::string whole = goldenArchive(entries_);

  std::set<std::uint64_t> limits;
  std::uint64_t offset = 0;
  for (const GoldenEntry& entry : entries_) {
    // Around the header, the data and the first block of each entry.
    const std::uint64_t data = offset + 59;
    for (const std::uint64_t edge : {offset, data, data + std::min(entry.data.size(), mebibyte)}) {
      for (const std::uint64_t limit : {edge, edge + 1, edge == 0 ? edge : edge - 1}) limits.insert(limit);
    }
    offset = data + entry.data.size();
  }
  for (std::uint64_t limit = 65536; limit < whole.size(); limit += 2 * 65536) limits.insert(limit);
  for (std::uint64_t missing = 0; missing < 100; missing += 3) limits.insert(whole.size() - missing);
  expectNeverWrittenUnlessWhole(writer, whole, limits, tree_);
}

TEST_F(ArchiveWritingFaults, OnAFullDiskAnEmptyArchiveIsNeverCalledWrittenUnlessItIsWhole) {
  KQZipFileWriter writer;
  std::set<std::uint64_t> limits;
  for (std::uint64_t limit = 0; limit <= 99; ++limit) limits.insert(limit);
  expectNeverWrittenUnlessWhole(writer, goldenArchive({}), limits, tree_);
}

TEST_F(ArchiveWritingFaults, OnAFullDiskAnArchiveOfAFolderIsNeverCalledWrittenUnlessItIsWhole) {
  tree_.file("Folder/a.txt", "contents of the only file");
  const std::string whole = goldenArchive({SourceTree::entry("a.txt", "contents of the only file")});
  inChildProcess([&] {
    ASSERT_NE(SIG_ERR, std::signal(SIGXFSZ, SIG_IGN));
    for (std::uint64_t limit = 0; limit <= whole.size(); limit += 5) {
      LogCapture log;
      Error error;
      bool written = true;
      withFileSizeLimit(limit, [&] {
        written = KQZipFileWriter::createZipFileAtPath(tree_ / "full.zip", tree_ / "Folder", false, &error);
      });
      EXPECT_EQ(limit >= whole.size(), written) << limit;
      if (!written) expectError(error, -51, "Error writing file");
      fs::remove(tree_ / "full.zip");
    }
  });
}

TEST_F(ArchiveWritingFaults, ADiskThatIsFullOnlyForAMomentIsNotForgotten) {
  // The copy of an entry's data passes over a failed write, so the stream must remember it.
  KQZipFileWriter writer;
  for (unsigned i = 1; i <= 3; ++i) add(writer, std::to_string(i), patternBytes(400000, i));
  const std::string whole = goldenArchive(entries_);
  const std::size_t writes = ForetoldRun(entries_, {}).writes.size();
  inChildProcess([&] {
    ASSERT_NE(SIG_ERR, std::signal(SIGXFSZ, SIG_IGN));
    std::size_t failures = 0;
    for (std::size_t position = 1; position <= writes; ++position) {
      SCOPED_TRACE("full at write " + std::to_string(position));
      LogCapture log;
      BrieflyFullStream stream(tree_ / "full.zip", position);
      Error error = earlierError();
      const bool written = writer.writeToStream(stream, &error);
      stream.close();
      EXPECT_EQ(!stream.failed, written);
      if (written) {
        expectSameBytes(whole, readFile(tree_ / "full.zip"));
      } else {
        ++failures;
        expectError(error, -51, "Error writing file");
        EXPECT_EQ(Lines{"stream writing failed: " + describe(error)}, log.lines());
      }
    }
    EXPECT_GE(failures, 3U) << "each entry's data is larger than what the stream buffers";
  });
}

TEST_F(ArchiveWritingFaults, AFileStreamOnAFullDeviceFailsTheWrite) {
  if (!fs::is_character_file("/dev/full")) GTEST_SKIP() << "the system has no device that is always full";
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "the device that is always full cannot be opened";
  KQZipFileWriter small;
  addThree(small);
  KQZipFileWriter large;
  add(large, "large", patternBytes(mebibyte + 1));
  add(large, "next", "next");
  for (KQZipFileWriter* writer : {&small, &large}) {
    LogCapture log;
    const auto stream = KQ::NSOutputStream::outputStreamToFileAtPath("/dev/full");
    stream->open();
    Error error;
    EXPECT_FALSE(writer->writeToStream(*stream, &error));
    expectError(error, -51, "Error writing file");
    EXPECT_EQ(Lines{"stream writing failed: " + describe(error)}, log.lines());
    stream->close();
  }
}

TEST_F(ArchiveWritingFaults, WithoutFreeDescriptorsASourceFailsAndIsNotArchivedAsEmpty) {
  KQZipFileWriter writer;
  addThree(writer);
  inChildProcess([&] {
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    rlimit none = before;
    none.rlim_cur = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    LogCapture log;
    Error error;
    TestOutputStream stream;
    const bool written = writer.writeToStream(stream, &error);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_FALSE(written);
    expectError(error, -50, "Can't calculate CRC of " + (tree_ / "source0"));
    EXPECT_EQ("", stream.bytes);
  });
}
