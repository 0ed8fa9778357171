// A cheap, process-unique identifier of the calling thread (never 0).
#pragma once

#include <cstdint>

namespace zelcore::threads {

using ThreadId = uintptr_t;
inline constexpr ThreadId kNoThread = 0;

inline ThreadId CurrentThreadId() {
  static thread_local char marker;
  return reinterpret_cast<ThreadId>(&marker);
}

}  // namespace zelcore::threads
