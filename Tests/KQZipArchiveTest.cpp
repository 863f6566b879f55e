// Archives that the library itself packs, opened as a whole.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/SourceTree.h"
#include "Support/TemporaryDirectory.h"

namespace {

using KQTest::Error;
using KQTest::errorText;
using KQTest::patternBytes;
using KQTest::SourceTree;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;

using Contents = std::map<std::string, std::string>;

const Contents someFiles{
    {"a.txt", "alpha"}, {"b/c.bin", patternBytes(3000)}, {"b/empty", ""}, {"z", patternBytes(70000, 2)}};

std::string packed(const Contents& files) {
  std::vector<KQTest::GoldenEntry> entries;
  entries.reserve(files.size());
  for (const auto& [name, data] : files) entries.push_back(SourceTree::entry(name, data));
  return KQTest::goldenArchive(entries);
}

std::shared_ptr<KQZipArchive> opened(const std::string& path) {
  Error error;
  auto archive = KQZipArchive::open(path, &error);
  EXPECT_TRUE(archive) << errorText(error);
  return archive;
}

Contents contentsOf(const KQZipArchive& archive) {
  Contents contents;
  for (const KQZipArchiveEntry& entry : archive.entries()) {
    Error error;
    const auto data = archive.data(entry, &error);
    EXPECT_TRUE(data) << errorText(error);
    EXPECT_TRUE(contents.emplace(entry.name(), KQTest::bytesOf(data).value_or("nothing")).second);
  }
  return contents;
}

TEST(KQZipArchive, GivesBackEveryEntryOfTheExactForm) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", packed(someFiles));
  const auto archive = opened(folder / "a.zip");
  EXPECT_EQ(someFiles, contentsOf(*archive));
  EXPECT_TRUE(archive->problems().empty());
  EXPECT_EQ(0U, archive->prefixLength());
}

TEST(KQZipArchive, GivesBackEveryEntryOfTheInteroperableForm) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", KQTest::interoperableArchive(packed(someFiles)));
  const auto archive = opened(folder / "a.zip");
  EXPECT_EQ(someFiles, contentsOf(*archive));
  EXPECT_TRUE(archive->problems().empty());
  EXPECT_EQ(std::optional<std::uint16_t>(0644), archive->find("z")->permissions());
}

TEST(KQZipArchive, GivesBackEveryEntryThroughAStream) {
  const std::string bytes = packed(someFiles);
  const auto stream =
      KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()));
  stream->open();
  Error error;
  const auto archive = KQZipArchive::open(*stream, &error);
  ASSERT_TRUE(archive) << errorText(error);
  EXPECT_EQ(someFiles, contentsOf(*archive));
  EXPECT_TRUE(archive->problems().empty());
}

TEST(KQZipArchive, SaysWhatTheDirectorySaysOfAnEntry) {
  const SourceTree tree;
  writeFile(tree / "a.zip", packed(someFiles));
  const auto archive = opened(tree / "a.zip");
  const auto entry = archive->find("b/c.bin");
  ASSERT_TRUE(entry);
  EXPECT_EQ("b/c.bin", entry->name());
  EXPECT_EQ(3000U, entry->length());
  EXPECT_EQ(3000U, entry->uncompressedLength());
  EXPECT_EQ(KQTest::crcOf(someFiles.at("b/c.bin")), entry->crc32());
  EXPECT_EQ("2020-09-13 12:26:40", KQTest::localTime(entry->modificationDate()));
  EXPECT_EQ(KQZipEntryKind::File, entry->kind());
  EXPECT_EQ(std::nullopt, entry->permissions());
  EXPECT_EQ(30U + 5 + 28 + 5, entry->localHeaderOffset());
  EXPECT_EQ(std::optional<std::uint64_t>(30U + 5 + 28 + 5 + 30 + 7 + 28), archive->dataOffset(*entry));
}

TEST(KQZipArchive, FindsANameHoweverItIsWritten) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", packed(someFiles));
  const auto archive = opened(folder / "a.zip");
  for (const char* const name : {"b/c.bin", "b//c.bin", "b/./c.bin", "./b/c.bin", "b/././/c.bin"}) {
    const auto entry = archive->find(name);
    ASSERT_TRUE(entry) << name;
    EXPECT_EQ("b/c.bin", entry->name()) << name;
  }
  for (const char* const name : {"", "b", "b/", "/b/c.bin", "b/c.bin/", "B/c.bin", "b/../b/c.bin"})
    EXPECT_FALSE(archive->find(name)) << name;
}

