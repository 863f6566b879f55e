// Every call of the system that the library makes fails once, in every way, through every operation.
// Afterwards either the operation says that it failed, or its result is complete and right to the byte, or
// the case is one of the few that are named below.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/LogCapture.h"
#include "Support/ScriptedSystem.h"
#include "Support/SourceTree.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

using KQTest::ScriptedSystem;

// How a call goes wrong. A short one is carried out with half of the bytes that were asked for.
constexpr int shortTransfer = -1;
constexpr std::array<int, 5> faults{ENOSPC, EIO, EACCES, EMFILE, shortTransfer};

// These answer without a way to say that they failed.
const std::set<std::string> callsThatCannotFail{"isSeekable", "localTime",  "log",
                                                "process",    "processors", "secondsOfLocalTime"};

// The faults of one call. Whatever the system does not have, it says so.
std::vector<int> faultsOf(const ScriptedSystem::Call& call) {
  if (callsThatCannotFail.count(call.name) == 1) return {};
  std::vector<int> all(faults.begin(), faults.end());
  if (!call.isTransfer()) all.pop_back();
  if (call.isMove()) all.push_back(ENOSYS);
  return all;
}

void addFault(ScriptedSystem& system, std::size_t number, int fault) {
  if (fault == shortTransfer)
    system.halve({.number = number});
  else
    system.fail({.number = number}, fault);
}

// What an operation leaves behind, to be compared in full. Nothing when it said that it failed.
using Outcome = std::optional<std::map<std::string, std::string>>;

// What a fault may be answered with although the result is not complete. Each has its condition; there are no
// others.
struct Leniency {
  const char* name;
  const char* call;  // The call that must have failed, by the name that nameOf() gives it.
  // Whether the result is what this leniency allows, given the complete one.
  std::function<bool(const std::map<std::string, std::string>& result,
                     const std::map<std::string, std::string>& complete)>
      allows;
};

struct Operation {
  std::function<void()> prepare;  // Runs without faults before each attempt.
  std::function<Outcome()> run;   // Must not make system calls of its own that the library does not make.
  std::function<Outcome(const Outcome&)>
      inspect;  // Runs without faults; completes the outcome from the disk.
  std::vector<Leniency> leniencies;
  bool typesAreUnknown = false;  // Whether names in folders come without their types.
  bool isPlain = false;          // Whether the system has only what every system has.
};

// A call's name; what asks for a link itself is told from what asks for what it leads to.
std::string nameOf(const ScriptedSystem::Call& call) {
  return call.name == "statusAt" && !call.followsLink ? "statusAt of a link" : call.name;
}

std::set<std::string> openDescriptors() {
  std::set<std::string> descriptors;
  for (const auto& item : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const fs::path target = fs::read_symlink(item.path(), gone);
    if (!gone && target.string().find("/proc/") == std::string::npos)
      descriptors.insert(item.path().filename().string() + " " + target.string());
  }
  return descriptors;
}

std::map<std::string, std::string> treeAt(const fs::path& root) {
  std::map<std::string, std::string> tree;
  if (!fs::exists(root)) return tree;
  for (const auto& item : fs::recursive_directory_iterator(root)) {
    const std::string name = fs::relative(item.path(), root).string();
    tree[name] = item.is_directory() ? "folder" : "file " + KQTest::readFile(item.path());
  }
  return tree;
}

