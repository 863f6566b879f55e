#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <typeinfo>
#include <vector>

#include "Support/Bytes.h"
#include "Support/LogCapture.h"
#include "Support/Records.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using KQTest::Bytes;
using KQTest::contentsOf;
using KQTest::dataOf;
using KQTest::earlierError;
using KQTest::Error;
using KQTest::expectKQZipError;
using KQTest::hex;
using KQTest::LogCapture;
using KQTest::Slot;
using KQTest::TestInputStream;
using KQTest::TestOutputStream;

using Field = KQZipExtraFieldZip64ExtendedInfo;

namespace {

using Lengths = std::vector<std::uint64_t>;
using Lines = std::vector<std::string>;

const std::uint64_t first = 0x0807060504030201;
const std::uint64_t second = 0x100F0E0D0C0B0A09;
const std::uint64_t third = 0x1817161514131211;

// 28 bytes of data: the three values and a disk start number.
const std::string fullData = Bytes().u64(first).u64(second).u64(third).u32(0x1C1B1A19);
const std::string sampleBytes = Bytes().u16(1).u16(24).u64(first).u64(second).u64(third);
const Lengths writeWidths{2, 2, 24};

std::shared_ptr<Field> sampleField() {
  auto field = std::make_shared<Field>();
  field->setUncompressedSize(first);
  field->setCompressedSize(second);
  field->setOffsetOfLocalHeaderRecord(third);
  return field;
}

// A field with values of its own, so that what a parse leaves alone can be told.
std::shared_ptr<Field> usedField() {
  auto field = std::make_shared<Field>();
  field->setFieldSignature(0xA1A1);
  field->setFieldSize(0xA2A2);
  field->setFieldData(dataOf("used"));
  field->setUncompressedSize(0xB1B1B1B1B1B1B1B1);
  field->setCompressedSize(0xB2B2B2B2B2B2B2B2);
  field->setOffsetOfLocalHeaderRecord(0xB3B3B3B3B3B3B3B3);
  return field;
}

void expectValues(std::uint64_t uncompressedSize, std::uint64_t compressedSize, std::uint64_t offset,
                  const Field& field) {
  EXPECT_EQ(uncompressedSize, field.uncompressedSize());
  EXPECT_EQ(compressedSize, field.compressedSize());
  EXPECT_EQ(offset, field.offsetOfLocalHeaderRecord());
}

// The field with its first `length` bytes of data.
std::string fieldBytes(std::size_t length) {
  return Bytes().u16(1).u16(length).text(fullData.substr(0, length));
}

// `value`, whose low bytes are replaced by those of the data from `start` as far as `length` goes.
std::uint64_t valueAfter(std::uint64_t value, std::size_t start, std::size_t length) {
  for (std::size_t i = 0; i < 8 && start + i < length; ++i) {
    const std::uint64_t byte = static_cast<unsigned char>(fullData[start + i]);
    value = (value & ~(std::uint64_t{0xFF} << (8 * i))) | (byte << (8 * i));
  }
  return value;
}

}  // namespace

TEST(KQZipExtraFieldZip64ExtendedInfo, AFreshFieldHasTheId1AndZeros) {
  const Field field;
  EXPECT_EQ(1, field.fieldSignature());
  EXPECT_EQ(0, field.fieldSize());
  EXPECT_EQ(nullptr, field.fieldData());
  expectValues(0, 0, 0, field);
  EXPECT_EQ(28U, field.outputSize());
}

TEST(KQZipExtraFieldZip64ExtendedInfo, ItClaimsTheId1Alone) {
  for (std::uint32_t id = 0; id <= 0xFFFF; ++id)
    ASSERT_EQ(id == 1, Field::isValidForIdentifier(static_cast<std::uint16_t>(id))) << id;
}

