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
  /// What open() does with an existing file.
  enum class Existing { Emptied, Refused };

  explicit NSFileOutputStream(std::string path, Existing existing = Existing::Emptied)
      : path_(std::move(path)), existing_(existing) {}
  ~NSFileOutputStream() override;

  /// Whether open() refused an existing item at the path, a dangling link included.
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

  /// Copies up to `length` of the next bytes of `source` inside the system. Returns the number of bytes
  /// copied.
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
  // Filled from the front; the free room at the end is offered.
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::uint64_t passedOn_ = 0;
};

/// Copies up to `length` bytes from one stream to the other inside the system, which saves a copy of the
/// data. Returns the number of bytes copied. It is 0 unless both streams are files, before the first read
/// from the source, while the source has bytes buffered, at its end and after a failure: reading and writing
/// then copies the bytes, or finds the reason.
std::uint64_t NSMoveBytes(NSInputStream& source, NSOutputStream& target, std::uint64_t length);

}  // namespace KQ
