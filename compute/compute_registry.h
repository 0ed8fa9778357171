// The registry of compute classes: which plug-in callbacks compute the values of a class.
//
// One process-wide map from class identifier (bytes compared as unsigned characters, a prefix
// ordering first, "" a valid identifier) to the registry's own copy of the class's callbacks. It
// lives for the whole process and is not emptied at shut-down: plug-ins register at load time,
// possibly before the cache starts.
//
// Threads: any thread may call these. Lookups happen on every compute request, registration at
// plug-in load and unload; a reader/writer lock (a leaf: no plug-in code runs under it) keeps a
// late registration from racing with lookups on other threads.
//
// Codes as in include/kqgp_compute_cache.h. These throw nothing; bad parameters are reported to
// the host and answered with 3.
#pragma once

#include <cstdint>

#include "jxcache/host/export.h"
#include "jxcache/kqgp_compute_cache.h"

// Registers `classId` with a copy of `callbacks`; all four must be set (else a failed
// verification is reported and 3 returned). An identifier already registered keeps its first
// callbacks and the call still returns 0.
JX_EXPORT int32_t JX_ComputeClassRegister(const char* classId,
                                          const KQGP_ComputeCacheCallbacks* callbacks);
// Copies the callbacks of `classId` into *outCallbacks and returns 0, or returns 1 (unknown
// class) leaving *outCallbacks untouched.
JX_EXPORT int32_t JX_ComputeClassFind(const char* classId,
                                      KQGP_ComputeCacheCallbacks* outCallbacks);
// Forgets `classId`; 0 whether or not it was registered.
JX_EXPORT int32_t JX_ComputeClassUnregister(const char* classId);

namespace jx::compute {

// Moves with every change of the registry. Callbacks found while it read g are still the class's
// for as long as it reads g: a caller may keep them that long without asking again.
uint64_t RegistryGeneration();

}  // namespace jx::compute
