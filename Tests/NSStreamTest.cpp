#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

// The defaults that a host's own stream inherits.

namespace {

class HostInputStream : public KQ::NSInputStream {
 public:
  explicit HostInputStream(bool* destroyed = nullptr) : destroyed_(destroyed) {}
  ~HostInputStream() override {
    if (destroyed_ != nullptr) *destroyed_ = true;
  }
  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override {
    for (std::uint64_t i = 0; i < maxLength; ++i) buffer[i] = 'x';
    return static_cast<std::int64_t>(maxLength);
  }
  bool hasBytesAvailable() override { return true; }

 private:
  bool* destroyed_;
};

class HostOutputStream : public KQ::NSOutputStream {
 public:
  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override {
    bytes.append(reinterpret_cast<const char*>(buffer), maxLength);
    return static_cast<std::int64_t>(maxLength);
  }
  std::string bytes;
};

}  // namespace

TEST(NSStream, AHostsInputStreamNeedsOnlyToRead) {
  HostInputStream stream;
  KQ::NSInputStream& base = stream;
  base.open();
  EXPECT_EQ(KQ::NSStreamStatusOpen, base.streamStatus());
  std::uint16_t value = 0;
  EXPECT_TRUE(KQZipReadBlock16(base, &value));
  EXPECT_EQ(0x7878, value);
  base.close();
  base.close();
  EXPECT_EQ(nullptr, base.streamError());
}

TEST(NSStream, AHostsStreamHasNoOffsetAndCannotBeMoved) {
  HostInputStream input;
  HostOutputStream output;
  EXPECT_FALSE(input.NSStreamFileCurrentOffsetKey().has_value());
  EXPECT_FALSE(output.NSStreamFileCurrentOffsetKey().has_value());
  EXPECT_FALSE(input.setNSStreamFileCurrentOffsetKey(0));
  EXPECT_FALSE(output.setNSStreamFileCurrentOffsetKey(0));
}

TEST(NSStream, AHostsOutputStreamNeedsOnlyToWrite) {
  HostOutputStream stream;
  KQ::NSOutputStream& base = stream;
  base.open();
  EXPECT_EQ(KQ::NSStreamStatusOpen, base.streamStatus());
  EXPECT_TRUE(KQZipWriteBlockBytes(base, "bytes", 5));
  EXPECT_TRUE(base.flush());
  base.close();
  EXPECT_EQ("bytes", stream.bytes);
  EXPECT_EQ(nullptr, base.streamError());
}

TEST(NSStream, AHostsOutputStreamHasNoBytesInMemory) {
  EXPECT_EQ(nullptr, HostOutputStream().NSStreamDataWrittenToMemoryStreamKey());
}

TEST(NSStream, AStreamIsDestroyedThroughItsBase) {
  bool destroyed = false;
  std::unique_ptr<KQ::NSStream> stream = std::make_unique<HostInputStream>(&destroyed);
  stream.reset();
  EXPECT_TRUE(destroyed);
}

TEST(NSStream, IsOneOfAKind) {
  static_assert(!std::is_copy_constructible_v<HostInputStream>);
  static_assert(!std::is_copy_assignable_v<HostOutputStream>);
  static_assert(std::is_abstract_v<KQ::NSInputStream>);
  static_assert(std::is_abstract_v<KQ::NSOutputStream>);
}
