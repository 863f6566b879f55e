#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
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

namespace {

using Lengths = std::vector<std::uint64_t>;
using Offsets = std::vector<std::uint64_t>;
using Lines = std::vector<std::string>;

const Lengths sampleWidths{2, 2, 5};
const std::string sampleBytes = Bytes().u16(0x6543).u16(5).text("hello");

// A field with values of its own, so that what a parse leaves alone can be told.
std::shared_ptr<KQZipExtraField> usedField() {
  auto field = std::make_shared<KQZipExtraField>();
  field->setFieldSignature(0xA1A1);
  field->setFieldSize(0xA2A2);
  field->setFieldData(dataOf("used"));
  return field;
}

void expectFirstFieldsParsed(const KQZipExtraField& field, std::size_t count) {
  EXPECT_EQ(count > 0 ? 0x6543 : 0xA1A1, field.fieldSignature());
  EXPECT_EQ(count > 1 ? 5 : 0xA2A2, field.fieldSize());
  EXPECT_EQ(count > 2 ? "hello" : "used", contentsOf(field.fieldData()));
}

std::shared_ptr<KQZipExtraField> fieldOf(std::uint16_t id, const std::shared_ptr<const KQ::NSData>& data) {
  auto field = std::make_shared<KQZipExtraField>();
  field->setFieldSignature(id);
  field->setFieldData(data);
  return field;
}

// True for an object of exactly this class.
template <class Field>
::testing::AssertionResult isOfClass(const std::shared_ptr<KQZipExtraField>& field) {
  if (!field) return ::testing::AssertionFailure() << "there is no field";
  const KQZipExtraField& object = *field;
  if (typeid(object) == typeid(Field)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "the field is a " << typeid(object).name();
}

std::size_t timesRegistered(const std::type_info& type) {
  std::size_t count = 0;
  for (const KQZipExtraFieldClass& registered : KQZipExtraField::subclasses())
    if (*registered.type == type) ++count;
  return count;
}

std::size_t placeInRegistry(const std::type_info& type) {
  const auto& classes = KQZipExtraField::subclasses();
  std::size_t place = 0;
  while (place < classes.size() && *classes[place].type != type) ++place;
  return place;
}

// Classes of a host. The registry only grows, so each has ids that no other test parses.

// Claims its id and a second one that FirstOfTwo claims too. Notes what it is asked.
class Claiming : public KQZipExtraField {
 public:
  static constexpr std::uint16_t id = 0x7A01;
  static constexpr std::uint16_t contested = 0x7A02;
  static bool isValidForIdentifier(std::uint16_t identifier) {
    asked.push_back(identifier);
    return identifier == id || identifier == contested;
  }
  static std::vector<std::uint16_t> asked;

 protected:
  std::shared_ptr<KQZipExtraField> _newInstance() const override { return std::make_shared<Claiming>(); }
};
std::vector<std::uint16_t> Claiming::asked;

class ClaimingToo : public KQZipExtraField {
 public:
  static constexpr std::uint16_t id = 0x7A03;
  static bool isValidForIdentifier(std::uint16_t identifier) {
    asked.push_back(identifier);
    return identifier == id || identifier == Claiming::contested;
  }
  static std::vector<std::uint16_t> asked;
};
std::vector<std::uint16_t> ClaimingToo::asked;

// Claims the id of the library's own class.
class ClaimingZip64 : public KQZipExtraField {
 public:
  static bool isValidForIdentifier(std::uint16_t identifier) { return identifier == 1; }
};

// Refuses what it has read.
class Refusing : public KQZipExtraField {
 public:
  static constexpr std::uint16_t id = 0x7A04;
  static bool isValidForIdentifier(std::uint16_t identifier) { return identifier == id; }
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) override {
    if (KQZipExtraField::parseFromStream(stream, error) && contentsOf(fieldData()) != "refuse") return true;
    KQ::NSStoreError(error, KQ::NSError::errorWithDomain("HostDomain", 3, "Refused"));
    return false;
  }
};

// Has a default of its own, which a short read of the id must not disturb.
class Starting : public KQZipExtraField {
 public:
  static constexpr std::uint16_t id = 0x7A05;
  Starting() { setFieldSize(0x1100); }
  static bool isValidForIdentifier(std::uint16_t identifier) { return identifier == id; }
};

// Never registered: a receiver of the factory's message, like the generic class itself.
class Receiving : public KQZipExtraField {
 public:
  static bool isValidForIdentifier(std::uint16_t) { return false; }
  static std::shared_ptr<KQZipExtraField> extraFieldWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error = nullptr) {
    return _extraFieldWithStream(KQZipExtraFieldClass::of<Receiving>(), stream, error);
  }
};

// Registered, without a way of its own to make an object. Writes more than its data.
class Prefixing : public KQZipExtraField {
 public:
  static constexpr std::uint16_t id = 0x7A06;
  Prefixing() { setFieldSignature(id); }
  static bool isValidForIdentifier(std::uint16_t identifier) { return identifier == id; }
  std::uint64_t outputSize() const override { return KQZipExtraField::outputSize() + 2; }
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) override {
    const std::uint16_t identifier = id;
    const auto size = static_cast<std::uint16_t>(outputSize() - 4);
    const std::uint16_t prefix = 0x6968;
    return KQZipWriteBlock16(stream, &identifier, error) && KQZipWriteBlock16(stream, &size, error) &&
           KQZipWriteBlock16(stream, &prefix, error) &&
           KQZipWriteBlockBytes(stream, fieldData()->bytes(), fieldData()->length(), error);
  }
};

