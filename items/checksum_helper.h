// The thread that hashes a large read's bytes while the reading thread moves the next ones.
#pragma once

#include <cstdint>

namespace jx {

// Ends the helper thread, after the transfer it serves (if any) is over. A later large read
// starts it again.
void StopChecksumHelper();

// Transfers whose bytes the helper hashed, since the process started.
uint64_t ChecksumHelperTransfers();

}  // namespace jx
