#include "NSAtomicProperty.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <thread>

namespace KQ {

namespace {

// Each has its own cache line, so that threads with different locks do not slow each other down.
struct alignas(64) Flag {
  std::atomic_flag flag{};
};

}  // namespace

std::atomic_flag& NSPropertyLock::flagOf(const void* address) {
  static std::array<Flag, 64> flags;
  // Properties are at least 8 bytes apart.
  return flags[(reinterpret_cast<std::uintptr_t>(address) / 8) % flags.size()].flag;
}

NSPropertyLock::NSPropertyLock(const void* address) : flag_(flagOf(address)) {
  while (flag_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
}

NSPropertyLock::~NSPropertyLock() { flag_.clear(std::memory_order_release); }

}  // namespace KQ