// Registered too, derived from the library's own class.
class HostsZip64 : public KQZipExtraFieldZip64ExtendedInfo {
 public:
  static bool isValidForIdentifier(std::uint16_t) { return false; }
};

// Derived from a class that makes its copies itself.
class DerivedFromClaiming : public Claiming {
 public:
  static bool isValidForIdentifier(std::uint16_t) { return false; }
};

class WithoutTest : public KQZipExtraField {};

static_assert(KQZipHasIdentifierTest<Prefixing> && KQZipHasIdentifierTest<KQZipExtraFieldZip64ExtendedInfo>);
static_assert(!KQZipHasIdentifierTest<WithoutTest> && !KQZipHasIdentifierTest<KQZipExtraField>);

template <class Field>
concept CanBeRegistered = requires {
  KQZipExtraField::registerSubclass<Field>();
};
template <class Field>
concept HasClass = requires {
  KQZipExtraFieldClass::of<Field>();
};
static_assert(CanBeRegistered<Prefixing> && HasClass<Prefixing>);
static_assert(!CanBeRegistered<WithoutTest> && !HasClass<WithoutTest>);

// The host's registrations, made once for all tests of this program.
void registerClassesOfTheHost() {
  KQZipExtraField::registerSubclass<Claiming>();
  KQZipExtraField::registerSubclass<ClaimingToo>();
  KQZipExtraField::registerSubclass<ClaimingZip64>();
  KQZipExtraField::registerSubclass<Refusing>();
  KQZipExtraField::registerSubclass<Starting>();
  KQZipExtraField::registerSubclass<Prefixing>();
  KQZipExtraField::registerSubclass<HostsZip64>();
  KQZipExtraField::registerSubclass<DerivedFromClaiming>();
}

}  // namespace

// The generic field.

TEST(KQZipExtraField, AFreshFieldIsEmpty) {
  const KQZipExtraField field;
  EXPECT_EQ(0, field.fieldSignature());
  EXPECT_EQ(0, field.fieldSize());
  EXPECT_EQ(nullptr, field.fieldData());
  EXPECT_EQ(4U, field.outputSize());
}

TEST(KQZipExtraField, EachSetterChangesItsFieldAlone) {
  KQZipExtraField signature;
  signature.setFieldSignature(0x1234);
  EXPECT_EQ(0x1234, signature.fieldSignature());
  EXPECT_EQ(0, signature.fieldSize());
  EXPECT_EQ(nullptr, signature.fieldData());
  KQZipExtraField size;
  size.setFieldSize(0x1234);
  EXPECT_EQ(0, size.fieldSignature());
  EXPECT_EQ(0x1234, size.fieldSize());
  EXPECT_EQ(nullptr, size.fieldData());
  EXPECT_EQ(4U, size.outputSize());
  KQZipExtraField data;
  const auto bytes = dataOf("data");
  data.setFieldData(bytes);
  EXPECT_EQ(0, data.fieldSignature());
  EXPECT_EQ(0, data.fieldSize());
  EXPECT_EQ(bytes, data.fieldData());
  EXPECT_EQ(8U, data.outputSize());
  data.setFieldData(nullptr);
  EXPECT_EQ(nullptr, data.fieldData());
}

TEST(KQZipExtraField, TheGenericClassClaimsNoId) {
  for (std::uint32_t id = 0; id <= 0xFFFF; ++id)
    ASSERT_FALSE(KQZipExtraField::isValidForIdentifier(static_cast<std::uint16_t>(id))) << id;
}

TEST(KQZipExtraField, AParseReadsIdSizeAndDataWithOneReadEach) {
  const LogCapture log;
  TestInputStream stream(sampleBytes + "more");
  const Error earlier = earlierError();
  Error error = earlier;
  const auto field = usedField();
  EXPECT_TRUE(field->parseFromStream(stream, &error));
  expectFirstFieldsParsed(*field, 3);
  EXPECT_EQ(sampleWidths, stream.reads);
  EXPECT_EQ(9U, stream.position);
  EXPECT_EQ(Offsets(), stream.offsetsSet);
  EXPECT_EQ(9U, field->outputSize());
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipExtraField, AParseReplacesTheDataAndLeavesTheOldBufferAlone) {
  const auto field = usedField();
  const auto before = field->fieldData();
  TestInputStream stream(sampleBytes);
  EXPECT_TRUE(field->parseFromStream(stream));
  EXPECT_NE(before, field->fieldData());
  EXPECT_EQ("used", contentsOf(before));
}

TEST(KQZipExtraField, ASizeOfZeroGivesEmptyDataAndWritesBackFourBytes) {
  const std::string bytes = Bytes().u16(0x7B00).u16(0);
  TestInputStream stream(bytes + "more");
  const auto field = usedField();
  EXPECT_TRUE(field->parseFromStream(stream));
  ASSERT_NE(nullptr, field->fieldData());
  EXPECT_EQ(0U, field->fieldData()->length());
  EXPECT_EQ((Lengths{2, 2}), stream.reads);
  EXPECT_EQ(4U, field->outputSize());
  TestOutputStream output;
  EXPECT_TRUE(field->writeToStream(output));
  EXPECT_EQ(hex(bytes), hex(output.bytes));
  EXPECT_EQ((Lengths{2, 2}), output.writes);
}

TEST(KQZipExtraField, TheLargestFieldComesBackWhole) {
  const std::string data = KQTest::patternBytes(65535);
  const std::string bytes = Bytes().u16(0x7B00).u16(65535).text(data);
  TestInputStream stream(bytes);
  const auto field = KQZipExtraField::initWithStream(stream);
  ASSERT_NE(nullptr, field);
  EXPECT_EQ((Lengths{2, 2, 65535}), stream.reads);
  EXPECT_TRUE(data == contentsOf(field->fieldData()));
  EXPECT_EQ(65539U, field->outputSize());
  TestOutputStream output;
  EXPECT_TRUE(field->writeToStream(output));
  EXPECT_TRUE(bytes == output.bytes);
}

