#include "bag/recency_log.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "bag/bag.h"
#include "bag/library_lock.h"
#include "host/cpu_relax.h"
#include "host/ref_counted.h"

namespace jx::recency {

// Moves the item to where its stamp puts it, unless it has left the bag (or been moved by a newer
// stamp) since the note was taken.
struct Applier {
  static void Apply(JX_Stuff& stuff, uint64_t stamp, const JXp_ScLock& lock) {
    JX_Bag* bag = stuff.mruBag_;
    if (bag && stamp > stuff.mruStamp_) bag->Reposition(stuff, stamp, lock);
  }
};

namespace {

using zelcore::utility::IntrusivePtr;
using zelcore::utility::WeakPtr;

struct Noted {
  WeakPtr<JX_Stuff> stuff;
  uint64_t stamp;
};

// Notes a thread keeps before it applies them itself: bounds both the delay before an item's
// move shows in the order and the memory the notes take.
constexpr size_t kNotesPerThread = 256;

class SpinGuard {
 public:
  explicit SpinGuard(std::atomic<bool>& word) : word_(word) {
    while (word_.exchange(true, std::memory_order_acquire)) {
      while (word_.load(std::memory_order_relaxed)) zelcore::threads::CpuRelax();
    }
  }
  ~SpinGuard() { word_.store(false, std::memory_order_release); }
  SpinGuard(const SpinGuard&) = delete;
  SpinGuard& operator=(const SpinGuard&) = delete;

 private:
  std::atomic<bool>& word_;
};

struct Log;

// Every thread's log, and the notes of threads that have ended.
struct Registry {
  std::mutex mutex;
  std::vector<Log*> logs;
  std::vector<Noted> orphans;
};
Registry& TheRegistry() {
  static auto* registry = new Registry;  // never destroyed: threads may end after statics go
  return *registry;
}

struct Log {
  std::atomic<bool> spin{false};
  std::vector<Noted> notes;  // guarded by spin

  Log() {
    notes.reserve(kNotesPerThread);
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> g(r.mutex);
    r.logs.push_back(this);
  }
  ~Log() {
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> g(r.mutex);
    r.logs.erase(std::find(r.logs.begin(), r.logs.end(), this));
    SpinGuard s(spin);
    for (Noted& n : notes) r.orphans.push_back(std::move(n));
  }
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
};

Log& MyLog() {
  thread_local Log log;
  return log;
}

std::vector<Noted> TakeEveryNote() {
  std::vector<Noted> all;
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> g(r.mutex);
  all.swap(r.orphans);
  for (Log* log : r.logs) {
    SpinGuard s(log->spin);
    for (Noted& n : log->notes) all.push_back(std::move(n));
    log->notes.clear();
  }
  return all;
}

}  // namespace

void Note(JX_Stuff& stuff, uint64_t stamp) {
  Log& log = MyLog();
  bool full;
  {
    SpinGuard s(log.spin);
    log.notes.push_back(Noted{WeakPtr<JX_Stuff>(&stuff), stamp});
    full = log.notes.size() >= kNotesPerThread;
  }
  if (full) {
    JXp_ScLock lock;
    ApplyAll(lock);
  }
}

void ApplyAll(const JXp_ScLock& lock) {
  std::vector<Noted> all = TakeEveryNote();
  if (all.empty()) return;
  // In stamp order every move lands at the young end; ties keep the order they were noted in.
  std::stable_sort(all.begin(), all.end(),
                   [](const Noted& a, const Noted& b) { return a.stamp < b.stamp; });
  auto held = std::make_shared<std::vector<IntrusivePtr<JX_Stuff>>>();
  held->reserve(all.size());
  for (const Noted& note : all) {
    IntrusivePtr<JX_Stuff> stuff = note.stuff.Lock();
    if (!stuff) continue;
    Applier::Apply(*stuff, note.stamp, lock);
    held->push_back(std::move(stuff));
  }
  // The last reference to an item may go with these: that happens once the lock is let go.
  std::deque<std::shared_ptr<void>> owners;
  owners.push_back(std::move(held));
  JXp_ScLock::ReleaseOutsideLock(std::move(owners));
}

}  // namespace jx::recency
