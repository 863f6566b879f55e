#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "Support/Bytes.h"
#include "Support/LogCapture.h"
#include "Support/Records.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using KQTest::Bytes;
using KQTest::earlierError;
using KQTest::Error;
using KQTest::expectKQZipError;
using KQTest::hex;
using KQTest::LogCapture;
using KQTest::readingFailedLine;
using KQTest::Slot;
using KQTest::TemporaryDirectory;
using KQTest::TestInputStream;
using KQTest::TestOutputStream;
using KQTest::writingFailedLine;

namespace {

using Lengths = std::vector<std::uint64_t>;
using Lines = std::vector<std::string>;

// The four functions of a family behind one face: `bytes` stand for the integer, least significant first.

template <class Integer>
Integer integerOf(const std::string& bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < sizeof(Integer); ++i)
    value |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
  return static_cast<Integer>(value);
}

template <class Integer>
std::string bytesOfInteger(Integer value) {
  std::string bytes;
  for (std::size_t i = 0; i < sizeof(Integer); ++i)
    bytes += static_cast<char>((static_cast<std::uint64_t>(value) >> (8 * i)) & 0xFF);
  return bytes;
}

using ReadFunction = bool (*)(KQ::NSInputStream&, std::string&, KQ::NSErrorSlot);
using WriteFunction = bool (*)(KQ::NSOutputStream&, const std::string&, KQ::NSErrorSlot);

template <class Integer, bool (*read)(KQ::NSInputStream&, Integer*, KQ::NSErrorSlot)>
bool readInteger(KQ::NSInputStream& stream, std::string& destination, KQ::NSErrorSlot error) {
  auto value = integerOf<Integer>(destination);
  const bool result = read(stream, &value, error);
  destination = bytesOfInteger(value);
  return result;
}

template <class Integer, bool (*write)(KQ::NSOutputStream&, const Integer*, KQ::NSErrorSlot)>
bool writeInteger(KQ::NSOutputStream& stream, const std::string& source, KQ::NSErrorSlot error) {
  const auto value = integerOf<Integer>(source);
  const bool result = write(stream, &value, error);
  EXPECT_EQ(integerOf<Integer>(source), value);
  return result;
}

bool readBytes(KQ::NSInputStream& stream, std::string& destination, KQ::NSErrorSlot error) {
  return KQZipReadBlockBytes(stream, destination.data(), destination.size(), error);
}

bool writeBytes(KQ::NSOutputStream& stream, const std::string& source, KQ::NSErrorSlot error) {
  return KQZipWriteBlockBytes(stream, source.data(), source.size(), error);
}

struct Primitive {
  const char* name;
  std::uint64_t count;
  ReadFunction read;
  WriteFunction write;
};

// What a failed test shows of its parameter.
void PrintTo(const Primitive& primitive, std::ostream* stream) { *stream << primitive.name; }

const std::array<Primitive, 5> primitives{{
    {"Bytes", 5, readBytes, writeBytes},
    {"OneByte", 1, readBytes, writeBytes},
    {"U16", 2, readInteger<std::uint16_t, KQZipReadBlock16>, writeInteger<std::uint16_t, KQZipWriteBlock16>},
    {"U32", 4, readInteger<std::uint32_t, KQZipReadBlock32>, writeInteger<std::uint32_t, KQZipWriteBlock32>},
    {"U64", 8, readInteger<std::uint64_t, KQZipReadBlock64>, writeInteger<std::uint64_t, KQZipWriteBlock64>},
}};

const std::string sample = "\x81\x92\xA3\xB4\xC5\xD6\xE7\xF8";
const std::string before = "\x11\x22\x33\x44\x55\x66\x77\x7F";

// A stream that touches no memory: it notes the length asked for and gives the result that it is told.
class FixedInputStream : public KQ::NSInputStream {
 public:
  explicit FixedInputStream(std::int64_t result) : result_(result) {}
  std::int64_t read(std::uint8_t*, std::uint64_t maxLength) override {
    lengths.push_back(maxLength);
    return result_;
  }
  bool hasBytesAvailable() override { return true; }

  Lengths lengths;

 private:
  std::int64_t result_;
};

