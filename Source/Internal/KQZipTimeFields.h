#pragma once

#include <cstddef>
#include <cstdint>

// The three ways in which an archive says when an entry was last changed: to the second in local time, to the
// second since 1970 in 32 bits, and in tenths of a microsecond since 1601 in 64 bits. For the library's own
// use.

/// The MS-DOS date and time of a header.
struct KQZipDOSTime {
  std::uint16_t date = 0;
  std::uint16_t time = 0;

  /// As KQZipFileEntry::setModificationDate() makes it: a year outside 1980 to 2107 wraps.
  static KQZipDOSTime wrapped(std::int64_t secondsSince1970);

  /// A time outside 1980 to 2107 becomes the nearest one that can be said.
  static KQZipDOSTime clamped(std::int64_t secondsSince1970);
};

/// The extra field that says the exact time: 0x5455 where its 32 bits hold the time, otherwise 0x000A, and
/// none where neither does.
class KQZipTimeField {
 public:
  /// Bytes of the longest one.
  static constexpr std::size_t longest = 36;

  explicit KQZipTimeField(std::int64_t secondsSince1970) : seconds_(secondsSince1970) {}

  /// Bytes of the field with its id and size; 0 when there is none.
  std::size_t size() const;

  /// Writes the field into room for size() bytes.
  void encode(std::uint8_t* room) const;

 private:
  std::int64_t seconds_;
};
