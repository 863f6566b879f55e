#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "../NSStream.h"

namespace KQ {

/// An output stream that keeps what is written; see NSOutputStream::outputStreamToMemory().
class NSMemoryOutputStream final : public NSOutputStream {
 public:
  void open() override;
  void close() override;
  NSStreamStatus streamStatus() const override { return status_; }
  std::shared_ptr<const NSError> streamError() const override { return error_; }
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override { return bytes_.size(); }
  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override;
  std::shared_ptr<const NSData> NSStreamDataWrittenToMemoryStreamKey() const override;

 private:
  std::vector<std::uint8_t> bytes_;
  NSStreamStatus status_ = NSStreamStatusNotOpen;
  std::shared_ptr<const NSError> error_;
};

}  // namespace KQ
