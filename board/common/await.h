#pragma once

#include <chrono>
#include <thread>

namespace varnel::board {

/// Asks every few milliseconds until it is so; false when it is not so within the limit.
template <class Condition>
bool Await(std::chrono::milliseconds limit, Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace varnel::board
