#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "../Platform/NSStream.h"
#include "KQZipArchiveState.h"

/// A stream on the data of an entry; see KQZipArchive::stream(). It reads what it is asked for, without a
/// buffer.
class KQZipEntryStream final : public KQ::NSInputStream {
 public:
  /// The data begin at `dataAt`.
  KQZipEntryStream(const KQZipArchiveState& archive, std::uint32_t index, std::uint64_t dataAt)
      : archive_(archive), index_(index), dataAt_(dataAt) {}

  void open() override {}
  void close() override;
  KQ::NSStreamStatus streamStatus() const override { return status_; }
  std::shared_ptr<const KQ::NSError> streamError() const override { return error_; }
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override { return position_; }
  bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset) override;
  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override;
  bool hasBytesAvailable() override { return position_ < _length(); }

 private:
  std::uint64_t _length() const { return archive_.index[index_].length; }
  std::int64_t _end();
  std::int64_t _fail();

  const KQZipArchiveState& archive_;
  std::uint32_t index_;
  std::uint64_t dataAt_;
  std::uint64_t position_ = 0;
  // Of what was read so far; nothing once that is not all from the start on.
  std::optional<std::uint32_t> crc_ = 0;
  KQ::NSStreamStatus status_ = KQ::NSStreamStatusOpen;
  std::shared_ptr<const KQ::NSError> error_;
};