class FixedOutputStream : public KQ::NSOutputStream {
 public:
  explicit FixedOutputStream(std::int64_t result) : result_(result) {}
  std::int64_t write(const std::uint8_t*, std::uint64_t maxLength) override {
    lengths.push_back(maxLength);
    return result_;
  }

  Lengths lengths;

 private:
  std::int64_t result_;
};

const std::array<std::int64_t, 4> negativeCounts{-1, -2, std::numeric_limits<std::int32_t>::min(),
                                                 std::numeric_limits<std::int64_t>::min()};

class KQZipReadBlock : public ::testing::TestWithParam<Primitive> {
 protected:
  std::string destination() const { return before.substr(0, static_cast<std::size_t>(GetParam().count)); }
};

class KQZipWriteBlock : public ::testing::TestWithParam<Primitive> {
 protected:
  std::string source() const { return sample.substr(0, static_cast<std::size_t>(GetParam().count)); }
};

std::string nameOfCase(const ::testing::TestParamInfo<Primitive>& info) { return info.param.name; }

}  // namespace

INSTANTIATE_TEST_SUITE_P(KQZipStreamPrimitives, KQZipReadBlock, ::testing::ValuesIn(primitives), nameOfCase);
INSTANTIATE_TEST_SUITE_P(KQZipStreamPrimitives, KQZipWriteBlock, ::testing::ValuesIn(primitives), nameOfCase);

TEST_P(KQZipReadBlock, MovesTheFullCountWithOneReadLeastSignificantByteFirst) {
  const LogCapture log;
  for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
    SCOPED_TRACE(KQTest::nameOf(slot));
    TestInputStream stream(sample + "more");
    const Error earlier = slot == Slot::filled ? earlierError() : nullptr;
    Error error = earlier;
    std::string bytes = destination();
    EXPECT_TRUE(GetParam().read(stream, bytes, slot == Slot::none ? nullptr : &error));
    EXPECT_EQ(hex(sample.substr(0, static_cast<std::size_t>(GetParam().count))), hex(bytes));
    EXPECT_EQ(Lengths{GetParam().count}, stream.reads);
    EXPECT_EQ(GetParam().count, stream.position);
    EXPECT_EQ(earlier, error);
  }
  EXPECT_EQ(Lines(), log.lines());
}

TEST_P(KQZipReadBlock, AShortReadSucceedsAndKeepsTheUnfilledBytesOfTheDestination) {
  const LogCapture log;
  for (std::uint64_t count = 1; count <= GetParam().count; ++count) {
    SCOPED_TRACE(count);
    TestInputStream stream(sample);
    stream.longestRead = count;
    Error error;
    std::string bytes = destination();
    EXPECT_TRUE(GetParam().read(stream, bytes, &error));
    const auto filled = static_cast<std::size_t>(count);
    EXPECT_EQ(hex(sample.substr(0, filled) + destination().substr(filled)), hex(bytes));
    EXPECT_EQ(Lengths{GetParam().count}, stream.reads);
    EXPECT_EQ(nullptr, error);
  }
  EXPECT_EQ(Lines(), log.lines());
}

TEST_P(KQZipReadBlock, AtTheEndOfTheStreamItFailsWithoutAnErrorOrALogLine) {
  const LogCapture log;
  for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
    SCOPED_TRACE(KQTest::nameOf(slot));
    TestInputStream stream{std::string()};
    const Error earlier = slot == Slot::filled ? earlierError() : nullptr;
    Error error = earlier;
    std::string bytes = destination();
    EXPECT_FALSE(GetParam().read(stream, bytes, slot == Slot::none ? nullptr : &error));
    EXPECT_EQ(hex(destination()), hex(bytes));
    EXPECT_EQ(Lengths{GetParam().count}, stream.reads);
    EXPECT_EQ(earlier, error);
  }
  EXPECT_EQ(Lines(), log.lines());
}

TEST_P(KQZipReadBlock, AStreamErrorWithAnEmptySlotLeavesItEmptyAndIsLogged) {
  for (const std::int64_t count : negativeCounts) {
    SCOPED_TRACE(count);
    const LogCapture log;
    FixedInputStream stream(count);
    Error error;
    std::string bytes = destination();
    EXPECT_FALSE(GetParam().read(stream, bytes, &error));
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(Lines{"stream reading failed: (null)"}, log.lines());
    EXPECT_EQ(Lengths{GetParam().count}, stream.lengths);
  }
}

