#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace vlm::test {

/// Polls a condition that nothing announces (a table size, a counter, a
/// process's state) every `interval` until it holds or `timeout` has passed.
inline bool pollUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
                      std::chrono::milliseconds interval = std::chrono::milliseconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(interval);
    }
    return true;
}

} // namespace vlm::test
