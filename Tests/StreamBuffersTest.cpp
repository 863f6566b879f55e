// What streams offer of their buffers, mixed at random with the calls that it stands for.

#include <KQZip/KQZip.h>
#include <KQZip/Platform/Internal/NSBufferedStreams.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "Support/Bytes.h"
#include "Support/TemporaryDirectory.h"

namespace {

constexpr std::uint64_t length = 300000;

// Reads, takes, asks and jumps at random; every byte and every offset must be the ones of `bytes`.
void expectDelivers(const std::string& bytes, KQ::NSInputStream& stream) {
  std::mt19937 random(7);
  std::uint64_t position = 0;
  std::uint64_t taken = 0;
  int looks = 0;
  std::string piece(100000, '\0');
  auto* const first = reinterpret_cast<std::uint8_t*>(piece.data());
  for (int step = 0; step < 20000; ++step) {
    ASSERT_EQ(position, stream.NSStreamFileCurrentOffsetKey());
    const std::uint64_t wanted = random() % 50 == 0 ? random() % piece.size() : random() % 40;
    std::uint64_t count = 0;
    switch (random() % 8) {
      case 0:
        position = random() % (length + 10);
        ASSERT_TRUE(stream.setNSStreamFileCurrentOffsetKey(position));
        continue;
      case 1:
        if (position < length) {
          ASSERT_TRUE(stream.hasBytesAvailable());
        }
        continue;
      case 2:
        count = static_cast<std::uint64_t>(stream.read(first, wanted));
        ASSERT_EQ(position < length ? std::min(wanted, length - position) : 0, count);
        break;
      case 3:
        // A look at what is at hand takes nothing.
        if (const std::uint8_t* const bytesAtHand =
                KQ::NSBufferedInputStream::of(stream)->bytesAtHand(wanted);
            bytesAtHand != nullptr && wanted != 0) {
          ASSERT_EQ(bytes.substr(position, wanted), std::string(bytesAtHand, bytesAtHand + wanted));
          ++looks;
        }
        continue;
      default:
        count = KQ::NSBufferedInputStream::take(stream, piece.data(), wanted) ? wanted : 0;
        taken += count;
        break;
    }
    if (count == 0) continue;
    ASSERT_EQ(bytes.substr(position, count), piece.substr(0, count));
    position += count;
  }
  EXPECT_LT(10000U, taken) << "most small reads should find their bytes at hand";
  EXPECT_LT(1000, looks);
}

TEST(StreamBuffers, WhatAFileStreamHasAtHandIsWhatItWouldRead) {
  const KQTest::TemporaryDirectory directory;
  const std::string bytes = KQTest::patternBytes(length);
  KQTest::writeFile(directory / "file", bytes);
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(directory / "file");
  ASSERT_NE(nullptr, stream);
  stream->open();
  expectDelivers(bytes, *stream);
}

TEST(StreamBuffers, WhatAMemoryStreamHasAtHandIsWhatItWouldRead) {
  const std::string bytes = KQTest::patternBytes(length);
  const auto stream = KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), length));
  stream->open();
  expectDelivers(bytes, *stream);
}

TEST(StreamBuffers, NothingIsAtHandWhileAReadWouldFailOrChangeTheStatus) {
  const KQTest::TemporaryDirectory directory;
  KQTest::writeFile(directory / "file", "0123456789");
  const auto data = KQ::NSData::dataWithBytes("0123456789", 10);
  for (const auto& stream : {KQ::NSInputStream::inputStreamWithFileAtPath(directory / "file"),
                             KQ::NSInputStream::inputStreamWithData(data)}) {
    std::string bytes(20, '\0');
    auto* const first = reinterpret_cast<std::uint8_t*>(bytes.data());
    EXPECT_FALSE(KQ::NSBufferedInputStream::take(*stream, bytes.data(), 1)) << "not open yet";
    stream->open();
    EXPECT_EQ(2, stream->read(first, 2));
    EXPECT_FALSE(KQ::NSBufferedInputStream::take(*stream, bytes.data(), 9)) << "fewer are left";
    EXPECT_FALSE(KQ::NSBufferedInputStream::take(*stream, bytes.data(), 0)) << "nothing is a read's business";
    EXPECT_TRUE(KQ::NSBufferedInputStream::take(*stream, bytes.data(), 8));
    EXPECT_EQ("23456789", bytes.substr(0, 8));
    EXPECT_EQ(0, stream->read(first, 1));
    EXPECT_EQ(KQ::NSStreamStatusAtEnd, stream->streamStatus());
    EXPECT_TRUE(stream->setNSStreamFileCurrentOffsetKey(0));
    EXPECT_FALSE(KQ::NSBufferedInputStream::take(*stream, bytes.data(), 1)) << "the status is still the end";
    EXPECT_EQ(1, stream->read(first, 1));
    EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
    EXPECT_TRUE(KQ::NSBufferedInputStream::take(*stream, bytes.data(), 1));
    stream->close();
    EXPECT_FALSE(KQ::NSBufferedInputStream::take(*stream, bytes.data(), 1)) << "closed";
    EXPECT_EQ(2U, stream->NSStreamFileCurrentOffsetKey());
  }
}

