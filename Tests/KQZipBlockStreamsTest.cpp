// The streams over bytes that somebody else keeps, which making an archive interoperable parses and writes
// with.

#include <KQZip/Internal/KQZipBlockStreams.h>
#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

const std::uint8_t* bytesOf(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

std::string readFrom(KQZipBlockInputStream& stream, std::uint64_t length) {
  std::string bytes(length, '?');
  const std::int64_t count = stream.read(reinterpret_cast<std::uint8_t*>(bytes.data()), length);
  return bytes.substr(0, static_cast<std::size_t>(count));
}

}  // namespace

TEST(KQZipBlockInputStream, DeliversItsBytesAndThenItsEnd) {
  const std::string text = "0123456789";
  KQZipBlockInputStream stream(bytesOf(text), text.size());
  EXPECT_TRUE(stream.hasBytesAvailable());
  EXPECT_EQ("", readFrom(stream, 0));
  EXPECT_EQ("0123", readFrom(stream, 4));
  EXPECT_EQ(4U, stream.NSStreamFileCurrentOffsetKey());
  std::uint16_t value = 0;
  EXPECT_TRUE(KQZipReadBlock16(stream, &value));
  EXPECT_EQ('5' * 256 + '4', value);
  EXPECT_EQ("6789", readFrom(stream, 100));
  EXPECT_EQ(10U, stream.NSStreamFileCurrentOffsetKey());
  EXPECT_FALSE(stream.hasBytesAvailable());
  EXPECT_EQ("", readFrom(stream, 1));
}

TEST(KQZipBlockInputStream, StandsWhereItIsPutAlsoBehindItsEnd) {
  const std::string text = "0123456789";
  KQZipBlockInputStream stream(bytesOf(text), text.size());
  for (const std::uint64_t offset :
       {std::uint64_t{10}, std::uint64_t{11}, std::uint64_t{1000000}, UINT64_MAX}) {
    EXPECT_TRUE(stream.setNSStreamFileCurrentOffsetKey(offset));
    EXPECT_EQ(offset, stream.NSStreamFileCurrentOffsetKey());
    EXPECT_FALSE(stream.hasBytesAvailable());
    EXPECT_EQ("", readFrom(stream, 1));
  }
  for (const std::uint64_t offset : {9U, 0U, 5U}) {
    EXPECT_TRUE(stream.setNSStreamFileCurrentOffsetKey(offset));
    EXPECT_EQ(offset, stream.NSStreamFileCurrentOffsetKey());
    EXPECT_EQ(text.substr(offset, 1), readFrom(stream, 1));
    EXPECT_EQ(offset + 1, stream.NSStreamFileCurrentOffsetKey());
  }
}

TEST(KQZipBlockInputStream, OfNoBytesIsAtItsEnd) {
  KQZipBlockInputStream stream(nullptr, 0);
  EXPECT_FALSE(stream.hasBytesAvailable());
  EXPECT_EQ(0U, stream.NSStreamFileCurrentOffsetKey());
  EXPECT_EQ("", readFrom(stream, 1));
}

TEST(KQZipBlockOutputStream, WritesOverItsBytesAndNotBehindThem) {
  std::string text = "0123456789";
  KQZipBlockOutputStream stream(reinterpret_cast<std::uint8_t*>(text.data()), 6);
  EXPECT_EQ(0, stream.write(nullptr, 0));
  EXPECT_EQ(3, stream.write(bytesOf("abc"), 3));
  const std::uint16_t value = 'e' * 256 + 'd';
  EXPECT_TRUE(KQZipWriteBlock16(stream, &value));
  EXPECT_EQ(5U, stream.NSStreamFileCurrentOffsetKey());
  EXPECT_EQ(-1, stream.write(bytesOf("xy"), 2));
  EXPECT_EQ(-1, stream.write(bytesOf("x"), 1)) << "what has failed takes nothing more";
  EXPECT_EQ(5U, stream.NSStreamFileCurrentOffsetKey());
  EXPECT_EQ("abcde56789", text);
}

TEST(KQZipBlockOutputStream, TakesExactlyItsLength) {
  std::string text = "0123456789";
  KQZipBlockOutputStream stream(reinterpret_cast<std::uint8_t*>(text.data()), text.size());
  EXPECT_EQ(10, stream.write(bytesOf("abcdefghij"), 10));
  EXPECT_EQ(10U, stream.NSStreamFileCurrentOffsetKey());
  EXPECT_EQ(-1, stream.write(bytesOf("k"), 1));
  EXPECT_EQ("abcdefghij", text);
}