TEST(KQZipExtraFieldZip64ExtendedInfo, EachSetterChangesItsFieldAlone) {
  Field uncompressed;
  uncompressed.setUncompressedSize(7);
  expectValues(7, 0, 0, uncompressed);
  Field compressed;
  compressed.setCompressedSize(7);
  expectValues(0, 7, 0, compressed);
  Field offset;
  offset.setOffsetOfLocalHeaderRecord(7);
  expectValues(0, 0, 7, offset);
  for (const Field* field : {&uncompressed, &compressed, &offset}) {
    EXPECT_EQ(1, field->fieldSignature());
    EXPECT_EQ(0, field->fieldSize());
    EXPECT_EQ(nullptr, field->fieldData());
  }
  const auto used = usedField();
  used->setFieldSignature(2);
  used->setFieldSize(3);
  used->setFieldData(nullptr);
  expectValues(0xB1B1B1B1B1B1B1B1, 0xB2B2B2B2B2B2B2B2, 0xB3B3B3B3B3B3B3B3, *used);
  EXPECT_EQ(28U, used->outputSize());
}

TEST(KQZipExtraFieldZip64ExtendedInfo, DataOf8BytesSetsTheUncompressedSizeAlone) {
  TestInputStream stream(fieldBytes(8));
  const auto field = Field::initWithStream(stream);
  ASSERT_NE(nullptr, field);
  expectValues(first, 0, 0, *field);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, DataOf12BytesGivesTheCompressedSizeItsLowBytes) {
  TestInputStream stream(fieldBytes(12));
  const auto field = Field::initWithStream(stream);
  ASSERT_NE(nullptr, field);
  expectValues(first, 0x0C0B0A09, 0, *field);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, DataOf16BytesSetsBothSizes) {
  TestInputStream stream(fieldBytes(16));
  const auto field = Field::initWithStream(stream);
  ASSERT_NE(nullptr, field);
  expectValues(first, second, 0, *field);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, DataOf24BytesSetsAllThreeValues) {
  TestInputStream stream(fieldBytes(24));
  const auto field = Field::initWithStream(stream);
  ASSERT_NE(nullptr, field);
  expectValues(first, second, third, *field);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, ADiskStartNumberBehindTheValuesIsIgnored) {
  TestInputStream stream(fieldBytes(28));
  const auto field = Field::initWithStream(stream);
  ASSERT_NE(nullptr, field);
  expectValues(first, second, third, *field);
  EXPECT_EQ(hex(fullData), hex(contentsOf(field->fieldData())));
  EXPECT_EQ(28, field->fieldSize());
}

