// A cheap, process-unique identifier of the calling thread (never 0, never reused).
//
// Ids are handed out from a counter on a thread's first call, so a thread that starts after
// another has ended never inherits its id: an owner field or a "main thread" record that outlives
// its thread cannot be mistaken for a newcomer.
#pragma once

#include <cstdint>

#include "host/export.h"

namespace zelcore::threads {

using ThreadId = uintptr_t;
inline constexpr ThreadId kNoThread = 0;

namespace detail {
extern JX_EXPORT thread_local constinit ThreadId t_threadId;
JX_EXPORT ThreadId AssignThreadId();
}  // namespace detail

inline ThreadId CurrentThreadId() {
  const ThreadId id = detail::t_threadId;
  return id != kNoThread ? id : detail::AssignThreadId();
}

}  // namespace zelcore::threads
