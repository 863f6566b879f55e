// The codec and the record classes know the same layouts, each for itself: what the one writes the other
// reads.

#include <KQZip/Internal/KQZipHeaderCodec.h>
#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "Support/EntryRecords.h"

using namespace KQTest;

namespace {

KQZipBytes bytesIn(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

KQZipRoom roomIn(std::string& text) { return {reinterpret_cast<std::uint8_t*>(text.data()), text.size()}; }

std::string textOf(KQZipBytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

// What the codec encodes, in front of bytes that it must leave alone.
template <class Fields>
std::string encoded(const Fields& fields) {
  std::string bytes(Fields::size + 3, '!');
  EXPECT_TRUE(KQZipEncode(fields, roomIn(bytes)));
  EXPECT_EQ("!!!", bytes.substr(Fields::size));
  return bytes.substr(0, Fields::size);
}

// What the codec decodes; whatever follows is not looked at.
template <class Fields>
Fields decoded(const std::string& bytes) {
  Fields fields;
  EXPECT_TRUE(KQZipDecode(bytesIn(bytes), &fields));
  Fields afterSignature;
  EXPECT_TRUE(KQZipDecodeAfterSignature(bytesIn(bytes).subspan(4), &afterSignature));
  EXPECT_EQ(encoded(fields), encoded(afterSignature));
  return fields;
}

// Calls `test` with many values of the record's fields: all 0, all at the limit, one field at a boundary
// while the others are 0, and random ones.
template <class Fields, class Test>
void forManyValues(const Test& test) {
  const auto with = [](const auto& valueOf) {
    Fields fields;
    std::size_t place = 0;
    Fields::forEach(fields, [&]<class Value>(Value& value) {
      value = static_cast<Value>(valueOf(place++, std::numeric_limits<Value>::max()));
    });
    return fields;
  };
  std::size_t count = 0;
  Fields counted;
  Fields::forEach(counted, [&count](auto&) { ++count; });

  test(Fields());
  test(with([](std::size_t, std::uint64_t) { return std::uint64_t{0}; }));
  test(with([](std::size_t, std::uint64_t largest) { return largest; }));
  for (std::size_t chosen = 0; chosen < count; ++chosen) {
    for (int bit = 0; bit < 64; ++bit) {
      for (const std::uint64_t off : {0U, 1U}) {
        test(with([&](std::size_t place, std::uint64_t) {
          return place == chosen ? (std::uint64_t{1} << bit) - off : std::uint64_t{0};
        }));
      }
    }
  }
  std::mt19937_64 random(20260711);
  for (int round = 0; round < 500; ++round) test(with([&](std::size_t, std::uint64_t) { return random(); }));
}

template <class Record>
std::string written(Record& record) {
  TestOutputStream stream;
  EXPECT_TRUE(record.writeToStream(stream));
  return stream.bytes;
}

// Headers whose values are all given, so that nothing is taken from a file.
class LocalHeader : public KQZipFileLocalHeader {
 public:
  LocalHeader() { setSourceFilePath("/nowhere/at all"); }
  void updateAttributesFromSourceFile() override {}
};

class CentralHeader : public KQZipCentralDirectoryFileHeader {
 public:
  CentralHeader() { setSourceFilePath(""); }
  void updateAttributesFromSourceFile() override {}
};

template <class Header, class Fields>
void setCommonFields(Header& header, const Fields& fields) {
  header.setVersionNeeded(fields.versionNeeded);
  header.setFlags(fields.flags);
  header.setCompression(fields.compression);
  header.setModTime(fields.modTime);
  header.setModDate(fields.modDate);
  header.setCrc32(fields.crc32);
  header.setCompressedSize(fields.compressedSize);
  header.setUncompressedSize(fields.uncompressedSize);
  header.setFileName(std::string(fields.fileNameLength, 'n'));
  // The preparation of a write makes a Zip64 field of its own.
  const std::size_t room = fields.extraFieldLength;
  if (room < 28 + 4) return;
  auto field = std::make_shared<KQZipExtraField>();
  field->setFieldSignature(0x7777);
  field->setFieldData(dataOf(std::string(room - 28 - 4, 'x')));
  header.addExtraField(field);
}

// The fields of a header as its class has parsed or written it.
template <class Fields, class Header>
Fields commonFields(const Header& header) {
  Fields fields;
  fields.versionNeeded = header.versionNeeded();
  fields.flags = header.flags();
  fields.compression = header.compression();
  fields.modTime = header.modTime();
  fields.modDate = header.modDate();
  fields.crc32 = header.crc32();
  fields.compressedSize = header.compressedSize();
  fields.uncompressedSize = header.uncompressedSize();
  fields.fileNameLength = header.fileNameLength();
  fields.extraFieldLength = header.extraFieldLength();
  return fields;
}

KQZipLocalHeaderFields fieldsOf(const KQZipFileLocalHeader& header) {
  return commonFields<KQZipLocalHeaderFields>(header);
}

KQZipCentralHeaderFields fieldsOf(const KQZipCentralDirectoryFileHeader& header) {
  auto fields = commonFields<KQZipCentralHeaderFields>(header);
  fields.versionMadeBy = header.versionMadeBy();
  fields.fileCommentLength = header.fileCommentLength();
  fields.diskNumberStart = header.diskNumberStart();
  fields.internalFileAttributes = header.internalFileAttributes();
  fields.externalFileAttributes = header.externalFileAttributes();
  fields.offsetOfLocalHeader = header.offsetOfLocalHeader();
  return fields;
}

// An area of extra fields of this length, all of it one field; none for what is too short.
std::string areaOf(std::size_t length) {
  return length < 4 ? "" : extraFieldBytes(0x7777, std::string(length - 4, 'x'));
}

}  // namespace

TEST(KQZipHeaderCodecTest, TheLocalHeadersClassReadsWhatIsEncoded) {
  forManyValues<KQZipLocalHeaderFields>([](KQZipLocalHeaderFields fields) {
    fields.compression = 0;
    const std::string extra = areaOf(fields.extraFieldLength);
    fields.extraFieldLength = static_cast<std::uint16_t>(extra.size());
    const std::string header = encoded(fields) + std::string(fields.fileNameLength, 'n') + extra;
    ASSERT_EQ(fields.wholeSize(), header.size());
    StreamBehindSignature stream(header);
    KQZipFileLocalHeader parsed;
    ASSERT_TRUE(parsed.parseFromStream(stream));
    EXPECT_EQ(hex(encoded(fields)), hex(encoded(fieldsOf(parsed))));
    EXPECT_EQ(header.size(), parsed.offsetOfDataInArchive());
  });
}

TEST(KQZipHeaderCodecTest, WhatTheLocalHeadersClassWritesIsDecoded) {
  forManyValues<KQZipLocalHeaderFields>([](const KQZipLocalHeaderFields& fields) {
    const LogCapture log;
    LocalHeader header;
    setCommonFields(header, fields);
    TestOutputStream stream;
    // There is no file to copy; the header has been written when that is found out. The failure leaves a
    // progress current, which this one takes off.
    const KQTest::OuterProgress progress;
    EXPECT_FALSE(header.writeToStream(stream));
    const auto found = decoded<KQZipLocalHeaderFields>(stream.bytes);
    EXPECT_EQ(hex(encoded(fieldsOf(header))), hex(encoded(found)));
    EXPECT_EQ(fields.crc32, found.crc32);
    EXPECT_EQ(fields.compression, found.compression);
    EXPECT_EQ(fields.fileNameLength, found.fileNameLength);
    EXPECT_EQ(stream.bytes.size(), found.wholeSize());
  });
}

TEST(KQZipHeaderCodecTest, TheCentralHeadersClassReadsWhatIsEncoded) {
  forManyValues<KQZipCentralHeaderFields>([](KQZipCentralHeaderFields fields) {
    fields.compression = 0;
    const std::string extra = areaOf(fields.extraFieldLength);
    fields.extraFieldLength = static_cast<std::uint16_t>(extra.size());
    const std::string header = encoded(fields) + std::string(fields.fileNameLength, 'n') + extra +
                               std::string(fields.fileCommentLength, 'c');
    ASSERT_EQ(fields.wholeSize(), header.size());
    StreamBehindSignature stream(header);
    KQZipCentralDirectoryFileHeader parsed;
    ASSERT_TRUE(parsed.parseFromStream(stream));
    EXPECT_EQ(hex(encoded(fields)), hex(encoded(fieldsOf(parsed))));
    EXPECT_EQ(header.size(), stream.position);
  });
}

TEST(KQZipHeaderCodecTest, WhatTheCentralHeadersClassWritesIsDecoded) {
  forManyValues<KQZipCentralHeaderFields>([](const KQZipCentralHeaderFields& fields) {
    const auto localHeader = std::make_shared<KQZipFileLocalHeader>();
    localHeader->setOffset(fields.offsetOfLocalHeader);
    CentralHeader header;
    header.setLocalHeader(localHeader);
    setCommonFields(header, fields);
    header.setVersionMadeBy(fields.versionMadeBy);
    header.setFileComment(std::string(fields.fileCommentLength, 'c'));
    header.setDiskNumberStart(fields.diskNumberStart);
    header.setInternalFileAttributes(fields.internalFileAttributes);
    header.setExternalFileAttributes(fields.externalFileAttributes);
    const std::string bytes = written(header);
    const auto found = decoded<KQZipCentralHeaderFields>(bytes);
    EXPECT_EQ(hex(encoded(fieldsOf(header))), hex(encoded(found)));
    EXPECT_EQ(fields.offsetOfLocalHeader, found.offsetOfLocalHeader);
    EXPECT_EQ(fields.externalFileAttributes, found.externalFileAttributes);
    EXPECT_EQ(fields.fileCommentLength, found.fileCommentLength);
    EXPECT_EQ(bytes.size(), found.wholeSize());
  });
}

TEST(KQZipHeaderCodecTest, TheEndRecordsClassReadsAndWritesTheSameBytes) {
  forManyValues<KQZipEndRecordFields>([](const KQZipEndRecordFields& fields) {
    const std::string bytes = encoded(fields) + std::string(fields.zipFileCommentLength, 'c');
    StreamBehindSignature stream(bytes);
    KQZipEndOfCentralDirectoryRecord record;
    ASSERT_TRUE(record.parseFromStream(stream));
    EXPECT_EQ(fields.diskNumber, record.diskNumber());
    EXPECT_EQ(fields.diskNumberContainingCD, record.diskNumberContainingCD());
    EXPECT_EQ(fields.entriesInCDOnThisDisk, record.entriesInCDOnThisDisk());
    EXPECT_EQ(fields.entriesInCD, record.entriesInCD());
    EXPECT_EQ(fields.sizeOfCD, record.sizeOfCD());
    EXPECT_EQ(fields.offsetOfCD, record.offsetOfCD());
    EXPECT_EQ(fields.zipFileCommentLength, record.zipFileCommentLength());
    EXPECT_TRUE(bytes == written(record)) << hex(encoded(fields));
    EXPECT_EQ(hex(encoded(fields)), hex(encoded(decoded<KQZipEndRecordFields>(bytes))));
  });
}

TEST(KQZipHeaderCodecTest, TheZip64EndRecordsClassReadsAndWritesTheSameBytes) {
  forManyValues<KQZipZip64EndRecordFields>([](KQZipZip64EndRecordFields fields) {
    StreamBehindSignature stream(encoded(fields));
    KQZip64EndOfCentralDirectoryRecord record;
    ASSERT_TRUE(record.parseFromStream(stream));
    EXPECT_EQ(fields.sizeOfRecord, record.size());
    EXPECT_EQ(fields.versionMadeBy, record.versionMadeBy());
    EXPECT_EQ(fields.versionNeeded, record.versionNeeded());
    EXPECT_EQ(fields.diskNumber, record.diskNumber());
    EXPECT_EQ(fields.diskNumberContainingCD, record.diskNumberContainingCD());
    EXPECT_EQ(fields.entriesInCDOnThisDisk, record.entriesInCDOnThisDisk());
    EXPECT_EQ(fields.entriesInCD, record.entriesInCD());
    EXPECT_EQ(fields.sizeOfCD, record.sizeOfCD());
    EXPECT_EQ(fields.offsetOfCD, record.offsetOfCD());
    // A write sets the record's own size.
    fields.sizeOfRecord = KQZipZip64EndRecordFields().sizeOfRecord;
    EXPECT_EQ(hex(encoded(fields)), hex(written(record)));
    EXPECT_EQ(hex(encoded(fields)), hex(encoded(decoded<KQZipZip64EndRecordFields>(encoded(fields)))));
  });
}

TEST(KQZipHeaderCodecTest, TheLocatorsClassReadsAndWritesTheSameBytes) {
  forManyValues<KQZipZip64LocatorFields>([](const KQZipZip64LocatorFields& fields) {
    const std::string bytes = encoded(fields);
    StreamBehindSignature stream(bytes);
    KQZip64EndOfCentralDirectoryLocator record;
    ASSERT_TRUE(record.parseFromStream(stream));
    EXPECT_EQ(fields.diskNumberWithStartOfZip64EoCD, record.diskNumberWithStartOfZip64EoCD());
    EXPECT_EQ(fields.offsetOfZip64EoCD, record.offsetOfZip64EoCD());
    EXPECT_EQ(fields.numberOfDisks, record.numberOfDisks());
    EXPECT_EQ(hex(bytes), hex(written(record)));
    EXPECT_EQ(hex(bytes), hex(encoded(decoded<KQZipZip64LocatorFields>(bytes))));
  });
}

TEST(KQZipHeaderCodecTest, TheDefaultsAreThoseOfFreshRecords) {
  CentralHeader centralHeader;
  centralHeader.setCrc32(0);
  KQZipCentralHeaderFields centralFields;
  centralFields.extraFieldLength = 28;
  EXPECT_EQ(hex(encoded(centralFields)), hex(written(centralHeader).substr(0, 46)));

  KQZipLocalHeaderFields localFields;
  EXPECT_EQ(hex(encoded(localFields)), hex(encoded(fieldsOf(KQZipFileLocalHeader()))));

  KQZipEndOfCentralDirectoryRecord endRecord;
  KQZip64EndOfCentralDirectoryRecord zip64EndRecord;
  KQZip64EndOfCentralDirectoryLocator locator;
  EXPECT_EQ(hex(encoded(KQZipEndRecordFields())), hex(written(endRecord)));
  EXPECT_EQ(hex(encoded(KQZipZip64EndRecordFields())), hex(written(zip64EndRecord)));
  EXPECT_EQ(hex(encoded(KQZipZip64LocatorFields())), hex(written(locator)));
}

TEST(KQZipHeaderCodecTest, TooFewBytesAndAnotherSignatureAreRefused) {
  const auto test = []<class Fields>(const Fields& fields) {
    const std::string bytes = encoded(fields);
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      Fields untouched = fields;
      EXPECT_FALSE(KQZipDecode(bytesIn(bytes).first(length), &untouched));
      if (length >= 4) {
        EXPECT_FALSE(KQZipDecodeAfterSignature(bytesIn(bytes).subspan(4, length - 4), &untouched));
      }
      EXPECT_EQ(hex(bytes), hex(encoded(untouched)));
      std::string room(length, '!');
      EXPECT_FALSE(KQZipEncode(fields, roomIn(room)));
      EXPECT_EQ(std::string(length, '!'), room);
    }
    for (std::size_t place = 0; place < 4; ++place) {
      std::string other = bytes;
      other[place] = static_cast<char>(other[place] ^ 0x20);
      Fields untouched = fields;
      EXPECT_FALSE(KQZipDecode(bytesIn(other), &untouched));
    }
  };
  test(KQZipLocalHeaderFields());
  test(KQZipCentralHeaderFields());
  test(KQZipEndRecordFields());
  test(KQZipZip64EndRecordFields());
  test(KQZipZip64LocatorFields());
}

TEST(KQZipHeaderCodecTest, AFieldIsFoundAtItsOffset) {
  EXPECT_EQ(4U, KQZipOffsetOf(&KQZipLocalHeaderFields::versionNeeded));
  EXPECT_EQ(6U, KQZipOffsetOf(&KQZipLocalHeaderFields::flags));
  EXPECT_EQ(28U, KQZipOffsetOf(&KQZipLocalHeaderFields::extraFieldLength));
  EXPECT_EQ(8U, KQZipOffsetOf(&KQZipCentralHeaderFields::flags));
  EXPECT_EQ(38U, KQZipOffsetOf(&KQZipCentralHeaderFields::externalFileAttributes));
  EXPECT_EQ(42U, KQZipOffsetOf(&KQZipCentralHeaderFields::offsetOfLocalHeader));
  EXPECT_EQ(20U, KQZipOffsetOf(&KQZipEndRecordFields::zipFileCommentLength));
  EXPECT_EQ(48U, KQZipOffsetOf(&KQZipZip64EndRecordFields::offsetOfCD));
  EXPECT_EQ(8U, KQZipOffsetOf(&KQZipZip64LocatorFields::offsetOfZip64EoCD));
}

TEST(KQZipHeaderCodecTest, TheWalkGivesEachFieldAndSaysWhatIsLeft) {
  using Fields = std::vector<std::pair<std::uint16_t, std::string>>;
  using Padding = KQZipExtraFieldWalk::Padding;
  const std::string fields =
      extraFieldBytes(0x5455, "abc") + extraFieldBytes(1, "") + extraFieldBytes(0xFFFF, "z");
  const Fields all{{0x5455, "abc"}, {1, ""}, {0xFFFF, "z"}};
  for (const auto& [rest, isWhole, isWholeWithPadding] : std::vector<std::tuple<std::string, bool, bool>>{
           {"", true, true},
           {std::string(1, '\0'), false, true},
           {std::string(2, '\0'), false, true},
           {std::string(3, '\x7F'), false, true},
           {std::string("\x01\x00\x01\x00", 4), false, false},
           {extraFieldBytes(9, "four").substr(0, 7), false, false},
           {std::string("\xFF\xFF\xFF\xFF", 4), false, false}}) {
    SCOPED_TRACE(hex(rest));
    const std::string area = fields + rest;
    Fields found;
    KQZipExtraFieldWalk walk(bytesIn(area));
    while (walk.next()) found.emplace_back(walk.identifier(), textOf(walk.data()));
    EXPECT_EQ(all, found);
    EXPECT_EQ(isWhole, walk.isWhole());
    EXPECT_EQ(isWholeWithPadding, walk.isWhole(Padding::ToThreeBytes));
    EXPECT_FALSE(walk.next());
  }
}

TEST(KQZipHeaderCodecTest, TheFirstZip64FieldIsFound) {
  const std::string first = extraFieldBytes(1, "first");
  for (const auto& [area, found, isWhole] :
       std::vector<std::tuple<std::string, std::optional<std::string>, bool>>{
           {"", std::nullopt, true},
           {extraFieldBytes(2, "none"), std::nullopt, true},
           {extraFieldBytes(2, "none") + first + extraFieldBytes(1, "second"), "first", true},
           {extraFieldBytes(1, "") + first, "", true},
           {first + "xyz", "first", false},
           {"xyz", std::nullopt, false}}) {
    std::optional<KQZipBytes> data = bytesIn(first);
    EXPECT_EQ(isWhole, KQZipFindZip64(bytesIn(area), &data)) << hex(area);
    ASSERT_EQ(found.has_value(), data.has_value()) << hex(area);
    if (found) {
      EXPECT_EQ(*found, textOf(*data));
    }
  }
}

TEST(KQZipHeaderCodecTest, TheNameTheExtraFieldsAndTheCommentFollowTheFixedPart) {
  const std::string rest = "namefieldscomment!";
  KQZipLocalHeaderFields local;
  local.fileNameLength = 4;
  local.extraFieldLength = 6;
  KQZipCentralHeaderFields central;
  central.fileNameLength = 4;
  central.extraFieldLength = 6;
  central.fileCommentLength = 7;
  for (std::size_t length = 0; length <= rest.size(); ++length) {
    const KQZipBytes bytes = bytesIn(rest).first(length);
    KQZipHeaderParts ofLocal{"before", {}, {}};
    KQZipHeaderParts ofCentral{"before", {}, {}};
    EXPECT_EQ(length >= 10, KQZipFindParts(local, bytes, &ofLocal));
    EXPECT_EQ(length >= 17, KQZipFindParts(central, bytes, &ofCentral));
    EXPECT_EQ(length >= 10 ? "name" : "before", ofLocal.name);
    EXPECT_EQ(length >= 10 ? "fields" : "", textOf(ofLocal.extraFields));
    EXPECT_EQ("", textOf(ofLocal.comment));
    EXPECT_EQ(length >= 17 ? "name" : "before", ofCentral.name);
    EXPECT_EQ(length >= 17 ? "fields" : "", textOf(ofCentral.extraFields));
    EXPECT_EQ(length >= 17 ? "comment" : "", textOf(ofCentral.comment));
  }
}

TEST(KQZipHeaderCodecTest, AValueThatDoesNotFitIsSaturated) {
  EXPECT_EQ(0xFFFEU, KQZipSaturate<std::uint16_t>(0xFFFE));
  EXPECT_EQ(0xFFFFU, KQZipSaturate<std::uint16_t>(0xFFFF));
  EXPECT_EQ(0xFFFFU, KQZipSaturate<std::uint16_t>(0x10000));
  EXPECT_EQ(0xFFFFFFFEU, KQZipSaturate<std::uint32_t>(0xFFFFFFFE));
  EXPECT_EQ(0xFFFFFFFFU, KQZipSaturate<std::uint32_t>(0xFFFFFFFF));
  EXPECT_EQ(0xFFFFFFFFU, KQZipSaturate<std::uint32_t>(0x100000005));
}

TEST(KQZipHeaderCodecTest, ValuesInOrderAreThoseOfTheFieldsClass) {
  std::mt19937_64 random(8);
  for (std::size_t length = 0; length <= 40; ++length) {
    std::string data;
    while (data.size() < length) data += static_cast<char>(random());
    KQZipExtraFieldZip64ExtendedInfo field;
    KQZipZip64Values values{random(), random(), random()};
    field.setUncompressedSize(values.uncompressedSize);
    field.setCompressedSize(values.compressedSize);
    field.setOffsetOfLocalHeaderRecord(values.offsetOfLocalHeader);
    TestInputStream stream(extraFieldBytes(1, data));
    ASSERT_TRUE(field.parseFromStream(stream));
    KQZipDecodeZip64InOrder(bytesIn(data), &values);
    EXPECT_EQ(field.uncompressedSize(), values.uncompressedSize) << length;
    EXPECT_EQ(field.compressedSize(), values.compressedSize) << length;
    EXPECT_EQ(field.offsetOfLocalHeaderRecord(), values.offsetOfLocalHeader) << length;
  }
}

TEST(KQZipHeaderCodecTest, AnEncodedZip64FieldIsThatOfTheFieldsClass) {
  std::mt19937_64 random(9);
  for (int round = 0; round < 100; ++round) {
    const KQZipZip64Values values{random(), random() >> (round % 64), std::uint64_t{1} << (round % 64)};
    KQZipExtraFieldZip64ExtendedInfo field;
    field.setUncompressedSize(values.uncompressedSize);
    field.setCompressedSize(values.compressedSize);
    field.setOffsetOfLocalHeaderRecord(values.offsetOfLocalHeader);
    std::array<std::uint8_t, 28> bytes{};
    KQZipEncodeZip64Field(values, bytes);
    EXPECT_EQ(hex(written(field)), hex(textOf(bytes)));
  }
}

TEST(KQZipHeaderCodecTest, ByTheFormatsRuleOnlySaturatedFieldsHaveAValue) {
  for (unsigned saturated = 0; saturated < 16; ++saturated) {
    for (std::size_t length = 0; length <= 28; ++length) {
      SCOPED_TRACE(std::to_string(saturated) + ", " + std::to_string(length) + " bytes");
      const std::string data = Bytes().u64(0x1111111111).u64(0x2222222222).u64(0x3333333333).u32(0x4444);
      std::size_t next = 0;
      bool isComplete = true;
      // What the field at `place` must give, and the bytes of the data that it takes.
      const auto expected = [&](unsigned place, std::uint64_t narrow, std::size_t width) {
        if ((saturated >> place & 1) == 0) return narrow;
        if (length < next + width) {
          isComplete = false;
          next = length;
          return place == 3 ? std::uint64_t{0xFFFF} : std::uint64_t{0xFFFFFFFF};
        }
        std::uint64_t value = 0;
        for (std::size_t i = width; i-- > 0;) value = value << 8 | static_cast<unsigned char>(data[next + i]);
        next += width;
        return value;
      };
      const auto narrow32 = [&](unsigned place, std::uint32_t value) {
        return (saturated >> place & 1) != 0 ? 0xFFFFFFFF : value;
      };
      KQZipCentralHeaderFields central;
      central.uncompressedSize = narrow32(0, 10);
      central.compressedSize = narrow32(1, 11);
      central.offsetOfLocalHeader = narrow32(2, 12);
      central.diskNumberStart = static_cast<std::uint16_t>(narrow32(3, 13));
      KQZipLocalHeaderFields local;
      local.uncompressedSize = central.uncompressedSize;
      local.compressedSize = central.compressedSize;

      const KQZipBytes given = bytesIn(data).first(length);
      const KQZipWideValues fromLocal = KQZipWiden(local, given);
      const KQZipWideValues fromCentral = KQZipWiden(central, given);
      const std::uint64_t uncompressedSize = expected(0, 10, 8);
      const std::uint64_t compressedSize = expected(1, 11, 8);
      EXPECT_EQ(uncompressedSize, fromLocal.uncompressedSize);
      EXPECT_EQ(compressedSize, fromLocal.compressedSize);
      EXPECT_EQ(isComplete, fromLocal.isComplete);
      EXPECT_EQ(uncompressedSize, fromCentral.uncompressedSize);
      EXPECT_EQ(compressedSize, fromCentral.compressedSize);
      EXPECT_EQ(expected(2, 12, 8), fromCentral.offsetOfLocalHeader);
      EXPECT_EQ(expected(3, 13, 4), fromCentral.diskNumberStart);
      EXPECT_EQ(isComplete, fromCentral.isComplete);
    }
  }
}
