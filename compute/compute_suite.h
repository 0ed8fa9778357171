// The plug-in compute-cache suite: the six-entry C table of include/kqgp_compute_cache.h and its
// publication with the host.
//
// Every entry catches everything: an int thrown inside is the entry's result, anything else is
// translated (and reported) by the host. Nothing crosses the C boundary as an exception.
#pragma once

#include <cstdint>

#include "jxcache/kqgp_compute_cache.h"

// The table; valid for the life of the process.
const KQGP_ComputeCacheSuite1& JX_ComputeSuite1();
// Publishes the suite table with the host; 0 on success, else the host's code.
int32_t JX_ComputeSuiteRegister();
