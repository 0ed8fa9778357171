/* Plug-in side of the host's suite mechanism: a plug-in asks for a published table of functions
 * by name and version. Plain C; usable from C and C++. */
#ifndef Y_VX_SUITE_H
#define Y_VX_SUITE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Stores the table published under `name` and `version` in *outSuite and returns 0; returns a
 * non-zero code (and leaves *outSuite untouched) when no such suite is published. The table
 * stays valid for the life of the process. */
#if defined(__GNUC__)
__attribute__((visibility("default")))
#endif
int32_t
Y_VX_AcquireVXSuite(const char* name, int32_t version, const void** outSuite);

#ifdef __cplusplus
}
#endif

#endif /* Y_VX_SUITE_H */
