// The host utility functions (the "Y_" layer) the library calls: memory budget, error reports,
// quiet-error scopes, main-thread test, localised strings, tagged allocation, time since boot,
// the notifying-lock marker and plug-in suite publication. Each answers through the services the
// host installed (host/host_services.h), or the library's defaults. All are thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "jxcache/y_vx_suite.h"

#include "jxcache/host/export.h"

namespace jx {
// Codes Y_TranslateAndReportException returns for exceptions that carry no code of their own.
// Both are negative so that they can never be mistaken for an errno.
inline constexpr int32_t kHostGenericErrorCode = -1;  // any other exception
inline constexpr int32_t kHostOutOfMemoryCode = -2;   // std::bad_alloc
}  // namespace jx

// Memory budget. Y_GetMemUsageLimits returns 0 and the host's memory usage limit (and a second
// limit, the host's soft limit), or a non-zero status.
JX_EXPORT int32_t Y_GetMemUsageLimits(uint64_t* memoryLimit, uint64_t* softLimit);
// How many more bytes the cache may use before the host has to purge.
JX_EXPORT uint64_t Y_AmountAvailableBeforePurge();
// How many bytes the host wants freed by the purge that is running now (0 when none runs).
JX_EXPORT uint64_t Y_AmountToPurge();
// A purge freed `bytes`; the host may now give back its own recycled memory.
JX_EXPORT void Y_PurgeRecycledMemory(uint64_t bytes);

// Reports, to the host's jx::host::Reports.
JX_EXPORT void Y_ReportFailedVerification(const char* text);
JX_EXPORT void Yp_ReportErrString(int32_t errorClass, int32_t severity, const std::u16string& text);
// Reports the localised string `lstrKey` ("$$$/...=default text").
JX_EXPORT void Y_ReportError(int32_t a, int32_t b, const char* lstrKey);
// Call inside a catch block: reports the exception in flight and returns its code (an int
// exception is its own code; a file error its errno; anything else a generic non-zero code).
JX_EXPORT int32_t Y_TranslateAndReportException();
// Quiet-error scopes nest per thread; while one is open, reports are recorded but not shown.
JX_EXPORT int32_t Y_StartQuietErrorsOnCurrentThread();
JX_EXPORT void Y_EndQuietErrorsOnCurrentThread();
JX_EXPORT bool Y_AreErrorsQuietOnCurrentThread();

JX_EXPORT bool Y_IsOnMainThread();

// Looks a localised string up by its key "$$$/Group/Name=default text": the host's translation
// if it has one, else the default text, with "#{rsquo}" standing for U+2019.
JX_EXPORT std::u16string Y_ZLookupLStrCache(const char* lstrKey);
JX_EXPORT std::u16string Y_AsciiToUTF16String(const char* ascii);

// Tagged, zeroed allocation; null when the host's allocator fails (tests can make it fail).
JX_EXPORT void* Y_AllocatePtrClear(int32_t heap, const char* tag, size_t size);
JX_EXPORT void Y_DisposePtr(void* p);
JX_EXPORT uint64_t Y_MillisecondsSinceBoot();

// Host logging.
JX_EXPORT void YLOG_Log(int level, const char* category, const char* shortText,
                        const char* message);

// Publishes a table of functions to plug-ins; 0 on success. Publishing a name and version again
// replaces the table.
JX_EXPORT int32_t Y_VX_AddVXSuite(int32_t a, int32_t b, const char* name, int32_t version,
                                  int32_t internalVersion, int32_t entryCount, const void* table);

// Objects allocated through the host's memory-tracked allocator.
class JX_EXPORT Y_MemTrackedObject {
 public:
  static void* operator new(size_t size);
  static void operator delete(void* p) noexcept;
};

namespace Y {
// Marks the calling thread as holding a lock that notifies other threads; such a thread must
// never block waiting for another thread's work. Nests.
class JX_EXPORT ScNotifyHoldingMutexLock {
 public:
  ScNotifyHoldingMutexLock();
  ~ScNotifyHoldingMutexLock();
  ScNotifyHoldingMutexLock(const ScNotifyHoldingMutexLock&) = delete;
  ScNotifyHoldingMutexLock& operator=(const ScNotifyHoldingMutexLock&) = delete;
  static bool IsHoldingLock();
};

// The calling thread's quiet-errors mode for a scope: where a failure is an expected event (a
// file that cannot be read), its reports are recorded but not shown. When the mode cannot be
// entered, the scope throws the host's code, or, with `Refused::kCarryOn`, carries on loudly.
class ScQuietErrors {
 public:
  enum class Refused { kThrow, kCarryOn };
  explicit ScQuietErrors(Refused refused = Refused::kThrow) {
    const int32_t err = Y_StartQuietErrorsOnCurrentThread();
    entered_ = err == 0;
    if (!entered_ && refused == Refused::kThrow) throw static_cast<int>(err);
  }
  ~ScQuietErrors() {
    if (entered_) Y_EndQuietErrorsOnCurrentThread();
  }
  ScQuietErrors(const ScQuietErrors&) = delete;
  ScQuietErrors& operator=(const ScQuietErrors&) = delete;

 private:
  bool entered_;
};
}  // namespace Y
