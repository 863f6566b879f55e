// What verifying a whole archive finds.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveFields.h"
#include "Support/ArchiveRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/OtherPrograms.h"
#include "Support/SourceTree.h"
#include "Support/TemporaryDirectory.h"

namespace {

using KQTest::Error;
using KQTest::patternBytes;
using KQTest::readFile;
using KQTest::SourceTree;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;

std::string exactArchive() {
  return KQTest::goldenArchive({SourceTree::entry("a", "alpha"), SourceTree::entry("b/empty", ""),
                                SourceTree::entry("\xC3\xA4", "PK\3\4 and PK\5\6")});
}

// Every line of a report: the entry or "-", and the text.
std::vector<std::string> linesOf(const std::vector<KQZipProblem>& problems) {
  std::vector<std::string> lines;
  lines.reserve(problems.size());
  for (const KQZipProblem& problem : problems)
    lines.push_back(problem.entry.value_or("-") + ": " + problem.text);
  return lines;
}

struct Verdict {
  bool isOpen = false;
  bool isRight = false;
  std::vector<std::string> problems;
  std::vector<std::string> remarks;
  std::uint64_t entriesWithProblems = 0;
  Error error;
};

Verdict verdictOf(const KQZipArchive& archive, unsigned threads) {
  Verdict verdict;
  KQZipReport report;
  verdict.isOpen = true;
  verdict.isRight = archive.verify({.threads = threads}, report, &verdict.error);
  verdict.problems = linesOf(report.problems());
  verdict.remarks = linesOf(report.remarks());
  verdict.entriesWithProblems = report.entriesWithProblems();
  return verdict;
}

// From memory, so that thousands of archives cost no file.
Verdict verify(const std::string& bytes) {
  const auto stream =
      KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()));
  stream->open();
  const auto archive = KQZipArchive::open(*stream);
  return archive ? verdictOf(*archive, 1) : Verdict();
}

// Flips every bit. Only those may pass that say nothing of names, data and places.
void expectFlipsFound(const std::string& bytes, const std::string& what) {
  const Verdict whole = verify(bytes);
  ASSERT_TRUE(whole.isRight) << what << ": " << testing::PrintToString(whole.problems);
  const std::set<std::size_t> allowed = KQTest::bitsWithoutConsequence(bytes);
  ASSERT_LT(allowed.size(), bytes.size() * 4) << what;
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      if (allowed.count(8 * at + bit) != 0) continue;
      std::string flipped = bytes;
      flipped[at] = static_cast<char>(flipped[at] ^ (1 << bit));
      EXPECT_FALSE(verify(flipped).isRight) << what << ": bit " << bit << " of the byte at " << at;
    }
  }
}

TEST(KQZipArchiveVerify, FindsEveryFlippedBitOfTheExactForm) { expectFlipsFound(exactArchive(), "exact"); }

TEST(KQZipArchiveVerify, FindsEveryFlippedBitOfTheInteroperableForm) {
  expectFlipsFound(KQTest::interoperableArchive(exactArchive()), "interoperable");
}

TEST(KQZipArchiveVerify, FindsEveryFlippedBitOfArchivesOfOtherPrograms) {
  const TemporaryDirectory folder;
  writeFile(folder / "in/a", "alpha");
  writeFile(folder / "in/d/\xC3\xA4", "beta");
  const std::vector<std::pair<std::string, std::string>> programs{
      {"zip", "zip -q -0 -r ../a.zip ."},
      {"zip", "zip -q -0 -r - . | cat > ../a.zip"},
      {"bsdtar", "bsdtar --format zip --options zip:compression=store -cf ../a.zip a d"},
      {"7zz", "7zz a -mx0 ../a.zip . > ../log"},
      {"python3",
       "python3 -c \"import zipfile; z = zipfile.ZipFile('../a.zip', 'w'); z.write('a'); "
       "z.write('d/\xC3\xA4'); z.close()\""},
  };
  std::size_t tried = 0;
  for (const auto& [program, command] : programs) {
    if (!KQTest::isHere(program)) continue;
    ++tried;
    const auto result = KQTest::runOtherProgram({"sh", "-c", command}, folder / "in");
    ASSERT_EQ(0, result.exitStatus) << command << result.errors;
    expectFlipsFound(readFile(folder / "a.zip"), command);
    std::filesystem::remove(folder / "a.zip");
  }
  if (tried == 0) GTEST_SKIP() << "none of the programs is on this machine";
}

