#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "../KQExport.h"

namespace KQ {

/// An immutable text, or an absent one, that any number of holders share: copies cost no memory, and the text
/// itself one small block. It is what records keep their names in. Any number of threads may read and copy
/// texts that share their bytes; one object is changed by one thread at a time.
class KQZIP_EXPORT NSSharedString {
 public:
  /// The absent text.
  NSSharedString() = default;

  /// A text with a copy of `bytes`.
  explicit NSSharedString(std::string_view bytes);

  /// The same, with the bytes of a string.
  explicit NSSharedString(const std::string& bytes) : NSSharedString(std::string_view(bytes)) {}

  /// A copy of `text`, absent where that is.
  explicit NSSharedString(const std::optional<std::string>& text);

  /// A text of `length` bytes that `fill` writes: it is called with the first one, which like all is zero,
  /// and returns whether that went well; if not, the text is absent.
  template <class Fill>
  static NSSharedString textFilledBy(std::size_t length, Fill fill) {
    NSSharedString text;
    text.block_ = _newBlock(length);
    if (!fill(text.block_->bytes())) text = NSSharedString();
    return text;
  }

  /// Shares the text.
  NSSharedString(const NSSharedString& other) : block_(other.block_) {
    if (block_ != nullptr) block_->owners.fetch_add(1, std::memory_order_relaxed);
  }
  /// Takes the text over and leaves an absent one.
  NSSharedString(NSSharedString&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  /// Shares or takes over the text of `other`.
  NSSharedString& operator=(NSSharedString other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~NSSharedString() {
    if (block_ != nullptr) _release();
  }

  /// Whether there is a text, were it an empty one.
  bool isPresent() const { return block_ != nullptr; }

  /// The bytes; empty for an absent text. Good as long as somebody holds the text.
  std::string_view view() const {
    return block_ == nullptr ? std::string_view() : std::string_view(block_->bytes(), block_->length);
  }

  /// The text as a string of its own.
  std::optional<std::string> string() const;

 private:
  // The bytes stand right behind.
  struct Block {
    std::atomic<std::size_t> owners;
    std::size_t length;
    char* bytes() { return reinterpret_cast<char*>(this + 1); }
  };

  static Block* _newBlock(std::size_t length);
  void _release();

  Block* block_ = nullptr;
};

}  // namespace KQ