TEST(KQZipExtraField, EachFailingReadStopsTheParseAndKeepsWhatWasRead) {
  KQTest::expectEachFailingReadStops(usedField, sampleBytes, sampleWidths, expectFirstFieldsParsed);
}

TEST(KQZipExtraField, EachEndOfTheStreamStopsTheParseSilentlyAndKeepsWhatWasRead) {
  KQTest::expectEachEndOfStreamStops(usedField, sampleBytes, sampleWidths, expectFirstFieldsParsed);
}

TEST(KQZipExtraField, AFailedParseGivesNoFieldAndHandsOutTheError) {
  KQTest::expectFailedParseGivesNoRecord<KQZipExtraField>(sampleBytes, sampleWidths.size());
}

TEST(KQZipExtraField, InitWithStreamIsGenericWhateverTheId) {
  TestInputStream stream(Bytes().u16(1).u16(8).u64(77));
  const auto field = KQZipExtraField::initWithStream(stream);
  ASSERT_TRUE(isOfClass<KQZipExtraField>(field));
  EXPECT_EQ(1, field->fieldSignature());
  EXPECT_EQ(Offsets(), stream.offsetsSet);
}

TEST(KQZipExtraField, APartialReadOfIdOrSizeKeepsTheHighByte) {
  TestInputStream stream("\x43\x01x");
  stream.longestRead = 1;
  const auto field = usedField();
  field->setFieldSize(0);
  EXPECT_TRUE(field->parseFromStream(stream));
  EXPECT_EQ(0xA143, field->fieldSignature());
  EXPECT_EQ(1, field->fieldSize());
  EXPECT_EQ("x", contentsOf(field->fieldData()));
}

TEST(KQZipExtraField, DataThatTheStreamDoesNotHoldIsZerosAndTheParseSucceeds) {
  for (const std::string& given : {std::string("a"), std::string("abcd"), std::string("abcdefghi")}) {
    SCOPED_TRACE(given);
    const LogCapture log;
    TestInputStream stream(Bytes().u16(0x7B00).u16(10).text(given));
    Error error;
    const auto field = usedField();
    EXPECT_TRUE(field->parseFromStream(stream, &error));
    EXPECT_EQ(10, field->fieldSize());
    EXPECT_EQ(hex(given + std::string(10 - given.size(), '\0')), hex(contentsOf(field->fieldData())));
    EXPECT_EQ(14U, field->outputSize());
    EXPECT_EQ((Lengths{2, 2, 10}), stream.reads);
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipExtraField, BytesLeftByAnEarlierParseNeverReachALaterField) {
  TestInputStream full(Bytes().u16(0x7B00).u16(65535).text(std::string(65535, '\xEE')));
  ASSERT_NE(nullptr, KQZipExtraField::initWithStream(full));
  TestInputStream cut(Bytes().u16(0x7B00).u16(65535).text("z"));
  const auto field = KQZipExtraField::initWithStream(cut);
  ASSERT_NE(nullptr, field);
  EXPECT_TRUE("z" + std::string(65534, '\0') == contentsOf(field->fieldData()));
}

TEST(KQZipExtraField, AWriteEmitsIdSizeAndDataWithOneWriteEach) {
  const LogCapture log;
  const auto field = fieldOf(0x6543, dataOf("hello"));
  field->setFieldSize(77);
  TestOutputStream stream;
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(field->writeToStream(stream, &error));
  EXPECT_EQ(hex(sampleBytes), hex(stream.bytes));
  EXPECT_EQ(sampleWidths, stream.writes);
  EXPECT_EQ(5, field->fieldSize());
  EXPECT_EQ("hello", contentsOf(field->fieldData()));
  EXPECT_EQ(9U, field->outputSize());
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipExtraField, WithoutDataItWritesASizeOfZero) {
  const auto field = fieldOf(0x6543, nullptr);
  field->setFieldSize(77);
  EXPECT_EQ(4U, field->outputSize());
  TestOutputStream stream;
  EXPECT_TRUE(field->writeToStream(stream));
  EXPECT_EQ("43 65 00 00 ", hex(stream.bytes));
  EXPECT_EQ((Lengths{2, 2}), stream.writes);
  EXPECT_EQ(0, field->fieldSize());
  EXPECT_EQ(nullptr, field->fieldData());
}

TEST(KQZipExtraField, LongDataIsWrittenByItsLengthModulo65536AndCountedInFull) {
  struct Case {
    std::size_t length;
    std::uint16_t written;
  };
  for (const Case& lengths : {Case{65535, 65535}, Case{65536, 0}, Case{65537, 1}, Case{70000, 4464}}) {
    SCOPED_TRACE(lengths.length);
    const std::string data = KQTest::patternBytes(lengths.length);
    const auto field = fieldOf(0x6543, dataOf(data));
    EXPECT_EQ(4U + lengths.length, field->outputSize());
    TestOutputStream stream;
    EXPECT_TRUE(field->writeToStream(stream));
    const std::string expected =
        Bytes().u16(0x6543).u16(lengths.written).text(data.substr(0, lengths.written));
    EXPECT_TRUE(expected == stream.bytes);
    EXPECT_EQ(lengths.written == 0 ? 2U : 3U, stream.writes.size());
    EXPECT_EQ(lengths.written, field->fieldSize());
    EXPECT_EQ(4U + lengths.length, field->outputSize());
    EXPECT_EQ(lengths.length, field->fieldData()->length());
  }
}

TEST(KQZipExtraField, AFailureToWriteIdOrSizeStopsTheWriteButKeepsTheNewSize) {
  for (std::size_t failing = 1; failing <= 2; ++failing) {
    for (const std::int64_t result : {-1, 0}) {
      for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
        SCOPED_TRACE("write " + std::to_string(failing) + " returns " + std::to_string(result) + ", " +
                     KQTest::nameOf(slot));
        const LogCapture log;
        const auto field = fieldOf(0x6543, dataOf("hello"));
        field->setFieldSize(77);
        TestOutputStream stream;
        stream.failAtWrite = static_cast<std::int64_t>(failing);
        stream.failResult = result;
        const Error earlier = slot == Slot::filled ? earlierError() : nullptr;
        Error error = earlier;
        EXPECT_FALSE(field->writeToStream(stream, slot == Slot::none ? nullptr : &error));
        EXPECT_EQ(failing, stream.writes.size());
        EXPECT_EQ(hex(sampleBytes.substr(0, 2 * (failing - 1))), hex(stream.bytes));
        EXPECT_EQ(5, field->fieldSize());
        if (result == 0) {
          EXPECT_EQ(earlier, error);
          EXPECT_EQ(Lines(), log.lines());
        } else {
          if (slot != Slot::none) expectKQZipError(error, -51, "Error writing file");
          EXPECT_EQ(KQTest::writingFailedLine(error), log.lines());
        }
      }
    }
  }
}