// Runs the operation without a fault, then once for each call and each fault, and reports what is not
// allowed.
void failEveryCallOnce(const Operation& operation) {
  const KQTest::LogCapture log;
  const auto attempt = [&operation](std::size_t number, int fault, std::vector<ScriptedSystem::Call>* calls) {
    operation.prepare();
    Outcome outcome;
    {
      ScriptedSystem system(ScriptedSystem::Threads::TheMakers);
      if (operation.typesAreUnknown) system.hideTypes();
      if (operation.isPlain) system.lackOptionalCalls();
      if (number != 0) addFault(system, number, fault);
      outcome = operation.run();
      if (calls != nullptr) *calls = system.calls();
    }
    return operation.inspect(outcome);
  };

  std::vector<ScriptedSystem::Call> calls;
  const Outcome complete = attempt(0, 0, &calls);
  ASSERT_TRUE(complete);
  ASSERT_FALSE(calls.empty());

  for (std::size_t k = 1; k <= calls.size(); ++k) {
    const std::string call = nameOf(calls[k - 1]);
    for (const int fault : faultsOf(calls[k - 1])) {
      const std::set<std::string> before = openDescriptors();
      const Outcome outcome = attempt(k, fault, nullptr);
      const std::string what = "call " + std::to_string(k) + ", " + call + ", fault " + std::to_string(fault);
      ASSERT_EQ(before, openDescriptors()) << what;
      ASSERT_EQ(nullptr, KQ::NSProgress::currentProgress()) << what;
      if (outcome == complete) continue;
      ASSERT_TRUE(fault != ENOSYS && fault != shortTransfer) << what << ": must never be visible";
      if (!outcome) continue;
      const bool allowed = std::any_of(operation.leniencies.begin(), operation.leniencies.end(),
                                       [&](const Leniency& leniency) {
                                         return call == leniency.call && leniency.allows(*outcome, *complete);
                                       });
      EXPECT_TRUE(allowed) << what << ": reported as done and not complete";
    }
  }
}

// Every name and content of `part` is in `complete` too.
bool isPartOf(const std::map<std::string, std::string>& part,
              const std::map<std::string, std::string>& complete) {
  return std::all_of(part.begin(), part.end(), [&complete](const auto& item) {
    const auto found = complete.find(item.first);
    return found != complete.end() && found->second == item.second;
  });
}

// A reader whose archive cannot be opened acts like one without bytes.
const Leniency anArchiveThatCannotBeOpenedHasNoEntries{
    "an archive that cannot be opened has no entries", "open",
    [](const auto& result, const auto&) { return result.empty(); }};

// A signature that cannot be read ends the scan; the entries before it are listed.
const Leniency aSignatureThatCannotBeReadEndsTheScan{
    "a signature that cannot be read ends the scan", "readAt", [](const auto& result, const auto& complete) {
      return result.size() < complete.size() && isPartOf(result, complete);
    }};

// The archives that `change` makes of one of the entries at a time.
std::set<std::string> archivesWithOneEntry(const std::vector<KQTest::GoldenEntry>& entries,
                                           const std::function<void(KQTest::GoldenEntry&)>& change) {
  std::set<std::string> archives;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    std::vector<KQTest::GoldenEntry> changed = entries;
    change(changed[i]);
    archives.insert(KQTest::goldenArchive(changed));
  }
  return archives;
}

class SystemCallFaults : public ::testing::Test {
 protected:
  SystemCallFaults()
      : SystemCallFaults({{"a.txt", "hello"},
                          {"b/large.bin", KQTest::patternBytes(70000)},
                          {"b/small.bin", KQTest::patternBytes(700, 2)},
                          {"empty", ""}}) {}

  explicit SystemCallFaults(const std::map<std::string, std::string>& files) {
    for (const auto& [name, contents] : files) {
      directory_.file("tree/" + name, contents);
      entries_.push_back(KQTest::SourceTree::entry(name, contents));
    }
    EXPECT_TRUE(KQZipFileWriter::createZipFileAtPath(archive_, directory_ / "tree", false));
    KQTest::expectSameBytes(KQTest::goldenArchive(entries_), KQTest::readFile(archive_));
  }

  // Allows the archives that `change` makes of one entry.
  Leniency oneEntry(const char* name, const char* call,
                    const std::function<void(KQTest::GoldenEntry&)>& change) const {
    return {name, call, [archives = archivesWithOneEntry(entries_, change)](const auto& result, const auto&) {
              return archives.count(result.at("archive")) == 1;
            }};
  }

