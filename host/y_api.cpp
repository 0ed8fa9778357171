// The "Y_" host functions, answered from the StandaloneHost.
#include "host/y_api.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include "host/file.h"
#include "host/standalone_host.h"
#include "host/text_encoding.h"
#include "host/trace.h"

using jx::HostReport;
using jx::StandaloneHost;

namespace {

thread_local int tQuietErrorDepth = 0;
thread_local int tNotifyingLockDepth = 0;

void Report(HostReport::Kind kind, std::string text, int32_t code, int32_t severity = 0) {
  HostReport report;
  report.kind = kind;
  report.text = std::move(text);
  report.code = code;
  report.severity = severity;
  report.quiet = Y_AreErrorsQuietOnCurrentThread();
  StandaloneHost::Instance().AddReport(std::move(report));
}

struct SuiteRegistry {
  std::mutex mutex;
  std::map<std::pair<std::string, int32_t>, const void*> tables;
};

SuiteRegistry& Suites() {
  // Never destroyed: plug-ins may hold on to tables until the process ends.
  static SuiteRegistry* registry = new SuiteRegistry();
  return *registry;
}

constexpr int32_t kSuiteNotFound = 1;
constexpr int32_t kSuiteBadArgument = 2;

}  // namespace

int32_t Y_GetMemUsageLimits(uint64_t* memoryLimit, uint64_t* softLimit) {
  StandaloneHost& host = StandaloneHost::Instance();
  if (int32_t status = host.GetMemUsageLimitsStatus(); status != 0) return status;
  const uint64_t limit = host.GetMemoryLimit();
  // The standalone host has a single budget: its soft limit is the hard one.
  if (memoryLimit != nullptr) *memoryLimit = limit;
  if (softLimit != nullptr) *softLimit = limit;
  return 0;
}

uint64_t Y_AmountAvailableBeforePurge() {
  return StandaloneHost::Instance().GetAmountAvailableBeforePurge();
}

uint64_t Y_AmountToPurge() { return StandaloneHost::Instance().GetAmountToPurge(); }

void Y_PurgeRecycledMemory(uint64_t bytes) {
  StandaloneHost::Instance().NoteRecycledMemoryPurged(bytes);
}

void Y_ReportFailedVerification(const char* text) {
  Report(HostReport::Kind::kFailedVerification, text != nullptr ? text : "", 0);
}

void Yp_ReportErrString(int32_t errorClass, int32_t severity, const std::u16string& text) {
  Report(HostReport::Kind::kErrString, zelcore::utility::UTF16ToUTF8(text), errorClass, severity);
}

void Y_ReportError(int32_t /*a*/, int32_t /*b*/, const char* lstrKey) {
  Report(HostReport::Kind::kError, zelcore::utility::UTF16ToUTF8(Y_ZLookupLStrCache(lstrKey)), 0);
}

int32_t Y_TranslateAndReportException() {
  std::exception_ptr inFlight = std::current_exception();
  int32_t code = jx::kHostGenericErrorCode;
  std::string text;
  if (!inFlight) {
    text = "Y_TranslateAndReportException called with no exception in flight";
  } else {
    try {
      std::rethrow_exception(inFlight);
    } catch (int value) {
      code = value;
      text = "error code " + std::to_string(value);
    } catch (const zelcore::filesupport::FileError& e) {
      // An errno of 0 would read as success to the caller.
      code = e.Errno() != 0 ? e.Errno() : jx::kHostGenericErrorCode;
      text = e.what();
    } catch (const std::bad_alloc& e) {
      code = jx::kHostOutOfMemoryCode;
      text = std::string("out of memory (") + e.what() + ")";
    } catch (const std::exception& e) {
      text = e.what();
    } catch (...) {
      text = "unknown exception";
    }
  }
  Report(HostReport::Kind::kException, std::move(text), code);
  return code;
}

int32_t Y_StartQuietErrorsOnCurrentThread() {
  ++tQuietErrorDepth;
  return 0;
}

void Y_EndQuietErrorsOnCurrentThread() {
  if (tQuietErrorDepth > 0) --tQuietErrorDepth;
}

bool Y_AreErrorsQuietOnCurrentThread() { return tQuietErrorDepth > 0; }