TEST(KQZipExtraField, AFailureToWriteTheDataIsASuccessThoughTheSlotIsFilled) {
  for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
    SCOPED_TRACE(KQTest::nameOf(slot));
    const LogCapture log;
    TestOutputStream stream;
    stream.failAtWrite = 3;
    Error error = slot == Slot::filled ? earlierError() : nullptr;
    EXPECT_TRUE(
        fieldOf(0x6543, dataOf("hello"))->writeToStream(stream, slot == Slot::none ? nullptr : &error));
    EXPECT_EQ(hex(sampleBytes.substr(0, 4)), hex(stream.bytes));
    EXPECT_EQ(sampleWidths, stream.writes);
    if (slot != Slot::none) expectKQZipError(error, -51, "Error writing file");
    EXPECT_EQ(KQTest::writingFailedLine(error), log.lines());
  }
}

TEST(KQZipExtraField, DataOfWhichNothingIsTakenIsASuccessWithoutAnError) {
  const LogCapture log;
  TestOutputStream stream;
  stream.failAtWrite = 3;
  stream.failResult = 0;
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(fieldOf(0x6543, dataOf("hello"))->writeToStream(stream, &error));
  EXPECT_EQ(hex(sampleBytes.substr(0, 4)), hex(stream.bytes));
  EXPECT_EQ(sampleWidths, stream.writes);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipExtraField, EachPartialWriteIsASuccess) {
  KQTest::expectEachPartialWriteIsASuccess([] { return fieldOf(0x6543, dataOf("hello")); }, sampleBytes,
                                           sampleWidths);
}

TEST(KQZipExtraField, ACopyHasEqualValuesAndSharesTheData) {
  const auto field = fieldOf(0x6543, dataOf("hello"));
  field->setFieldSize(77);  // not the data's length, so that it can only have been copied
  const auto copy = field->copyWithZone();
  ASSERT_TRUE(isOfClass<KQZipExtraField>(copy));
  EXPECT_NE(field, copy);
  EXPECT_EQ(0x6543, copy->fieldSignature());
  EXPECT_EQ(77, copy->fieldSize());
  EXPECT_EQ(field->fieldData(), copy->fieldData());
}

TEST(KQZipExtraField, ACopyOfAFieldWithoutDataHasNone) {
  const auto copy = fieldOf(0x6543, nullptr)->copyWithZone();
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(nullptr, copy->fieldData());
}

TEST(KQZipExtraField, ACopyAndItsOriginalChangeApart) {
  const auto field = fieldOf(0x6543, dataOf("hello"));
  const auto copy = field->copyWithZone();
  copy->setFieldSignature(1);
  copy->setFieldSize(2);
  copy->setFieldData(dataOf("other"));
  EXPECT_EQ(0x6543, field->fieldSignature());
  EXPECT_EQ(0, field->fieldSize());
  EXPECT_EQ("hello", contentsOf(field->fieldData()));
}

TEST(KQZipExtraField, ACopyIsOfTheOriginalsOwnClass) {
  Claiming field;
  field.setFieldSignature(9);
  field.setFieldSize(8);
  field.setFieldData(dataOf("seven"));
  const KQZipExtraField& generic = field;
  const auto copy = generic.copyWithZone();
  ASSERT_TRUE(isOfClass<Claiming>(copy));
  EXPECT_EQ(9, copy->fieldSignature());
  EXPECT_EQ(8, copy->fieldSize());
  EXPECT_EQ(field.fieldData(), copy->fieldData());
}

TEST(KQZipExtraField, TheDataMayBeSetAndReadOnSeveralThreads) {
  KQZipExtraField field;
  const auto first = dataOf(std::string(100, 'a'));
  const auto second = dataOf(std::string(200, 'b'));
  field.setFieldData(first);
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (int i = 0; i < 2000; ++i) field.setFieldData(i % 2 == 0 ? second : first);
    done = true;
  });
  int torn = 0;
  do {
    const auto data = field.fieldData();
    if (data != first && data != second) ++torn;
  } while (!done);
  setter.join();
  EXPECT_EQ(0, torn);
}

