#pragma once

#include "host/export.h"

// The library's version text ("major.minor.patch").
JX_EXPORT const char* JX_GetLibraryVersionString();
