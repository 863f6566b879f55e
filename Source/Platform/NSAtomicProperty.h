#pragma once

#include <mutex>
#include <utility>

#include "KQExport.h"

namespace KQ {

/// The lock that guards the property at `address`: one of a small fixed table, so that a property needs no
/// memory for it. It is held only while a value is copied or swapped.
KQZIP_EXPORT std::mutex& NSPropertyLock(const void* address);

/// A property that any number of threads may get and set at once; a getter never sees a half-replaced value.
template <class Value>
class NSAtomicProperty {
 public:
  NSAtomicProperty() = default;                                         ///< Holds a default value.
  explicit NSAtomicProperty(Value value) : value_(std::move(value)) {}  ///< Holds `value`.
  NSAtomicProperty(const NSAtomicProperty&) = delete;                   ///< A property stays with its object.
  NSAtomicProperty& operator=(const NSAtomicProperty&) = delete;        ///< A property stays with its object.

  /// A copy of the value.
  Value get() const {
    const std::lock_guard<std::mutex> guard(NSPropertyLock(this));
    return value_;
  }

  /// Replaces the value. The earlier one is destroyed outside of the lock.
  void set(Value value) {
    const std::lock_guard<std::mutex> guard(NSPropertyLock(this));
    std::swap(value_, value);
  }

 private:
  Value value_{};
};

}  // namespace KQ