TEST(KQZipExtraFieldZip64ExtendedInfo, DataOfAnyLengthFillsAFreshFieldInTheFixedOrder) {
  for (std::size_t length = 0; length <= 28; ++length) {
    SCOPED_TRACE(length);
    const LogCapture log;
    TestInputStream stream(fieldBytes(length) + "behind");
    const Error earlier = earlierError();
    Error error = earlier;
    const auto field = Field::initWithStream(stream, &error);
    ASSERT_NE(nullptr, field);
    expectValues(valueAfter(0, 0, length), valueAfter(0, 8, length), valueAfter(0, 16, length), *field);
    EXPECT_EQ(1, field->fieldSignature());
    EXPECT_EQ(length, field->fieldSize());
    ASSERT_NE(nullptr, field->fieldData());
    EXPECT_EQ(hex(fullData.substr(0, length)), hex(contentsOf(field->fieldData())));
    EXPECT_EQ(4 + length, stream.position);
    EXPECT_EQ(length == 0 ? (Lengths{2, 2}) : (Lengths{2, 2, length}), stream.reads);
    EXPECT_EQ(28U, field->outputSize());
    EXPECT_EQ(earlier, error);
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipExtraFieldZip64ExtendedInfo, BytesThatTheDataLacksKeepTheirEarlierValues) {
  for (std::size_t length = 0; length <= 28; ++length) {
    SCOPED_TRACE(length);
    TestInputStream stream(fieldBytes(length));
    const auto field = usedField();
    EXPECT_TRUE(field->parseFromStream(stream));
    expectValues(valueAfter(0xB1B1B1B1B1B1B1B1, 0, length), valueAfter(0xB2B2B2B2B2B2B2B2, 8, length),
                 valueAfter(0xB3B3B3B3B3B3B3B3, 16, length), *field);
  }
}

TEST(KQZipExtraFieldZip64ExtendedInfo, TheLongestDataIsReadForItsFirstThreeValues) {
  const std::string data = fullData + std::string(65535 - fullData.size(), 'x');
  TestInputStream stream(Bytes().u16(1).u16(65535).text(data));
  const auto field = Field::initWithStream(stream);
  ASSERT_NE(nullptr, field);
  expectValues(first, second, third, *field);
  EXPECT_TRUE(data == contentsOf(field->fieldData()));
}

TEST(KQZipExtraFieldZip64ExtendedInfo, DataThatTheStreamDoesNotHoldCountsAsZeros) {
  TestInputStream stream(Bytes().u16(1).u16(24).u64(first).u32(0x0C0B0A09));
  const auto field = usedField();
  EXPECT_TRUE(field->parseFromStream(stream));
  expectValues(first, 0x0C0B0A09, 0, *field);
  EXPECT_EQ(24U, field->fieldData()->length());
}

TEST(KQZipExtraFieldZip64ExtendedInfo, TheIdOfTheParsedFieldIsTakenAsItIs) {
  TestInputStream stream(Bytes().u16(0x5455).u16(8).u64(first));
  const auto field = Field::initWithStream(stream);
  ASSERT_NE(nullptr, field);
  EXPECT_EQ(0x5455, field->fieldSignature());
  expectValues(first, 0, 0, *field);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, EachFailingReadStopsTheParseAndKeepsTheValues) {
  const auto expectParsed = [](const Field& field, std::size_t count) {
    EXPECT_EQ(count > 0 ? 1 : 0xA1A1, field.fieldSignature());
    EXPECT_EQ(count > 1 ? 24 : 0xA2A2, field.fieldSize());
    EXPECT_EQ("used", contentsOf(field.fieldData()));
    expectValues(0xB1B1B1B1B1B1B1B1, 0xB2B2B2B2B2B2B2B2, 0xB3B3B3B3B3B3B3B3, field);
  };
  KQTest::expectEachFailingReadStops(usedField, sampleBytes, writeWidths, expectParsed);
  KQTest::expectEachEndOfStreamStops(usedField, sampleBytes, writeWidths, expectParsed);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, AFailedParseGivesNoFieldAndHandsOutTheError) {
  KQTest::expectFailedParseGivesNoRecord<Field>(sampleBytes, writeWidths.size());
}

TEST(KQZipExtraFieldZip64ExtendedInfo, ItWrites28BytesAndKeepsTheDataItWrote) {
  const LogCapture log;
  const auto field = sampleField();
  EXPECT_EQ(28U, field->outputSize());
  TestOutputStream stream;
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(field->writeToStream(stream, &error));
  EXPECT_EQ(hex(sampleBytes), hex(stream.bytes));
  EXPECT_EQ(writeWidths, stream.writes);
  EXPECT_EQ(24, field->fieldSize());
  EXPECT_EQ(hex(sampleBytes.substr(4)), hex(contentsOf(field->fieldData())));
  expectValues(first, second, third, *field);
  EXPECT_EQ(28U, field->outputSize());
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipExtraFieldZip64ExtendedInfo, AFreshFieldWritesZeros) {
  Field field;
  TestOutputStream stream;
  EXPECT_TRUE(field.writeToStream(stream));
  EXPECT_EQ(hex(Bytes().u16(1).u16(24).u64(0).u64(0).u64(0)), hex(stream.bytes));
}

TEST(KQZipExtraFieldZip64ExtendedInfo, ItWrites28BytesWhateverItWasParsedFrom) {
  for (const std::size_t length : {0U, 4U, 8U, 12U, 16U, 20U, 24U, 28U}) {
    SCOPED_TRACE(length);
    TestInputStream input(fieldBytes(length));
    const auto field = Field::initWithStream(input);
    ASSERT_NE(nullptr, field);
    EXPECT_EQ(28U, field->outputSize());
    TestOutputStream output;
    EXPECT_TRUE(field->writeToStream(output));
    EXPECT_EQ(hex(Bytes()
                      .u16(1)
                      .u16(24)
                      .u64(valueAfter(0, 0, length))
                      .u64(valueAfter(0, 8, length))
                      .u64(valueAfter(0, 16, length))),
              hex(output.bytes));
    EXPECT_EQ(28U, field->outputSize());
    EXPECT_EQ(24, field->fieldSize());
    EXPECT_EQ(24U, field->fieldData()->length());
  }
}

TEST(KQZipExtraFieldZip64ExtendedInfo, TheValuesAndNotTheDataAreWritten) {
  const auto field = sampleField();
  field->setFieldData(dataOf(std::string(100, 'd')));
  field->setFieldSize(99);
  field->setFieldSignature(0x5455);
  EXPECT_EQ(28U, field->outputSize());
  TestOutputStream stream;
  EXPECT_TRUE(field->writeToStream(stream));
  EXPECT_EQ(hex(Bytes().u16(0x5455).u16(24).u64(first).u64(second).u64(third)), hex(stream.bytes));
}

TEST(KQZipExtraFieldZip64ExtendedInfo, AWriteThroughTheBaseClassIsTheSame) {
  const auto field = sampleField();
  KQZipExtraField& base = *field;
  EXPECT_EQ(28U, base.outputSize());
  TestOutputStream stream;
  EXPECT_TRUE(base.writeToStream(stream));
  EXPECT_EQ(hex(sampleBytes), hex(stream.bytes));
}

TEST(KQZipExtraFieldZip64ExtendedInfo, AFailureToWriteIdOrSizeStopsTheWriteWithTheDataMade) {
  for (std::size_t failing = 1; failing <= 2; ++failing) {
    for (const std::int64_t result : {-1, 0}) {
      SCOPED_TRACE("write " + std::to_string(failing) + " returns " + std::to_string(result));
      const LogCapture log;
      const auto field = sampleField();
      TestOutputStream stream;
      stream.failAtWrite = static_cast<std::int64_t>(failing);
      stream.failResult = result;
      Error error;
      EXPECT_FALSE(field->writeToStream(stream, &error));
      EXPECT_EQ(failing, stream.writes.size());
      EXPECT_EQ(hex(sampleBytes.substr(0, 2 * (failing - 1))), hex(stream.bytes));
      EXPECT_EQ(24, field->fieldSize());
      EXPECT_EQ(hex(sampleBytes.substr(4)), hex(contentsOf(field->fieldData())));
      if (result == 0) {
        EXPECT_EQ(nullptr, error);
        EXPECT_EQ(Lines(), log.lines());
      } else {
        expectKQZipError(error, -51, "Error writing file");
        EXPECT_EQ(KQTest::writingFailedLine(error), log.lines());
      }
    }
  }
}

TEST(KQZipExtraFieldZip64ExtendedInfo, AFailureToWriteTheDataIsASuccessThoughTheSlotIsFilled) {
  const LogCapture log;
  TestOutputStream stream;
  stream.failAtWrite = 3;
  Error error;
  EXPECT_TRUE(sampleField()->writeToStream(stream, &error));
  EXPECT_EQ(hex(sampleBytes.substr(0, 4)), hex(stream.bytes));
  expectKQZipError(error, -51, "Error writing file");
  EXPECT_EQ(KQTest::writingFailedLine(error), log.lines());
}

TEST(KQZipExtraFieldZip64ExtendedInfo, EachPartialWriteIsASuccess) {
  KQTest::expectEachPartialWriteIsASuccess(sampleField, sampleBytes, writeWidths);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, ACopyIsOfTheSameClassWithEqualValuesAndTheSameData) {
  const auto field = usedField();
  const KQZipExtraField& base = *field;
  const auto copied = base.copyWithZone();
  ASSERT_NE(nullptr, copied);
  const KQZipExtraField& object = *copied;
  EXPECT_STREQ(typeid(Field).name(), typeid(object).name());
  EXPECT_NE(field, copied);
  const auto& copy = dynamic_cast<const Field&>(*copied);
  EXPECT_EQ(0xA1A1, copy.fieldSignature());
  EXPECT_EQ(0xA2A2, copy.fieldSize());
  EXPECT_EQ(field->fieldData(), copy.fieldData());
  expectValues(0xB1B1B1B1B1B1B1B1, 0xB2B2B2B2B2B2B2B2, 0xB3B3B3B3B3B3B3B3, copy);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, ACopyOfAFreshFieldHasNoData) {
  const auto copy = Field().copyWithZone();
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(1, copy->fieldSignature());
  EXPECT_EQ(0, copy->fieldSize());
  EXPECT_EQ(nullptr, copy->fieldData());
}

TEST(KQZipExtraFieldZip64ExtendedInfo, ACopySharesDataThatNobodyHasAskedForYet) {
  TestInputStream input(fieldBytes(24));
  const auto parsed = Field::initWithStream(input);
  ASSERT_NE(nullptr, parsed);
  const auto written = std::make_shared<Field>();
  TestOutputStream output;
  ASSERT_TRUE(written->writeToStream(output));
  for (const auto& field : {parsed, written}) {
    const auto copy = field->copyWithZone();
    ASSERT_NE(nullptr, copy->fieldData());
    EXPECT_EQ(24U, copy->fieldData()->length());
    EXPECT_EQ(field->fieldData(), copy->fieldData());
  }
}

TEST(KQZipExtraFieldZip64ExtendedInfo, WritingACopyLeavesTheOriginalsValuesAndDataAlone) {
  TestInputStream input(fieldBytes(28));
  const auto field = Field::initWithStream(input);
  ASSERT_NE(nullptr, field);
  const auto data = field->fieldData();
  const auto copy = std::dynamic_pointer_cast<Field>(field->copyWithZone());
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(data, copy->fieldData());
  copy->setOffsetOfLocalHeaderRecord(5);
  TestOutputStream output;
  EXPECT_TRUE(copy->writeToStream(output));
  EXPECT_EQ(24U, copy->fieldData()->length());
  EXPECT_EQ(data, field->fieldData());
  EXPECT_EQ(hex(fullData), hex(contentsOf(field->fieldData())));
  EXPECT_EQ(28, field->fieldSize());
  expectValues(first, second, third, *field);
  expectValues(first, second, 5, *copy);
}

TEST(KQZipExtraFieldZip64ExtendedInfo, ItComesBackFromAFile) {
  const KQTest::TemporaryDirectory folder;
  const auto output = KQ::NSOutputStream::outputStreamToFileAtPath(folder / "file");
  output->open();
  EXPECT_TRUE(sampleField()->writeToStream(*output));
  output->close();
  EXPECT_EQ(hex(sampleBytes), hex(KQTest::readFile(folder / "file")));
  const auto input = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "file");
  ASSERT_NE(nullptr, input);
  input->open();
  const auto field = std::dynamic_pointer_cast<Field>(KQZipExtraField::extraFieldWithStream(*input));
  ASSERT_NE(nullptr, field);
  expectValues(first, second, third, *field);
  EXPECT_EQ(28U, input->NSStreamFileCurrentOffsetKey());
}
