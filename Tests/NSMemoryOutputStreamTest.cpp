#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "Support/StreamCalls.h"
#include "Support/TemporaryDirectory.h"

using KQ::NSOutputStream;
using KQTest::writeOnce;

namespace {

std::shared_ptr<NSOutputStream> openStream() {
  std::shared_ptr<NSOutputStream> stream = NSOutputStream::outputStreamToMemory();
  stream->open();
  return stream;
}

std::string written(const NSOutputStream& stream) {
  const auto data = stream.NSStreamDataWrittenToMemoryStreamKey();
  if (!data) return "no data";
  return {reinterpret_cast<const char*>(data->bytes()), data->length()};
}

}  // namespace

TEST(NSMemoryOutputStream, KeepsEverythingWrittenInOrder) {
  const auto stream = openStream();
  std::string expected;
  std::mt19937 generator(1);
  for (unsigned i = 0; i < 300; ++i) {
    const std::string piece = KQTest::patternBytes(generator() % 2000, i);
    ASSERT_EQ(static_cast<std::int64_t>(piece.size()), writeOnce(*stream, piece));
    expected += piece;
    ASSERT_EQ(expected.size(), stream->NSStreamFileCurrentOffsetKey());
  }
  EXPECT_TRUE(expected == written(*stream));
}

TEST(NSMemoryOutputStream, HoldsNoBytesBeforeTheFirstWrite) {
  const auto stream = openStream();
  EXPECT_EQ("", written(*stream));
  EXPECT_EQ(0U, stream->NSStreamFileCurrentOffsetKey());
}

TEST(NSMemoryOutputStream, TheBytesThatWereHandedOutDoNotChange) {
  const auto stream = openStream();
  writeOnce(*stream, "first");
  const auto data = stream->NSStreamDataWrittenToMemoryStreamKey();
  for (int i = 0; i < 1000; ++i) writeOnce(*stream, "second");
  ASSERT_EQ(5U, data->length());
  EXPECT_EQ("first", std::string(reinterpret_cast<const char*>(data->bytes()), 5));
}

TEST(NSMemoryOutputStream, TheBytesAreThereAfterClosingAndOutliveTheStream) {
  auto stream = openStream();
  writeOnce(*stream, "bytes");
  stream->close();
  EXPECT_EQ("bytes", written(*stream));
  const auto data = stream->NSStreamDataWrittenToMemoryStreamKey();
  stream.reset();
  EXPECT_EQ("bytes", std::string(reinterpret_cast<const char*>(data->bytes()), data->length()));
}

TEST(NSMemoryOutputStream, ItsStatusFollowsItsLife) {
  const auto stream = NSOutputStream::outputStreamToMemory();
  EXPECT_EQ(KQ::NSStreamStatusNotOpen, stream->streamStatus());
  stream->open();
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
  writeOnce(*stream, "x");
  EXPECT_TRUE(stream->flush());
  stream->close();
  EXPECT_EQ(KQ::NSStreamStatusClosed, stream->streamStatus());
  EXPECT_EQ(nullptr, stream->streamError());
}

TEST(NSMemoryOutputStream, WritesBeforeOpeningAndAfterClosingFail) {
  const auto stream = NSOutputStream::outputStreamToMemory();
  EXPECT_LT(writeOnce(*stream, "early"), 0);
  stream->open();
  EXPECT_EQ(7, writeOnce(*stream, "in time"));
  stream->close();
  EXPECT_LT(writeOnce(*stream, "late"), 0);
  EXPECT_EQ("in time", written(*stream));
}

TEST(NSMemoryOutputStream, AWriteOfNothingTakesNothing) {
  const auto stream = openStream();
  EXPECT_EQ(0, stream->write(nullptr, 0));
  EXPECT_EQ(0, writeOnce(*stream, ""));
  EXPECT_EQ("", written(*stream));
  EXPECT_EQ(KQ::NSStreamStatusOpen, stream->streamStatus());
}

TEST(NSMemoryOutputStream, TheOffsetCannotBeSetAndWritingGoesOn) {
  const auto stream = openStream();
  writeOnce(*stream, "abc");
  EXPECT_FALSE(stream->setNSStreamFileCurrentOffsetKey(0));
  EXPECT_EQ(3, writeOnce(*stream, "def"));
  EXPECT_EQ("abcdef", written(*stream));
}
