#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "NSBufferedStreams.h"

namespace KQ {

/// An input stream on a byte buffer; see NSInputStream::inputStreamWithData().
class NSMemoryInputStream final : public NSBufferedInputStream {
 public:
  explicit NSMemoryInputStream(std::shared_ptr<const NSData> data) : data_(std::move(data)) {}

  void open() override;
  void close() override;
  NSStreamStatus streamStatus() const override { return status_; }
  std::shared_ptr<const NSError> streamError() const override { return error_; }
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override { return _position(); }
  bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset) override;
  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override;
  bool hasBytesAvailable() override;

 private:
  std::uint64_t _position() const;
  std::uint64_t _bytesLeft() const;
  void _standAt(std::uint64_t position);

  std::shared_ptr<const NSData> data_;
  // The offset of the next read. While bytes are at hand, their number gives it instead.
  std::uint64_t position_ = 0;
  NSStreamStatus status_ = NSStreamStatusNotOpen;
  std::shared_ptr<const NSError> error_;
};

}  // namespace KQ
