#pragma once
// Bounded waiting on a condition, instead of sleeps: returns as soon as the predicate holds.
#include <chrono>
#include <functional>
#include <thread>

namespace testing_support {

inline bool waitUntil(const std::function<bool()>& pred,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

}  // namespace testing_support
