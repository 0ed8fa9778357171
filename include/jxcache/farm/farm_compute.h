// What a host does around the compute of an item so that the farm computes it once.
//
// A render thread that got a pending item to fill (JX_ScCheckout::FindAndCheckout answered 2:
// memory and the local disk folder missed) makes a JX_ScFarmCompute of the item and calls Fetch:
//
//   JX_ScFarmCompute farm(item);
//   if (farm.Fetch() == JX_ScFarmCompute::kFilledFromFarm) {
//     handle.Checkin(0, farm.FetchedComputeSeconds());   // a farm hit: nothing to compute
//   } else {
//     ... compute, SetStuffDataFromPendingRender, handle.Checkin(0, seconds) ...
//     farm.Publish();                                      // offers the value to the farm
//   }
//
// Fetch looks the item up in the farm. On a miss it takes the item's lease, so that other nodes
// asking for it wait for this one's compute instead of repeating it; when another node holds
// the lease, Fetch waits for that node's value, for at most the configured wait, polling, and
// takes the lease over when it lapses (the node died or lost its connection). A hit fills the
// pending item; the host's check-in then offers it to the local disk writer as usual, with the
// compute time the writing node measured.
//
// Publish, after the check-in, decides with the farm's measured speed and latency whether the
// value is worth sharing, and if so queues its write on the disk executor; the lease is held and
// renewed until that write is over, then given up. Destroying the object without Publish (the
// compute failed or was abandoned) gives the lease up at once, and the waiting nodes take over.
//
// Nothing here ever throws to the host or reports an error: a fault of the farm is a miss (the
// host computes) or a skipped write. Call Fetch and Publish holding no cache lock (they do
// network I/O and may wait). One thread uses one object.
#pragma once

#include <memory>

#include "jxcache/host/export.h"
#include "jxcache/host/ref_counted.h"

class JX_Stuff;

class JX_EXPORT JX_ScFarmCompute {
 public:
  enum Outcome {
    kNotShared = 0,       // no farm tier, or an item that cannot be shared: compute it
    kFilledFromFarm = 1,  // the pending item holds the farm's value: check it in
    kComputeHere = 2,     // compute it, check it in, then Publish
  };

  explicit JX_ScFarmCompute(zelcore::utility::IntrusivePtr<JX_Stuff> pendingItem);
  ~JX_ScFarmCompute();
  JX_ScFarmCompute(const JX_ScFarmCompute&) = delete;
  JX_ScFarmCompute& operator=(const JX_ScFarmCompute&) = delete;

  Outcome Fetch();
  // The compute seconds the value's writer measured (after kFilledFromFarm).
  double FetchedComputeSeconds() const;
  // Offers the item's value to the farm (after its check-in; only after kComputeHere).
  void Publish();
  // Whether this node holds the item's lease now.
  bool HoldsLease() const;

 private:
  // The lookup's state and steps, with the farm's own types: not part of the interface (the
  // library keeps its symbols to itself).
  struct State;
  std::unique_ptr<State> state_;
};