// The factory.

TEST(KQZipExtraField, TheFactoryGivesAnUnknownIdAsAGenericFieldThatWritesBackUnchanged) {
  registerClassesOfTheHost();
  const std::string bytes = Bytes().u16(0x5455).u16(9).text("raw bytes");
  const LogCapture log;
  TestInputStream stream("before" + bytes + "behind");
  stream.position = 6;
  const Error earlier = earlierError();
  Error error = earlier;
  const auto field = KQZipExtraField::extraFieldWithStream(stream, &error);
  ASSERT_TRUE(isOfClass<KQZipExtraField>(field));
  EXPECT_EQ(0x5455, field->fieldSignature());
  EXPECT_EQ(9, field->fieldSize());
  EXPECT_EQ("raw bytes", contentsOf(field->fieldData()));
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
  TestOutputStream output;
  EXPECT_TRUE(field->writeToStream(output));
  EXPECT_EQ(hex(bytes), hex(output.bytes));
}

TEST(KQZipExtraField, TheFactoryReadsTheIdTwiceAndStandsBehindTheWholeField) {
  TestInputStream stream(Bytes().text("before").u16(0x5455).u16(9).text("raw bytes").text("behind"));
  stream.position = 6;
  ASSERT_NE(nullptr, KQZipExtraField::extraFieldWithStream(stream));
  EXPECT_EQ((Lengths{2, 2, 2, 9}), stream.reads);
  EXPECT_EQ(Offsets{6}, stream.offsetsSet);
  EXPECT_EQ(6U + 4U + 9U, stream.position);
}

TEST(KQZipExtraField, TheFactoryGivesTheId1AsAZip64Field) {
  TestInputStream stream(Bytes().text("before").u16(1).u16(24).u64(11).u64(12).u64(13).text("behind"));
  stream.position = 6;
  const auto field = KQZipExtraField::extraFieldWithStream(stream);
  ASSERT_TRUE(isOfClass<KQZipExtraFieldZip64ExtendedInfo>(field));
  const auto& zip64 = dynamic_cast<const KQZipExtraFieldZip64ExtendedInfo&>(*field);
  EXPECT_EQ(11U, zip64.uncompressedSize());
  EXPECT_EQ(12U, zip64.compressedSize());
  EXPECT_EQ(13U, zip64.offsetOfLocalHeaderRecord());
  EXPECT_EQ((Lengths{2, 2, 2, 24}), stream.reads);
  EXPECT_EQ(Offsets{6}, stream.offsetsSet);
  EXPECT_EQ(6U + 28U, stream.position);
}

TEST(KQZipExtraField, TheFactoryReadsOneFieldAfterTheOtherFromAFile) {
  const KQTest::TemporaryDirectory folder;
  KQTest::writeFile(folder / "file",
                    Bytes().u16(0x5455).u16(3).text("abc").u16(1).u16(16).u64(5).u64(6).u16(0x5456).u16(0));
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "file");
  ASSERT_NE(nullptr, stream);
  stream->open();
  ASSERT_TRUE(isOfClass<KQZipExtraField>(KQZipExtraField::extraFieldWithStream(*stream)));
  EXPECT_EQ(7U, stream->NSStreamFileCurrentOffsetKey());
  ASSERT_TRUE(isOfClass<KQZipExtraFieldZip64ExtendedInfo>(KQZipExtraField::extraFieldWithStream(*stream)));
  EXPECT_EQ(27U, stream->NSStreamFileCurrentOffsetKey());
  ASSERT_TRUE(isOfClass<KQZipExtraField>(KQZipExtraField::extraFieldWithStream(*stream)));
  EXPECT_EQ(31U, stream->NSStreamFileCurrentOffsetKey());
  Error error;
  EXPECT_EQ(nullptr, KQZipExtraField::extraFieldWithStream(*stream, &error));
  EXPECT_EQ(nullptr, error);
}

TEST(KQZipExtraField, AnIdThatTheFactoryCannotReadGivesNothingAndDoesNotMoveTheStreamBack) {
  const LogCapture log;
  Error error;
  TestInputStream empty("before");
  empty.position = 6;
  EXPECT_EQ(nullptr, KQZipExtraField::extraFieldWithStream(empty, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lengths{2}, empty.reads);
  EXPECT_EQ(Offsets(), empty.offsetsSet);
  EXPECT_EQ(Lines(), log.lines());

  error = earlierError();
  TestInputStream failing(sampleBytes);
  failing.failAtRead = 1;
  EXPECT_EQ(nullptr, KQZipExtraField::extraFieldWithStream(failing, &error));
  expectKQZipError(error, -50, "Error reading file");
  EXPECT_EQ(Lengths{2}, failing.reads);
  EXPECT_EQ(Offsets(), failing.offsetsSet);
  EXPECT_EQ(KQTest::readingFailedLine(error), log.lines());
}

TEST(KQZipExtraField, EachFailingReadOfTheFactoryGivesNothing) {
  for (const std::string& bytes : {sampleBytes, Bytes().u16(1).u16(5).text("hello").string()}) {
    for (std::size_t failing = 1; failing <= 4; ++failing) {
      for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
        SCOPED_TRACE("read " + std::to_string(failing) + ", " + KQTest::nameOf(slot));
        const LogCapture log;
        TestInputStream stream(bytes);
        stream.failAtRead = static_cast<std::int64_t>(failing);
        Error error = slot == Slot::filled ? earlierError() : nullptr;
        EXPECT_EQ(nullptr,
                  KQZipExtraField::extraFieldWithStream(stream, slot == Slot::none ? nullptr : &error));
        EXPECT_EQ(failing, stream.reads.size());
        if (slot == Slot::filled)
          expectKQZipError(error, -50, "Error reading file");
        else
          EXPECT_EQ(nullptr, error);
        EXPECT_EQ(KQTest::readingFailedLine(error), log.lines());
      }
    }
  }
}

