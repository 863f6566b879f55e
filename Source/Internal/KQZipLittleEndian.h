#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>

// Integers as bytes, the lowest first, on any host: one load or store each.

/// The integer in the first `sizeof(Integer)` of the bytes.
template <std::unsigned_integral Integer>
Integer KQZipLoad(const std::uint8_t* bytes) {
  std::array<std::uint8_t, sizeof(Integer)> inHostOrder;
  std::memcpy(inHostOrder.data(), bytes, sizeof(Integer));
  if constexpr (std::endian::native != std::endian::little)
    std::reverse(inHostOrder.begin(), inHostOrder.end());
  return std::bit_cast<Integer>(inHostOrder);
}

/// Stores the integer in the first `sizeof(Integer)` of the bytes.
template <std::unsigned_integral Integer>
void KQZipStore(Integer value, std::uint8_t* bytes) {
  auto inHostOrder = std::bit_cast<std::array<std::uint8_t, sizeof(Integer)>>(value);
  if constexpr (std::endian::native != std::endian::little)
    std::reverse(inHostOrder.begin(), inHostOrder.end());
  std::memcpy(bytes, inHostOrder.data(), sizeof(Integer));
}
