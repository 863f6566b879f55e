#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "KQExport.h"
#include "NSData.h"
#include "NSError.h"

namespace KQ {

class NSBufferedInputStream;
class NSBufferedOutputStream;

/// The state of a stream.
enum NSStreamStatus {
  NSStreamStatusNotOpen,  ///< Not opened yet.
  NSStreamStatusOpen,     ///< Ready to read or write.
  NSStreamStatusAtEnd,    ///< The last read reached the end.
  NSStreamStatusClosed,   ///< Closed without an error.
  NSStreamStatusError     ///< Something failed; see NSStream::streamError().
};

/// What input and output streams share. The code that opens a stream owns it; one thread uses it at a time. A
/// host may derive streams of its own: the defaults here suit a stream that needs no opening and has no
/// offset.
class KQZIP_EXPORT NSStream {
 public:
  virtual ~NSStream();
  NSStream(const NSStream&) = delete;             ///< A stream is one of a kind.
  NSStream& operator=(const NSStream&) = delete;  ///< A stream is one of a kind.

  /// Makes the stream ready. A failure shows in streamStatus() and at the first read or write.
  virtual void open();

  /// Closes the stream; a second call does nothing. Closing an output stream flushes it; a failure shows in
  /// streamStatus().
  virtual void close();

  /// The stream's state.
  virtual NSStreamStatus streamStatus() const;

  /// The error that led to NSStreamStatusError, or that of a refused offset; empty without one.
  virtual std::shared_ptr<const NSError> streamError() const;

  /// The offset of the next read or write, in bytes from the start of the file or the memory; nothing for a
  /// stream without offsets. For output it counts the accepted bytes, including those still in the buffer.
  virtual std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const;

  /// Moves the next read to `offset`, which may be beyond the end; reads there find the end. Returns false
  /// when the stream cannot be moved or `offset` does not fit the system's signed 64-bit offset. The stream
  /// then keeps its offset, and the library's input streams have a streamError().
  virtual bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset);

 protected:
  NSStream() = default;
};

/// A stream to read from. A host's own stream overrides read() and hasBytesAvailable(), and for archives also
/// the two operations on the offset.
class KQZIP_EXPORT NSInputStream : public NSStream {
 public:
  ~NSInputStream() override;

  /// A stream on the file at `path`, which is opened at once; nothing when it cannot be opened for reading.
  /// An item that can be opened but not read, such as a folder, gives a stream whose reads fail.
  ///
  /// The stream has a small buffer. It reads large requests straight into the caller's memory, and delivers
  /// everything requested unless the file ends. Moving the offset costs no system call. After a jump the
  /// stream reads only a little ahead, and more once reading turns out to be sequential.
  static std::shared_ptr<NSInputStream> inputStreamWithFileAtPath(const std::string& path);

  /// A stream on the bytes of `data`, with an offset that can be set.
  static std::shared_ptr<NSInputStream> inputStreamWithData(std::shared_ptr<const NSData> data);

  /// Reads up to `maxLength` bytes into `buffer`. Returns the number of bytes read: 0 at the end, negative on
  /// an error. After an error the contents of `buffer` are undefined.
  virtual std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) = 0;

  /// False when the next read is sure to find the end; true when there are bytes, or only a read can tell.
  virtual bool hasBytesAvailable() = 0;

 private:
  friend class NSBufferedInputStream;
  // This stream as one of the library's own; null for a stream of a host.
  NSBufferedInputStream* buffered_ = nullptr;
};

/// A stream to write to. A host's own stream overrides write() and NSStreamFileCurrentOffsetKey(), and
/// flush() if it has a buffer.
class KQZIP_EXPORT NSOutputStream : public NSStream {
 public:
  ~NSOutputStream() override;

  /// A stream to the file at `path`, which open() creates, or empties if it exists. There is always a stream:
  /// a file that cannot be opened shows at the first write.
  ///
  /// Small writes are collected in a buffer; a large one is written together with the buffer's contents. The
  /// first error sticks: every later write and flush() reports it.
  static std::shared_ptr<NSOutputStream> outputStreamToFileAtPath(const std::string& path);

  /// A stream that keeps what is written; see NSStreamDataWrittenToMemoryStreamKey().
  static std::shared_ptr<NSOutputStream> outputStreamToMemory();

  /// Writes up to `maxLength` bytes from `buffer`. Returns the number of bytes accepted, 0 included; negative
  /// on an error.
  virtual std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) = 0;

  /// Writes out the buffer. Returns true when everything accepted so far has reached its destination. The
  /// default, for a stream without a buffer, returns true.
  virtual bool flush();

  /// Everything written so far to a memory stream; empty for any other stream.
  virtual std::shared_ptr<const NSData> NSStreamDataWrittenToMemoryStreamKey() const;

 private:
  friend class NSBufferedOutputStream;
  // This stream as one of the library's own; null for a stream of a host.
  NSBufferedOutputStream* buffered_ = nullptr;
};

}  // namespace KQ
