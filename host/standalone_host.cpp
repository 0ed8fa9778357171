// The standalone host's policy object.
#include "host/standalone_host.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <optional>

#include "host/thread_annotations.h"

namespace jx {

namespace {

uint64_t DefaultMemoryLimit() {
  long pages = sysconf(_SC_PHYS_PAGES);
  long pageSize = sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || pageSize <= 0) return uint64_t{1} << 30;  // unknown: assume a modest 1 GB
  return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize) / 2;
}

constexpr size_t kReportKinds = 4;
size_t KindIndex(HostReport::Kind kind) { return static_cast<size_t>(kind); }

const char* KindName(HostReport::Kind kind) {
  switch (kind) {
    case HostReport::Kind::kFailedVerification:
      return "failed verification";
    case HostReport::Kind::kErrString:
      return "error string";
    case HostReport::Kind::kError:
      return "error";
    case HostReport::Kind::kException:
      return "exception";
  }
  return "report";
}

}  // namespace

struct StandaloneHost::State {
  mutable Mutex mutex;
  // Asked for every item a purge walk looks at (the cache's floor): read without the lock.
  std::atomic<uint64_t> memoryLimit{0};
  std::atomic<int32_t> memUsageLimitsStatus{0};
  std::optional<uint64_t> amountAvailableBeforePurge GUARDED_BY(mutex);  // unset: the memory limit
  std::shared_ptr<const std::function<uint64_t()>> amountAvailableFunction GUARDED_BY(mutex);
  uint64_t recycledBytes GUARDED_BY(mutex) = 0;
  uint64_t recycledCalls GUARDED_BY(mutex) = 0;
  std::shared_ptr<const std::function<void(uint64_t)>> recycledObserver GUARDED_BY(mutex);
  std::deque<HostReport> reports GUARDED_BY(mutex);                     // the last kKeptReports
  std::array<uint64_t, kReportKinds> reportCounts GUARDED_BY(mutex){};  // every report, by kind
  std::map<std::string, std::u16string> translations GUARDED_BY(mutex);

  // Read on hot paths without the lock.
  std::atomic<uint64_t> amountToPurge{0};
  std::atomic<zelcore::threads::ThreadId> mainThread{zelcore::threads::kNoThread};
  std::atomic<bool> echoReports{true};
  // Allocation failure plan: `failCountdown` allocations from now the next one fails; once
  // `failingForever` is set every allocation fails.
  std::atomic<uint64_t> failCountdown{0};
  std::atomic<bool> failPersistent{false};
  std::atomic<bool> failingForever{false};

  void ClearReportsLocked() REQUIRES(mutex) {
    reports.clear();
    reportCounts.fill(0);
  }

  void ResetLocked() REQUIRES(mutex) {
    memoryLimit.store(DefaultMemoryLimit());
    memUsageLimitsStatus.store(0);
    amountAvailableBeforePurge.reset();
    amountAvailableFunction.reset();
    recycledBytes = 0;
    recycledCalls = 0;
    recycledObserver.reset();
    ClearReportsLocked();
    translations.clear();
    amountToPurge.store(0);
    echoReports.store(true);
    failCountdown.store(0);
    failPersistent.store(false);
    failingForever.store(false);
  }
};

StandaloneHost& StandaloneHost::Instance() {
  // Never destroyed: the library may consult the host from static destructors.
  static StandaloneHost* host = new StandaloneHost();
  return *host;
}

StandaloneHost::StandaloneHost() : state_(new State) {
  MutexLock lock(state_->mutex);
  state_->ResetLocked();
  // The first thread to touch the host plays the application's main thread.
  state_->mainThread.store(zelcore::threads::CurrentThreadId());
}

void StandaloneHost::Reset() {
  // The main thread stays what it was: it is a fact about the process, not a policy setting.
  MutexLock lock(state_->mutex);
  state_->ResetLocked();
}

void StandaloneHost::SetMemoryLimit(uint64_t bytes) { state_->memoryLimit.store(bytes); }

uint64_t StandaloneHost::GetMemoryLimit() const { return state_->memoryLimit.load(); }

void StandaloneHost::SetMemUsageLimitsStatus(int32_t status) {
  state_->memUsageLimitsStatus.store(status);
}

int32_t StandaloneHost::GetMemUsageLimitsStatus() const {
  return state_->memUsageLimitsStatus.load();
}

void StandaloneHost::SetAmountAvailableBeforePurge(uint64_t bytes) {
  MutexLock lock(state_->mutex);
  state_->amountAvailableBeforePurge = bytes;
  state_->amountAvailableFunction.reset();
}

void StandaloneHost::SetAmountAvailableBeforePurgeFunction(std::function<uint64_t()> fn) {
  auto shared = fn ? std::make_shared<const std::function<uint64_t()>>(std::move(fn)) : nullptr;
  MutexLock lock(state_->mutex);
  state_->amountAvailableFunction = std::move(shared);
}

