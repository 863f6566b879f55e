#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "NSBufferedStreams.h"
#include "NSFileDescriptor.h"

namespace KQ {

class NSFileInputStream;

/// An output stream to a file; see NSOutputStream::outputStreamToFileAtPath().
class NSFileOutputStream final : public NSBufferedOutputStream {
 public:
  /// What open() does with a file that exists.
  enum class Existing { Emptied, Refused };

  explicit NSFileOutputStream(std::string path, Existing existing = Existing::Emptied)
      : path_(std::move(path)), existing_(existing) {}
  ~NSFileOutputStream() override;

  /// Whether open() refused what is at the path: a file, or anything else, a link that leads nowhere
  /// included.
  bool hasRefusedExisting() const { return hasRefusedExisting_; }

  void open() override;
  void close() override;
  NSStreamStatus streamStatus() const override { return status_; }
  std::shared_ptr<const NSError> streamError() const override { return error_; }
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override {
    return passedOn_ + _buffered();
  }
  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override;
  bool flush() override;

  /// Takes up to `length` of the next bytes of `source` without bringing them here. Returns how many.
  std::uint64_t takeFrom(NSFileInputStream& source, std::uint64_t length);

 private:
  std::uint64_t _buffered() const;
  void _offerNoRoom();
  bool _writeThrough(const std::uint8_t* buffer, std::uint64_t length);
  bool _fail(int code);

  std::string path_;
  Existing existing_;
  bool hasRefusedExisting_ = false;
  NSFileDescriptor file_;
  NSStreamStatus status_ = NSStreamStatusNotOpen;
  std::shared_ptr<const NSError> error_;
  // Filled from the front; the room behind what it holds is offered.
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::uint64_t passedOn_ = 0;
};

/// Moves up to `length` bytes from one stream to the other, where both are files and the system does that by
/// itself: it spares a copy of the data. Returns how many. None are moved between other streams, before the
/// source was read from, while it has bytes buffered, at its end and after a failure: reading and writing
/// then moves them, or tells what is wrong.
std::uint64_t NSMoveBytes(NSInputStream& source, NSOutputStream& target, std::uint64_t length);

}  // namespace KQ
