// Symbol visibility for the library's exported classes and functions. The build compiles with
// hidden visibility; what a host may call carries JX_EXPORT.
#pragma once

#if defined(_WIN32)
#define JX_EXPORT __declspec(dllexport)
#else
#define JX_EXPORT __attribute__((visibility("default")))
#endif