uint64_t StandaloneHost::GetAmountAvailableBeforePurge() const {
  std::shared_ptr<const std::function<uint64_t()>> fn;
  {
    MutexLock lock(state_->mutex);
    if (!state_->amountAvailableFunction) {
      return state_->amountAvailableBeforePurge.value_or(state_->memoryLimit.load());
    }
    fn = state_->amountAvailableFunction;
  }
  // Called without the lock: the function typically asks the cache how much it holds, and the
  // cache may in turn be calling into the host.
  return (*fn)();
}

namespace {
// What the innermost ScAmountToPurge of this thread announces.
thread_local bool tAmountToPurgeSet = false;
thread_local uint64_t tAmountToPurge = 0;
}  // namespace

void StandaloneHost::SetAmountToPurge(uint64_t bytes) { state_->amountToPurge.store(bytes); }

uint64_t StandaloneHost::GetAmountToPurge() const {
  if (tAmountToPurgeSet) return tAmountToPurge;
  return state_->amountToPurge.load();
}

uint64_t StandaloneHost::GetRecycledMemoryPurged() const {
  MutexLock lock(state_->mutex);
  return state_->recycledBytes;
}

uint64_t StandaloneHost::GetRecycledMemoryPurgeCalls() const {
  MutexLock lock(state_->mutex);
  return state_->recycledCalls;
}

void StandaloneHost::NoteRecycledMemoryPurged(uint64_t bytes) {
  std::shared_ptr<const std::function<void(uint64_t)>> observer;
  {
    MutexLock lock(state_->mutex);
    state_->recycledBytes += bytes;
    ++state_->recycledCalls;
    observer = state_->recycledObserver;
  }
  if (observer) (*observer)(bytes);
}

void StandaloneHost::SetRecycledMemoryPurgeObserver(std::function<void(uint64_t)> fn) {
  auto shared = fn ? std::make_shared<const std::function<void(uint64_t)>>(std::move(fn)) : nullptr;
  MutexLock lock(state_->mutex);
  state_->recycledObserver = std::move(shared);
}

void StandaloneHost::SetMainThread(zelcore::threads::ThreadId id) { state_->mainThread.store(id); }

zelcore::threads::ThreadId StandaloneHost::GetMainThread() const {
  return state_->mainThread.load();
}

void StandaloneHost::AddReport(HostReport report) {
  const bool print = state_->echoReports.load() && !report.quiet;
  std::string line;
  if (print)
    line = std::string("jxcache host: ") + KindName(report.kind) + ": " + report.text + "\n";
  {
    MutexLock lock(state_->mutex);
    ++state_->reportCounts[KindIndex(report.kind)];
    if (state_->reports.size() == kKeptReports) state_->reports.pop_front();
    state_->reports.push_back(std::move(report));
  }
  if (print) {
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
  }
}

std::vector<HostReport> StandaloneHost::GetReports() const {
  MutexLock lock(state_->mutex);
  return {state_->reports.begin(), state_->reports.end()};
}

size_t StandaloneHost::CountReports(HostReport::Kind kind, const std::string& fragment) const {
  MutexLock lock(state_->mutex);
  if (fragment.empty()) return state_->reportCounts[KindIndex(kind)];
  size_t n = 0;
  for (const HostReport& r : state_->reports) {
    if (r.kind == kind && r.text.find(fragment) != std::string::npos) ++n;
  }
  return n;
}

void StandaloneHost::ClearReports() {
  MutexLock lock(state_->mutex);
  state_->ClearReportsLocked();
}

void StandaloneHost::SetEchoReports(bool echo) { state_->echoReports.store(echo); }

void StandaloneHost::FailNthAllocation(uint64_t nth, bool persistent) {
  // Disarm first so that a concurrent allocation never sees a half-made plan.
  state_->failCountdown.store(0);
  state_->failingForever.store(false);
  state_->failPersistent.store(persistent);
  state_->failCountdown.store(nth);
}

bool StandaloneHost::ShouldFailAllocation() {
  if (state_->failingForever.load(std::memory_order_relaxed)) return true;
  uint64_t n = state_->failCountdown.load(std::memory_order_relaxed);
  while (n != 0) {
    if (state_->failCountdown.compare_exchange_weak(n, n - 1)) {
      if (n != 1) return false;
      if (state_->failPersistent.load()) state_->failingForever.store(true);
      return true;
    }
  }
  return false;
}

void StandaloneHost::SetTranslation(const std::string& key, const std::u16string& text) {
  MutexLock lock(state_->mutex);
  state_->translations[key] = text;
}

bool StandaloneHost::FindTranslation(const std::string& key, std::u16string* text) const {
  MutexLock lock(state_->mutex);
  auto it = state_->translations.find(key);
  if (it == state_->translations.end()) return false;
  if (text != nullptr) *text = it->second;
  return true;
}

ScAmountToPurge::ScAmountToPurge(uint64_t bytes)
    : previousSet_(tAmountToPurgeSet), previous_(tAmountToPurge) {
  tAmountToPurgeSet = true;
  tAmountToPurge = bytes;
}

ScAmountToPurge::~ScAmountToPurge() {
  tAmountToPurgeSet = previousSet_;
  tAmountToPurge = previous_;
}

}  // namespace jx
