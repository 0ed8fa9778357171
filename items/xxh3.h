// XXH3-64, the checksum payloads put after their bytes, through the x86 dispatcher where there is
// one: it picks the widest vector unit the processor has (AVX-512, AVX2, SSE2) at run time.
#pragma once

#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>
#if defined(__x86_64__) || defined(_M_X64)
#include <xxh_x86dispatch.h>
#define JX_XXH3_UPDATE XXH3_64bits_update_dispatch
#else
#define JX_XXH3_UPDATE XXH3_64bits_update
#endif
