// The library's version, as the build configured it.
#include "lifecycle/version.h"

const char* JX_GetLibraryVersionString() { return "0.1.0"; }