  // Makes the thread's progress the test's own around `body`, as a caller does.
  static bool withProgress(const std::function<bool()>& body) {
    const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
    progress->becomeCurrentWithPendingUnitCount(1);
    const bool result = body();
    progress->resignCurrent();
    return result;
  }

  // Packs the tree; what is left is the archive. Besides `leniencies` it has those that every source has.
  Operation packing(std::vector<Leniency> leniencies) const {
    const std::vector<Leniency> ofEverySource{
        oneEntry("a source that cannot be read ends its copy like the end of the file", "readAt",
                 [](KQTest::GoldenEntry& entry) { entry.data.clear(); }),
        oneEntry("size and date that cannot be read for the local header are zero there",
                 "statusAt of a link",
                 [](KQTest::GoldenEntry& entry) {
                   entry.localSize = 0;
                   entry.localTime = 0;
                   entry.localDate = 0;
                 }),
        oneEntry("a size that cannot be read for the central header is zero there", "statusAt of a link",
                 [](KQTest::GoldenEntry& entry) { entry.centralSize = 0; })};
    leniencies.insert(leniencies.end(), ofEverySource.begin(), ofEverySource.end());
    const std::string target = directory_ / "packed.zip";
    return {[target] { fs::remove(target); },
            [this, target]() -> Outcome {
              std::shared_ptr<const KQ::NSError> error;
              const bool packed = withProgress([&] {
                return KQZipFileWriter::createZipFileAtPath(target, directory_ / "tree", false, &error);
              });
              if (!packed) return std::nullopt;
              return std::map<std::string, std::string>{};
            },
            [target](const Outcome& outcome) -> Outcome {
              if (!outcome) return std::nullopt;
              return std::map<std::string, std::string>{{"archive", KQTest::readFile(target)}};
            },
            std::move(leniencies)};
  }

  // Extracts the archive; what is left are the files.
  Operation extracting(std::vector<Leniency> leniencies) const {
    const std::string target = directory_ / "out/deeper";
    return {[this] { fs::remove_all(directory_ / "out"); },
            [this, target]() -> Outcome {
              std::shared_ptr<const KQ::NSError> error;
              const bool extracted =
                  withProgress([&] { return KQZipFileReader::unzipFileAtPath(archive_, target, &error); });
              if (!extracted) return std::nullopt;
              return std::map<std::string, std::string>{};
            },
            [target](const Outcome& outcome) -> Outcome {
              if (!outcome) return std::nullopt;
              return treeAt(target);
            },
            std::move(leniencies)};
  }

  KQTest::SourceTree directory_;
  std::vector<KQTest::GoldenEntry> entries_;
  std::string archive_ = directory_ / "archive.zip";
};

// A file of several blocks, behind the first of which the system copies by itself.
class LargeFileFaults : public SystemCallFaults {
 protected:
  static constexpr std::size_t block = 1048576;

  LargeFileFaults() : SystemCallFaults({{"large", KQTest::patternBytes(block + 70000)}}) {}
};

TEST_F(SystemCallFaults, PackingATreeFailsOrWritesTheWholeArchive) {
  Operation operation =
      packing({oneEntry("a source that cannot be read ends its CRC like the end of the file", "readAt",
                        [](KQTest::GoldenEntry& entry) { entry.crc = 0; })});
  failEveryCallOnce(operation);
  operation.typesAreUnknown = true;
  failEveryCallOnce(operation);
}

TEST_F(SystemCallFaults, OpeningAnArchiveFailsOrListsEveryEntry) {
  failEveryCallOnce({[] {},
                     [&]() -> Outcome {
                       const auto reader = KQZipFileReader::initWithZipPath(archive_);
                       if (!reader) return std::nullopt;
                       std::map<std::string, std::string> listed;
                       for (const std::string& path : reader->relativePaths())
                         listed[path] = std::to_string(*reader->attributesForRelativePath(path)->NSFileSize);
                       return listed;
                     },
                     [](const Outcome& outcome) { return outcome; },
                     {anArchiveThatCannotBeOpenedHasNoEntries, aSignatureThatCannotBeReadEndsTheScan}});
}

