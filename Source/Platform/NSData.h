#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include "KQExport.h"

namespace KQ {

/// Releases memory that came from `std::malloc` or `std::calloc`.
struct NSFree {
  void operator()(std::uint8_t* bytes) const { std::free(bytes); }  ///< Frees the block.
};

/// An immutable byte buffer, passed as `std::shared_ptr<const NSData>`. Its holders share the bytes, and any
/// number of threads may read them.
class KQZIP_EXPORT NSData {
 public:
  /// A block of memory that a buffer can own.
  using Block = std::unique_ptr<std::uint8_t[], NSFree>;

  /// A buffer with a copy of `length` bytes from `bytes`, which may be null when `length` is 0.
  static std::shared_ptr<const NSData> dataWithBytes(const void* bytes, std::uint64_t length);

  /// A buffer that takes ownership of `bytes`, a block of at least `length` bytes, without a copy.
  static std::shared_ptr<const NSData> dataWithBytesNoCopy(Block bytes, std::uint64_t length);

  /// Use the static operations instead.
  NSData(Block bytes, std::uint64_t length)
      : block_(std::move(bytes)), bytes_(block_.get()), length_(length) {}
  /// Use the static operations instead.
  NSData(const void* bytes, std::uint64_t length);

  NSData(const NSData&) = delete;             ///< A buffer is shared, never copied.
  NSData& operator=(const NSData&) = delete;  ///< A buffer is never changed.

  /// The first byte; null only when length() is 0.
  const std::uint8_t* bytes() const { return bytes_; }

  /// Number of bytes.
  std::uint64_t length() const { return length_; }

  /// True when both buffers hold the same bytes.
  bool operator==(const NSData& other) const;

 private:
  static constexpr std::uint64_t mostInside = 24;

  Block block_;
  // Short contents are stored inline: nearly every buffer holds the data of one extra field.
  std::array<std::uint8_t, mostInside> inside_{};
  const std::uint8_t* bytes_;
  std::uint64_t length_;
};

}  // namespace KQ
