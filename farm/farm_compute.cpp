#include "jxcache/farm/farm_compute.h"

#include <boost/smart_ptr/make_shared.hpp>

#include <algorithm>
#include <exception>
#include <new>
#include <stdexcept>

#include "disk/disk_speed.h"
#include "disk/disk_writer.h"
#include "disk/write_policy.h"
#include "farm/farm_counters.h"
#include "farm/tier.h"
#include "host/trace.h"
#include "jxcache/bag/bag.h"
#include "jxcache/bag/global_bag.h"
#include "jxcache/disk/disk_executor.h"
#include "jxcache/host/byte_stream.h"
#include "jxcache/host/host_services.h"
#include "jxcache/host/multi_tenant_mutex.h"
#include "jxcache/items/sc_checkout.h"
#include "jxcache/items/stuff.h"

using zelcore::utility::IntrusivePtr;
namespace cf = jx::checkout_flags;
namespace ci = jx::checkin_flags;

namespace {

// Farm writes that may wait for the writer before a new one is judged not worth it: the same
// squared free fraction that slows the disk writer's intake.
constexpr uint32_t kUploadQueueCapacity = 64;
constexpr auto kFirstPoll = std::chrono::milliseconds(2);
constexpr auto kLongestPoll = std::chrono::milliseconds(50);

uint64_t NowNs() { return jx::host::GetClock().NowNanoseconds(); }

// The item's identity as its local cache file would carry it; false when the item cannot be
// shared (no payload class to rebuild it from, or not disk-cacheable).
bool IdentityOf(const JX_Stuff& item, jx::farm::Identity* out) {
  const IntrusivePtr<JX_StuffData> key = item.GetFindKeyData();
  if (!key || !key->CanDiskCache()) return false;
  const char* matchName = key->GetSubclassMatchname();
  if (!matchName || !*matchName) return false;
  out->guid = item.GetGuid();
  if (out->guid.IsEmpty()) return false;
  out->matchName = matchName;
  const auto bag = JX_GlobalBag();
  out->version = bag ? bag->GetAppVersion() : 0;
  JX_StuffData::Header header;
  key->GetHeader(header);
  out->header.assign(header.begin(), header.end());
  return true;
}

// One queued farm write: the item pinned by a read-only check-out (as the disk writer pins its
// entries) and the lease, both given back when the write is over or will never run.
struct Upload {
  std::shared_ptr<jx::farm::Tier> tier;
  jx::farm::Identity identity;
  std::string key, token;
  boost::shared_ptr<JX_ScCheckout> checkout;
  IntrusivePtr<JX_StuffData> data;
  double computeSeconds = 0.0;

  void Run() {
    // A server that just failed would refuse the write anyway: not worth a copy of the payload.
    if (tier->Store().Pool().BackingOff()) {
      jx::farm::GetCounters().errors.fetch_add(1, std::memory_order_relaxed);
      jx::farm::GetCounters().connectionErrors.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    try {
      zelcore::filesupport::VectorOByteStream out;
      data->Write(out);
      const auto& bytes = out.Bytes();
      tier->Store().Put(identity,
                        std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                        computeSeconds);
    } catch (const std::exception& e) {
      jx::farm::GetCounters().errors.fetch_add(1, std::memory_order_relaxed);
      ZC_TRACE("JX_Farm", 2, "farm write of " << key << " failed: " << e.what());
    } catch (...) {
      jx::farm::GetCounters().errors.fetch_add(1, std::memory_order_relaxed);
      ZC_TRACE("JX_Farm", 2, "farm write of " << key << " failed");
    }
  }

  ~Upload() {
    try {
      if (checkout) {
        checkout->SetCheckinFlags(ci::kKeepRecency);
        checkout.reset();
      }
      if (!token.empty()) tier->Forget(key, token);
    } catch (...) {
      ZC_TRACE("JX_Farm", 2, "settling a farm write failed");
    }
    jx::farm::GetCounters().uploadsQueued.fetch_sub(1, std::memory_order_acq_rel);
  }
};

}  // namespace

struct __attribute__((visibility("hidden"))) JX_ScFarmCompute::State {
  explicit State(IntrusivePtr<JX_Stuff> pendingItem)
      : tier_(jx::farm::CurrentTier()), item_(std::move(pendingItem)) {}
  ~State();

