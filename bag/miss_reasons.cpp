#include "bag/miss_reasons.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include "jxcache/items/stuff.h"

namespace jx::miss {

namespace {

// ---- the departure table ----------------------------------------------------------------------
// A slot holds the key's hash with its low byte replaced by a code: a Reason, or kDeclinedMark
// for a key whose write was declined while it is still in memory. Zero is an empty slot.
constexpr int kSlotBits = 13;
constexpr size_t kSlotCount = size_t{1} << kSlotBits;
constexpr uint64_t kCodeMask = 0xFF;
constexpr uint64_t kDeclinedMark = 0x80;

constinit std::array<std::atomic<uint64_t>, kSlotCount> gSlots{};

std::atomic<uint64_t>& SlotOf(size_t hash) { return gSlots[DepartureSlotOf(hash)]; }
uint64_t TagOf(size_t hash) { return static_cast<uint64_t>(hash) & ~kCodeMask; }

// The code stored for this key, or 0 when its slot holds another key (or nothing).
uint64_t CodeOf(size_t hash) {
  const uint64_t v = SlotOf(hash).load(std::memory_order_relaxed);
  return (v & ~kCodeMask) == TagOf(hash) ? (v & kCodeMask) : 0;
}

void Store(size_t hash, uint64_t code) {
  SlotOf(hash).store(TagOf(hash) | code, std::memory_order_relaxed);
}

thread_local Reason tCause = Reason::kMemoryPurge;
thread_local bool tCauseExplicit = false;
thread_local int tLookupMode = kCountAll;
thread_local ThreadReads tReads;

// ---- the per-class counts ---------------------------------------------------------------------
// Slot 0 is the fallback class. A name is written once, before the count that publishes it.
std::mutex gClassMutex;  // leaf: only taken to add a class
std::atomic<int> gClassCount{1};
std::array<std::string, kMaxClasses> gClassNames{kOtherClass};
constinit std::array<std::array<std::atomic<uint64_t>, kReasonCount>, kMaxClasses> gCounts{};

int FindClass(const char* name, int known) {
  for (int i = 1; i < known; ++i) {
    if (gClassNames[i] == name) return i;
  }
  return -1;
}

int ClassIndex(const char* name) {
  if (!name || !*name || std::strcmp(name, kOtherClass) == 0) return 0;
  const int known = gClassCount.load(std::memory_order_acquire);
  if (int i = FindClass(name, known); i >= 0) return i;
  std::lock_guard<std::mutex> lock(gClassMutex);
  const int now = gClassCount.load(std::memory_order_relaxed);
  if (int i = FindClass(name, now); i >= 0) return i;
  if (now == kMaxClasses) return 0;
  gClassNames[now] = name;
  gClassCount.store(now + 1, std::memory_order_release);
  return now;
}

}  // namespace

size_t DepartureSlotOf(size_t guidHash) {
  // The directory hash's low bits may be weak; a multiplicative mix spreads them.
  return (static_cast<uint64_t>(guidHash) * 0x9E3779B97F4A7C15ull) >> (64 - kSlotBits);
}

const char* ReasonName(Reason reason) {
  static constexpr const char* kNames[kReasonCount] = {
      "never_seen",  "memory_purge",  "media_manager",     "replaced",         "folder_limit",
      "failed_read", "other_version", "not_worth_writing", "pending_deadline",
  };
  const auto i = static_cast<int>(reason);
  return i >= 0 && i < kReasonCount ? kNames[i] : "never_seen";
}

void NoteDeparture(size_t guidHash, Reason reason) {
  if (reason != Reason::kNeverSeen) Store(guidHash, static_cast<uint64_t>(reason));
}

void NoteWriteDeclined(size_t guidHash) { Store(guidHash, kDeclinedMark); }

Reason DepartureOf(size_t guidHash) {
  const uint64_t code = CodeOf(guidHash);
  // A declined write alone does not explain a miss: the payload was still in memory then.
  if (code == 0 || code >= kReasonCount) return Reason::kNeverSeen;
  return static_cast<Reason>(code);
}

void NotePurged(size_t guidHash, bool hasDiskCopy) {
  Reason reason = tCause;
  if (reason == Reason::kMemoryPurge && !hasDiskCopy && CodeOf(guidHash) == kDeclinedMark) {
    reason = Reason::kNotWorthWriting;
  }
  NoteDeparture(guidHash, reason);
}

bool HasExplicitCause() { return tCauseExplicit; }

ScDepartureCause::ScDepartureCause(Reason reason)
    : previous_(tCause), previousExplicit_(tCauseExplicit) {
  tCause = reason;
  tCauseExplicit = true;
}
ScDepartureCause::~ScDepartureCause() {
  tCause = previous_;
  tCauseExplicit = previousExplicit_;
}

ScLookupMode::ScLookupMode(int mode) : previous_(tLookupMode) { tLookupMode = mode; }
ScLookupMode::~ScLookupMode() { tLookupMode = previous_; }
int CurrentLookupMode() { return tLookupMode; }

ThreadReads ThisThreadReads() { return tReads; }
void NoteReadDone() { ++tReads.done; }
void NoteReadFailed() { ++tReads.failed; }

void CountMiss(const JX_StuffData* key, Reason reason) {
  const int c = ClassIndex(key ? key->GetSubclassMatchname() : nullptr);
  gCounts[c][static_cast<int>(reason)].fetch_add(1, std::memory_order_relaxed);
}

void CountMissOf(const JX_Stuff& request, Reason reason) {
  const auto key = request.GetFindKeyData();
  CountMiss(key.get(), reason);
}

std::vector<ClassRow> Snapshot() {
  const int known = gClassCount.load(std::memory_order_acquire);
  std::vector<ClassRow> rows;
  rows.reserve(known);
  // The fallback class last, and only when something counted there.
  for (int i = 1; i <= known; ++i) {
    const int c = i == known ? 0 : i;
    ClassRow row;
    row.payloadClass = gClassNames[c];
    uint64_t sum = 0;
    for (int r = 0; r < kReasonCount; ++r) {
      row.byReason[r] = gCounts[c][r].load(std::memory_order_relaxed);
      sum += row.byReason[r];
    }
    if (c != 0 || sum != 0) rows.push_back(std::move(row));
  }
  return rows;
}

void ResetCounts() {
  for (auto& row : gCounts) {
    for (auto& cell : row) cell.store(0, std::memory_order_relaxed);
  }
}

}  // namespace jx::miss
