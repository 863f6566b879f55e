#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <variant>

#include "../Platform/NSData.h"

/// The data of an extra field: a shared buffer, or 24 bytes without one. Nearly every field is a Zip64 field
/// of 24 bytes whose data nobody asks for, so the buffer is made for those who do. For the library's own use.
class KQZipFieldData {
 public:
  /// No data.
  KQZipFieldData() = default;

  /// The bytes of `buffer`; no data for a null one.
  explicit KQZipFieldData(std::shared_ptr<const KQ::NSData> buffer) : data_(std::move(buffer)) {}

  /// A copy of `length` bytes.
  KQZipFieldData(const std::uint8_t* bytes, std::size_t length) {
    if (length == inlineLength) {
      std::copy_n(bytes, length, data_.emplace<Inline>().begin());
    } else {
      data_ = KQ::NSData::dataWithBytes(bytes, length);
    }
  }

  /// The data as a buffer, the same one each time; null when there is none.
  const std::shared_ptr<const KQ::NSData>& buffer() {
    if (const auto* const bytes = std::get_if<Inline>(&data_))
      data_ = KQ::NSData::dataWithBytes(bytes->data(), bytes->size());
    return std::get<Buffer>(data_);
  }

  /// The first byte; null when there is none.
  const std::uint8_t* bytes() const {
    if (const auto* const bytes = std::get_if<Inline>(&data_)) return bytes->data();
    const Buffer& buffer = std::get<Buffer>(data_);
    return buffer ? buffer->bytes() : nullptr;
  }

  /// Number of bytes; 0 without data.
  std::uint64_t length() const {
    if (std::holds_alternative<Inline>(data_)) return inlineLength;
    const Buffer& buffer = std::get<Buffer>(data_);
    return buffer ? buffer->length() : 0;
  }

 private:
  static constexpr std::size_t inlineLength = 24;
  using Inline = std::array<std::uint8_t, inlineLength>;
  using Buffer = std::shared_ptr<const KQ::NSData>;

  std::variant<Buffer, Inline> data_;
};
