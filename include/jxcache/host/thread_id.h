// A cheap, process-unique identifier of the calling thread (never 0, never reused).
//
// Ids are handed out from a counter on a thread's first call, so a thread that starts after
// another has ended never inherits its id: an owner field or a "main thread" record that outlives
// its thread cannot be mistaken for a newcomer.
#pragma once

#include <cstdint>

#include "jxcache/host/export.h"

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

// A stripe index owned by the calling thread alone, below kThreadSlots, or kNoThreadSlot when
// every slot is taken (or the thread is ending). A slot is handed on when its thread ends; what
// the old owner wrote stays and the new owner goes on from it, which keeps every sum exact.
inline constexpr uint32_t kThreadSlots = 64;
inline constexpr uint32_t kNoThreadSlot = kThreadSlots;

namespace detail {
inline constexpr uint32_t kSlotUnassigned = ~0u;
extern JX_EXPORT thread_local constinit uint32_t t_threadSlot;
JX_EXPORT uint32_t AssignThreadSlot();
}  // namespace detail

inline uint32_t CurrentThreadSlot() {
  const uint32_t slot = detail::t_threadSlot;
  return slot != detail::kSlotUnassigned ? slot : detail::AssignThreadSlot();
}

}  // namespace zelcore::threads
