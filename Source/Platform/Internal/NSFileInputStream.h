#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "NSBufferedStreams.h"
#include "NSFileDescriptor.h"

namespace KQ {

/// An input stream on a file; see NSInputStream::inputStreamWithFileAtPath().
class NSFileInputStream final : public NSBufferedInputStream {
 public:
  /// Opens the file; see isUsable().
  explicit NSFileInputStream(std::string path);

  /// Whether the file was opened.
  bool isUsable() const { return usable_; }

  void open() override;
  void close() override;
  NSStreamStatus streamStatus() const override { return status_; }
  std::shared_ptr<const NSError> streamError() const override { return error_; }
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override;
  bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset) override;
  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override;
  bool hasBytesAvailable() override;

  /// Copies up to `length` of the next bytes to `target` inside the system, and skips them. Returns the
  /// number of bytes copied: 0 while bytes are buffered, and before the first read.
  std::uint64_t sendTo(const NSFileDescriptor& target, std::uint64_t length);

 private:
  bool _isSeekable() const;
  std::uint64_t _position() const;
  bool _moveAtHand(std::uint64_t offset);
  void _holdBack();
  void _offerBuffered();
  std::uint64_t _takeBuffered(std::uint8_t* buffer, std::uint64_t maxLength);
  std::int64_t _readMore(std::uint8_t* buffer, std::uint64_t maxLength);
  std::int64_t _fillBuffer(std::uint64_t atLeast);
  void _chooseReadAhead();
  std::int64_t _readFile(std::uint8_t* buffer, std::uint64_t length);
  std::int64_t _fail(int code);

  std::string path_;
  NSFileDescriptor file_;
  bool usable_ = false;
  bool open_ = false;
  // Set by the first read, or earlier when needed.
  mutable std::optional<bool> seekable_;
  NSStreamStatus status_ = NSStreamStatusNotOpen;
  std::shared_ptr<const NSError> error_;

  // The offset of the next read. While bytes of the buffer are at hand, their number gives it instead.
  std::uint64_t position_ = 0;
  // The bytes of the file that the buffer holds.
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::uint64_t bufferOffset_ = 0;
  std::uint64_t bufferLength_ = 0;
  std::uint64_t readAhead_ = 0;
  // The end of the file, once found, so that the last read of a copy makes no system call.
  std::optional<std::uint64_t> end_;
};

}  // namespace KQ
