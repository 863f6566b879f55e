#pragma once

#include <atomic>
#include <utility>

#include "KQExport.h"

namespace KQ {

/// Holds the lock of the property at an address. The locks are a small fixed table, so that a property needs
/// no memory for its own. A property holds its lock only while it copies or swaps a value, so waiting for it
/// only yields the processor.
class KQZIP_EXPORT NSPropertyLock {
 public:
  explicit NSPropertyLock(const void* address);               ///< Waits for the lock and takes it.
  ~NSPropertyLock();                                          ///< Releases the lock.
  NSPropertyLock(const NSPropertyLock&) = delete;             ///< A lock has one holder.
  NSPropertyLock& operator=(const NSPropertyLock&) = delete;  ///< A lock has one holder.

  /// The lock of the property at `address`: a flag that is set while the lock is held.
  static std::atomic_flag& flagOf(const void* address);

 private:
  std::atomic_flag& flag_;
};

/// A property that any number of threads may get and set at once. A getter sees a whole value, old or new.
template <class Value>
class NSAtomicProperty {
 public:
  NSAtomicProperty() = default;                                         ///< Holds a default value.
  explicit NSAtomicProperty(Value value) : value_(std::move(value)) {}  ///< Holds `value`.
  NSAtomicProperty(const NSAtomicProperty&) = delete;                   ///< A property stays with its object.
  NSAtomicProperty& operator=(const NSAtomicProperty&) = delete;        ///< A property stays with its object.

  /// A copy of the value.
  Value get() const {
    const NSPropertyLock lock(this);
    return value_;
  }

  /// Calls `access` with the value, under the lock, and returns its result. `access` may change the value and
  /// must be brief.
  template <class Access>
  auto with(Access access) {
    const NSPropertyLock lock(this);
    return access(value_);
  }

  /// Replaces the value. The old one is destroyed after the lock is released.
  void set(Value value) {
    const NSPropertyLock lock(this);
    std::swap(value_, value);
  }

 private:
  Value value_{};
};

}  // namespace KQ
