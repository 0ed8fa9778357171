// The "Y_" host functions: each answers through the services the host installed
// (host/host_services.h).
#include "host/y_api.h"

#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include "host/text_encoding.h"
#include "jxcache/host/file.h"
#include "jxcache/host/host_services.h"

namespace {

// Quiet-errors scopes and the notifying-lock marker are the calling thread's own.
thread_local int tQuietErrorDepth = 0;
thread_local int tNotifyingLockDepth = 0;

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
  return jx::host::GetMemory().GetMemUsageLimits(memoryLimit, softLimit);
}

uint64_t Y_AmountAvailableBeforePurge() {
  return jx::host::GetMemory().AmountAvailableBeforePurge();
}

uint64_t Y_AmountToPurge() { return jx::host::GetMemory().AmountToPurge(); }

void Y_PurgeRecycledMemory(uint64_t bytes) { jx::host::GetMemory().PurgeRecycledMemory(bytes); }

void Y_ReportFailedVerification(const char* text) {
  jx::host::GetReports().FailedVerification(text != nullptr ? text : "",
                                            Y_AreErrorsQuietOnCurrentThread());
}

void Yp_ReportErrString(int32_t errorClass, int32_t severity, const std::u16string& text) {
  jx::host::GetReports().ErrorString(errorClass, severity, text, Y_AreErrorsQuietOnCurrentThread());
}

void Y_ReportError(int32_t /*a*/, int32_t /*b*/, const char* lstrKey) {
  jx::host::GetReports().Error(Y_ZLookupLStrCache(lstrKey), Y_AreErrorsQuietOnCurrentThread());
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
  jx::host::GetReports().Exception(code, text, Y_AreErrorsQuietOnCurrentThread());
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

bool Y_IsOnMainThread() { return jx::host::GetReports().IsOnMainThread(); }

std::u16string Y_ZLookupLStrCache(const char* lstrKey) {
  if (lstrKey == nullptr) return std::u16string();
  const std::string key(lstrKey);
  const size_t eq = key.find('=');
  const std::string lookup = eq == std::string::npos ? key : key.substr(0, eq);
  std::u16string translated;
  if (jx::host::GetReports().Translate(lookup, &translated)) return translated;
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

void* Y_AllocatePtrClear(int32_t /*heap*/, const char* tag, size_t size) {
  return jx::host::GetMemory().AllocateCleared(size, tag);
}

void Y_DisposePtr(void* p) { jx::host::GetMemory().FreeCleared(p); }

uint64_t Y_MillisecondsSinceBoot() { return jx::host::GetClock().MillisecondsSinceBoot(); }

void YLOG_Log(int level, const char* category, const char* shortText, const char* message) {
  jx::host::GetReports().Log(level, category, shortText, message);
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
  return jx::host::GetMemory().AllocateTracked(size);
}

void Y_MemTrackedObject::operator delete(void* p) noexcept { jx::host::GetMemory().FreeTracked(p); }

namespace Y {

ScNotifyHoldingMutexLock::ScNotifyHoldingMutexLock() { ++tNotifyingLockDepth; }

ScNotifyHoldingMutexLock::~ScNotifyHoldingMutexLock() { --tNotifyingLockDepth; }

bool ScNotifyHoldingMutexLock::IsHoldingLock() { return tNotifyingLockDepth > 0; }

}  // namespace Y
