// The standalone host's policy object, and the host services it installs.
#include "standalone/standalone_host.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <optional>

#include "host/text_encoding.h"
#include "host/trace.h"
#include "jxcache/bag/bag.h"
#include "jxcache/host/host_services.h"
#include "jxcache/host/thread_annotations.h"
#include "standalone/media_manager_pool.h"
#include "standalone/standalone_settings.h"

namespace jx {

namespace {

uint64_t DefaultMemoryLimit() {
  uint64_t limit = 0;
  jx::host::DefaultMemory().GetMemUsageLimits(&limit, nullptr);
  return limit;
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

namespace {

class StandaloneMemory final : public jx::host::MemoryBudget {
 public:
  explicit StandaloneMemory(StandaloneHost& host) : host_(host) {}
  int32_t GetMemUsageLimits(uint64_t* limit, uint64_t* softLimit) override {
    if (int32_t status = host_.GetMemUsageLimitsStatus(); status != 0) return status;
    // The standalone host has a single budget: its soft limit is the hard one.
    const uint64_t bytes = host_.GetMemoryLimit();
    if (limit != nullptr) *limit = bytes;
    if (softLimit != nullptr) *softLimit = bytes;
    return 0;
  }
  uint64_t AmountAvailableBeforePurge() override { return host_.GetAmountAvailableBeforePurge(); }
  uint64_t AmountToPurge() override { return host_.GetAmountToPurge(); }
  void PurgeRecycledMemory(uint64_t bytes) override { host_.NoteRecycledMemoryPurged(bytes); }
  void* AllocateCleared(size_t size, const char* tag) override {
    if (host_.ShouldFailAllocation()) return nullptr;
    return jx::host::DefaultMemory().AllocateCleared(size, tag);
  }
  void FreeCleared(void* p) override { jx::host::DefaultMemory().FreeCleared(p); }
  void* AllocateTracked(size_t size) override {
    if (host_.ShouldFailAllocation()) throw std::bad_alloc();
    return ::operator new(size);
  }
  void FreeTracked(void* p) override { ::operator delete(p); }

 private:
  StandaloneHost& host_;
};

class StandaloneReports final : public jx::host::Reports {
 public:
  explicit StandaloneReports(StandaloneHost& host) : host_(host) {}
  void FailedVerification(const std::string& text, bool quiet) override {
    Add(HostReport::Kind::kFailedVerification, text, 0, 0, quiet);
  }
  void ErrorString(int32_t errorClass, int32_t severity, const std::u16string& text,
                   bool quiet) override {
    Add(HostReport::Kind::kErrString, zelcore::utility::UTF16ToUTF8(text), errorClass, severity,
        quiet);
  }
  void Error(const std::u16string& text, bool quiet) override {
    Add(HostReport::Kind::kError, zelcore::utility::UTF16ToUTF8(text), 0, 0, quiet);
  }
  void Exception(int32_t code, const std::string& text, bool quiet) override {
    Add(HostReport::Kind::kException, text, code, 0, quiet);
  }
  bool IsOnMainThread() override {
    return zelcore::threads::CurrentThreadId() == host_.GetMainThread();
  }
  bool Translate(const std::string& key, std::u16string* text) override {
    return host_.FindTranslation(key, text);
  }
  // The host's log is its trace, category by category.
  void Log(int level, const char* category, const char* shortText, const char* message) override {
    const char* cat = category != nullptr ? category : "";
    if (!zelcore::debug::Tracing::IsEnabled(cat, level)) return;
    std::string text = shortText != nullptr ? shortText : "";
    if (message != nullptr && *message != '\0') {
      if (!text.empty()) text += ": ";
      text += message;
    }
    zelcore::debug::Tracing::Write(cat, level, text);
  }

 private:
  void Add(HostReport::Kind kind, std::string text, int32_t code, int32_t severity, bool quiet) {
    HostReport report;
    report.kind = kind;
    report.text = std::move(text);
    report.code = code;
    report.severity = severity;
    report.quiet = quiet;
    host_.AddReport(std::move(report));
  }
  StandaloneHost& host_;
};

// Traces go to $JX_TRACE_FILE when it names a file, else to standard error.
class StandaloneTraceSink final : public jx::host::TraceSink {
 public:
  StandaloneTraceSink() {
    if (const char* path = std::getenv("JX_TRACE_FILE"); path != nullptr && *path != '\0') {
      file_ = std::fopen(path, "a");
      if (file_ == nullptr) {
        std::fprintf(stderr,
                     "jxcache host: JX_TRACE_FILE: cannot open '%s': %s; tracing to standard "
                     "error\n",
                     path, std::strerror(errno));
      }
    }
  }
  void Write(const char* category, int level, const std::string& text) override {
    const std::string line =
        "[" + std::string(category) + ":" + std::to_string(level) + "] " + text + "\n";
    FILE* out = file_ != nullptr ? file_ : stderr;
    std::fwrite(line.data(), 1, line.size(), out);
    std::fflush(out);
  }

 private:
  FILE* file_ = nullptr;
};

void InstallServices(StandaloneHost& host) {
  // Never destroyed: the library may reach its host from static destructors.
  static auto* memory = new StandaloneMemory(host);
  static auto* reports = new StandaloneReports(host);
  static auto* trace = new StandaloneTraceSink();
  jx::host::Services services;
  services.memory = memory;
  services.reports = reports;
  services.settings = &jx::standalone::StandaloneSettings::Instance();
  services.mediaManager = jx::standalone::MediaManagerPool();
  services.trace = trace;
  // The clock, the threads and the file system stay the library's own (tests wrap the file
  // system in fault injection themselves).
  services.files = &jx::host::GetFiles();
  jx::host::Install(services);
  if (const char* config = std::getenv("JX_TRACE"); config != nullptr) {
    zelcore::debug::Tracing::Configure(config);
  }
}

}  // namespace

StandaloneHost& StandaloneHost::Instance() {
  // Never destroyed: the library may consult the host from static destructors.
  static StandaloneHost* host = [] {
    auto* h = new StandaloneHost();
    InstallServices(*h);
    return h;
  }();
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

void jx::PurgeOverBudget(JX_Bag& bag, unsigned long long bytes) {
  ScAmountToPurge overBudget(bytes);
  bag.FreeUpSomeMemory(bytes);
}