TEST(KQZipExtraField, AStreamThatEndsInsideTheFieldsHeaderGivesNothingSilently) {
  for (std::size_t length = 0; length <= 2; ++length) {
    SCOPED_TRACE(length);
    const LogCapture log;
    TestInputStream stream(sampleBytes.substr(0, length));
    Error error;
    EXPECT_EQ(nullptr, KQZipExtraField::extraFieldWithStream(stream, &error));
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(Lines(), log.lines());
  }
}

TEST(KQZipExtraField, AnIdOfOneByteIsItsLowByte) {
  // Every read delivers one byte: the id 1, and again, then the size 8 and one byte of the data.
  TestInputStream stream("\x01\x08\xD0 unread");
  stream.longestRead = 1;
  const auto field = KQZipExtraField::extraFieldWithStream(stream);
  ASSERT_TRUE(isOfClass<KQZipExtraFieldZip64ExtendedInfo>(field));
  EXPECT_EQ(1, field->fieldSignature());
  EXPECT_EQ(8, field->fieldSize());
  EXPECT_EQ(0xD0U, dynamic_cast<const KQZipExtraFieldZip64ExtendedInfo&>(*field).uncompressedSize());
  EXPECT_EQ(3U, stream.position);
}

TEST(KQZipExtraField, AStreamThatRefusesItsOffsetIsReadTwoBytesLate) {
  const LogCapture log;
  TestInputStream stream(Bytes().u16(1).u16(0x1234).u16(3).text("abc").text("behind"));
  stream.refuseOffsets = true;
  stream.error = KQ::NSError::errorWithDomain("HostDomain", 1, "Cannot be moved");
  Error error;
  const auto field = KQZipExtraField::extraFieldWithStream(stream, &error);
  ASSERT_TRUE(isOfClass<KQZipExtraFieldZip64ExtendedInfo>(field));
  EXPECT_EQ(0x1234, field->fieldSignature());
  EXPECT_EQ(3, field->fieldSize());
  EXPECT_EQ("abc", contentsOf(field->fieldData()));
  EXPECT_EQ(0x636261U, dynamic_cast<const KQZipExtraFieldZip64ExtendedInfo&>(*field).uncompressedSize());
  EXPECT_EQ(Offsets{0}, stream.offsetsSet);
  EXPECT_EQ(9U, stream.position);
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipExtraField, AStreamWithoutAnOffsetCountsAsStandingAtZero) {
  TestInputStream stream(Bytes().text("before").u16(0x5455).u16(0x1234).u16(3).text("abc"));
  stream.position = 6;
  stream.hasOffset = false;
  const auto field = KQZipExtraField::extraFieldWithStream(stream);
  ASSERT_TRUE(isOfClass<KQZipExtraField>(field));
  EXPECT_EQ(0x1234, field->fieldSignature());
  EXPECT_EQ("abc", contentsOf(field->fieldData()));
  EXPECT_EQ(Offsets{0}, stream.offsetsSet);
}

// The registry.

TEST(KQZipExtraField, TheZip64ClassIsRegisteredFirstAndOnce) {
  registerClassesOfTheHost();
  EXPECT_EQ(0U, placeInRegistry(typeid(KQZipExtraFieldZip64ExtendedInfo)));
  EXPECT_EQ(1U, timesRegistered(typeid(KQZipExtraFieldZip64ExtendedInfo)));
  EXPECT_EQ(0U, timesRegistered(typeid(KQZipExtraField)));
}

TEST(KQZipExtraField, AClassThatIsRegisteredAgainStaysWhereItIsOnce) {
  registerClassesOfTheHost();
  const std::size_t size = KQZipExtraField::subclasses().size();
  registerClassesOfTheHost();
  KQZipExtraField::registerSubclass(KQZipExtraFieldClass::of<Claiming>());
  KQZipExtraField::registerSubclass<KQZipExtraFieldZip64ExtendedInfo>();
  EXPECT_EQ(size, KQZipExtraField::subclasses().size());
  EXPECT_EQ(1U, timesRegistered(typeid(Claiming)));
  EXPECT_EQ(0U, placeInRegistry(typeid(KQZipExtraFieldZip64ExtendedInfo)));
}

TEST(KQZipExtraField, TheRegistryKeepsTheOrderOfRegistration) {
  registerClassesOfTheHost();
  const std::size_t place = placeInRegistry(typeid(Claiming));
  EXPECT_EQ(1U, place);
  EXPECT_EQ(place + 1, placeInRegistry(typeid(ClaimingToo)));
  EXPECT_EQ(place + 2, placeInRegistry(typeid(ClaimingZip64)));
  EXPECT_EQ(place + 3, placeInRegistry(typeid(Refusing)));
  EXPECT_EQ(place + 4, placeInRegistry(typeid(Starting)));
  EXPECT_EQ(place + 8, KQZipExtraField::subclasses().size());
}

TEST(KQZipExtraField, ACopyIsOfItsFieldsOwnClassThatOnlyTheRegistryCanMake) {
  registerClassesOfTheHost();
  Prefixing field;
  field.setFieldData(KQTest::dataOf("data"));
  const auto copy = field.copyWithZone();
  ASSERT_TRUE(isOfClass<Prefixing>(copy));
  EXPECT_EQ(10U, copy->outputSize());
  TestOutputStream stream;
  EXPECT_TRUE(copy->writeToStream(stream));
  EXPECT_EQ(std::string(Bytes().u16(Prefixing::id).u16(6).text("hidata")), stream.bytes);
}

