// The farm tier: a Redis server that many machines rendering one job share as a second tier
// beside each machine's own disk cache folder, so that each frame is rendered once on the farm.
//
// Reading goes memory, local disk folder, farm, compute: the host asks the farm only for an item
// it has to compute (a pending item, after the local tiers missed), through JX_ScFarmCompute
// (jxcache/farm/farm_compute.h). A value found in the farm fills the item and is written
// to the local folder by the ordinary disk writer; it is never put in the farm again. A value
// computed here is offered to the farm after its check-in, and written by a task of the disk
// executor, never on the render thread.
//
// One tier at a time is attached to the process. Attaching parses the address only; a server
// that is down, slow or full is not an error now or later: every fault is a miss or a skipped
// write, counted (the "farm" group of the statistics) and traced under "JX_Farm".
//
// While a node computes an item it holds the item's lease, which a thread of the tier renews
// every third of the lease time; a node that dies stops renewing and its lease lapses, so a
// waiting node takes over.
//
// Threads: any thread may call these. Attach and detach swap the tier under a leaf mutex;
// users hold the tier by shared pointer, so a detach never pulls it from under a running
// lookup or write.
#pragma once

#include <cstdint>
#include <string>

#include "jxcache/host/export.h"

// Values larger than this go in parts, so that no one command holds the single-threaded server
// for long (and the server charges a value of exactly 8 MiB as 10).
inline constexpr uint32_t kJX_FarmDefaultPartBytes = 8u << 20;

struct JX_EXPORT JX_FarmConfig {
  std::string address;  // "redis://HOST:PORT" or "unix:///path/to/socket"; empty: no farm tier
  std::string node;     // this machine's name in values and leases; empty: a unique one
  uint32_t connectTimeoutMs = 100;
  uint32_t commandTimeoutMs = 250;
  uint32_t leaseMs = 5000;       // a lease not renewed for this long lapses
  uint32_t leaseWaitMs = 10000;  // the longest a render thread waits for another node's compute
  uint32_t ttlSeconds = 86400;   // values expire after this; 0: never
  uint32_t partBytes = kJX_FarmDefaultPartBytes;  // larger values go in parts
};

// The configuration the settings table gives ("JX.Farm.Address", "JX.Farm.Node",
// "JX.Farm.ConnectTimeoutMs", "JX.Farm.CommandTimeoutMs", "JX.Farm.LeaseMs",
// "JX.Farm.LeaseWaitMs", "JX.Farm.TTLSeconds").
JX_EXPORT JX_FarmConfig JX_FarmConfigFromSettings();
// Attaches a farm tier (replacing any other). False, with the reason in `why`, when the address
// does not parse or a limit is 0; nothing is attached then.
JX_EXPORT bool JX_AttachFarmTier(const JX_FarmConfig& config, std::string* why);
// Detaches the tier: its lease renewal stops. Lookups, computes and writes already running
// finish on the detached tier, and each gives its lease up when done (a lease whose holder never
// finishes lapses).
JX_EXPORT void JX_DetachFarmTier();
JX_EXPORT bool JX_IsFarmTierAttached();
// Waits (up to `timeoutMs`) until no farm write is queued or running; true when none is. Call
// it without holding any cache lock.
JX_EXPORT bool JX_WaitForFarmWrites(uint32_t timeoutMs);
