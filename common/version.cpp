// The library's version, compiled in: a host linked against a newer shared library sees the
// library's version here and its headers' in the macros.
#include "jxcache/common/version.h"

static_assert(sizeof(JXCACHE_VERSION_STRING) > 5, "JXCACHE_VERSION_STRING is major.minor.patch");

const char* JX_GetLibraryVersionString() { return JXCACHE_VERSION_STRING; }
int JX_GetLibraryVersion() { return JXCACHE_VERSION; }
