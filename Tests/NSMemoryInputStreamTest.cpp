#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "Support/StreamCalls.h"
#include "Support/TemporaryDirectory.h"

using KQ::NSData;
using KQ::NSInputStream;
using KQTest::readOnce;

namespace {

std::shared_ptr<NSInputStream> streamOn(const std::string& bytes) {
  return NSInputStream::inputStreamWithData(NSData::dataWithBytes(bytes.data(), bytes.size()));
}

std::shared_ptr<NSInputStream> openStreamOn(const std::string& bytes) {
  std::shared_ptr<NSInputStream> stream = streamOn(bytes);
  stream->open();
  return stream;
}

}  // namespace

TEST(NSMemoryInputStream, DeliversTheBytesInPiecesAndThenTheEnd) {
  const auto stream = openStreamOn("0123456789");
  EXPECT_EQ("0123", readOnce(*stream, 4));
  EXPECT_EQ("4567", readOnce(*stream, 4));
  EXPECT_EQ("89", readOnce(*stream, 4));
  EXPECT_EQ("", readOnce(*stream, 4));
  EXPECT_EQ("", readOnce(*stream, 4));
}

TEST(NSMemoryInputStream, ItsStatusFollowsItsLife) {
  const auto stream = streamOn("0123456789");
  EXPECT_EQ(KQ::NSStreamStatusNotOpen, stream->streamStatus());
  stream->open();
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  EXPECT_EQ("0123456789", readOnce(*stream, 10));
  EXPECT_EQ("", readOnce(*stream, 1));
  EXPECT_EQ(KQ::NSStreamStatusAtEnd, stream->streamStatus());
  EXPECT_TRUE(stream->setNSStreamFileCurrentOffsetKey(3));
  EXPECT_EQ("3", readOnce(*stream, 1));
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
  EXPECT_EQ(nullptr, stream->streamError());
}

TEST(NSMemoryInputStream, ReadsBeforeOpeningAndAfterClosingFail) {
  const auto stream = streamOn("0123456789");
  EXPECT_FALSE(readOnce(*stream, 1).has_value());
  stream->open();
  EXPECT_EQ("0", readOnce(*stream, 1));
  stream->close();
  EXPECT_FALSE(readOnce(*stream, 1).has_value());
  stream->close();
  EXPECT_FALSE(readOnce(*stream, 1).has_value());
}

TEST(NSMemoryInputStream, NoBytesAreAtTheirEndAtOnce) {
  const auto stream = openStreamOn("");
  EXPECT_FALSE(stream->hasBytesAvailable());
  EXPECT_EQ("", readOnce(*stream, 1));
  EXPECT_EQ(KQ::NSStreamStatusAtEnd, stream->streamStatus());
}

TEST(NSMemoryInputStream, BytesAreAvailableUpToTheEnd) {
  const auto stream = openStreamOn("01");
  EXPECT_TRUE(stream->hasBytesAvailable());
  EXPECT_EQ("0", readOnce(*stream, 1));
  EXPECT_TRUE(stream->hasBytesAvailable());
  EXPECT_EQ("1", readOnce(*stream, 1));
  EXPECT_FALSE(stream->hasBytesAvailable());
  EXPECT_TRUE(stream->setNSStreamFileCurrentOffsetKey(1));
  EXPECT_TRUE(stream->hasBytesAvailable());
  EXPECT_TRUE(stream->setNSStreamFileCurrentOffsetKey(2));
  EXPECT_FALSE(stream->hasBytesAvailable());
}

TEST(NSMemoryInputStream, NothingBehindTheBytesIsTouchedHoweverMuchIsAskedFor) {
  const auto stream = openStreamOn("0123456789");
  std::string bytes(64, '?');
  EXPECT_EQ(10, stream->read(reinterpret_cast<std::uint8_t*>(bytes.data()), UINT64_MAX));
  EXPECT_EQ("0123456789" + std::string(54, '?'), bytes);
}

TEST(NSMemoryInputStream, AReadOfNothingDeliversNothingAndIsNotTheEnd) {
  const auto stream = openStreamOn("0123456789");
  EXPECT_EQ(0, stream->read(nullptr, 0));
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  EXPECT_EQ("0123456789", readOnce(*stream, 10));
}

TEST(NSMemoryInputStream, RandomJumpsAndReadsAgreeWithTheBytes) {
  const std::string contents = KQTest::patternBytes(5000);
  const auto stream = openStreamOn(contents);
  std::mt19937 generator(1);
  for (int i = 0; i < 3000; ++i) {
    const std::uint64_t offset = generator() % 5500;
    const std::uint64_t length = generator() % 600;
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(offset));
    ASSERT_EQ(offset, stream->NSStreamFileCurrentOffsetKey());
    const std::string expected = offset < contents.size() ? contents.substr(offset, length) : "";
    ASSERT_TRUE(expected == readOnce(*stream, length)) << offset << " " << length;
    ASSERT_EQ(offset + expected.size(), stream->NSStreamFileCurrentOffsetKey());
  }
}

TEST(NSMemoryInputStream, AnOffsetBeyondTheEndIsAcceptedAndReadsMeetTheEnd) {
  const auto stream = openStreamOn("0123456789");
  for (const std::uint64_t offset :
       {std::uint64_t{10}, std::uint64_t{11}, static_cast<std::uint64_t>(INT64_MAX)}) {
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(offset));
    EXPECT_EQ("", readOnce(*stream, 100));
    EXPECT_FALSE(stream->hasBytesAvailable());
    EXPECT_EQ(offset, stream->NSStreamFileCurrentOffsetKey());
  }
  ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(8));
  EXPECT_EQ("89", readOnce(*stream, 100));
}

TEST(NSMemoryInputStream, AnOffsetThatDoesNotFitTheSystemsIsRefusedAndThePositionKept) {
  const auto stream = openStreamOn("0123456789");
  for (const std::uint64_t offset : {std::uint64_t{1} << 63, UINT64_MAX}) {
    ASSERT_TRUE(stream->setNSStreamFileCurrentOffsetKey(3));
    EXPECT_FALSE(stream->setNSStreamFileCurrentOffsetKey(offset));
    EXPECT_TRUE(stream->streamError() != nullptr);
    EXPECT_EQ(3U, stream->NSStreamFileCurrentOffsetKey());
    EXPECT_EQ("3456789", readOnce(*stream, 100));
  }
}

TEST(NSMemoryInputStream, KeepsItsBytesAlive) {
  auto data = NSData::dataWithBytes("0123456789", 10);
  const std::weak_ptr<const NSData> watched = data;
  auto stream = NSInputStream::inputStreamWithData(std::move(data));
  stream->open();
  EXPECT_FALSE(watched.expired());
  EXPECT_EQ("0123456789", readOnce(*stream, 100));
  stream.reset();
  EXPECT_TRUE(watched.expired());
}

TEST(NSMemoryInputStream, TwoStreamsOnTheSameBytesDoNotDisturbEachOther) {
  const auto data = NSData::dataWithBytes("0123456789", 10);
  const auto first = NSInputStream::inputStreamWithData(data);
  const auto second = NSInputStream::inputStreamWithData(data);
  first->open();
  second->open();
  EXPECT_EQ("01234", readOnce(*first, 5));
  EXPECT_EQ("012", readOnce(*second, 3));
  first->close();
  EXPECT_EQ("345", readOnce(*second, 3));
}
