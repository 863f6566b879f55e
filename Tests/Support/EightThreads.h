#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace KQTest {

inline constexpr std::size_t threadCount = 8;

/// Runs `body` on eight threads that begin together, each with its number.
inline void onEightThreads(const std::function<void(std::size_t)>& body) {
  std::atomic<std::size_t> waiting{threadCount};
  std::vector<std::thread> threads;
  for (std::size_t number = 0; number < threadCount; ++number) {
    threads.emplace_back([&waiting, &body, number] {
      --waiting;
      while (waiting > 0) std::this_thread::yield();
      body(number);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace KQTest
