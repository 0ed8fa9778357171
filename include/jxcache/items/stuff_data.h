// JX_StuffData: the abstract payload of a cached item (a rendered frame, a plug-in's computed
// value, anything the host derives). The cache never knows the concrete type; it asks the payload
// through the virtual operations below how large it is, whether it may be purged, written to disk
// or compressed, and has it write and read itself.
//
// Ownership: intrusively reference-counted; held by its item, by check-out handles that hand it
// out, and by disk jobs. Not copyable. Thread safety: the cache calls the virtual operations with
// the owning item's lock held as noted per operation; the payload guards its own data beyond that.
//
// Calling back into the cache from these operations: the size, purge and request questions
// (GetApproximateMemorySize, IsInMemory, ShouldAllowPurge, CanSatisfyRequest, IdenticalRequest,
// IsCompressed, PurgeIfPossible) are asked under the library lock or an item's lock, often both:
// they must not use the cache, nor take a lock of the host's that a thread using the cache may
// hold. Write runs on a disk thread with no lock of the cache held, and may use the cache. Read
// runs holding its item's lock: it may make room (JX_Bag::FreeUpSomeMemory, the media manager's
// purge), which then frees nothing when the library lock is busy, but must not check items out or
// in, nor wait for a thread that does. The destructor runs where the last reference goes, which
// the cache keeps outside the library lock and the items' locks.
//
// Payload classes that can be rebuilt from the disk cache register a factory under their match
// name; the disk reader builds an empty payload of the right class from the name and header
// stored in the file name. The registry is process-wide and guarded by its own recursive mutex
// (a leaf lock: factories run outside it).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "jxcache/common/jx_types.h"
#include "jxcache/host/allocator.h"
#include "jxcache/host/byte_stream.h"
#include "jxcache/host/export.h"
#include "jxcache/host/multi_tenant_mutex.h"
#include "jxcache/host/noncopyable.h"
#include "jxcache/host/ref_counted.h"

class JX_EXPORT JX_StuffData : public zelcore::utility::RefCountedObject,
                               private zelcore::utility::noncopyable {
 public:
  template <class T>
  using IntrusivePtr = zelcore::utility::IntrusivePtr<T>;
  using Header = std::vector<uint8_t, zelcore::allocator::STLAllocator<uint8_t>>;
  using Factory = std::function<IntrusivePtr<JX_StuffData>(const Header& header)>;
  using ReleaseQueue = std::deque<std::shared_ptr<void>>;

  // Why a payload was not written to the disk cache. 0 means no reason recorded; the host
  // assigns the others. kQueueTooFull is the one the library itself records.
  using NoDiskCacheReason = int32_t;
  static constexpr NoDiskCacheReason kNoReason = 0;
  static constexpr NoDiskCacheReason kQueueTooFull = 3;
  static constexpr NoDiskCacheReason kReconsiderLater = 5;

  JX_StuffData() = default;
  ~JX_StuffData() override = default;

  // Whether this payload answers exactly the same request as `other`. Base: true.
  virtual bool IdenticalRequest(IntrusivePtr<JX_StuffData> other) const;
  // Whether this payload (or request) can serve a request for `request`. Base: true.
  virtual bool CanSatisfyRequest(IntrusivePtr<JX_StuffData> request) const;
  // Bytes the payload occupies in memory; drives all size accounting.
  virtual unsigned int GetApproximateMemorySize() const = 0;
  // Drops the payload's memory if it can. Owners of memory to release later (after the cache's
  // locks are released) are appended to `toRelease` when it is given; with no queue, release at
  // once. Called with the item's write lock held. Returns whether anything was freed.
  virtual bool PurgeIfPossible(ReleaseQueue* toRelease) = 0;
  // Whether the payload's data is resident.
  virtual bool IsInMemory() const = 0;
  // Whether the cache may purge this payload. Base: true.
  virtual bool ShouldAllowPurge() const;
  // Whether the payload may be written to the disk cache. Base: false (classes opt in).
  virtual bool CanDiskCache() const;
  // The name the class registered its factory under; null: cannot be rebuilt from disk.
  virtual const char* GetSubclassMatchname() const;
  // Bytes stored beside the match name in the disk file's name and given back to the factory.
  virtual void GetHeader(Header& header) const;
  // Writes the payload; returns the seconds spent. Base: writes nothing, returns 0.
  virtual double Write(zelcore::filesupport::OByteStream& out) const;
  // Fills the payload from `in`; `itemMutex` is the owning item's lock, held by the caller.
  // Returns the seconds spent. Base: reads nothing, returns 0.
  virtual double Read(zelcore::filesupport::IByteStream& in,
                      zelcore::threads::MultiTenantRecursiveMutex& itemMutex);
  virtual void SetCompressedAllowedOption(JX_CompressedAllowedOption option);
  virtual JX_CompressedAllowedOption GetCompressedAllowedOption() const;
  virtual void SetIsCompressed(bool compressed);
  virtual bool IsCompressed() const;
  // A copy the disk writer may compress in place of this payload; empty when unsupported.
  virtual IntrusivePtr<JX_StuffData> CreateCloneForCompression() const;

  void SetCachePriority(JX_CachePriority priority) { priority_.exchange(priority); }
  JX_CachePriority GetCachePriority() const { return priority_.load(std::memory_order_relaxed); }
  void SetNoDiskCache(NoDiskCacheReason reason) { noDiskCacheReason_ = reason; }
  void SetReasonWhyNoDiskCache(NoDiskCacheReason reason) { noDiskCacheReason_ = reason; }
  NoDiskCacheReason GetReasonWhyNoDiskCache() const { return noDiskCacheReason_; }
  bool CanBeCompressed() const { return GetCompressedAllowedOption() != kJX_CompressionNotAllowed; }

  // Registers (or replaces) the factory of `matchname`.
  static void RegisterFactory(const char* matchname, Factory& factory);
  // An empty payload of the class registered as `matchname`, built by its factory (called
  // outside the registry lock); empty when no factory is registered. Factory exceptions pass on.
  static IntrusivePtr<JX_StuffData> CreateSubclass(const char* matchname, Header& header);
  // Forgets every factory (library shut-down).
  static void Death();

 private:
  std::atomic<NoDiskCacheReason> noDiskCacheReason_{kNoReason};
  std::atomic<JX_CachePriority> priority_{kJX_CachePriorityDefault};
};
