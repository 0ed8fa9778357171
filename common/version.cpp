// The library's version, as the build configured it.
#include "common/version.h"

const char* JX_GetLibraryVersionString() { return "0.1.0"; }
