#pragma once

#include <cstdint>
#include <cstring>
#include <optional>

#include "../Platform/NSStream.h"

// Streams over bytes that somebody else keeps, for records in the middle of a block. For the library's own
// use.

/// Reads `length` bytes at `bytes`, the first of which has the offset 0.
class KQZipBlockInputStream final : public KQ::NSInputStream {
 public:
  KQZipBlockInputStream(const std::uint8_t* bytes, std::uint64_t length) : bytes_(bytes), length_(length) {}

  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override {
    const std::uint64_t left = position_ < length_ ? length_ - position_ : 0;
    const std::uint64_t count = maxLength < left ? maxLength : left;
    if (count != 0) std::memcpy(buffer, bytes_ + position_, count);
    position_ += count;
    return static_cast<std::int64_t>(count);
  }

  bool hasBytesAvailable() override { return position_ < length_; }

  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override { return position_; }

  bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset) override {
    position_ = offset;
    return true;
  }

 private:
  const std::uint8_t* bytes_;
  std::uint64_t length_;
  std::uint64_t position_ = 0;
};

/// Writes over `length` bytes at `bytes`, the first of which has the offset 0, and fails behind them.
class KQZipBlockOutputStream final : public KQ::NSOutputStream {
 public:
  KQZipBlockOutputStream(std::uint8_t* bytes, std::uint64_t length) : bytes_(bytes), length_(length) {}

  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override {
    if (maxLength > length_ - position_) return -1;
    if (maxLength != 0) std::memcpy(bytes_ + position_, buffer, maxLength);
    position_ += maxLength;
    return static_cast<std::int64_t>(maxLength);
  }

  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override { return position_; }

 private:
  std::uint8_t* bytes_;
  std::uint64_t length_;
  std::uint64_t position_ = 0;
};
