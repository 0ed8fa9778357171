// A gate that starts closed and is opened once; waiters pass as soon as it is open. Used for
// pending items: threads wanting an item that another thread renders wait here, never on a mutex.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zelcore::threads {

class OpenOnceGate {
 public:
  OpenOnceGate() = default;
  OpenOnceGate(const OpenOnceGate&) = delete;
  OpenOnceGate& operator=(const OpenOnceGate&) = delete;

  // Opens the gate and releases every waiter. Opening again does nothing.
  void Open();
  bool IsOpen() const { return open_.load(std::memory_order_acquire) != 0; }
  // Waits until the gate is open.
  void Wait() const;
  // Waits until the gate is open or the deadline passes; returns whether it is open.
  bool WaitUntil(std::chrono::steady_clock::time_point deadline) const;
  // Waits until the gate is open or `timeout` has passed; returns whether it is open.
  bool WaitFor(std::chrono::nanoseconds timeout) const {
    return WaitUntil(std::chrono::steady_clock::now() + timeout);
  }

 private:
  std::atomic<uint32_t> open_{0};
};

}  // namespace zelcore::threads
