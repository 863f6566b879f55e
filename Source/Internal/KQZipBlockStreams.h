#pragma once

#include <cstdint>
#include <optional>

#include "../Platform/Internal/NSBufferedStreams.h"

// Streams over bytes that somebody else keeps, for records in the middle of a block. For the library's own
// use.

/// Reads `length` bytes at `bytes`, the first of which has the offset 0. All of them are at hand.
class KQZipBlockInputStream final : public KQ::NSBufferedInputStream {
 public:
  KQZipBlockInputStream(const std::uint8_t* bytes, std::uint64_t length) : bytes_(bytes) {
    atHand_ = bytes;
    atHandEnd_ = bytes + length;
  }

  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override {
    const auto left = static_cast<std::uint64_t>(atHandEnd_ - atHand_);
    const std::uint64_t count = maxLength < left ? maxLength : left;
    takeAtHand(buffer, count);
    return static_cast<std::int64_t>(count);
  }

  bool hasBytesAvailable() override { return atHand_ != atHandEnd_; }

  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override {
    return static_cast<std::uint64_t>(atHand_ - bytes_) + beyond_;
  }

  bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset) override {
    const auto length = static_cast<std::uint64_t>(atHandEnd_ - bytes_);
    beyond_ = offset > length ? offset - length : 0;
    atHand_ = bytes_ + (offset - beyond_);
    return true;
  }

 private:
  const std::uint8_t* bytes_;
  // How far the offset is behind the end.
  std::uint64_t beyond_ = 0;
};

/// Writes over `length` bytes at `bytes`, the first of which has the offset 0, and fails behind them. All of
/// them are its room.
class KQZipBlockOutputStream final : public KQ::NSBufferedOutputStream {
 public:
  KQZipBlockOutputStream(std::uint8_t* bytes, std::uint64_t length) : bytes_(bytes) {
    room_ = bytes;
    roomEnd_ = bytes + length;
  }

  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override {
    if (maxLength == 0 || putIntoRoom(buffer, maxLength)) return static_cast<std::int64_t>(maxLength);
    // What has failed takes nothing more.
    roomEnd_ = room_;
    return -1;
  }

  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override {
    return static_cast<std::uint64_t>(room_ - bytes_);
  }

 private:
  std::uint8_t* bytes_;
};
