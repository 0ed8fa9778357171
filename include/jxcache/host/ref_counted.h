// Intrusive reference counting, the host's way of sharing objects between threads.
//
// RefCountedObject keeps its count inside the object; IntrusivePtr retains on copy and
// releases on destruction, and the last release deletes the object. RefCountedObjectWithWeakPtr
// adds weak references: a WeakPtr can be locked into an IntrusivePtr while the object lives and
// yields an empty pointer afterwards. Counts are atomic; any thread may retain or release.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <utility>

#include "jxcache/host/export.h"

namespace zelcore::utility {

template <class T>
class IntrusivePtr;

class RefCountedInterface {
 public:
  template <class T>
  using IntrusivePtr = ::zelcore::utility::IntrusivePtr<T>;

  virtual void RetainObject() const = 0;
  virtual void ReleaseObject() const = 0;

 protected:
  virtual ~RefCountedInterface() = default;
};

// The count lives in the object. The object starts at 0: the first IntrusivePtr makes it 1.
class RefCountedImplementation : public virtual RefCountedInterface {
 public:
  void RetainObject() const override { refs_.fetch_add(1, std::memory_order_relaxed); }
  void ReleaseObject() const override {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  int32_t GetRefCount() const { return refs_.load(std::memory_order_relaxed); }

 protected:
  RefCountedImplementation() = default;
  RefCountedImplementation(const RefCountedImplementation&) : refs_(0) {}
  ~RefCountedImplementation() override = default;

 private:
  mutable std::atomic<int32_t> refs_{0};
};

class RefCountedObject : public virtual RefCountedInterface, public RefCountedImplementation {
 protected:
  RefCountedObject() = default;
  ~RefCountedObject() override = default;
};

namespace detail {
// Shared between an object and its weak references; outlives the object while weak
// references remain. `strong` is the object's own count.
//
// An object made by `new` carries its block in front of its own memory (see
// RefCountedObjectWithWeakPtr::operator new): one allocation instead of two, and the count
// sits next to the object, where the first touch of the object has already brought it in. The
// memory then counts as one weak reference, given up by operator delete, and the last weak
// reference frees block and memory together. An object made any other way (on the stack, as a
// member, by placement) gets a block of its own, as before.
struct WeakControlBlock {
  std::atomic<int32_t> strong{0};
  std::atomic<int32_t> weak{1};  // the object's own weak reference (or its memory's)
  bool inFront = false;          // heads the object's allocation
  void ReleaseWeak() {
    if (weak.fetch_sub(1, std::memory_order_acq_rel) == 1) Free();
  }
  void Free() {
    if (!inFront) {
      delete this;
      return;
    }
    this->~WeakControlBlock();
    ::operator delete(static_cast<void*>(this));
  }
};

// Room in front of an object for its block, keeping the object as aligned as `new` would.
inline constexpr size_t kControlBlockRoom = alignof(std::max_align_t);
static_assert(sizeof(WeakControlBlock) <= kControlBlockRoom);

// The block the calling thread's last operator new put in front of its memory, until the object
// built there claims it.
extern JX_EXPORT thread_local constinit WeakControlBlock* t_unclaimedBlock;
}  // namespace detail

class RefCountedObjectWithWeakPtr : public virtual RefCountedInterface {
 public:
  void RetainObject() const override { ctrl_->strong.fetch_add(1, std::memory_order_relaxed); }
  void ReleaseObject() const override {
    if (ctrl_->strong.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  int32_t GetRefCount() const { return ctrl_->strong.load(std::memory_order_relaxed); }
  detail::WeakControlBlock* GetWeakControlBlock() const { return ctrl_; }

  // Out of line: the block and the memory are one allocation, which a compiler looking at both
  // ends at once would take for a mismatched pair.
  JX_EXPORT static void* operator new(size_t size);
  JX_EXPORT static void operator delete(void* object);
  // Over-aligned classes, arrays and placement keep the plain forms, and a block of their own.
  static void* operator new(size_t size, std::align_val_t align) {
    return ::operator new(size, align);
  }
  static void operator delete(void* object, std::align_val_t align) {
    ::operator delete(object, align);
  }
  static void* operator new(size_t, void* where) noexcept { return where; }
  static void operator delete(void*, void*) noexcept {}

 protected:
  RefCountedObjectWithWeakPtr() : ctrl_(ClaimBlock(this)) {}
  RefCountedObjectWithWeakPtr(const RefCountedObjectWithWeakPtr&) = delete;
  ~RefCountedObjectWithWeakPtr() override {
    // A block in front of the object is given up with the memory, by operator delete.
    if (!ctrl_->inFront) ctrl_->ReleaseWeak();
  }

 private:
  static detail::WeakControlBlock* BlockInFront(void* object) {
    return reinterpret_cast<detail::WeakControlBlock*>(static_cast<char*>(object) -
                                                       detail::kControlBlockRoom);
  }
  // The block in front of this object's memory when operator new just made it for this very
  // object (this base at the start of it); a block of its own otherwise.
  static detail::WeakControlBlock* ClaimBlock(RefCountedObjectWithWeakPtr* self) {
    detail::WeakControlBlock* block = detail::t_unclaimedBlock;
    // Compared as addresses: for an object not made by operator new there is nothing in front.
    if (block != nullptr && reinterpret_cast<uintptr_t>(block) + detail::kControlBlockRoom ==
                                reinterpret_cast<uintptr_t>(self)) {
      detail::t_unclaimedBlock = nullptr;
      // The memory's reference becomes the object's: operator delete gives it up.
      return block;
    }
    return new detail::WeakControlBlock;
  }

  detail::WeakControlBlock* const ctrl_;
};

struct AdoptRef {};

template <class T>
class IntrusivePtr {
 public:
  IntrusivePtr() noexcept = default;
  IntrusivePtr(std::nullptr_t) noexcept {}
  IntrusivePtr(T* p) noexcept : p_(p) {
    if (p_) p_->RetainObject();
  }
  // Takes over a reference the caller already owns.
  IntrusivePtr(T* p, AdoptRef) noexcept : p_(p) {}
  IntrusivePtr(const IntrusivePtr& o) noexcept : IntrusivePtr(o.p_) {}
  IntrusivePtr(IntrusivePtr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  IntrusivePtr(const IntrusivePtr<U>& o) noexcept : IntrusivePtr(o.get()) {}
  template <class U>
  IntrusivePtr(IntrusivePtr<U>&& o) noexcept : p_(o.detach()) {}
  ~IntrusivePtr() {
    if (p_) p_->ReleaseObject();
  }
  IntrusivePtr& operator=(IntrusivePtr o) noexcept {
    swap(o);
    return *this;
  }
  void swap(IntrusivePtr& o) noexcept { std::swap(p_, o.p_); }
  void reset() noexcept { IntrusivePtr().swap(*this); }
  void reset(T* p) noexcept { IntrusivePtr(p).swap(*this); }
  // Gives up ownership of the reference without releasing it.
  T* detach() noexcept { return std::exchange(p_, nullptr); }
  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  friend bool operator==(const IntrusivePtr& a, const IntrusivePtr& b) { return a.p_ == b.p_; }
  friend bool operator==(const IntrusivePtr& a, std::nullptr_t) { return a.p_ == nullptr; }
  friend bool operator<(const IntrusivePtr& a, const IntrusivePtr& b) {
    return std::less<T*>()(a.p_, b.p_);
  }

 private:
  T* p_ = nullptr;
};

template <class T, class U>
IntrusivePtr<T> static_pointer_cast(const IntrusivePtr<U>& p) {
  return IntrusivePtr<T>(static_cast<T*>(p.get()));
}
template <class T, class U>
IntrusivePtr<T> dynamic_pointer_cast(const IntrusivePtr<U>& p) {
  return IntrusivePtr<T>(dynamic_cast<T*>(p.get()));
}

// A weak reference to a RefCountedObjectWithWeakPtr. Lock() succeeds while the object lives.
template <class T>
class WeakPtr {
 public:
  WeakPtr() noexcept = default;
  WeakPtr(T* p) noexcept { Assign(p); }
  WeakPtr(const IntrusivePtr<T>& p) noexcept { Assign(p.get()); }
  WeakPtr(const WeakPtr& o) noexcept : p_(o.p_), ctrl_(o.ctrl_) {
    if (ctrl_) ctrl_->weak.fetch_add(1, std::memory_order_relaxed);
  }
  WeakPtr(WeakPtr&& o) noexcept
      : p_(std::exchange(o.p_, nullptr)), ctrl_(std::exchange(o.ctrl_, nullptr)) {}
  ~WeakPtr() {
    if (ctrl_) ctrl_->ReleaseWeak();
  }
  WeakPtr& operator=(WeakPtr o) noexcept {
    std::swap(p_, o.p_);
    std::swap(ctrl_, o.ctrl_);
    return *this;
  }
  void reset() noexcept { WeakPtr().swap(*this); }
  void swap(WeakPtr& o) noexcept {
    std::swap(p_, o.p_);
    std::swap(ctrl_, o.ctrl_);
  }

  // The object, without taking a reference, when this weak reference keeps its memory (the block
  // heads the object's allocation) and the object was alive as this was read; null otherwise.
  // The object may be destroyed at any moment after, though its memory stays until this
  // reference goes: a caller that uses it as an object must know by other means that it lives.
  T* PeekIfMemoryKept() const noexcept {
    if (!ctrl_ || !ctrl_->inFront || ctrl_->strong.load(std::memory_order_acquire) <= 0) {
      return nullptr;
    }
    return p_;
  }

  // Asks the processor to start loading the reference's block, without reading it: for a caller
  // about to look at many weak references in a row.
  void PrefetchBlock() const noexcept { __builtin_prefetch(ctrl_); }
  // The pointer as it was set, never to be read through: the object may be gone. For prefetching
  // only.
  T* UncheckedAddress() const noexcept { return p_; }

  // A strong reference, or empty when the object is gone (or was never set).
  IntrusivePtr<T> Lock() const noexcept {
    if (!ctrl_) return {};
    int32_t n = ctrl_->strong.load(std::memory_order_relaxed);
    while (n > 0) {
      if (ctrl_->strong.compare_exchange_weak(n, n + 1, std::memory_order_acq_rel,
                                              std::memory_order_relaxed)) {
        return IntrusivePtr<T>(p_, AdoptRef{});
      }
    }
    return {};
  }
  bool Expired() const noexcept {
    return !ctrl_ || ctrl_->strong.load(std::memory_order_acquire) == 0;
  }

 private:
  void Assign(T* p) {
    if (!p) return;
    p_ = p;
    ctrl_ = p->GetWeakControlBlock();
    ctrl_->weak.fetch_add(1, std::memory_order_relaxed);
  }
  T* p_ = nullptr;
  detail::WeakControlBlock* ctrl_ = nullptr;
};

}  // namespace zelcore::utility
