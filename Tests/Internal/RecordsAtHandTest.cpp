// The tool decodes headers from a stream's buffer where they are of the ordinary kind. Whatever it takes so
// must be what the header's class reads.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "RecordsAtHand.h"
#include "Support/ArchiveRecords.h"
#include "Support/RecordBytes.h"

using namespace KQTest;

namespace {

constexpr std::uint64_t signatureSize = 4;

// A stream that has all the bytes at hand and stands behind the signature of the header that they begin with.
std::shared_ptr<KQ::NSInputStream> streamAtHeader(const std::string& bytes) {
  const auto stream =
      KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()));
  stream->open();
  stream->setNSStreamFileCurrentOffsetKey(signatureSize);
  return stream;
}

// Whether the header was taken; what was taken must be what the class reads.
bool isLocalTaken(const std::string& bytes) {
  const auto stream = streamAtHeader(bytes);
  const auto taken = Tool::localHeaderAtHand(*stream, 0);
  EXPECT_EQ(signatureSize, stream->NSStreamFileCurrentOffsetKey());
  if (!taken) return false;
  KQZipFileLocalHeader header;
  EXPECT_TRUE(header.parseFromStream(*stream));
  const auto zip64 = header.findZip64InfoField();
  EXPECT_EQ(bytes.substr(30, header.fileNameLength()), taken->name);
  EXPECT_EQ(header.offsetOfDataInArchive(), taken->fields.dataAt);
  EXPECT_EQ(header.dataLengthFromHeader(), taken->fields.length);
  EXPECT_EQ(zip64 ? zip64->uncompressedSize() : header.uncompressedSize(), taken->fields.uncompressedLength);
  EXPECT_EQ(header.crc32(), taken->fields.crc32);
  EXPECT_EQ(header.flags(), taken->fields.flags);
  EXPECT_EQ(header.modTime(), taken->fields.modTime);
  EXPECT_EQ(header.modDate(), taken->fields.modDate);
  return true;
}

bool isCentralTaken(const std::string& bytes) {
  const auto stream = streamAtHeader(bytes);
  const auto taken = Tool::centralHeaderAtHand(*stream);
  const auto size = Tool::sizeOfCentralHeaderAtHand(*stream);
  EXPECT_EQ(signatureSize, stream->NSStreamFileCurrentOffsetKey());
  if (!taken) return false;
  EXPECT_EQ(size, taken->size);
  KQZipCentralDirectoryFileHeader header;
  EXPECT_TRUE(header.parseFromStream(*stream));
  EXPECT_EQ(stream->NSStreamFileCurrentOffsetKey(), taken->size);
  const std::string name = bytes.substr(46, header.fileNameLength());
  const Tool::CentralRecord expected = Tool::centralRecord(header, name);
  EXPECT_EQ(name, taken->record.name);
  EXPECT_EQ(expected.crc32, taken->record.crc32);
  EXPECT_EQ(expected.size, taken->record.size);
  EXPECT_EQ(expected.localHeaderAt, taken->record.localHeaderAt);
  EXPECT_EQ(expected.permissions, taken->record.permissions);
  return true;
}

LocalRecord withExtra(const std::string& extra) {
  LocalRecord record = plainRecord("name", "data");
  record.extra = extra;
  return record;
}

// Extra fields that other programs write, and none.
std::vector<std::string> ordinaryExtraFields() {
  const std::string times = extraFieldBytes(0x5455, std::string(9, '\x5F'));
  const std::string owner = extraFieldBytes(0x7875, std::string(11, '\x04'));
  const std::string zip64 = zip64FieldBytes(0x1122334455, 0x66778899);
  return {"",
          times + owner,
          zip64,
          zip64 + times,
          times + zip64 + owner,
          zip64 + zip64FieldBytes(1, 2),
          extraFieldBytes(1, std::string(16, '\x01')),
          extraFieldBytes(1, std::string(17, '\x01')),
          extraFieldBytes(1, std::string(40, '\x01')),
          extraFieldBytes(0xCAFE, ""),
          extraFieldBytes(0xCAFE, std::string(60000, 'x'))};
}

// A central header, every fixed field of which has a value of its own.
std::string centralBytes(const std::string& extra, const std::string& comment = "",
                         bool isSaturated = false) {
  return KQTest::CentralHeaderFields{.versionNeeded = 45,
                                     .flags = 0x0801,
                                     .modTime = 0x645C,
                                     .modDate = 0x50CF,
                                     .crc32 = 0x12345678,
                                     .compressedSize = isSaturated ? 0xFFFFFFFF : 0x23456789,
                                     .uncompressedSize = isSaturated ? 0xFFFFFFFF : 0x3456789A,
                                     .diskNumberStart = 0x4567,
                                     .internalFileAttributes = 0x5678,
                                     .externalFileAttributes = 0x81A40001,
                                     .offsetOfLocalHeader = isSaturated ? 0xFFFFFFFF : 0x6789ABCD,
                                     .name = "name",
                                     .extra = extra,
                                     .comment = comment}
      .bytes();
}

}  // namespace

