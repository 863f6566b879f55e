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

/// Where a stream stands in its life.
enum NSStreamStatus {
  NSStreamStatusNotOpen,  ///< Made, and not opened yet.
  NSStreamStatusOpen,     ///< Ready to move bytes.
  NSStreamStatusAtEnd,    ///< The last read met the end.
  NSStreamStatusClosed,   ///< Closed, and everything went well.
  NSStreamStatusError     ///< Something failed, see NSStream::streamError().
};

/// What input and output streams share. A stream belongs to whoever opened it and is used by one thread at
/// a time. A host may derive streams of its own; the defaults here suit one that needs no opening and has
/// no offset.
class KQZIP_EXPORT NSStream {
 public:
  virtual ~NSStream();
  NSStream(const NSStream&) = delete;             ///< A stream is one of a kind.
  NSStream& operator=(const NSStream&) = delete;  ///< A stream is one of a kind.

  /// Makes the stream ready. Whether that went well shows in streamStatus() and at the first transfer.
  virtual void open();

  /// Ends the use of the stream; a second call does nothing. Closing an output stream flushes it, and a
  /// failure shows in streamStatus().
  virtual void close();

  /// Where the stream stands.
  virtual NSStreamStatus streamStatus() const;

  /// The error behind NSStreamStatusError or a refused offset; empty when there was none.
  virtual std::shared_ptr<const NSError> streamError() const;

  /// The absolute offset in bytes, from the first byte of the file or the memory, at which the next transfer
  /// starts; nothing for a stream that has none. For output it counts what has been accepted, written
  /// through or not.
  virtual std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const;

  /// Moves the next read to `offset`, which may lie beyond the end (reads then meet the end). Returns false,
  /// the library's input streams with a streamError(), when the stream cannot be moved or the offset does not
  /// fit the system's signed 64-bit offset; the stream then stands where it stood.
  virtual bool setNSStreamFileCurrentOffsetKey(std::uint64_t offset);

 protected:
  NSStream() = default;
};

/// A stream to read from. A host's own overrides read() and hasBytesAvailable(), and the two operations on
/// the offset if archives are to be read from it.
class KQZIP_EXPORT NSInputStream : public NSStream {
 public:
  ~NSInputStream() override;

  /// A stream on the file at `path`, which is opened at once; nothing when it cannot be opened for reading.
  /// What can be opened and not read, a folder for instance, gives a stream whose reads fail.
  ///
  /// It keeps a small buffer in front of the file, reads large requests straight into the caller's memory,
  /// and delivers everything asked for unless the file ends. Moving the offset costs no system call; after a
  /// jump only a little is read ahead, and more once the reading turns out to be sequential.
  static std::shared_ptr<NSInputStream> inputStreamWithFileAtPath(const std::string& path);

  /// A stream on the bytes of `data`, with an offset that can be set.
  static std::shared_ptr<NSInputStream> inputStreamWithData(std::shared_ptr<const NSData> data);

  /// Reads up to `maxLength` bytes into `buffer`. Returns how many were read: 0 at the end, negative on an
  /// error. After an error what `buffer` holds is undefined.
  virtual std::int64_t read(std::uint8_t* buffer, std::uint64_t maxLength) = 0;

  /// False when a read would certainly meet the end; true when there are bytes, or only a read can tell.
  virtual bool hasBytesAvailable() = 0;

 private:
  friend class NSBufferedInputStream;
  // This object as one of the library's own; null for a host's.
  NSBufferedInputStream* buffered_ = nullptr;
};

/// A stream to write to. A host's own overrides write() and NSStreamFileCurrentOffsetKey(), and flush() if it
/// has a buffer.
class KQZIP_EXPORT NSOutputStream : public NSStream {
 public:
  ~NSOutputStream() override;

  /// A stream to a file that open() creates, or empties if it exists. It is always made: that the file
  /// could not be opened shows at the first write.
  ///
  /// Small writes are collected in a buffer; a large one goes out together with what is buffered. The first
  /// error sticks: every later write and flush() reports it.
  static std::shared_ptr<NSOutputStream> outputStreamToFileAtPath(const std::string& path);

  /// A stream that keeps what is written, see NSStreamDataWrittenToMemoryStreamKey().
  static std::shared_ptr<NSOutputStream> outputStreamToMemory();

  /// Writes up to `maxLength` bytes from `buffer`. Returns how many were taken: 0 when nothing was, negative
  /// on an error.
  virtual std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) = 0;

  /// Passes on what is buffered. Returns true when everything accepted so far has reached its destination;
  /// a stream without a buffer keeps the default, which is true.
  virtual bool flush();

  /// Everything written so far, for a stream to memory; empty for every other.
  virtual std::shared_ptr<const NSData> NSStreamDataWrittenToMemoryStreamKey() const;

 private:
  friend class NSBufferedOutputStream;
  // This object as one of the library's own; null for a host's.
  NSBufferedOutputStream* buffered_ = nullptr;
};

}  // namespace KQ
