#include "farm/tier.h"

#include <utility>
#include <vector>

#include "common/settings.h"
#include "farm/farm_counters.h"
#include "host/trace.h"
#include "jxcache/host/guid.h"

namespace jx::farm {
namespace {

struct Attached {
  std::mutex mutex;  // a leaf: held only to copy or swap the pointer
  std::shared_ptr<Tier> tier;
};

Attached& TheAttached() {
  static Attached* attached = new Attached;  // never destroyed: writes may outlive statics
  return *attached;
}

RedisPool::Options PoolOptions(const JX_FarmConfig& c, const Address& address) {
  RedisPool::Options o;
  o.address = address;
  o.connectTimeout = std::chrono::milliseconds(c.connectTimeoutMs);
  o.commandTimeout = std::chrono::milliseconds(c.commandTimeoutMs);
  return o;
}

FarmStore::Limits StoreLimits(const JX_FarmConfig& c) {
  FarmStore::Limits l;
  l.partBytes = c.partBytes;
  l.ttl = std::chrono::milliseconds(uint64_t{c.ttlSeconds} * 1000);
  return l;
}

}  // namespace

Tier::Tier(const JX_FarmConfig& config, const Address& address)
    : config_(config),
      pool_(PoolOptions(config, address)),
      store_(pool_, config.node, StoreLimits(config)) {
  renewer_ = jx::host::GetThreads().StartThread([this] { RenewLoop(); });
}

Tier::~Tier() { Stop(); }

void Tier::Renew(const std::string& key, const std::string& token) {
  std::lock_guard<std::mutex> lock(mutex_);
  leases_[token] = key;
}

void Tier::Forget(const std::string& key, const std::string& token) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    leases_.erase(token);
  }
  store_.ReleaseLease(key, token);
}

void Tier::Stop() {
  // The leases stay with their holders: a compute or a write still running on this tier goes
  // on after the stop, shares its value and gives its lease up then (Forget). Given up here,
  // a waiting node would take the lease over and compute the item too. A holder that never
  // finishes (the process ends) leaves its lease to lapse, as a dead node's does.
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
  }
  wake_.notify_all();
  if (renewer_) renewer_->Join();
}

void Tier::RenewLoop() {
  const auto period = std::chrono::milliseconds(std::max<uint32_t>(config_.leaseMs / 3, 1));
  const auto duration = std::chrono::milliseconds(config_.leaseMs);
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    wake_.wait_for(lock, period);
    if (stopping_) break;
    const std::vector<std::pair<std::string, std::string>> held(leases_.begin(), leases_.end());
    lock.unlock();
    std::vector<std::string> lost;
    for (const auto& [token, key] : held) {
      // A fault (a dropped connection, a timeout and its back-off) says nothing of the lease:
      // it is tried again next turn, which still comes before the lease lapses. Dropped now,
      // the lease of a long compute would lapse and a waiting node compute the item too.
      if (store_.RenewLease(key, token, duration) == FarmStore::RenewStatus::kLost) {
        lost.push_back(token);
      }
    }
    lock.lock();
    for (const std::string& token : lost) {
      // It lapsed (the server was out of reach for longer than the lease: another node may
      // compute the item too, a duplicate, never a wrong frame) or another node took it over.
      if (leases_.erase(token)) {
        GetCounters().leasesLost.fetch_add(1, std::memory_order_relaxed);
        ZC_TRACE("JX_Farm", 3, "lease " << token << " lost");
      }
    }
  }
}

std::shared_ptr<Tier> CurrentTier() {
  Attached& a = TheAttached();
  std::lock_guard<std::mutex> lock(a.mutex);
  return a.tier;
}

}  // namespace jx::farm

JX_FarmConfig JX_FarmConfigFromSettings() {
  namespace s = jx::settings;
  JX_FarmConfig c;
  c.address = s::FarmAddress();
  c.node = s::FarmNode();
  c.connectTimeoutMs = s::FarmConnectTimeoutMs();
  c.commandTimeoutMs = s::FarmCommandTimeoutMs();
  c.leaseMs = s::FarmLeaseMs();
  c.leaseWaitMs = s::FarmLeaseWaitMs();
  c.ttlSeconds = s::FarmTtlSeconds();
  return c;
}

bool JX_AttachFarmTier(const JX_FarmConfig& config, std::string* why) {
  std::string reason;
  jx::farm::Address address;
  if (!jx::farm::ParseAddress(config.address, &address, &reason)) {
    if (why) *why = "farm address \"" + config.address + "\": " + reason;
    return false;
  }
  if (config.connectTimeoutMs == 0 || config.commandTimeoutMs == 0 || config.leaseMs == 0 ||
      config.partBytes == 0) {
    if (why) *why = "farm timeouts, lease time and part size must be more than 0";
    return false;
  }
  JX_FarmConfig c = config;
  if (c.node.empty()) c.node = "node-" + zelcore::utility::Guid::CreateUnique().AsString();
  auto tier = std::make_shared<jx::farm::Tier>(c, address);
  std::shared_ptr<jx::farm::Tier> previous;
  {
    jx::farm::Attached& a = jx::farm::TheAttached();
    std::lock_guard<std::mutex> lock(a.mutex);
    previous = std::exchange(a.tier, std::move(tier));
  }
  if (previous) previous->Stop();
  ZC_TRACE("JX_Farm", 3, "farm tier " << address.ToString() << " attached as node " << c.node);
  return true;
}

void JX_DetachFarmTier() {
  std::shared_ptr<jx::farm::Tier> previous;
  {
    jx::farm::Attached& a = jx::farm::TheAttached();
    std::lock_guard<std::mutex> lock(a.mutex);
    previous.swap(a.tier);
  }
  if (previous) previous->Stop();
}

bool JX_IsFarmTierAttached() { return jx::farm::CurrentTier() != nullptr; }

bool JX_WaitForFarmWrites(uint32_t timeoutMs) {
  auto& clock = jx::host::GetClock();
  const uint64_t deadline = clock.NowNanoseconds() + uint64_t{timeoutMs} * 1000000;
  const auto& queued = jx::farm::GetCounters().uploadsQueued;
  while (queued.load(std::memory_order_acquire) != 0) {
    if (clock.NowNanoseconds() >= deadline) return false;
    clock.SleepFor(std::chrono::milliseconds(2));
  }
  return true;
}