TEST(KQZipExtraField, AFieldOfTheHostIsTheSameInTheLocalAndInTheCentralHeader) {
  registerClassesOfTheHost();
  const KQTest::TemporaryDirectory folder;
  KQTest::writeFile(folder / "source", "");
  const auto local = KQZipFileLocalHeader::initWithSourceFile(folder / "source");
  const auto field = std::make_shared<Prefixing>();
  field->setFieldData(KQTest::dataOf("data"));
  local->addExtraField(field);
  TestOutputStream stream;
  ASSERT_TRUE(local->writeToStream(stream));
  const auto central = std::make_shared<KQZipCentralDirectoryFileHeader>();
  central->copyPropertiesFromHeader(*local);
  EXPECT_EQ(local->extraFieldLength(), central->extraFieldLength());
  const std::string bytes = Bytes().u16(Prefixing::id).u16(6).text("hidata");
  EXPECT_EQ(bytes, stream.bytes.substr(stream.bytes.size() - bytes.size()));
  TestOutputStream directory;
  ASSERT_TRUE(central->writeToStream(directory));
  EXPECT_EQ(central->outputSize(), directory.bytes.size());
  EXPECT_EQ(bytes, directory.bytes.substr(directory.bytes.size() - bytes.size()));
  while (const auto left = KQ::NSProgress::currentProgress()) left->resignCurrent();
}

TEST(KQZipExtraField, ACopyOfAClassDerivedFromTheZip64ClassIsOfThatClassAndHasTheValues) {
  registerClassesOfTheHost();
  HostsZip64 field;
  field.setUncompressedSize(1);
  field.setCompressedSize(2);
  field.setOffsetOfLocalHeaderRecord(3);
  const auto copy = field.copyWithZone();
  ASSERT_TRUE(isOfClass<HostsZip64>(copy));
  EXPECT_EQ(3U, std::static_pointer_cast<HostsZip64>(copy)->offsetOfLocalHeaderRecord());

  class Unregistered : public KQZipExtraFieldZip64ExtendedInfo {};
  Unregistered other;
  other.setCompressedSize(2);
  const auto otherCopy = other.copyWithZone();
  ASSERT_TRUE(isOfClass<KQZipExtraFieldZip64ExtendedInfo>(otherCopy));
  EXPECT_EQ(2U, std::static_pointer_cast<KQZipExtraFieldZip64ExtendedInfo>(otherCopy)->compressedSize());
}

TEST(KQZipExtraField, AClassThatMakesItsCopiesItselfIsNotMadeByTheRegistry) {
  registerClassesOfTheHost();
  EXPECT_TRUE(isOfClass<Claiming>(DerivedFromClaiming().copyWithZone()));
  EXPECT_TRUE(isOfClass<KQZipExtraField>(WithoutTest().copyWithZone()));
}

TEST(KQZipExtraField, TheClassOfAHostsFieldReadsOneWhateverItsId) {
  registerClassesOfTheHost();
  const std::string bytes = Bytes().u16(0x1234).u16(4).text("data");
  const auto hosts = KQZipExtraFieldClass::of<Receiving>();
  TestInputStream stream(bytes);
  const auto field = hosts.initWithStream(stream);
  ASSERT_TRUE(isOfClass<Receiving>(field));
  EXPECT_EQ(0x1234, field->fieldSignature());
  EXPECT_EQ("data", contentsOf(field->fieldData()));

  TestInputStream unclaimed(bytes);
  EXPECT_TRUE(isOfClass<Receiving>(hosts.extraFieldWithStream(unclaimed)));
  EXPECT_EQ(8U, unclaimed.position);
  TestInputStream claimed(Bytes().u16(Prefixing::id).u16(0));
  EXPECT_TRUE(isOfClass<Prefixing>(hosts.extraFieldWithStream(claimed)));

  TestInputStream cut(bytes.substr(0, 4));
  EXPECT_FALSE(hosts.initWithStream(cut));
  TestInputStream empty("");
  EXPECT_FALSE(hosts.initWithStream(empty));
  EXPECT_FALSE(hosts.extraFieldWithStream(empty));

  // The inherited operations know nothing of the class.
  TestInputStream inherited(bytes);
  EXPECT_TRUE(isOfClass<KQZipExtraField>(Prefixing::initWithStream(inherited)));
  TestInputStream inheritedToo(bytes);
  EXPECT_TRUE(isOfClass<KQZipExtraField>(Prefixing::extraFieldWithStream(inheritedToo)));
}

TEST(KQZipExtraField, AClassOfTheHostGetsTheFieldsThatItClaims) {
  registerClassesOfTheHost();
  TestInputStream stream(Bytes().u16(Claiming::id).u16(4).text("mine").u16(ClaimingToo::id).u16(0));
  const auto field = KQZipExtraField::extraFieldWithStream(stream);
  ASSERT_TRUE(isOfClass<Claiming>(field));
  EXPECT_EQ(Claiming::id, field->fieldSignature());
  EXPECT_EQ("mine", contentsOf(field->fieldData()));
  EXPECT_EQ(8U, stream.position);
  ASSERT_TRUE(isOfClass<ClaimingToo>(KQZipExtraField::extraFieldWithStream(stream)));
  EXPECT_EQ(12U, stream.position);
}

