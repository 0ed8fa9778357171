// The thread that hashes a large read's bytes while the reading thread moves the next ones.
#pragma once

#include <cstdint>

namespace jx {

// Ends the helper thread. A transfer it serves is not waited for: the helper gives it up at its
// next slice and the reading thread hashes the rest. A later large read starts it again.
void StopChecksumHelper();

// Transfers whose bytes the helper hashed, since the process started.
uint64_t ChecksumHelperTransfers();

}  // namespace jx