TEST_P(KQZipReadBlock, AStreamErrorWithoutASlotActsAsWithAnEmptyOne) {
  for (const std::int64_t count : negativeCounts) {
    SCOPED_TRACE(count);
    const LogCapture log;
    FixedInputStream stream(count);
    std::string bytes = destination();
    EXPECT_FALSE(GetParam().read(stream, bytes, nullptr));
    EXPECT_EQ(Lines{"stream reading failed: (null)"}, log.lines());
    EXPECT_EQ(Lengths{GetParam().count}, stream.lengths);
  }
}

TEST_P(KQZipReadBlock, AStreamErrorReplacesAnErrorInTheSlotAndIsLoggedWithTheNewOne) {
  for (const std::int64_t count : negativeCounts) {
    SCOPED_TRACE(count);
    const LogCapture log;
    FixedInputStream stream(count);
    Error error = earlierError();
    std::string bytes = destination();
    EXPECT_FALSE(GetParam().read(stream, bytes, &error));
    expectKQZipError(error, -50, "Error reading file");
    EXPECT_EQ(readingFailedLine(error), log.lines());
    EXPECT_EQ(Lengths{GetParam().count}, stream.lengths);
  }
}

TEST_P(KQZipReadBlock, AFileThatEndsInsideTheValueFillsItAsFarAsItGoes) {
  const TemporaryDirectory folder;
  for (std::uint64_t count = 1; count <= GetParam().count; ++count) {
    SCOPED_TRACE(count);
    const auto filled = static_cast<std::size_t>(count);
    KQTest::writeFile(folder / "file", sample.substr(0, filled));
    const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "file");
    ASSERT_NE(nullptr, stream);
    stream->open();
    Error error;
    std::string bytes = destination();
    EXPECT_TRUE(GetParam().read(*stream, bytes, &error));
    EXPECT_EQ(hex(sample.substr(0, filled) + destination().substr(filled)), hex(bytes));

    const LogCapture log;
    EXPECT_FALSE(GetParam().read(*stream, bytes, &error));
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(Lines(), log.lines());
    stream->close();
  }
}

TEST_P(KQZipReadBlock, AnItemThatCannotBeReadIsAStreamError) {
  const TemporaryDirectory folder;
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder.path().string());
  ASSERT_NE(nullptr, stream);
  stream->open();
  const LogCapture log;
  Error error = earlierError();
  std::string bytes = destination();
  EXPECT_FALSE(GetParam().read(*stream, bytes, &error));
  expectKQZipError(error, -50, "Error reading file");
  EXPECT_EQ(readingFailedLine(error), log.lines());
}

TEST(KQZipReadBlock32, ThreeLeftBytesFillTheLowOnesAndKeepTheHighOne) {
  const auto stream = KQ::NSInputStream::inputStreamWithData(KQTest::dataOf("\x01\x02\x03"));
  stream->open();
  std::uint32_t value = 0xAABBCCDD;
  Error error;
  EXPECT_TRUE(KQZipReadBlock32(*stream, &value, &error));
  EXPECT_EQ(0xAA030201U, value);
  EXPECT_EQ(nullptr, error);
}

TEST(KQZipReadBlock, IntegersOfEveryWidthAreLittleEndian) {
  TestInputStream stream(
      "\x01\x02"
      "\x03\x04\x05\x06"
      "\x07\x08\x09\x0A\x0B\x0C\x0D\x0E");
  std::uint16_t u16 = 0;
  std::uint32_t u32 = 0;
  std::uint64_t u64 = 0;
  EXPECT_TRUE(KQZipReadBlock16(stream, &u16));
  EXPECT_TRUE(KQZipReadBlock32(stream, &u32));
  EXPECT_TRUE(KQZipReadBlock64(stream, &u64));
  EXPECT_EQ(0x0201U, u16);
  EXPECT_EQ(0x06050403U, u32);
  EXPECT_EQ(0x0E0D0C0B0A090807U, u64);
  EXPECT_EQ((Lengths{2, 4, 8}), stream.reads);
}