TEST(RecordsAtHand, OrdinaryLocalHeadersAreTakenAsTheirClassReadsThem) {
  for (const std::string& extra : ordinaryExtraFields()) EXPECT_TRUE(isLocalTaken(withExtra(extra).bytes()));
  EXPECT_TRUE(isLocalTaken(plainRecord("", "").bytes()));
  EXPECT_TRUE(isLocalTaken(plainRecord("not \xFF UTF-8", "x").bytes()));
  EXPECT_TRUE(isLocalTaken(plainRecord(std::string(0xFFFF, 'n'), "x").bytes()));
}

TEST(RecordsAtHand, OrdinaryCentralHeadersAreTakenAsTheirClassReadsThem) {
  for (const std::string& extra : ordinaryExtraFields()) {
    EXPECT_TRUE(isCentralTaken(centralBytes(extra)));
    EXPECT_TRUE(isCentralTaken(centralBytes(extra, "a comment")));
    EXPECT_TRUE(isCentralTaken(centralBytes(extra, "", true)));
  }
  // Here other programs leave out the values that fit 32 bits.
  for (const std::size_t length : {0U, 1U, 7U, 8U, 15U})
    EXPECT_TRUE(isCentralTaken(centralBytes(extraFieldBytes(1, std::string(length, '\x02')), "", true)));
}

TEST(RecordsAtHand, TheOffsetOfALocalHeaderCountsIntoThatOfItsData) {
  const std::string bytes = plainRecord("name", "data").bytes();
  const auto taken = Tool::localHeaderAtHand(*streamAtHeader(bytes), 1000);
  ASSERT_TRUE(taken);
  EXPECT_EQ(1034U, taken->fields.dataAt);
}

TEST(RecordsAtHand, AHeaderThatIsNotAtHandToItsEndIsNotTaken) {
  const std::string local = withExtra(zip64FieldBytes(4, 4)).header();
  for (std::size_t length = 0; length < local.size(); ++length)
    EXPECT_FALSE(isLocalTaken(local.substr(0, length))) << length;
  const std::string central = centralBytes(zip64FieldBytes(4, 4), "a comment");
  for (std::size_t length = 0; length < central.size(); ++length) {
    EXPECT_FALSE(isCentralTaken(central.substr(0, length))) << length;
    EXPECT_EQ(length >= 46,
              Tool::sizeOfCentralHeaderAtHand(*streamAtHeader(central.substr(0, length))).has_value());
  }
}

TEST(RecordsAtHand, WhatIsOutOfTheOrdinaryIsLeftToTheClass) {
  LocalRecord compressed = plainRecord("name", "data");
  compressed.compression = 8;
  EXPECT_FALSE(isLocalTaken(compressed.bytes()));
  EXPECT_FALSE(isCentralTaken(centralHeaderBytes(plainRecord("name", "data"), 0, 8)));

  for (const std::string& extra : {std::string("x"), std::string("xyz"), extraFieldBytes(0xCAFE, "four", 5),
                                   extraFieldBytes(1, "", 0xFFFF), zip64FieldBytes(4, 4) + "xyz",
                                   zip64FieldBytes(4, 4) + extraFieldBytes(0xCAFE, "", 1)}) {
    EXPECT_FALSE(isLocalTaken(withExtra(extra).bytes() + std::string(0x10000, 'x')));
    EXPECT_FALSE(isCentralTaken(centralBytes(extra) + std::string(0x10000, 'x')));
  }
  // A Zip64 field without both sizes, and data that ends where no offset is.
  for (const std::size_t length : {0U, 8U, 15U})
    EXPECT_FALSE(isLocalTaken(withExtra(extraFieldBytes(1, std::string(length, '\x02'))).bytes()));
  const std::uint64_t largest = INT64_MAX - 62;
  EXPECT_TRUE(isLocalTaken(withExtra(zip64FieldBytes(4, largest)).bytes()));
  EXPECT_FALSE(isLocalTaken(withExtra(zip64FieldBytes(4, largest + 1)).bytes()));
  EXPECT_FALSE(isLocalTaken(withExtra(zip64FieldBytes(4, UINT64_MAX)).bytes()));
}

TEST(RecordsAtHand, WhateverIsTakenOfDamagedHeadersIsWhatTheClassReads) {
  std::mt19937 random(20261121);
  int taken = 0;
  constexpr int rounds = 6000;
  for (int round = 0; round < rounds; ++round) {
    const auto extras = ordinaryExtraFields();
    const std::string& extra = extras[random() % (extras.size() - 1)];
    std::string local = withExtra(extra).bytes();
    std::string central = centralBytes(extra, "a comment");
    for (std::string* const bytes : {&local, &central}) {
      for (auto changes = 1 + random() % 3; changes != 0; --changes)
        (*bytes)[signatureSize + random() % (bytes->size() - signatureSize)] =
            static_cast<char>(random() % 2 == 0 ? random() % 4 : random());
    }
    taken += isLocalTaken(local) ? 1 : 0;
    taken += isCentralTaken(central) ? 1 : 0;
    if (HasFailure()) return;
  }
  EXPECT_LT(rounds / 2, taken);
  EXPECT_GT(rounds * 2, taken);
}
