#pragma once

#include <atomic>
#include <utility>

#include "KQExport.h"

namespace KQ {

/// Holds the lock of the property at an address: one of a small fixed table, so that a property needs no
/// memory for it. A property holds it only while a value is copied or swapped, which is why waiting for it
/// is done without the system.
class KQZIP_EXPORT NSPropertyLock {
 public:
  explicit NSPropertyLock(const void* address);               ///< Waits for the lock and takes it.
  ~NSPropertyLock();                                          ///< Gives the lock back.
  NSPropertyLock(const NSPropertyLock&) = delete;             ///< A lock is held once.
  NSPropertyLock& operator=(const NSPropertyLock&) = delete;  ///< A lock is held once.

  /// The flag that is set while somebody holds the lock of the property at `address`.
  static std::atomic_flag& flagOf(const void* address);

 private:
  std::atomic_flag& flag_;
};

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
    const NSPropertyLock lock(this);
    return value_;
  }

  /// What `access` returns for the value, which it may change; it is called under the lock and must be brief.
  template <class Access>
  auto with(Access access) {
    const NSPropertyLock lock(this);
    return access(value_);
  }

  /// Replaces the value. The earlier one is destroyed outside of the lock.
  void set(Value value) {
    const NSPropertyLock lock(this);
    std::swap(value_, value);
  }

 private:
  Value value_{};
};

}  // namespace KQ
