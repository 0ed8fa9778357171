#include "tools/jxcache/session_content.h"

#include <algorithm>

#include "jxcache/bag/content_map.h"
#include "tools/jxcache/frame_payload.h"

namespace jx::tool {
namespace {

FrameState StateOf(const JX_ContentRow& row) {
  if (row.pending) return FrameState::kPending;
  if (row.inMemory && row.onDisk) return FrameState::kBoth;
  if (row.inMemory) return FrameState::kInMemory;
  if (row.onDisk) return FrameState::kOnDiskOnly;
  return FrameState::kAbsent;
}

}  // namespace

ContentMapper::ContentMapper(const SimulateOptions& o)
    : enabled_(o.contentMaps), frames_(o.frames) {
  // Every pass ends with a map; the maps within passes take what the bound leaves.
  const uint64_t perPass = kContentMomentsWithinPass + 1;
  within_ = uint64_t{o.passes} * perPass <= kMaxContentMoments ? kContentMomentsWithinPass : 0;
  if (!enabled_) return;
  frameOfKey_.reserve(o.frames);
  for (uint32_t f = 0; f < o.frames; ++f) {
    frameOfKey_.emplace(FramePayload::KeyOf(o.width, o.height, f).AsString(), f);
  }
}

bool ContentMapper::DueWithin(uint64_t done, uint64_t requests) {
  // The pass's last request done: the map at its end follows.
  if (!enabled_ || takenWithin_ >= within_ || done >= requests) return false;
  const uint64_t share = done * (within_ + 1) / requests;
  if (share <= takenWithin_) return false;
  // Shares the main thread slept through are skipped, not made up with maps of one moment.
  takenWithin_ = static_cast<uint32_t>(share);
  return true;
}

FrameState ContentMapper::Merge(FrameState a, FrameState b) {
  if (a == FrameState::kAbsent) return b;
  if (b == FrameState::kAbsent) return a;
  // A payload anywhere beats a render under way; memory and disk add up.
  if (a == FrameState::kPending) return b;
  if (b == FrameState::kPending) return a;
  if (a != b) return FrameState::kBoth;
  return a;
}

void ContentMapper::Take(const JX_Bag& bag, double seconds, uint32_t pass, uint64_t done,
                         bool passEnded, SessionResult* result) {
  if (!enabled_ || result->contentMoments.size() >= kMaxContentMoments) return;
  const JX_ContentSnapshot snap = JX_TakeContentSnapshot(bag);
  ContentMoment m;
  m.seconds = seconds;
  m.pass = pass;
  m.requestsDone = done;
  m.passEnded = passEnded;
  m.items = snap.rows.size();
  m.snapshotNanos = snap.totalNanos;
  m.maxLockHoldNanos = snap.maxLockHoldNanos;
  m.frames.assign(frames_, FrameState::kAbsent);
  for (const JX_ContentRow& row : snap.rows) {
    const auto it = frameOfKey_.find(row.key);
    if (it == frameOfKey_.end()) continue;  // a compute value, not a frame
    m.frames[it->second] = Merge(m.frames[it->second], StateOf(row));
  }
  result->contentMoments.push_back(std::move(m));
}

}  // namespace jx::tool
