#include "NSAtomicProperty.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace KQ {

std::mutex& NSPropertyLock(const void* address) {
  static std::array<std::mutex, 64> locks;
  // Properties are at least 16 bytes apart.
  return locks[(reinterpret_cast<std::uintptr_t>(address) / 16) % locks.size()];
}

}  // namespace KQ
