#include "compute/receipt.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

namespace jx::compute {
namespace {

// JX_ScCheckout is not standard-layout (it has virtual functions), so offsetof is not available
// for its guard word; a freshly built handle shows where the word sits.
size_t FindGuardWordOffset() {
  JX_ScCheckout probe;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&probe);
  for (size_t offset = 0; offset + sizeof(uint32_t) <= sizeof(JX_ScCheckout);
       offset += alignof(uint32_t)) {
    uint32_t word;
    std::memcpy(&word, bytes + offset, sizeof word);
    if (word == JX_ScCheckout::kGuardWord) return offset;
  }
  return SIZE_MAX;  // not found: every pointer will be refused
}

size_t GuardWordOffset() {
  static const size_t offset = FindGuardWordOffset();
  return offset;
}

uint32_t* GuardWordAt(void* block) {
  return reinterpret_cast<uint32_t*>(static_cast<unsigned char*>(block) + GuardWordOffset());
}

// Each block carries, after the receipt, a state word: the count of the receipts the block has
// held, 1 to 65,535 and round again (0: none yet), which its handles carry in their top bits,
// and a claim bit that the one check-in of the receipt sets. Two threads checking in the same
// receipt at once both find its guard word live, and only one of them may check it in and give
// the block back. Count and claim are one word so that a stale handle can never claim: its claim
// expects its own count, unclaimed, which the block no longer holds once that receipt was
// checked in, whatever newer receipt the block holds by then.
constexpr size_t kStateWordOffset = sizeof(JX_ScCheckout);
static_assert(kStateWordOffset % alignof(uint32_t) == 0);
constexpr size_t kBlockSize = kStateWordOffset + sizeof(uint32_t);
constexpr uint32_t kClaimedBit = 1;
constexpr unsigned kCountShift = 48;
constexpr uintptr_t kAddressMask = (uintptr_t{1} << kCountShift) - 1;
static_assert(sizeof(uintptr_t) == 8, "handles carry the count in a 64-bit address's top bits");

uint32_t* StateWordAt(void* block) {
  return reinterpret_cast<uint32_t*>(static_cast<unsigned char*>(block) + kStateWordOffset);
}
uint32_t Unclaimed(uint32_t count) { return count << 1; }
uint32_t CountOf(uint32_t state) { return state >> 1; }

// A new block, its count at 0. One whose address leaves no room for the count (no user-space
// address does on the systems this builds for) is refused as memory would be.
void* NewBlock() {
  void* block = ::operator new(kBlockSize);
  if ((reinterpret_cast<uintptr_t>(block) & ~kAddressMask) != 0) {
    ::operator delete(block);
    throw std::bad_alloc();
  }
  __atomic_store_n(StateWordAt(block), 0u, __ATOMIC_RELAXED);
  return block;
}

class ReceiptPool {
 public:
  void* Take() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!free_.empty()) {
        void* block = free_.back();
        free_.pop_back();
        return block;
      }
    }
    return NewBlock();
  }
  void Give(void* block) noexcept {
    try {
      std::lock_guard<std::mutex> lock(mutex_);
      free_.push_back(block);
    } catch (...) {
      // Out of memory for the list: keep the block out of circulation rather than free it,
      // since a stale receipt may still point at it.
    }
  }

 private:
  std::mutex mutex_;
  std::vector<void*> free_;
};

ReceiptPool& Pool() {
  // Never destroyed: receipts may be checked in from static destructors of plug-ins.
  static ReceiptPool* pool = new ReceiptPool;
  return *pool;
}

// A few blocks kept by each thread, so that a thread taking and giving back receipts does not go
// through the pool's mutex every time; a thread that ends gives them to the pool.
class ThreadBlocks {
 public:
  ~ThreadBlocks() {
    for (size_t i = 0; i < count_; ++i) Pool().Give(blocks_[i]);
  }
  void* Take() { return count_ != 0 ? blocks_[--count_] : Pool().Take(); }
  void Give(void* block) noexcept {
    if (count_ < kBlocks) {
      blocks_[count_++] = block;
    } else {
      Pool().Give(block);
    }
  }

 private:
  static constexpr size_t kBlocks = 8;
  void* blocks_[kBlocks] = {};
  size_t count_ = 0;
};

ThreadBlocks& MyBlocks() {
  thread_local ThreadBlocks blocks;
  return blocks;
}

}  // namespace

void ReceiptDeleter::operator()(JX_ScCheckout* receipt) const noexcept {
  if (receipt == nullptr) return;
  receipt->~JX_ScCheckout();
  __atomic_store_n(GuardWordAt(receipt), 0u, __ATOMIC_RELEASE);
  MyBlocks().Give(receipt);
}

ReceiptPtr NewReceipt() {
  GuardWordOffset();  // located before any block can be scrubbed
  void* block = MyBlocks().Take();
  // Counted before the guard word goes live (the constructor below).
  const uint32_t count =
      CountOf(__atomic_load_n(StateWordAt(block), __ATOMIC_RELAXED)) % 0xFFFFu + 1;
  __atomic_store_n(StateWordAt(block), Unclaimed(count), __ATOMIC_RELEASE);
  try {
    return ReceiptPtr(new (block) JX_ScCheckout());
  } catch (...) {
    MyBlocks().Give(block);
    throw;
  }
}

KQGP_JXComputeReceipt ToHandle(JX_ScCheckout* receipt) {
  const uintptr_t count = CountOf(__atomic_load_n(StateWordAt(receipt), __ATOMIC_RELAXED));
  return reinterpret_cast<KQGP_JXComputeReceipt>(reinterpret_cast<uintptr_t>(receipt) |
                                                 count << kCountShift);
}

JX_ScCheckout* LiveReceiptFromHandle(KQGP_JXComputeReceipt handle) {
  const auto value = reinterpret_cast<uintptr_t>(handle);
  const auto count = static_cast<uint32_t>(value >> kCountShift);
  const uintptr_t address = value & kAddressMask;
  if (count == 0 || address % alignof(JX_ScCheckout) != 0 || GuardWordOffset() == SIZE_MAX) {
    return nullptr;
  }
  void* block = reinterpret_cast<void*>(address);
  if (__atomic_load_n(GuardWordAt(block), __ATOMIC_ACQUIRE) != JX_ScCheckout::kGuardWord) {
    return nullptr;
  }
  // A block reused since the handle was made holds a newer receipt under a newer count.
  if (CountOf(__atomic_load_n(StateWordAt(block), __ATOMIC_ACQUIRE)) != count) return nullptr;
  return static_cast<JX_ScCheckout*>(block);
}

JX_ScCheckout* ClaimReceiptFromHandle(KQGP_JXComputeReceipt handle) {
  JX_ScCheckout* live = LiveReceiptFromHandle(handle);
  if (live == nullptr) return nullptr;
  const auto count = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle) >> kCountShift);
  uint32_t expected = Unclaimed(count);
  if (!__atomic_compare_exchange_n(StateWordAt(live), &expected, Unclaimed(count) | kClaimedBit,
                                   false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    return nullptr;  // another thread is checking it in, or it was and the block went on
  }
  return live;
}

}  // namespace jx::compute
