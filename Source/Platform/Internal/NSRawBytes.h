#pragma once

#include <cstdint>
#include <memory>

namespace KQ {

/// Memory without contents, so that large buffers are not cleared first. Not every standard library has
/// std::make_unique_for_overwrite() yet.
inline std::unique_ptr<std::uint8_t[]> NSRawBytes(std::uint64_t length) {
  return std::unique_ptr<std::uint8_t[]>(new std::uint8_t[length]);
}

}  // namespace KQ