  Outcome Fetch();
  void Publish();

  enum class Step { kHit, kMiss, kFault };
  Outcome LookUp();
  void Offer();
  Step TryFetch();
  enum class Filled { kYes, kRefused, kFault };
  Filled Fill(jx::farm::FarmStore::Fetched& fetched);
  Outcome WaitForOtherNode();
  Outcome Computing();
  void GiveUpLease();

  std::shared_ptr<jx::farm::Tier> tier_;
  zelcore::utility::IntrusivePtr<JX_Stuff> item_;
  jx::farm::Identity identity_;
  std::string key_;
  std::string token_;  // the lease this node holds; empty when none
  double fetchedSeconds_ = 0.0;
  bool fetched_ = false;
  bool filled_ = false;
};

JX_ScFarmCompute::JX_ScFarmCompute(IntrusivePtr<JX_Stuff> pendingItem)
    : state_(std::make_unique<State>(std::move(pendingItem))) {}
JX_ScFarmCompute::~JX_ScFarmCompute() = default;
JX_ScFarmCompute::Outcome JX_ScFarmCompute::Fetch() { return state_->Fetch(); }
double JX_ScFarmCompute::FetchedComputeSeconds() const { return state_->fetchedSeconds_; }
void JX_ScFarmCompute::Publish() { state_->Publish(); }
bool JX_ScFarmCompute::HoldsLease() const { return !state_->token_.empty(); }

JX_ScFarmCompute::State::~State() {
  try {
    GiveUpLease();
  } catch (...) {
  }
}

void JX_ScFarmCompute::State::GiveUpLease() {
  if (token_.empty()) return;
  tier_->Forget(key_, token_);
  token_.clear();
}

JX_ScFarmCompute::Outcome JX_ScFarmCompute::State::Fetch() {
  if (fetched_ || !tier_ || !item_) return kNotShared;
  fetched_ = true;
  try {
    if (!IdentityOf(*item_, &identity_)) return kNotShared;
    key_ = jx::farm::KeyOf(identity_);
  } catch (const std::exception&) {
    return kNotShared;  // an identity no cache file could carry
  }
  try {
    const Outcome outcome = LookUp();
    filled_ = outcome == kFilledFromFarm;
    return outcome;
  } catch (...) {
    // Out of memory, most likely: whatever it was, the host computes the item as on any miss.
    jx::farm::GetCounters().errors.fetch_add(1, std::memory_order_relaxed);
    jx::farm::GetCounters().misses.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX_Farm", 2, "farm lookup of " << key_ << " failed");
    return kComputeHere;
  }
}

JX_ScFarmCompute::Outcome JX_ScFarmCompute::State::LookUp() {
  auto& counters = jx::farm::GetCounters();
  const Step first = TryFetch();
  if (first == Step::kHit) return kFilledFromFarm;
  if (first == Step::kFault) {
    counters.misses.fetch_add(1, std::memory_order_relaxed);
    return kComputeHere;
  }
  const std::string token = jx::farm::NewLeaseToken(tier_->Config().node);
  const auto lease = std::chrono::milliseconds(tier_->Config().leaseMs);
  switch (tier_->Store().TakeLease(key_, token, lease)) {
    case jx::farm::FarmStore::LeaseStatus::kTaken:
      token_ = token;
      tier_->Renew(key_, token_);
      return Computing();
    case jx::farm::FarmStore::LeaseStatus::kHeldByOther:
      return WaitForOtherNode();
    case jx::farm::FarmStore::LeaseStatus::kFault:
      break;
  }
  counters.misses.fetch_add(1, std::memory_order_relaxed);
  return kComputeHere;
}

// With the lease in hand: the value may have been put there between the first look and the
// lease (its writer gives the lease up only after the value is in), so look once more.
JX_ScFarmCompute::Outcome JX_ScFarmCompute::State::Computing() {
  if (TryFetch() == Step::kHit) {
    GiveUpLease();
    return kFilledFromFarm;
  }
  jx::farm::GetCounters().misses.fetch_add(1, std::memory_order_relaxed);
  return kComputeHere;
}

JX_ScFarmCompute::Outcome JX_ScFarmCompute::State::WaitForOtherNode() {
  auto& counters = jx::farm::GetCounters();
  counters.leaseWaits.fetch_add(1, std::memory_order_relaxed);
  const JX_FarmConfig& config = tier_->Config();
  const uint64_t deadline = NowNs() + uint64_t{config.leaseWaitMs} * 1000000;
  const auto lease = std::chrono::milliseconds(config.leaseMs);
  auto poll = std::chrono::duration_cast<std::chrono::nanoseconds>(kFirstPoll);
  while (NowNs() < deadline) {
    jx::host::GetClock().SleepFor(poll);
    poll = std::min<std::chrono::nanoseconds>(poll * 2, kLongestPoll);
    const Step step = TryFetch();
    if (step == Step::kHit) return kFilledFromFarm;
    if (step == Step::kFault) break;
    const std::string token = jx::farm::NewLeaseToken(config.node);
    const auto taken = tier_->Store().TakeLease(key_, token, lease);
    if (taken == jx::farm::FarmStore::LeaseStatus::kFault) break;
    if (taken == jx::farm::FarmStore::LeaseStatus::kTaken) {
      token_ = token;
      tier_->Renew(key_, token_);
      const Outcome outcome = Computing();
      // A lease free with no value behind it: the holder's lapsed (it died, or lost the
      // server), or it gave the lease up without sharing. A value found after all was only a
      // holder that let go between our two looks.
      if (outcome == kComputeHere) {
        counters.leaseTakeovers.fetch_add(1, std::memory_order_relaxed);
        ZC_TRACE("JX_Farm", 3, "took over the lease of " << key_);
      }
      return outcome;
    }
  }
  if (NowNs() >= deadline) {
    counters.leaseWaitsGivenUp.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX_Farm", 3,
             "gave up waiting for " << key_ << " after " << config.leaseWaitMs
                                    << " ms; computing it here");
  }
  counters.misses.fetch_add(1, std::memory_order_relaxed);
  return kComputeHere;
}

