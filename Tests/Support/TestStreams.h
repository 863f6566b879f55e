#pragma once

#include <KQZip/KQZip.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace KQTest {

/// An input stream on a string that records every read and fails on demand.
class TestInputStream : public KQ::NSInputStream {
 public:
  explicit TestInputStream(std::string bytes) : bytes_(std::move(bytes)) {}

  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override {
    reads.push_back(maxLength);
    if (beforeRead) beforeRead(reads.size());
    if (failAtRead == static_cast<std::int64_t>(reads.size())) return -1;
    const std::uint64_t left = position < bytes_.size() ? bytes_.size() - position : 0;
    std::uint64_t count = maxLength < left ? maxLength : left;
    if (count > longestRead) count = longestRead;
    if (count != 0) std::memcpy(buffer, bytes_.data() + position, count);
    position += count;
    return static_cast<std::int64_t>(count);
  }

  bool hasBytesAvailable() override { return position < bytes_.size(); }

  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override {
    return hasOffset ? std::optional<std::uint64_t>(position) : std::nullopt;
  }

  bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset) override {
    offsetsSet.push_back(offset);
    if (!hasOffset || refuseOffsets) return false;
    position = offset;
    return true;
  }

  std::shared_ptr<const KQ::NSError> streamError() const override { return error; }

  std::vector<std::uint64_t> reads;             ///< The length asked for by each read.
  std::vector<std::uint64_t> offsetsSet;        ///< Every offset that was asked for.
  std::function<void(std::size_t)> beforeRead;  ///< Called with the number of the read, from 1.
  std::uint64_t position = 0;
  std::int64_t failAtRead = -1;  ///< The read, counted from 1, that returns -1.
  std::uint64_t longestRead = UINT64_MAX;
  bool hasOffset = true;
  bool refuseOffsets = false;
  std::shared_ptr<const KQ::NSError> error;

 private:
  std::string bytes_;
};

/// An output stream that keeps what is written, records every write and fails on demand.
class TestOutputStream : public KQ::NSOutputStream {
 public:
  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override {
    writes.push_back(maxLength);
    if (beforeWrite) beforeWrite(writes.size());
    const auto number = static_cast<std::int64_t>(writes.size());
    if (failAtWrite == number || (failForGood && failAtWrite != -1 && number > failAtWrite))
      return failResult;
    std::uint64_t count = maxLength;
    if (shortenAtWrite == number && count > shortenTo) count = shortenTo;
    bytes.append(reinterpret_cast<const char*>(buffer), count);
    return static_cast<std::int64_t>(count);
  }

  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override {
    return hasOffset ? std::optional<std::uint64_t>(startOffset + bytes.size()) : std::nullopt;
  }

  bool flush() override {
    ++flushes;
    return flushResult;
  }

  std::string bytes;                             ///< Everything written so far.
  std::vector<std::uint64_t> writes;             ///< The length of each write.
  std::function<void(std::size_t)> beforeWrite;  ///< Called with the number of the write, from 1.
  std::uint64_t startOffset = 0;                 ///< The offset of the first byte.
  bool hasOffset = true;
  std::int64_t failAtWrite = -1;     ///< The write, counted from 1, that returns failResult.
  bool failForGood = false;          ///< Every later write fails too.
  std::int64_t failResult = -1;      ///< -1 for an error, 0 for nothing taken.
  std::int64_t shortenAtWrite = -1;  ///< The write, counted from 1, that takes only shortenTo bytes.
  std::uint64_t shortenTo = 1;
  bool flushResult = true;
  int flushes = 0;
};

}  // namespace KQTest