TEST_F(SystemCallFaults, ReadingAnEntryGivesNothingOrEveryByte) {
  const auto reader = KQZipFileReader::initWithZipPath(archive_);
  ASSERT_TRUE(reader);
  for (const char* path : {"a.txt", "b/large.bin"}) {
    SCOPED_TRACE(path);
    failEveryCallOnce(
        {[] {},
         [&]() -> Outcome {
           const auto data = reader->dataForRelativePath(path);
           if (!data) return std::nullopt;
           return std::map<std::string, std::string>{
               {path, std::string(reinterpret_cast<const char*>(data->bytes()), data->length())}};
         },
         [](const Outcome& outcome) { return outcome; },
         // The buffer has the entry's length whatever the one read delivered.
         {{"a read that fails yields a buffer of the declared length, zeros where it failed", "readAt",
           [path](const auto& result, const auto& complete) {
             std::string bytes = complete.at(path);
             const auto differing =
                 std::mismatch(bytes.begin(), bytes.end(), result.at(path).begin(), result.at(path).end());
             std::fill(differing.first, bytes.end(), '\0');
             return bytes == result.at(path);
           }}}});
  }
}

TEST_F(SystemCallFaults, ExtractingAnArchiveFailsOrGivesEveryFileBack) {
  const auto withoutOneFolder = [](const auto& result, const auto& complete) {
    return result.size() + 1 == complete.size() && isPartOf(result, complete);
  };
  failEveryCallOnce(
      extracting({anArchiveThatCannotBeOpenedHasNoEntries,
                  aSignatureThatCannotBeReadEndsTheScan,
                  {"a folder that cannot be created for an entry without data is passed over", "makeFolder",
                   withoutOneFolder},
                  {"a folder that cannot be found again for an entry without data is passed over", "statusAt",
                   withoutOneFolder}}));
}

TEST_F(SystemCallFaults, ExportingAnEntryFailsOrWritesAllOfIt) {
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(archive_);
  ASSERT_TRUE(stream);
  stream->open();
  std::vector<std::shared_ptr<KQZipFileLocalHeader>> headers;
  for (int i = 0; i < 3; ++i) {
    std::uint32_t signature = 0;
    ASSERT_TRUE(KQZipReadBlock32(*stream, &signature));
    headers.push_back(KQZipFileLocalHeader::initWithStream(*stream));
    ASSERT_TRUE(headers.back());
  }
  for (const auto& header : headers) {
    SCOPED_TRACE(*header->fileName());
    const std::string target = directory_ / "exported";
    failEveryCallOnce({[&] { fs::remove(target); },
                       [&]() -> Outcome {
                         const auto input = KQ::NSInputStream::inputStreamWithFileAtPath(archive_);
                         if (!input) return std::nullopt;
                         input->open();
                         std::shared_ptr<const KQ::NSError> error;
                         const bool exported =
                             withProgress([&] { return header->exportFileToPath(target, *input, &error); });
                         if (!exported) return std::nullopt;
                         return std::map<std::string, std::string>{};
                       },
                       [&](const Outcome& outcome) -> Outcome {
                         if (!outcome) return std::nullopt;
                         const auto date =
                             KQ::NSFileManager::attributesOfItemAtPath(target)->NSFileModificationDate;
                         return std::map<std::string, std::string>{
                             {"data", KQTest::readFile(target)},
                             {"date", std::to_string(std::chrono::system_clock::to_time_t(*date))}};
                       },
                       {}});
  }
}