TEST(StreamBuffers, WhatIsPutIntoAFileStreamsRoomIsWrittenInItsPlace) {
  const KQTest::TemporaryDirectory directory;
  const std::string path = directory / "file";
  const auto stream = KQ::NSOutputStream::outputStreamToFileAtPath(path);
  EXPECT_FALSE(KQ::NSBufferedOutputStream::put(*stream, "x", 1)) << "not open yet";
  stream->open();
  const std::string source = KQTest::patternBytes(100000);
  std::mt19937 random(7);
  std::string expected;
  std::uint64_t put = 0;
  for (int step = 0; step < 20000; ++step) {
    const std::uint64_t count = random() % 200 == 0 ? random() % source.size() : random() % 40;
    const std::string piece = source.substr(random() % (source.size() - count), count);
    const auto* const first = reinterpret_cast<const std::uint8_t*>(piece.data());
    if (random() % 4 != 0 && KQ::NSBufferedOutputStream::put(*stream, first, count)) {
      put += count;
    } else {
      ASSERT_EQ(static_cast<std::int64_t>(count), stream->write(first, count));
    }
    if (random() % 500 == 0) {
      ASSERT_TRUE(stream->flush());
    }
    expected += piece;
    ASSERT_EQ(expected.size(), stream->NSStreamFileCurrentOffsetKey());
  }
  EXPECT_LT(100000U, put) << "most small writes should find room";
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
  EXPECT_EQ(expected.size(), stream->NSStreamFileCurrentOffsetKey());
  EXPECT_FALSE(KQ::NSBufferedOutputStream::put(*stream, "x", 1)) << "closed";
  EXPECT_TRUE(expected == KQTest::readFile(path));
}

TEST(StreamBuffers, AFileStreamThatFailedOffersNoRoomAndKeepsItsOffset) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "the system has no device that is always full";
  const auto stream = KQ::NSOutputStream::outputStreamToFileAtPath("/dev/full");
  stream->open();
  ASSERT_TRUE(KQ::NSBufferedOutputStream::put(*stream, "12345", 5));
  EXPECT_FALSE(stream->flush());
  EXPECT_EQ(KQ::NSStreamStatusError, stream->streamStatus());
  EXPECT_FALSE(KQ::NSBufferedOutputStream::put(*stream, "x", 1));
  EXPECT_EQ(5U, stream->NSStreamFileCurrentOffsetKey());
}

TEST(StreamBuffers, AFieldsDataOfAnyLengthIsOneBufferHoweverOftenItIsAskedFor) {
  for (const unsigned size : {0U, 1U, 23U, 24U, 25U, 1000U}) {
    const std::string data = KQTest::patternBytes(size);
    const std::string field =
        std::string("\x77\x77", 2) + static_cast<char>(size & 0xFF) + static_cast<char>(size >> 8) + data;
    const auto stream =
        KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(field.data(), field.size()));
    stream->open();
    const auto parsed = KQZipExtraField::extraFieldWithStream(*stream);
    ASSERT_NE(nullptr, parsed);
    const auto buffer = parsed->fieldData();
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(data, std::string(reinterpret_cast<const char*>(buffer->bytes()), buffer->length()));
    EXPECT_EQ(buffer, parsed->fieldData());
    EXPECT_EQ(buffer, parsed->copyWithZone()->fieldData());
  }
}

}  // namespace
