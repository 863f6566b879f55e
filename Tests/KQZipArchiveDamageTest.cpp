// Damaged and hostile archives, opened as a whole.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/SourceTree.h"

namespace {

using KQTest::Error;
using KQTest::LocalRecord;
using KQTest::patternBytes;
using KQTest::plainRecord;
using KQTest::SourceTree;

// An archive in memory, with the stream that it is read through.
struct Opened {
  explicit Opened(const std::string& bytes)
      : stream(
            KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()))) {
    stream->open();
    archive = KQZipArchive::open(*stream, &error);
  }

  std::shared_ptr<KQ::NSInputStream> stream;
  Error error;
  std::shared_ptr<KQZipArchive> archive;
};

// The names of the entries that are given back, with what is given.
std::map<std::string, std::string> givenBack(const KQZipArchive& archive) {
  std::map<std::string, std::string> contents;
  for (const KQZipArchiveEntry& entry : archive.entries())
    if (const auto data = archive.data(entry)) contents[entry.name()] = KQTest::bytesOf(data).value();
  return contents;
}

std::map<std::string, std::string> hundredFiles() {
  std::map<std::string, std::string> files;
  for (unsigned i = 0; i < 100; ++i) files["f" + std::to_string(100 + i)] = patternBytes(20 + i, i + 1);
  return files;
}

std::string packed(const std::map<std::string, std::string>& files) {
  std::vector<KQTest::GoldenEntry> entries;
  entries.reserve(files.size());
  for (const auto& [name, data] : files) entries.push_back(SourceTree::entry(name, data));
  return KQTest::goldenArchive(entries);
}

std::vector<std::size_t> placesOf(const std::string& bytes, const std::string& signature) {
  std::vector<std::size_t> places;
  for (std::size_t at = bytes.find(signature); at != std::string::npos; at = bytes.find(signature, at + 4))
    places.push_back(at);
  return places;
}

const std::string localSignature = "PK\3\4";
const std::string centralSignature = "PK\1\2";

TEST(KQZipArchiveDamage, ADamagedSignatureCostsItsEntryAlone) {
  const auto files = hundredFiles();
  const std::string bytes = packed(files);
  const auto headers = placesOf(bytes, localSignature);
  ASSERT_EQ(100U, headers.size());
  for (const bool hasDirectory : {true, false}) {
    for (const std::size_t place : {0U, 50U, 99U}) {
      std::string damaged = bytes;
      damaged[headers[place]] ^= 1;
      if (!hasDirectory) damaged.resize(damaged.find(centralSignature));
      auto expected = files;
      expected.erase("f" + std::to_string(100 + place));
      const Opened opened(damaged);
      ASSERT_TRUE(opened.archive) << place;
      EXPECT_EQ(expected, givenBack(*opened.archive)) << place << hasDirectory;
    }
  }
}

TEST(KQZipArchiveDamage, ADamagedCentralHeaderCostsNothing) {
  const auto files = hundredFiles();
  const std::string bytes = packed(files);
  const auto headers = placesOf(bytes, centralSignature);
  for (const std::size_t at : {headers[0], headers[50] + 28, headers[99] + 30}) {
    std::string damaged = bytes;
    damaged[at] ^= 1;
    const Opened opened(damaged);
    ASSERT_TRUE(opened.archive);
    EXPECT_EQ(files, givenBack(*opened.archive)) << at;
    EXPECT_FALSE(opened.archive->problems().empty()) << at;
  }
}

TEST(KQZipArchiveDamage, FlippedBitsNeverGiveBackWrongData) {
  const std::map<std::string, std::string> files{{"a", "alpha"}, {"b", "PK\3\4 beta"}, {"d", ""}};
  for (const std::string& bytes : {packed(files), KQTest::interoperableArchive(packed(files))}) {
    for (std::size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
      std::string damaged = bytes;
      damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
      const Opened opened(damaged);
      if (!opened.archive) continue;
      std::size_t right = 0;
      for (const auto& [name, data] : givenBack(*opened.archive)) {
        const auto file = files.find(name);
        // An empty entry has nothing that could tell its name from another one.
        if (file == files.end()) {
          EXPECT_EQ("", data) << bit;
        } else {
          EXPECT_EQ(file->second, data) << bit;
          ++right;
        }
      }
      // A wrong offset may make two entries seem to share bytes.
      EXPECT_LE(1U, right) << bit;
    }
  }
}

TEST(KQZipArchiveDamage, AnArchiveCutOffAnywhereGivesBackEveryWholeEntry) {
  const std::map<std::string, std::string> files{{"a", "alpha"}, {"b", "beta"}, {"c", "gamma"}};
  const std::string bytes = packed(files);
  const auto headers = placesOf(bytes, localSignature);
  for (std::size_t length = 1; length < bytes.size(); ++length) {
    const Opened opened(bytes.substr(0, length));
    std::map<std::string, std::string> expected;
    for (std::size_t i = 0; i < headers.size(); ++i) {
      const auto file = std::next(files.begin(), static_cast<std::ptrdiff_t>(i));
      if (headers[i] + 30 + 1 + 28 + file->second.size() <= length) expected.insert(*file);
    }
    if (expected.empty()) continue;
    ASSERT_TRUE(opened.archive) << length;
    EXPECT_EQ(expected, givenBack(*opened.archive)) << length;
    EXPECT_FALSE(opened.archive->problems().empty()) << length;
  }
}