TEST(KQZipExtraField, TheFirstClassThatClaimsAnIdWins) {
  registerClassesOfTheHost();
  TestInputStream contested(Bytes().u16(Claiming::contested).u16(0));
  ClaimingToo::asked.clear();
  ASSERT_TRUE(isOfClass<Claiming>(KQZipExtraField::extraFieldWithStream(contested)));
  EXPECT_EQ(std::vector<std::uint16_t>(), ClaimingToo::asked);
}

TEST(KQZipExtraField, ClassesOfTheHostAreAskedAfterTheZip64Class) {
  registerClassesOfTheHost();
  Claiming::asked.clear();
  TestInputStream zip64(Bytes().u16(1).u16(0));
  ASSERT_TRUE(isOfClass<KQZipExtraFieldZip64ExtendedInfo>(KQZipExtraField::extraFieldWithStream(zip64)));
  EXPECT_EQ(std::vector<std::uint16_t>(), Claiming::asked);
  TestInputStream unknown(Bytes().u16(0x5455).u16(0));
  ASSERT_TRUE(isOfClass<KQZipExtraField>(KQZipExtraField::extraFieldWithStream(unknown)));
  EXPECT_EQ(std::vector<std::uint16_t>{0x5455}, Claiming::asked);
}

TEST(KQZipExtraField, AParseThatAClassOfTheHostFailsGivesNothingAndItsError) {
  registerClassesOfTheHost();
  TestInputStream accepted(Bytes().u16(Refusing::id).u16(6).text("accept"));
  ASSERT_TRUE(isOfClass<Refusing>(KQZipExtraField::extraFieldWithStream(accepted)));
  TestInputStream refused(Bytes().u16(Refusing::id).u16(6).text("refuse"));
  Error error;
  EXPECT_EQ(nullptr, KQZipExtraField::extraFieldWithStream(refused, &error));
  ASSERT_NE(nullptr, error);
  EXPECT_EQ("HostDomain", error->domain());
  EXPECT_EQ("Refused", error->localizedDescription());
}

TEST(KQZipExtraField, AFieldOfTheHostStartsWithItsOwnDefaults) {
  registerClassesOfTheHost();
  // The size is cut to one byte, so its high byte is the default's.
  TestInputStream stream(Bytes().u16(Starting::id).text("\x02").text(std::string(0x1102, 's')));
  stream.beforeRead = [&stream](std::size_t number) { stream.longestRead = number == 3 ? 1 : UINT64_MAX; };
  const auto field = KQZipExtraField::extraFieldWithStream(stream);
  ASSERT_TRUE(isOfClass<Starting>(field));
  EXPECT_EQ(0x1102, field->fieldSize());
  EXPECT_EQ(0x1102U, field->fieldData()->length());
}

TEST(KQZipExtraField, AnUnknownIdFallsToTheReceiverOfTheFactorysMessage) {
  registerClassesOfTheHost();
  TestInputStream unknown(Bytes().u16(0x5455).u16(3).text("abc"));
  const auto field = Receiving::extraFieldWithStream(unknown);
  ASSERT_TRUE(isOfClass<Receiving>(field));
  EXPECT_EQ(0x5455, field->fieldSignature());
  EXPECT_EQ("abc", contentsOf(field->fieldData()));
  TestInputStream unknownToZip64(Bytes().u16(0x5455).u16(8).u64(99));
  const auto zip64 = KQZipExtraFieldZip64ExtendedInfo::extraFieldWithStream(unknownToZip64);
  ASSERT_TRUE(isOfClass<KQZipExtraFieldZip64ExtendedInfo>(zip64));
  EXPECT_EQ(0x5455, zip64->fieldSignature());
  EXPECT_EQ(99U, dynamic_cast<const KQZipExtraFieldZip64ExtendedInfo&>(*zip64).uncompressedSize());
}

TEST(KQZipExtraField, AClaimedIdDoesNotFallToTheReceiver) {
  registerClassesOfTheHost();
  TestInputStream zip64(Bytes().u16(1).u16(0));
  ASSERT_TRUE(isOfClass<KQZipExtraFieldZip64ExtendedInfo>(Receiving::extraFieldWithStream(zip64)));
  TestInputStream claimed(Bytes().u16(Claiming::id).u16(0));
  ASSERT_TRUE(isOfClass<Claiming>(KQZipExtraFieldZip64ExtendedInfo::extraFieldWithStream(claimed)));
}

TEST(KQZipExtraField, HeadersKeepTheFieldsOfAClassOfTheHost) {
  registerClassesOfTheHost();
  const std::string extra = Bytes().u16(Claiming::id).u16(4).text("mine");
  TestInputStream stream(Bytes()
                             .u16(45)
                             .u16(0)
                             .u16(0)
                             .u16(0)
                             .u16(0x21)
                             .u32(0)
                             .u32(0)
                             .u32(0)
                             .u16(1)
                             .u16(extra.size())
                             .text("n")
                             .text(extra));
  const auto header = KQZipFileLocalHeader::initWithStream(stream);
  ASSERT_NE(nullptr, header);
  ASSERT_EQ(1U, header->extraFields().size());
  ASSERT_TRUE(isOfClass<Claiming>(header->extraFields()[0]));
  KQZipCentralDirectoryFileHeader central;
  central.copyPropertiesFromHeader(*header);
  ASSERT_EQ(1U, central.extraFields().size());
  ASSERT_TRUE(isOfClass<Claiming>(central.extraFields()[0]));
  EXPECT_NE(header->extraFields()[0], central.extraFields()[0]);
  EXPECT_EQ(header->extraFields()[0]->fieldData(), central.extraFields()[0]->fieldData());
}