TEST(KQZipArchiveVerify, BytesInFrontAreMentionedAndNoProblem) {
  for (const std::string& bytes :
       {"#!/bin/sh\n" + exactArchive(), "#!/bin/sh\n" + KQTest::interoperableArchive(exactArchive())}) {
    const Verdict verdict = verify(bytes);
    EXPECT_TRUE(verdict.isRight) << testing::PrintToString(verdict.problems);
    EXPECT_EQ(std::vector<std::string>{"-: 10 bytes stand in front of the first record"}, verdict.remarks);
  }
}

TEST(KQZipArchiveVerify, BytesThatBelongToNothingAreAProblem) {
  const std::string first = KQTest::zip64Record("a", "alpha").bytes();
  const std::string whole = exactArchive();
  const auto trailing = verify(whole + "x");
  EXPECT_FALSE(trailing.isRight);
  EXPECT_EQ(std::vector<std::string>{"-: unknown bytes after the end of the archive, from offset " +
                                     std::to_string(whole.size())},
            trailing.problems);
}

TEST(KQZipArchiveVerify, NamesTheEntryWhoseDataChanged) {
  std::string bytes = exactArchive();
  bytes[30 + 1 + 28 + 2] ^= 4;
  const Verdict verdict = verify(bytes);
  EXPECT_FALSE(verdict.isRight);
  ASSERT_EQ(1U, verdict.problems.size());
  EXPECT_EQ(0U, verdict.problems[0].find("a: CRC-32 is ")) << verdict.problems[0];
  EXPECT_EQ(1U, verdict.entriesWithProblems);
  EXPECT_EQ("-203 problems found: 1, entries with problems: 1", KQTest::errorText(verdict.error));
}

TEST(KQZipArchiveVerify, AnyNumberOfThreadsFindsTheSame) {
  const TemporaryDirectory folder;
  std::vector<KQTest::GoldenEntry> entries;
  for (unsigned i = 0; i < 300; ++i)
    entries.push_back(SourceTree::entry("small/" + std::to_string(1000 + i), patternBytes(3000, i + 1)));
  entries.push_back(SourceTree::entry("z/large", patternBytes(3500000)));
  entries.push_back(SourceTree::entry("z/last", "end"));
  std::string bytes = KQTest::goldenArchive(entries);
  writeFile(folder / "a.zip", bytes);
  for (std::size_t at = 2000; at < bytes.size() - 98; at += 300007) bytes[at] ^= 1;
  writeFile(folder / "b.zip", bytes);
  const auto whole = KQZipArchive::open(folder / "a.zip");
  const auto damaged = KQZipArchive::open(folder / "b.zip");
  ASSERT_TRUE(whole && damaged);
  const Verdict alone = verdictOf(*damaged, 1);
  EXPECT_FALSE(alone.isRight);
  EXPECT_LE(3U, alone.problems.size());
  for (const unsigned threads : {0U, 1U, 2U, 3U, 8U}) {
    EXPECT_TRUE(verdictOf(*whole, threads).isRight) << threads;
    EXPECT_EQ(alone.problems, verdictOf(*damaged, threads).problems) << threads;
  }
}

TEST(KQZipArchiveVerify, ACancelledProgressEndsIt) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", exactArchive());
  const auto archive = KQZipArchive::open(folder / "a.zip");
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
  progress->becomeCurrentWithPendingUnitCount(1);
  progress->cancel();
  const Verdict verdict = verdictOf(*archive, 2);
  progress->resignCurrent();
  EXPECT_FALSE(verdict.isRight);
  EXPECT_EQ("-90 Operation was cancelled.", KQTest::errorText(verdict.error));
}

}  // namespace
