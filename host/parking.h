// The parking table: a fixed set of mutex/condition-variable pairs shared by every lock and gate
// of the process, chosen by the address being waited on. Lets a mutex or gate be a single atomic
// word and still sleep instead of spinning.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

namespace zelcore::threads::detail {

// Sleeps until `ready()` is true. `ready` is evaluated under the slot's mutex after the waiter
// has registered, so a Wake after the state change cannot be missed.
void ParkUntil(const void* address, const std::function<bool()>& ready);
// Same with a deadline; returns ready()'s last value.
bool ParkUntil(const void* address, const std::function<bool()>& ready,
               std::chrono::steady_clock::time_point deadline);
// Wakes every thread parked on `address` (and, harmlessly, others sharing its slot). Cheap when
// nobody is parked in that slot.
void WakeAll(const void* address);

}  // namespace zelcore::threads::detail