bool Y_IsOnMainThread() {
  return zelcore::threads::CurrentThreadId() == StandaloneHost::Instance().GetMainThread();
}

std::u16string Y_ZLookupLStrCache(const char* lstrKey) {
  if (lstrKey == nullptr) return std::u16string();
  const std::string key(lstrKey);
  const size_t eq = key.find('=');
  const std::string lookup = eq == std::string::npos ? key : key.substr(0, eq);
  std::u16string translated;
  if (StandaloneHost::Instance().FindTranslation(lookup, &translated)) return translated;
  if (eq == std::string::npos) return zelcore::utility::UTF8ToUTF16(key);

  static constexpr std::string_view kRsquo = "#{rsquo}";
  std::string text = key.substr(eq + 1);
  for (size_t pos = text.find(kRsquo); pos != std::string::npos; pos = text.find(kRsquo, pos + 3)) {
    text.replace(pos, kRsquo.size(), "\xE2\x80\x99");  // U+2019 in UTF-8
  }
  return zelcore::utility::UTF8ToUTF16(text);
}

std::u16string Y_AsciiToUTF16String(const char* ascii) {
  if (ascii == nullptr) return std::u16string();
  return zelcore::utility::UTF8ToUTF16(ascii);
}

void* Y_AllocatePtrClear(int32_t /*heap*/, const char* /*tag*/, size_t size) {
  if (StandaloneHost::Instance().ShouldFailAllocation()) return nullptr;
  // glibc's calloc bypasses the per-thread cache that malloc serves small blocks from; the
  // compute cache probes the allocator with a small block on every request.
  constexpr size_t kSmallBlock = 1024;
  if (size <= kSmallBlock) {
    void* p = std::malloc(size != 0 ? size : 1);
    if (p != nullptr) std::memset(p, 0, size);
    return p;
  }
  return std::calloc(1, size);
}

void Y_DisposePtr(void* p) { std::free(p); }

uint64_t Y_MillisecondsSinceBoot() {
  timespec ts{};
#if defined(CLOCK_BOOTTIME)
  clock_gettime(CLOCK_BOOTTIME, &ts);
#else
  clock_gettime(CLOCK_MONOTONIC, &ts);
#endif
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

void YLOG_Log(int level, const char* category, const char* shortText, const char* message) {
  const char* cat = category != nullptr ? category : "";
  if (!zelcore::debug::Tracing::IsEnabled(cat, level)) return;
  std::string text = shortText != nullptr ? shortText : "";
  if (message != nullptr && *message != '\0') {
    if (!text.empty()) text += ": ";
    text += message;
  }
  zelcore::debug::Tracing::Write(cat, level, text);
}

int32_t Y_VX_AddVXSuite(int32_t /*a*/, int32_t /*b*/, const char* name, int32_t version,
                        int32_t /*internalVersion*/, int32_t /*entryCount*/, const void* table) {
  if (name == nullptr || table == nullptr) return kSuiteBadArgument;
  SuiteRegistry& r = Suites();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.tables[{std::string(name), version}] = table;
  return 0;
}

extern "C" int32_t Y_VX_AcquireVXSuite(const char* name, int32_t version, const void** outSuite) {
  if (name == nullptr || outSuite == nullptr) return kSuiteBadArgument;
  SuiteRegistry& r = Suites();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.tables.find({std::string(name), version});
  if (it == r.tables.end()) return kSuiteNotFound;
  *outSuite = it->second;
  return 0;
}

void* Y_MemTrackedObject::operator new(size_t size) {
  if (StandaloneHost::Instance().ShouldFailAllocation()) throw std::bad_alloc();
  return ::operator new(size);
}

void Y_MemTrackedObject::operator delete(void* p) noexcept { ::operator delete(p); }

namespace Y {

ScNotifyHoldingMutexLock::ScNotifyHoldingMutexLock() { ++tNotifyingLockDepth; }

ScNotifyHoldingMutexLock::~ScNotifyHoldingMutexLock() { --tNotifyingLockDepth; }

bool ScNotifyHoldingMutexLock::IsHoldingLock() { return tNotifyingLockDepth > 0; }

}  // namespace Y