TEST_F(SystemCallFaults, WritingToAPathFailsOrWritesTheWholeArchive) {
  const std::string target = directory_ / "written.zip";
  failEveryCallOnce({[&] { fs::remove(target); },
                     [&]() -> Outcome {
                       KQZipFileWriter writer;
                       std::shared_ptr<const KQ::NSError> error;
                       if (!withProgress([&] { return writer.writeToZipPath(target, &error); }))
                         return std::nullopt;
                       return std::map<std::string, std::string>{};
                     },
                     [&](const Outcome& outcome) -> Outcome {
                       if (!outcome) return std::nullopt;
                       return std::map<std::string, std::string>{{"archive", KQTest::readFile(target)}};
                     },
                     {}});
}

TEST_F(SystemCallFaults, MakingAnArchiveInteroperableFailsAndCanBeRepeatedOrIsDone) {
  entries_.insert(entries_.begin() + 1, KQTest::SourceTree::entry("\xC3\xA9/", ""));
  entries_.push_back(KQTest::SourceTree::entry("\xC3\xBC", "umlaut"));
  const std::string exact = KQTest::goldenArchive(entries_);
  const std::string interoperable = KQTest::interoperableArchive(exact);
  const auto contents = [this] {
    std::map<std::string, std::string> read;
    const auto reader = KQZipFileReader::initWithZipPath(archive_);
    if (!reader) return read;
    for (const std::string& path : reader->relativePaths())
      read[path] = KQTest::bytesOf(reader->dataForRelativePath(path)).value_or("no data");
    return read;
  };
  KQTest::writeFile(archive_, exact);
  const std::map<std::string, std::string> before = contents();
  ASSERT_EQ(entries_.size(), before.size());
  failEveryCallOnce({[&] { KQTest::writeFile(archive_, exact); },
                     [&]() -> Outcome {
                       std::shared_ptr<const KQ::NSError> error;
                       const bool made = KQZipMakeArchiveInteroperable(archive_, &error);
                       EXPECT_EQ(made, error == nullptr);
                       if (!made) return std::nullopt;
                       return std::map<std::string, std::string>{};
                     },
                     [&](const Outcome& outcome) -> Outcome {
                       if (outcome)
                         return std::map<std::string, std::string>{{"archive", KQTest::readFile(archive_)}};
                       EXPECT_TRUE(before == contents()) << "an entry cannot be read";
                       EXPECT_TRUE(KQZipMakeArchiveInteroperable(archive_)) << "it cannot be repeated";
                       KQTest::expectSameBytes(interoperable, KQTest::readFile(archive_));
                       return std::nullopt;
                     },
                     {}});
  KQTest::expectSameBytes(interoperable, KQTest::readFile(archive_), "what the last call made");
}

TEST_F(LargeFileFaults, PackingAFileOfSeveralBlocksFailsOrWritesTheWholeArchive) {
  const auto crcOfTheFirst = [this](std::size_t length) {
    return oneEntry("a source that cannot be read ends its CRC like the end of the file", "readAt",
                    [length](KQTest::GoldenEntry& entry) {
                      entry.crc = KQTest::crcOf(KQTest::patternBytes(block + 70000).substr(0, length));
                    });
  };
  Operation operation = packing({crcOfTheFirst(0), crcOfTheFirst(block)});
  const Leniency aBlockThatCannotBeReadEndsItsCopy =
      oneEntry("a block that cannot be read ends its copy like the end of the file", "readAt",
               [](KQTest::GoldenEntry& entry) { entry.data.resize(block); });
  if (!KQZIP_SYSTEM_MOVES_BYTES) operation.leniencies.push_back(aBlockThatCannotBeReadEndsItsCopy);
  failEveryCallOnce(operation);
  operation.isPlain = true;
  operation.leniencies.push_back(aBlockThatCannotBeReadEndsItsCopy);
  failEveryCallOnce(operation);
}

TEST_F(LargeFileFaults, ExtractingAFileOfSeveralBlocksFailsOrGivesItBack) {
  Operation operation =
      extracting({anArchiveThatCannotBeOpenedHasNoEntries, aSignatureThatCannotBeReadEndsTheScan});
  failEveryCallOnce(operation);
  operation.isPlain = true;
  failEveryCallOnce(operation);
}

}  // namespace
