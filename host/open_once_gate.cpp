// OpenOnceGate: one word that goes from 0 to 1 once; waiters park on its address.
#include "jxcache/host/open_once_gate.h"

#include "host/parking.h"

namespace zelcore::threads {

void OpenOnceGate::Open() {
  // Only the call that actually opens wakes: opening again must stay cheap.
  if (open_.exchange(1, std::memory_order_acq_rel) == 0) detail::WakeAll(&open_);
}

void OpenOnceGate::Wait() const {
  if (IsOpen()) return;
  detail::ParkUntil(&open_, [this] { return IsOpen(); });
}

bool OpenOnceGate::WaitUntil(std::chrono::steady_clock::time_point deadline) const {
  if (IsOpen()) return true;
  return detail::ParkUntil(
      &open_, [this] { return IsOpen(); }, deadline);
}

}  // namespace zelcore::threads