TEST(KQZipReadBlockBytes, ALengthOfZeroSucceedsWithoutTouchingTheStream) {
  const LogCapture log;
  TestInputStream exhausted{std::string()};
  const Error earlier = earlierError();
  Error error = earlier;
  char byte = 'x';
  EXPECT_TRUE(KQZipReadBlockBytes(exhausted, &byte, 0, &error));
  EXPECT_TRUE(KQZipReadBlockBytes(exhausted, nullptr, 0, nullptr));
  EXPECT_EQ('x', byte);
  EXPECT_EQ(Lengths(), exhausted.reads);
  FixedInputStream failing(-1);
  EXPECT_TRUE(KQZipReadBlockBytes(failing, &byte, 0, &error));
  EXPECT_EQ(Lengths(), failing.lengths);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipReadBlockBytes, ALengthOfZeroSucceedsOnAClosedFile) {
  const TemporaryDirectory folder;
  KQTest::writeFile(folder / "file", "abc");
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(folder / "file");
  ASSERT_NE(nullptr, stream);
  stream->open();
  stream->close();
  const LogCapture log;
  Error error;
  EXPECT_TRUE(KQZipReadBlockBytes(*stream, nullptr, 0, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipReadBlockBytes, ALengthBeyond32BitsIsAskedForWholeInOneRead) {
  FixedInputStream stream(1);
  char byte = 'x';
  EXPECT_TRUE(KQZipReadBlockBytes(stream, &byte, 0x100000003));
  EXPECT_EQ(Lengths{0x100000003}, stream.lengths);
}

TEST_P(KQZipWriteBlock, MovesTheFullCountWithOneWriteLeastSignificantByteFirst) {
  const LogCapture log;
  for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
    SCOPED_TRACE(KQTest::nameOf(slot));
    TestOutputStream stream;
    const Error earlier = slot == Slot::filled ? earlierError() : nullptr;
    Error error = earlier;
    EXPECT_TRUE(GetParam().write(stream, source(), slot == Slot::none ? nullptr : &error));
    EXPECT_EQ(hex(source()), hex(stream.bytes));
    EXPECT_EQ(Lengths{GetParam().count}, stream.writes);
    EXPECT_EQ(earlier, error);
  }
  EXPECT_EQ(Lines(), log.lines());
}

TEST_P(KQZipWriteBlock, APartialWriteIsASuccessAndIsNotCompleted) {
  const LogCapture log;
  for (std::uint64_t count = 1; count <= GetParam().count; ++count) {
    SCOPED_TRACE(count);
    TestOutputStream stream;
    stream.shortenAtWrite = 1;
    stream.shortenTo = count;
    Error error;
    EXPECT_TRUE(GetParam().write(stream, source(), &error));
    EXPECT_EQ(hex(source().substr(0, static_cast<std::size_t>(count))), hex(stream.bytes));
    EXPECT_EQ(Lengths{GetParam().count}, stream.writes);
    EXPECT_EQ(nullptr, error);
  }
  EXPECT_EQ(Lines(), log.lines());
}

TEST_P(KQZipWriteBlock, AWriteThatTakesNothingFailsWithoutAnErrorOrALogLine) {
  const LogCapture log;
  for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
    SCOPED_TRACE(KQTest::nameOf(slot));
    FixedOutputStream stream(0);
    const Error earlier = slot == Slot::filled ? earlierError() : nullptr;
    Error error = earlier;
    EXPECT_FALSE(GetParam().write(stream, source(), slot == Slot::none ? nullptr : &error));
    EXPECT_EQ(Lengths{GetParam().count}, stream.lengths);
    EXPECT_EQ(earlier, error);
  }
  EXPECT_EQ(Lines(), log.lines());
}

TEST_P(KQZipWriteBlock, AStreamErrorGoesIntoTheSlotWhateverItHeldAndIsLogged) {
  for (const std::int64_t count : negativeCounts) {
    for (const Slot slot : {Slot::empty, Slot::filled}) {
      SCOPED_TRACE(KQTest::nameOf(slot) + ", " + std::to_string(count));
      const LogCapture log;
      FixedOutputStream stream(count);
      Error error = slot == Slot::filled ? earlierError() : nullptr;
      EXPECT_FALSE(GetParam().write(stream, source(), &error));
      expectKQZipError(error, -51, "Error writing file");
      EXPECT_EQ(writingFailedLine(error), log.lines());
      EXPECT_EQ(Lengths{GetParam().count}, stream.lengths);
    }
  }
}

