#include "jxcache/host/ref_counted.h"

namespace zelcore::utility {

namespace detail {
thread_local constinit WeakControlBlock* t_unclaimedBlock = nullptr;
}  // namespace detail

void* RefCountedObjectWithWeakPtr::operator new(size_t size) {
  void* raw = ::operator new(detail::kControlBlockRoom + size);
  auto* block = new (raw) detail::WeakControlBlock;
  block->inFront = true;
  detail::t_unclaimedBlock = block;
  return static_cast<char*>(raw) + detail::kControlBlockRoom;
}

void RefCountedObjectWithWeakPtr::operator delete(void* object) {
  if (object == nullptr) return;
  detail::WeakControlBlock* block = BlockInFront(object);
  // A constructor that threw before claiming it: nobody may claim it once freed.
  if (detail::t_unclaimedBlock == block) detail::t_unclaimedBlock = nullptr;
  // The memory's weak reference: the block (and the memory with it) goes with the last one.
  block->ReleaseWeak();
}

}  // namespace zelcore::utility