JX_ScFarmCompute::State::Step JX_ScFarmCompute::State::TryFetch() {
  jx::farm::FarmStore::Fetched got = tier_->Store().Get(identity_);
  switch (got.status) {
    case jx::farm::FarmStore::GetStatus::kHit:
      switch (Fill(got)) {
        case Filled::kYes:
          return Step::kHit;
        case Filled::kRefused:
          // Gone now, like any corrupt value: computed under the lease and shared again.
          tier_->Store().Discard(identity_, got);
          return Step::kMiss;
        case Filled::kFault:
          return Step::kFault;
      }
      return Step::kFault;
    case jx::farm::FarmStore::GetStatus::kFault:
      return Step::kFault;
    default:
      return Step::kMiss;  // nothing there, or something bad that is gone now
  }
}

JX_ScFarmCompute::State::Filled JX_ScFarmCompute::State::Fill(
    jx::farm::FarmStore::Fetched& fetched) {
  auto& counters = jx::farm::GetCounters();
  try {
    JX_StuffData::Header header(identity_.header.begin(), identity_.header.end());
    IntrusivePtr<JX_StuffData> payload =
        JX_StuffData::CreateSubclass(identity_.matchName.c_str(), header);
    if (!payload) throw std::runtime_error("no payload factory for " + identity_.matchName);
    try {
      // The payload belongs to no item yet: a lock of its own stands for the item's.
      zelcore::threads::MultiTenantRecursiveMutex unshared;
      zelcore::threads::ScopedWriteLockWrapper w(unshared);
      zelcore::filesupport::MemoryIByteStream in(
          reinterpret_cast<const uint8_t*>(fetched.payload.data()), fetched.payload.size());
      payload->Read(in, unshared);
    } catch (const std::bad_alloc&) {
      throw;  // this node's trouble, not the value's
    } catch (...) {
      // The bytes passed their checksum, so the payload class itself refused them (another
      // build's format under the same version, a writer's bug).
      ZC_TRACE("JX_Farm", 2, "farm value " << key_ << " refused by its payload class");
      return Filled::kRefused;
    }
    fetched.payload = {};  // the payload holds its own copy now
    fetched.holder.reset();
    fetchedSeconds_ = fetched.computeSeconds;
    item_->SetStuffDataFromPendingRender(payload, fetchedSeconds_);
  } catch (...) {
    counters.errors.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX_Farm", 2, "farm value " << key_ << " could not be read into its payload");
    return Filled::kFault;
  }
  counters.hits.fetch_add(1, std::memory_order_relaxed);
  return Filled::kYes;
}

