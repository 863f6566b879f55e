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
  /// Opens the file; isUsable() says whether that went well.
  explicit NSFileInputStream(std::string path);

  /// Whether the file could be opened.
  bool isUsable() const { return usable_; }

  void open() override;
  void close() override;
  NSStreamStatus streamStatus() const override { return status_; }
  std::shared_ptr<const NSError> streamError() const override { return error_; }
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override;
  bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset) override;
  std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) override;
  bool hasBytesAvailable() override;

  /// Writes up to `length` of the next bytes to `target` without reading them. Returns how many, and stands
  /// behind them; none while bytes are buffered, and before the first read.
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
  // Found out by the first read, or when it is needed before.
  mutable std::optional<bool> seekable_;
  NSStreamStatus status_ = NSStreamStatusNotOpen;
  std::shared_ptr<const NSError> error_;

  // Where the next read starts, unless bytes of the buffer are at hand: then their number tells.
  std::uint64_t position_ = 0;
  // Which bytes of the file the buffer holds.
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::uint64_t bufferOffset_ = 0;
  std::uint64_t bufferLength_ = 0;
  std::uint64_t readAhead_ = 0;
  // Where the end of the file was met, so that the read that ends a copy does not ask again.
  std::optional<std::uint64_t> end_;
};

}  // namespace KQ