TEST(KQZipArchiveDamage, AnArchiveInsideAnArchiveAddsNoEntries) {
  const std::string inner = packed({{"inner", "data"}});
  const std::string outer = packed({{"a", "alpha"}, {"b.zip", inner}, {"c", "gamma"}});
  const auto names = [](const std::string& bytes) {
    const Opened opened(bytes);
    std::set<std::string> found;
    for (const KQZipArchiveEntry& entry : opened.archive->entries()) found.insert(entry.name());
    return found;
  };
  const std::string withoutDirectory = outer.substr(0, KQTest::ArchiveTail(outer).startOfDirectory);
  EXPECT_EQ(0U, names(withoutDirectory).count("inner"));
  EXPECT_EQ(1U, names(withoutDirectory).count("b.zip"));
  std::string damaged = withoutDirectory;
  damaged[0] ^= 1;
  EXPECT_EQ((std::set<std::string>{"b.zip", "c"}), names(damaged));
  // Cut off inside the inner one: what is there of it is the outer entry's.
  EXPECT_EQ((std::set<std::string>{"a"}), names(outer.substr(0, outer.find("inner") + 50)));
}

TEST(KQZipArchiveDamage, EndRecordsThatCountNothingDoNotHideTheEntries) {
  for (const std::string& form :
       {packed(hundredFiles()), KQTest::interoperableArchive(packed(hundredFiles()))}) {
    std::string bytes = form;
    const std::size_t end = bytes.size() - 22;
    const std::size_t zip64 = end - 20 - 56;
    KQTest::setNumberAt(bytes, end + 8, 4, 0);
    KQTest::setNumberAt(bytes, zip64 + 24, 8, 0);
    KQTest::setNumberAt(bytes, zip64 + 32, 8, 0);
    const Opened opened(bytes);
    ASSERT_TRUE(opened.archive);
    EXPECT_EQ(hundredFiles(), givenBack(*opened.archive));
    EXPECT_FALSE(opened.archive->problems().empty());
  }
}

TEST(KQZipArchiveDamage, EntriesThatShareBytesAreRefused) {
  const LocalRecord first = plainRecord("a", plainRecord("b", "beta").bytes() + "rest");
  const LocalRecord second = plainRecord("b", "beta");
  const LocalRecord third = plainRecord("c", "gamma");
  const std::string records = first.bytes() + third.bytes();
  const auto inner = static_cast<std::uint32_t>(first.header().size());
  const auto last = static_cast<std::uint32_t>(first.bytes().size());
  const std::string directory = KQTest::centralHeaderBytes(first, 0) +
                                KQTest::centralHeaderBytes(second, inner) +
                                KQTest::centralHeaderBytes(third, last);
  const Opened opened(records + directory +
                      KQTest::endRecordBytes(3, static_cast<std::uint32_t>(directory.size()),
                                             static_cast<std::uint32_t>(records.size())));
  ASSERT_TRUE(opened.archive);
  EXPECT_EQ((std::map<std::string, std::string>{{"c", "gamma"}}), givenBack(*opened.archive));
  Error error;
  EXPECT_FALSE(opened.archive->data(*opened.archive->find("b"), &error));
  EXPECT_EQ("-201 b is not given back: shares bytes with another entry", KQTest::errorText(error));
}

TEST(KQZipArchiveDamage, ThousandsOfHeadersThatClaimTheSameDataAreReadOnce) {
  // Each claims everything up to the end, with a CRC-32 that does not hold.
  const std::size_t count = 30000;
  std::string bytes = "x";
  for (std::size_t i = 0; i < count; ++i) {
    LocalRecord record = plainRecord("n", "");
    record.size = static_cast<std::uint32_t>((count - 1 - i) * 31);
    bytes += record.header();
  }
  bytes += plainRecord("last", "data").bytes();
  const Opened opened(bytes);
  ASSERT_TRUE(opened.archive);
  EXPECT_EQ(1U, givenBack(*opened.archive).count("last"));
}

TEST(KQZipArchiveDamage, ThousandsOfLongNamesAreTakenInTheirStride) {
  const std::string longName(65000, 'n');
  std::vector<LocalRecord> records;
  for (unsigned i = 0; i < 200; ++i) records.push_back(plainRecord(longName + std::to_string(i % 100), ""));
  const Opened opened(KQTest::archiveBytes(records));
  ASSERT_TRUE(opened.archive);
  EXPECT_EQ(100U, opened.archive->entries().size());
  EXPECT_TRUE(opened.archive->find(longName + "99"));
  EXPECT_FALSE(opened.archive->find(longName));
}

}  // namespace