TEST(KQZipArchive, AStreamEndsWhereTheEntryEnds) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", packed(someFiles));
  const auto archive = opened(folder / "a.zip");
  const auto stream = archive->stream(*archive->find("b/c.bin"));
  ASSERT_TRUE(stream);
  EXPECT_EQ(someFiles.at("b/c.bin"), KQTest::readFrom(*stream, 100000));
  EXPECT_FALSE(stream->hasBytesAvailable());
  EXPECT_EQ(KQ::NSStreamStatusAtEnd, stream->streamStatus());
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(2990));
  EXPECT_EQ(someFiles.at("b/c.bin").substr(2990), KQTest::readFrom(*stream, 100));
}

TEST(KQZipArchive, AReadAtAnOffsetStaysInsideTheEntry) {
  const TemporaryDirectory folder;
  writeFile(folder / "a.zip", packed(someFiles));
  const auto archive = opened(folder / "a.zip");
  const auto entry = *archive->find("b/c.bin");
  std::string bytes(100, '?');
  auto* const buffer = reinterpret_cast<std::uint8_t*>(bytes.data());
  EXPECT_EQ(100, archive->read(entry, buffer, 100, 1000));
  EXPECT_EQ(someFiles.at("b/c.bin").substr(1000, 100), bytes);
  EXPECT_EQ(10, archive->read(entry, buffer, 100, 2990));
  EXPECT_EQ(0, archive->read(entry, buffer, 100, 3000));
  EXPECT_EQ(0, archive->read(entry, buffer, 100, UINT64_MAX));
}

TEST(KQZipArchive, ChangedDataAreNotGivenBack) {
  const TemporaryDirectory folder;
  std::string bytes = packed(someFiles);
  bytes[30 + 5 + 28] ^= 1;
  writeFile(folder / "a.zip", bytes);
  const auto archive = opened(folder / "a.zip");
  Error error;
  EXPECT_FALSE(archive->data(*archive->find("a.txt"), &error));
  const std::string found =
      KQ::stringWithFormat("%x", {KQ::NSFormatArgument::hexadecimal(KQTest::crcOf("`lpha"))});
  const std::string said =
      KQ::stringWithFormat("%x", {KQ::NSFormatArgument::hexadecimal(KQTest::crcOf("alpha"))});
  EXPECT_EQ("-202 a.txt is not given back: CRC-32 is " + found + ", header says " + said, errorText(error));
  EXPECT_TRUE(archive->data(*archive->find("b/c.bin")));

  const auto stream = archive->stream(*archive->find("a.txt"));
  ASSERT_TRUE(stream);
  std::string read(10, '?');
  auto* const buffer = reinterpret_cast<std::uint8_t*>(read.data());
  EXPECT_EQ(5, stream->read(buffer, 10));
  EXPECT_EQ(-1, stream->read(buffer, 10));
  EXPECT_EQ(errorText(error), errorText(stream->streamError()));
}

TEST(KQZipArchive, AnEntryWhoseHeadersDisagreeIsNotGivenBack) {
  const TemporaryDirectory folder;
  std::string bytes = packed(someFiles);
  bytes[30] ^= 1;
  writeFile(folder / "a.zip", bytes);
  const auto archive = opened(folder / "a.zip");
  Error error;
  EXPECT_FALSE(archive->data(*archive->find("a.txt"), &error));
  EXPECT_EQ("-202 a.txt is not given back: has another name in its header at offset 0", errorText(error));
}

TEST(KQZipArchive, WhatIsNoArchiveIsNotOpened) {
  const TemporaryDirectory folder;
  for (const std::string& bytes : {std::string(), std::string("P"), std::string(100000, 'x')}) {
    writeFile(folder / "a.zip", bytes);
    Error error;
    EXPECT_FALSE(KQZipArchive::open(folder / "a.zip", &error));
    EXPECT_EQ("-200 " + (folder / "a.zip") + " is no archive", errorText(error));
  }
  Error error;
  EXPECT_FALSE(KQZipArchive::open(folder / "missing", &error));
  EXPECT_EQ(ENOENT, error->code());
  EXPECT_FALSE(KQZipArchive::open(folder.path().string(), &error));
  EXPECT_EQ(EISDIR, error->code());
}

}  // namespace
