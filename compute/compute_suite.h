// Publication of the plug-in compute-cache suite with the host.
#pragma once

#include <cstdint>

// Publishes the suite table with the host; 0 on success, else the host's code.
int32_t JX_ComputeSuiteRegister();
