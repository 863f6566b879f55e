#pragma once

#include <cstdint>
#include <cstring>

#include "../NSStream.h"

namespace KQ {

/// An input stream of the library's own, with a buffer that can be looked into: most reads are of 2 to 8
/// bytes, and a record is decoded best in one piece.
class NSBufferedInputStream : public NSInputStream {
 public:
  /// `stream` as one of these; null for a host's own.
  static NSBufferedInputStream* of(NSInputStream& stream) { return stream.buffered_; }
  static const NSBufferedInputStream* of(const NSInputStream& stream) {
    return stream.buffered_;
  }  ///< The same.

  /// takeAtHand() of a stream of any kind; false for a host's own.
  static bool take(NSInputStream& stream, void* destination, std::uint64_t length) {
    return stream.buffered_ != nullptr && stream.buffered_->takeAtHand(destination, length);
  }

  /// Takes `length` bytes out of what the stream has at hand, as a read() of them would, but inline. False,
  /// and nothing is taken, when the stream has fewer at hand or `length` is 0; read() then fetches more.
  bool takeAtHand(void* destination, std::uint64_t length) {
    if (length == 0 || static_cast<std::uint64_t>(atHandEnd_ - atHand_) < length) return false;
    std::memcpy(destination, atHand_, length);
    atHand_ += length;
    return true;
  }

  /// Peeks at the next `length` bytes without consuming them. Valid until the stream is next used. Null when
  /// the stream has fewer at hand, whether or not more follow.
  const std::uint8_t* bytesAtHand(std::uint64_t length) const {
    return static_cast<std::uint64_t>(atHandEnd_ - atHand_) < length ? nullptr : atHand_;
  }

 protected:
  NSBufferedInputStream() { buffered_ = this; }

  /// The bytes at hand, which the stream's next reads would deliver: a part of its buffer; both null for
  /// none. A subclass takes into account that bytes go without its doing, and offers none while its status
  /// is not Open.
  const std::uint8_t* atHand_ = nullptr;
  const std::uint8_t* atHandEnd_ = nullptr;  ///< After the last of them.
};

/// An output stream of the library's own, with a buffer that can be written to: most writes are of 2 to 8
/// bytes.
class NSBufferedOutputStream : public NSOutputStream {
 public:
  /// putIntoRoom() of a stream of any kind; false for a host's own.
  static bool put(NSOutputStream& stream, const void* source, std::uint64_t length) {
    return stream.buffered_ != nullptr && stream.buffered_->putIntoRoom(source, length);
  }

  /// Puts `length` bytes into the room that the stream's buffer has left, as a write() of them would, but
  /// inline. False, and nothing is taken, when there is not enough room or `length` is 0; write() then makes
  /// some.
  bool putIntoRoom(const void* source, std::uint64_t length) {
    if (length == 0 || static_cast<std::uint64_t>(roomEnd_ - room_) < length) return false;
    std::memcpy(room_, source, length);
    room_ += length;
    return true;
  }

 protected:
  NSBufferedOutputStream() { buffered_ = this; }

  /// Where the next bytes go in the stream's buffer. Both are null for a stream that cannot be written to or
  /// has failed.
  std::uint8_t* room_ = nullptr;
  std::uint8_t* roomEnd_ = nullptr;  ///< After the last byte of the room.
};

}  // namespace KQ
