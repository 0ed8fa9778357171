// The library's version. The macros are what a host compiles against; JX_GetLibraryVersion*()
// are what it runs against (a shared library may be newer than the headers a host was built
// with). The build reads its project version from the macros below, so they are the one place
// a release changes.
#pragma once

#include "jxcache/host/export.h"

#define JXCACHE_VERSION_MAJOR 0
#define JXCACHE_VERSION_MINOR 2
#define JXCACHE_VERSION_PATCH 0
// One number that compares in release order: 10000 * major + 100 * minor + patch.
#define JXCACHE_VERSION \
  (JXCACHE_VERSION_MAJOR * 10000 + JXCACHE_VERSION_MINOR * 100 + JXCACHE_VERSION_PATCH)
#define JXCACHE_VERSION_STRING "0.2.0"

// The version text of the library loaded ("major.minor.patch").
JX_EXPORT const char* JX_GetLibraryVersionString();
// The version number of the library loaded, in JXCACHE_VERSION's form.
JX_EXPORT int JX_GetLibraryVersion();
