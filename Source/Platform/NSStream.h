#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "KQExport.h"
#include "NSData.h"
#include "NSError.h"

namespace KQ {

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

/// A stream to read from.
class KQZIP_EXPORT NSInputStream : public NSStream {
 public:
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

  /// Takes `length` bytes out of what the stream has at hand, as a read() of them would, but inline: most
  /// reads are of 2 to 8 bytes. False, and nothing is taken, when the stream has fewer at hand or `length` is
  /// 0; read() then fetches more.
  bool takeAtHand(void* destination, std::uint64_t length) {
    if (length == 0 || static_cast<std::uint64_t>(atHandEnd_ - atHand_) < length) return false;
    std::memcpy(destination, atHand_, length);
    atHand_ += length;
    return true;
  }

  /// The next `length` bytes, which stay in the stream: for who looks at a whole record at once. They are
  /// good until the stream is used again. Null when the stream has fewer at hand, whether or not more follow.
  const std::uint8_t* bytesAtHand(std::uint64_t length) const {
    return static_cast<std::uint64_t>(atHandEnd_ - atHand_) < length ? nullptr : atHand_;
  }

 protected:
  /// The bytes at hand, which the stream's next reads would deliver: a part of its buffer. Both are null for
  /// a stream that offers none, as a host's own does unless it sets them. A stream that counts its offset
  /// takes the bytes that have gone into account, and offers none while its status is not Open.
  const std::uint8_t* atHand_ = nullptr;
  const std::uint8_t* atHandEnd_ = nullptr;  ///< Behind the last of them.
};

/// A stream to write to.
class KQZIP_EXPORT NSOutputStream : public NSStream {
 public:
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

  /// Puts `length` bytes into the room that the stream's buffer has left, as a write() of them would, but
  /// inline: most writes are of 2 to 8 bytes. False, and nothing is taken, when there is not enough room or
  /// `length` is 0; write() then makes some.
  bool putIntoRoom(const void* source, std::uint64_t length) {
    if (length == 0 || static_cast<std::uint64_t>(roomEnd_ - room_) < length) return false;
    std::memcpy(room_, source, length);
    room_ += length;
    return true;
  }

 protected:
  /// Where the next bytes go in the stream's buffer. Both are null for a stream that offers no room, as a
  /// host's own does unless it sets them, and for one that cannot be written to or has failed.
  std::uint8_t* room_ = nullptr;
  std::uint8_t* roomEnd_ = nullptr;  ///< Behind the last byte of the room.
};

}  // namespace KQ
