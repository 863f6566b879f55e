#include "NSData.h"

#include <cstring>
#include <new>
#include <utility>

namespace KQ {

std::shared_ptr<const NSData> NSData::dataWithBytes(const void* bytes, std::uint64_t length) {
  if (length == 0) return std::make_shared<const NSData>(Block(), 0);
  if (length <= mostInside) return std::make_shared<const NSData>(bytes, length);
  Block block(static_cast<std::uint8_t*>(std::malloc(length)));
  if (!block) throw std::bad_alloc();
  std::memcpy(block.get(), bytes, length);
  return dataWithBytesNoCopy(std::move(block), length);
}

NSData::NSData(const void* bytes, std::uint64_t length) : bytes_(inside_.data()), length_(length) {
  std::memcpy(inside_.data(), bytes, length);
}

std::shared_ptr<const NSData> NSData::dataWithBytesNoCopy(Block bytes, std::uint64_t length) {
  return std::make_shared<const NSData>(std::move(bytes), length);
}

bool NSData::operator==(const NSData& other) const {
  return length_ == other.length_ && (length_ == 0 || std::memcmp(bytes(), other.bytes(), length_) == 0);
}

}  // namespace KQ
