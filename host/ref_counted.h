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
#include <utility>

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
struct WeakControlBlock {
  std::atomic<int32_t> strong{0};
  std::atomic<int32_t> weak{1};  // the object's own weak reference
  void ReleaseWeak() {
    if (weak.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
};
}  // namespace detail

class RefCountedObjectWithWeakPtr : public virtual RefCountedInterface {
 public:
  void RetainObject() const override { ctrl_->strong.fetch_add(1, std::memory_order_relaxed); }
  void ReleaseObject() const override {
    if (ctrl_->strong.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  int32_t GetRefCount() const { return ctrl_->strong.load(std::memory_order_relaxed); }
  detail::WeakControlBlock* GetWeakControlBlock() const { return ctrl_; }

 protected:
  RefCountedObjectWithWeakPtr() : ctrl_(new detail::WeakControlBlock) {}
  RefCountedObjectWithWeakPtr(const RefCountedObjectWithWeakPtr&) = delete;
  ~RefCountedObjectWithWeakPtr() override { ctrl_->ReleaseWeak(); }

 private:
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
