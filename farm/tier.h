// The farm tier's insides: the attached tier, its store and its lease renewal. The host's side
// (JX_FarmConfig, attaching and detaching) is in jxcache/farm/farm_tier.h.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "farm/farm_store.h"
#include "farm/redis_client.h"
#include "jxcache/farm/farm_tier.h"
#include "jxcache/host/export.h"
#include "jxcache/host/host_services.h"

namespace jx::farm {

class Tier {
 public:
  Tier(const JX_FarmConfig& config, const Address& address);
  ~Tier();
  Tier(const Tier&) = delete;
  Tier& operator=(const Tier&) = delete;

  FarmStore& Store() { return store_; }
  const JX_FarmConfig& Config() const { return config_; }
  // Keeps the lease of `key` renewed until Forget; Forget also gives it up on the server.
  void Renew(const std::string& key, const std::string& token);
  void Forget(const std::string& key, const std::string& token);
  // Stops the renewal thread. The leases still held are given up by their holders (Forget),
  // or lapse.
  void Stop();

 private:
  void RenewLoop();

  const JX_FarmConfig config_;
  RedisPool pool_;
  FarmStore store_;
  std::mutex mutex_;  // a leaf: guards leases_ and stopping_, never held across I/O
  std::condition_variable wake_;
  std::map<std::string, std::string> leases_;  // token -> key
  bool stopping_ = false;
  std::unique_ptr<jx::host::JoinableThread> renewer_;
};

// The attached tier, or null.
std::shared_ptr<Tier> CurrentTier();

}  // namespace jx::farm