TEST_P(KQZipWriteBlock, AStreamErrorWithoutASlotIsLoggedWithoutAnObject) {
  for (const std::int64_t count : negativeCounts) {
    SCOPED_TRACE(count);
    const LogCapture log;
    FixedOutputStream stream(count);
    EXPECT_FALSE(GetParam().write(stream, source(), nullptr));
    EXPECT_EQ(Lines{"stream writing failed: (null)"}, log.lines());
    EXPECT_EQ(Lengths{GetParam().count}, stream.lengths);
  }
}

TEST_P(KQZipWriteBlock, AFileThatCannotBeOpenedIsAStreamError) {
  const TemporaryDirectory folder;
  const auto stream = KQ::NSOutputStream::outputStreamToFileAtPath(folder / "missing/file");
  ASSERT_NE(nullptr, stream);
  stream->open();
  const LogCapture log;
  Error error;
  EXPECT_FALSE(GetParam().write(*stream, source(), &error));
  expectKQZipError(error, -51, "Error writing file");
  EXPECT_EQ(writingFailedLine(error), log.lines());
}

TEST(KQZipWriteBlock, TheSameBytesReachAFileAndMemory) {
  const std::string expected = Bytes().u16(0x0102).u32(0x03040506).u64(0x0708090A0B0C0D0E).text("\x01tail");
  const TemporaryDirectory folder;
  const auto file = KQ::NSOutputStream::outputStreamToFileAtPath(folder / "file");
  const auto memory = KQ::NSOutputStream::outputStreamToMemory();
  for (const auto& stream : {file, memory}) {
    stream->open();
    const std::uint16_t u16 = 0x0102;
    const std::uint32_t u32 = 0x03040506;
    const std::uint64_t u64 = 0x0708090A0B0C0D0E;
    EXPECT_TRUE(KQZipWriteBlock16(*stream, &u16));
    EXPECT_TRUE(KQZipWriteBlock32(*stream, &u32));
    EXPECT_TRUE(KQZipWriteBlock64(*stream, &u64));
    EXPECT_TRUE(KQZipWriteBlockBytes(*stream, "\x01tail", 5));
    stream->close();
  }
  EXPECT_EQ(hex(expected), hex(KQTest::readFile(folder / "file")));
  EXPECT_EQ(hex(expected), hex(KQTest::contentsOf(memory->NSStreamDataWrittenToMemoryStreamKey())));
}

TEST(KQZipWriteBlock32, TheLocalHeadersSignatureComesOutAsItsFourBytes) {
  TestOutputStream stream;
  const std::uint32_t signature = 0x04034B50;
  EXPECT_TRUE(KQZipWriteBlock32(stream, &signature));
  EXPECT_EQ("50 4b 03 04 ", hex(stream.bytes));
}

TEST(KQZipWriteBlockBytes, ALengthOfZeroSucceedsWithoutTouchingTheStream) {
  const LogCapture log;
  FixedOutputStream stream(-1);
  const Error earlier = earlierError();
  Error error = earlier;
  EXPECT_TRUE(KQZipWriteBlockBytes(stream, "x", 0, &error));
  EXPECT_TRUE(KQZipWriteBlockBytes(stream, nullptr, 0, nullptr));
  EXPECT_EQ(Lengths(), stream.lengths);
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(Lines(), log.lines());
}

TEST(KQZipWriteBlockBytes, ALengthOfZeroSucceedsOnAClosedFile) {
  const TemporaryDirectory folder;
  const auto stream = KQ::NSOutputStream::outputStreamToFileAtPath(folder / "file");
  stream->open();
  stream->close();
  const LogCapture log;
  Error error;
  EXPECT_TRUE(KQZipWriteBlockBytes(*stream, nullptr, 0, &error));
  EXPECT_EQ(nullptr, error);
  EXPECT_EQ(Lines(), log.lines());
  EXPECT_EQ("", KQTest::readFile(folder / "file"));
}

TEST(KQZipWriteBlockBytes, ALengthBeyond32BitsIsHandedOverWholeInOneWrite) {
  FixedOutputStream stream(1);
  EXPECT_TRUE(KQZipWriteBlockBytes(stream, "x", 0x100000003));
  EXPECT_EQ(Lengths{0x100000003}, stream.lengths);
}
