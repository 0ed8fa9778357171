// The farm tier's values and leases on its Redis server.
//
// Keys carry everything a local cache file's name carries (application version, match name,
// payload header, GUID), so a node of another version never reads a value it could not use:
//
//   jxfarm:<cache file name>                        the value (or its manifest)
//   jxfarm:<cache file name>:part:<tag>:<index>     a part of a large value
//   lease:jxfarm:<cache file name>                  which node is computing the value
//
// Values are written once: SET NX, so the first writer wins and a later one only counts a
// duplicate. A value larger than one part is written as parts under a tag of the writer's own,
// then its manifest under the key: the manifest is the commit point, so a reader never sees a
// value whose parts are still being written. The parts' names are the writer's, so two writers
// racing never overwrite each other's parts; the loser deletes its own.
//
// Every read checks the value's header (identity, length) and its XXH3-128. A value that fails
// is deleted with its parts and counted corrupt; a manifest whose part is gone (evicted, expired,
// deleted) is counted and deleted too, so that the next compute can put the value back.
// Everything that goes wrong on the wire is a fault: counted, traced, and a miss for the caller.
//
// Threads: any thread; the store has no state of its own beyond its settings.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "farm/farm_value.h"
#include "farm/redis_client.h"
#include "jxcache/farm/farm_tier.h"
#include "jxcache/host/guid.h"

namespace jx::farm {

// What identifies a value: the fields of its local cache file's name.
struct Identity {
  zelcore::utility::Guid guid;
  std::string matchName;
  uint32_t version = 0;
  std::vector<uint8_t> header;
};
// The value's key. Throws std::invalid_argument where a cache file name could not be made.
std::string KeyOf(const Identity& identity);
std::string LeaseKeyOf(const std::string& key);
std::string PartKeyOf(const std::string& key, const std::string& tag, uint32_t index);

// Values larger than this go in parts.
inline constexpr uint32_t kDefaultPartBytes = kJX_FarmDefaultPartBytes;

class FarmStore {
 public:
  struct Limits {
    uint32_t partBytes = kDefaultPartBytes;
    std::chrono::milliseconds ttl{0};  // 0: values never expire
  };
  FarmStore(RedisPool& pool, std::string node, Limits limits);

  enum class GetStatus { kHit, kMiss, kCorrupt, kMissingPart, kFault };
  struct Fetched {
    GetStatus status = GetStatus::kMiss;
    // The value's bytes, checked, where they arrived from the server (not copied); valid
    // while `holder` (or a copy of it) lives.
    std::string_view payload;
    std::shared_ptr<const void> holder;
    double computeSeconds = 0.0;
    std::string writerNode;
    // A hit's header, which names its parts, and its bytes as they were on the server: Discard
    // deletes the value only while the key still holds it.
    ValueHeader header;
    std::string headerBytes;
  };
  // The value of `identity`, checked. Counts corrupt values, missing parts and faults (not hits
  // or misses: a lookup may ask several times).
  Fetched Get(const Identity& identity);

  // Deletes a value that passed its checks but that its payload class refused, with its parts,
  // and counts it corrupt: it would otherwise keep the good value out (writes are SET NX).
  void Discard(const Identity& identity, const Fetched& fetched);

  enum class PutStatus { kWritten, kDuplicate, kFault };
  // Puts the payload under `identity` unless a value is there already. Counts writes,
  // duplicates and faults.
  PutStatus Put(const Identity& identity, std::string_view payload, double computeSeconds);

  enum class LeaseStatus { kTaken, kHeldByOther, kFault };
  // SET lease NX PX: `token` holds the lease for `duration` unless another token does.
  LeaseStatus TakeLease(const std::string& key, const std::string& token,
                        std::chrono::milliseconds duration);
  enum class RenewStatus { kRenewed, kLost, kFault };
  // Extends the lease when `token` still holds it. kLost when it does not (it lapsed, or another
  // token holds it); kFault when the server could not say.
  RenewStatus RenewLease(const std::string& key, const std::string& token,
                         std::chrono::milliseconds duration);
  // Gives the lease up when `token` holds it.
  void ReleaseLease(const std::string& key, const std::string& token);

  const std::string& Node() const { return node_; }
  RedisPool& Pool() { return pool_; }

 private:
  Reply Run(const std::vector<std::string_view>& args);
  Fetched ReadParts(const std::string& key, const ValueHeader& header,
                    const std::string& headerBytes);
  // Deletes the parts `header` names, then the key, but only while the key's value still starts
  // with `seen` (what this reader found there): another reader may have deleted it already and
  // the key taken a good value again, which must stay. Empty `seen`: only while the key holds
  // an empty string.
  void DeleteValue(const std::string& key, const ValueHeader* header, std::string_view seen);
  PutStatus PutParts(const std::string& key, std::string_view payload, std::string manifest,
                     const std::string& tag, uint32_t parts);
  std::string TtlArg() const;

  RedisPool& pool_;
  const std::string node_;
  const Limits limits_;
};

// A token no other holder of a lease has: the node, this process and a serial number.
std::string NewLeaseToken(const std::string& node);

}  // namespace jx::farm
