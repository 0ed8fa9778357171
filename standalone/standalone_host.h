// StandaloneHost: the policy a real host application would own, for programs that run the
// library without one (our tools, tests and benchmarks). Its first use installs the stand-in's
// host services (memory budget, reports, settings, media manager, trace sink; host/
// host_services.h): a program calls StandaloneHost::Instance() before JX_Birth.
//
// Defaults make a standalone program work: the memory limit is half the physical memory, the
// amount available before purge is that limit, nothing is to be purged, the thread that first
// touched the host is the main thread, reports go to standard error unless quiet. Tests and
// tools set each piece explicitly; Reset returns to the defaults. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/y_api.h"
#include "jxcache/host/export.h"
#include "jxcache/host/thread_id.h"

class JX_Bag;

namespace jx {

struct HostReport {
  enum class Kind { kFailedVerification, kErrString, kError, kException };
  Kind kind;
  std::string text;      // UTF-8
  int32_t code = 0;      // kException: the translated code; kErrString: the error class
  int32_t severity = 0;  // kErrString: the severity the library gave
  bool quiet = false;
};

class StandaloneHost {
 public:
  static StandaloneHost& Instance();

  void Reset();

  // Memory budget.
  void SetMemoryLimit(uint64_t bytes);
  uint64_t GetMemoryLimit() const;
  void SetMemUsageLimitsStatus(int32_t status);  // non-zero makes Y_GetMemUsageLimits fail
  int32_t GetMemUsageLimitsStatus() const;
  void SetAmountAvailableBeforePurge(uint64_t bytes);
  // Overrides the constant above with a function (e.g. limit minus what the cache holds).
  void SetAmountAvailableBeforePurgeFunction(std::function<uint64_t()> fn);
  uint64_t GetAmountAvailableBeforePurge() const;
  // The process-wide amount to purge. GetAmountToPurge answers a ScAmountToPurge of the calling
  // thread first, so that purges running at once on several threads each see their own.
  void SetAmountToPurge(uint64_t bytes);
  uint64_t GetAmountToPurge() const;
  // Sum of what Y_PurgeRecycledMemory was told, and how often.
  uint64_t GetRecycledMemoryPurged() const;
  uint64_t GetRecycledMemoryPurgeCalls() const;
  void NoteRecycledMemoryPurged(uint64_t bytes);
  // Called by NoteRecycledMemoryPurged, on the caller's thread and after recording, with the
  // bytes (empty: nobody). Lets a test see from where the library tells the host.
  void SetRecycledMemoryPurgeObserver(std::function<void(uint64_t)> fn);

  // Main thread.
  void SetMainThread(zelcore::threads::ThreadId id);
  void MakeCurrentThreadMain() { SetMainThread(zelcore::threads::CurrentThreadId()); }
  zelcore::threads::ThreadId GetMainThread() const;

  // Reports. Every report is counted, but only the last kKeptReports are kept, so that a long
  // run that keeps reporting does not grow without bound.
  static constexpr size_t kKeptReports = 1000;
  void AddReport(HostReport report);
  // The kept reports, oldest first.
  std::vector<HostReport> GetReports() const;
  // Reports of that kind whose text contains `fragment`. With "" the count is exact since the
  // last Clear or Reset; with a fragment it covers the kept reports only.
  size_t CountReports(HostReport::Kind kind, const std::string& fragment = "") const;
  void ClearReports();
  // Whether reports are printed to standard error (default true; quiet ones never are).
  void SetEchoReports(bool echo);

  // Allocation failures for Y_AllocatePtrClear and Y_MemTrackedObject: the nth allocation from
  // now fails (0 turns it off); with `persistent`, every one from then on fails.
  void FailNthAllocation(uint64_t nth, bool persistent = false);
  // Consumed by the allocators: true when this allocation must fail.
  bool ShouldFailAllocation();

  // Translations for Y_ZLookupLStrCache ("$$$/..." key without the "=default" part -> text).
  void SetTranslation(const std::string& key, const std::u16string& text);
  bool FindTranslation(const std::string& key, std::u16string* text) const;

 private:
  StandaloneHost();
  struct State;
  State* state_;
};

// Sets Y_AmountToPurge on the calling thread for the life of the scope: "the host is over
// budget by N bytes". Scopes nest; other threads keep seeing their own amount.
class ScAmountToPurge {
 public:
  explicit ScAmountToPurge(uint64_t bytes);
  ~ScAmountToPurge();
  ScAmountToPurge(const ScAmountToPurge&) = delete;
  ScAmountToPurge& operator=(const ScAmountToPurge&) = delete;

 private:
  bool previousSet_;
  uint64_t previous_;
};

// What a host does when it finds itself over its memory budget by `bytes`: it answers
// Y_AmountToPurge() with `bytes` for the duration of one FreeUpSomeMemory call on `bag`.
void PurgeOverBudget(JX_Bag& bag, unsigned long long bytes);

}  // namespace jx
