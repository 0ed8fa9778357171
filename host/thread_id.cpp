#include "host/thread_id.h"

#include <atomic>

namespace zelcore::threads::detail {

thread_local constinit ThreadId t_threadId = kNoThread;

ThreadId AssignThreadId() {
  static std::atomic<ThreadId> next{1};
  t_threadId = next.fetch_add(1, std::memory_order_relaxed);
  return t_threadId;
}

}  // namespace zelcore::threads::detail
