#pragma once

#include <cstdint>
#include <cstring>

#include "../NSStream.h"

namespace KQ {

/// An input stream of the library's own, with access to its buffer: most reads are of 2 to 8 bytes, and a
/// record is best decoded in one piece.
class NSBufferedInputStream : public NSInputStream {
 public:
  /// `stream` as one of these; null for a stream of a host.
  static NSBufferedInputStream* of(NSInputStream& stream) { return stream.buffered_; }
  static const NSBufferedInputStream* of(const NSInputStream& stream) { return stream.buffered_; }

  /// takeAtHand() for a stream of any kind; false for a stream of a host.
  static bool take(NSInputStream& stream, void* destination, std::uint64_t length) {
    return stream.buffered_ != nullptr && stream.buffered_->takeAtHand(destination, length);
  }

  /// Reads `length` buffered bytes, as read() does, but inline. Takes nothing and returns false when fewer
  /// are buffered or `length` is 0; read() then fetches more.
  bool takeAtHand(void* destination, std::uint64_t length) {
    if (length == 0 || static_cast<std::uint64_t>(atHandEnd_ - atHand_) < length) return false;
    std::memcpy(destination, atHand_, length);
    atHand_ += length;
    return true;
  }

  /// Takes `length` bytes that are at hand and copies them nowhere.
  void skipAtHand(std::uint64_t length) { atHand_ += length; }

  /// Peeks at the next `length` bytes without consuming them. Valid until the stream is next used. Null when
  /// fewer are buffered, whether or not more follow.
  const std::uint8_t* bytesAtHand(std::uint64_t length) const {
    return static_cast<std::uint64_t>(atHandEnd_ - atHand_) < length ? nullptr : atHand_;
  }

 protected:
  NSBufferedInputStream() { buffered_ = this; }

  /// The bytes at hand: the part of the buffer that the next reads deliver; both null for none. They may be
  /// consumed without a call of the subclass. It offers none while its status is not Open.
  const std::uint8_t* atHand_ = nullptr;
  const std::uint8_t* atHandEnd_ = nullptr;  ///< After the last of them.
};

/// An output stream of the library's own, with access to its buffer: most writes are of 2 to 8 bytes.
class NSBufferedOutputStream : public NSOutputStream {
 public:
  /// putIntoRoom() for a stream of any kind; false for a stream of a host.
  static bool put(NSOutputStream& stream, const void* source, std::uint64_t length) {
    return stream.buffered_ != nullptr && stream.buffered_->putIntoRoom(source, length);
  }

  /// Writes `length` bytes into the buffer's free room, as write() does, but inline. Takes nothing and
  /// returns false when the room is too small or `length` is 0; write() then makes room.
  bool putIntoRoom(const void* source, std::uint64_t length) {
    if (length == 0 || static_cast<std::uint64_t>(roomEnd_ - room_) < length) return false;
    std::memcpy(room_, source, length);
    room_ += length;
    return true;
  }

 protected:
  NSBufferedOutputStream() { buffered_ = this; }

  /// The free room in the buffer, where the next bytes go. Both are null for a stream that cannot be written
  /// to or has failed.
  std::uint8_t* room_ = nullptr;
  std::uint8_t* roomEnd_ = nullptr;  ///< After the last byte of the room.
};

}  // namespace KQ
