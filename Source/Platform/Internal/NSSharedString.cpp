#include "NSSharedString.h"

#include <algorithm>
#include <new>

namespace KQ {

NSSharedString::NSSharedString(std::string_view bytes) : block_(_newBlock(bytes.size())) {
  std::copy(bytes.begin(), bytes.end(), block_->bytes());
}

NSSharedString::NSSharedString(const std::optional<std::string>& text) {
  if (text) *this = NSSharedString(std::string_view(*text));
}

std::optional<std::string> NSSharedString::string() const {
  if (!isPresent()) return std::nullopt;
  return std::string(view());
}

NSSharedString::Block* NSSharedString::_newBlock(std::size_t length) {
  void* const memory = ::operator new(sizeof(Block) + length);
  // cppcheck-suppress legacyUninitvar
  auto* const block = ::new (memory) Block{1, length};
  std::fill_n(block->bytes(), length, '\0');
  return block;
}

void NSSharedString::_release() {
  // A last owner has nobody to settle it with, which spares the slower operation.
  const bool isLast = block_->owners.load(std::memory_order_acquire) == 1 ||
                      block_->owners.fetch_sub(1, std::memory_order_acq_rel) == 1;
  if (!isLast) return;
  block_->~Block();
  ::operator delete(block_);
}

}  // namespace KQ
