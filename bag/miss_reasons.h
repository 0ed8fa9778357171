// Why look-ups miss: a bounded memory of the keys that recently left memory (or the cache) and
// why, and the per-payload-class count of misses by reason.
//
// A look-up is one call of JX_Bag::FindAndCheckout made for a caller (the folder scan's own
// searches are not look-ups). It is a hit when it returns an item checked out with its payload
// in memory without having read it from disk, also after waiting for another thread's render.
// Every other outcome is a miss and counts exactly one reason: a refusal, a created pending item,
// a check-out served by a disk read, a check-out of an item left on disk, or a pending item the
// caller could not wait for. The hit path never comes here.
//
// The departure table has a fixed number of slots, indexed and tagged by the GUID's directory
// hash, each a single atomic word: recording and looking up never lock or allocate, so they may
// be called holding the library lock, an item lock or the GUID spin lock. A slot overwritten by
// another key, or never written, answers "never seen". Miss counters are relaxed atomics; the
// class table takes a leaf mutex only the first time a class misses.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class JX_Stuff;
class JX_StuffData;

namespace jx::miss {

enum class Reason : uint8_t {
  kNeverSeen = 0,
  kMemoryPurge,
  kMediaManager,
  kReplaced,
  kFolderLimit,
  kFailedRead,
  kOtherVersion,
  kNotWorthWriting,
  kPendingDeadline,
};
inline constexpr int kReasonCount = 9;
// snake_case, as the statistics show them.
const char* ReasonName(Reason reason);

// ---- departures -------------------------------------------------------------------------------
// Remembers that the key with this directory hash left memory (or the cache) for `reason`.
void NoteDeparture(size_t guidHash, Reason reason);
// Remembers that the write rule declined to write the key's payload. It is no departure yet: it
// turns a later purge of the payload, with no disk copy, into "not worth writing".
void NoteWriteDeclined(size_t guidHash);
// Why the key with this hash is not in memory, as far as the table remembers.
Reason DepartureOf(size_t guidHash);
// The slot a hash is remembered in: two keys that share one forget each other.
size_t DepartureSlotOf(size_t guidHash);
// A purge freed the payload of the key with this hash: records the cause in force on this thread
// (ScDepartureCause; a memory purge by default). `hasDiskCopy`: a copy stays in the cache folder.
void NotePurged(size_t guidHash, bool hasDiskCopy);
// Whether this thread frees memory under an explicit cause (a purge that freed nothing records
// nothing unless someone said why the item went).
bool HasExplicitCause();

// Sets why the items this thread purges while it lives leave memory (the media manager, the
// folder limit), instead of "memory purge".
class ScDepartureCause {
 public:
  explicit ScDepartureCause(Reason reason);
  ~ScDepartureCause();
  ScDepartureCause(const ScDepartureCause&) = delete;
  ScDepartureCause& operator=(const ScDepartureCause&) = delete;

 private:
  Reason previous_;
  bool previousExplicit_;
};

// ---- look-ups ---------------------------------------------------------------------------------
// How the look-ups this thread makes while the scope lives are counted.
enum LookupMode : int {
  kCountAll = 0,
  kNotALookup = 1,         // the library's own searches (adopting a file)
  kRefusalNotCounted = 2,  // a probe the caller follows with a second search when it finds nothing
  kCallerWaits = 4,        // a pending item returned is the caller's to wait for, and to count
};
class ScLookupMode {
 public:
  explicit ScLookupMode(int mode);
  ~ScLookupMode();
  ScLookupMode(const ScLookupMode&) = delete;
  ScLookupMode& operator=(const ScLookupMode&) = delete;

 private:
  int previous_;
};
int CurrentLookupMode();

// Disk reads this thread made, and those that failed: a search compares them before and after
// the step that may read.
struct ThreadReads {
  uint32_t done = 0;
  uint32_t failed = 0;
};
ThreadReads ThisThreadReads();
void NoteReadDone();
void NoteReadFailed();

// Counts one miss of a request whose find-key data is `key` (null: the fallback class).
void CountMiss(const JX_StuffData* key, Reason reason);
// Same, for the find-key data of `request`.
void CountMissOf(const JX_Stuff& request, Reason reason);

// ---- reading ----------------------------------------------------------------------------------
// At most this many classes are told apart; later ones count under kOtherClass.
inline constexpr int kMaxClasses = 16;
inline constexpr const char* kOtherClass = "other";
struct ClassRow {
  std::string payloadClass;
  std::array<uint64_t, kReasonCount> byReason{};
};
// One row per class that has missed since the process started, in the order they first did.
std::vector<ClassRow> Snapshot();
// Zeroes the counts; the departure table and the classes known stay.
void ResetCounts();

}  // namespace jx::miss