void JX_ScFarmCompute::State::Publish() {
  // A value that came from the farm is never put back.
  if (!tier_ || key_.empty() || !item_ || filled_) return;
  try {
    Offer();
  } catch (...) {
    jx::farm::GetCounters().errors.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX_Farm", 2, "offering " << key_ << " to the farm failed");
    GiveUpLease();
  }
}

void JX_ScFarmCompute::State::Offer() {
  const IntrusivePtr<JX_StuffData> data = item_->GetDataPtr();
  const double computeSeconds = item_->GetComputeTime();
  auto& counters = jx::farm::GetCounters();
  if (!data || !data->IsInMemory()) {
    GiveUpLease();
    return;
  }
  const uint32_t queued = counters.uploadsQueued.load(std::memory_order_relaxed);
  const double free = jx::disk::QueueFreeFraction(queued, 0, kUploadQueueCapacity);
  const uint64_t size = data->GetApproximateMemorySize();
  const double speed = jx::farm::ReadSpeed().GetAverage();
  const double latency = jx::farm::AverageLatencySeconds();
  if (!jx::disk::WorthWritingToFarm(size, computeSeconds, speed, latency,
                                    jx::disk::GetProclivityMultiplier(), free)) {
    counters.notWorthSharing.fetch_add(1, std::memory_order_relaxed);
    ZC_TRACE("JX_Farm", 3,
             "not sharing " << key_ << ": " << size << " bytes computed in " << computeSeconds
                            << " s; the farm reads " << speed << " bytes/s after " << latency
                            << " s (proclivity " << jx::disk::GetProclivityMultiplier()
                            << ", writes queued " << queued << ")");
    GiveUpLease();
    return;
  }
  std::shared_ptr<zelcore::threads::Executor> executor = jx::DiskExecutor();
  auto checkout = boost::make_shared<JX_ScCheckout>(item_, cf::kReadOnly | cf::kPassAlong);
  if (!executor || checkout->GetResult() != kJX_CheckedOut) {
    GiveUpLease();
    return;
  }
  auto upload = std::make_shared<Upload>();
  counters.uploadsQueued.fetch_add(1, std::memory_order_acq_rel);  // its destructor takes it off
  upload->tier = tier_;
  upload->identity = identity_;
  upload->key = key_;
  upload->token = std::exchange(token_, std::string());  // the write gives the lease up
  upload->checkout = std::move(checkout);
  upload->data = data;
  upload->computeSeconds = computeSeconds;
  // A refused post drops the last reference here, which settles the write at once.
  executor->Post([upload] { upload->Run(); });
}
