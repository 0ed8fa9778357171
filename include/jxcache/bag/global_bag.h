// The global bag: the one bag of the process, which JX_Birth creates and JX_Death drops. It lives
// here, with the bag, so that everything below the library's start-up can reach it.
//
// Set only by start-up and shut-down (lifecycle/), which run while no other thread uses the
// library; read from any thread.
#pragma once

#include <memory>

#include "jxcache/host/export.h"

class JX_Bag;

// A copy of the global bag pointer; empty before JX_Birth and after JX_Death.
JX_EXPORT std::shared_ptr<JX_Bag> JX_GlobalBag();

namespace jx {
// The global bag without taking a reference: valid between JX_Birth and JX_Death, which run
// while nobody else uses the library. Saves every search a shared count that all threads touch.
JX_Bag* GlobalBagUnretained();
// Start-up and shut-down: exchanges the global bag with `bag` (empty to drop it); the previous
// bag comes back in `bag`, to be released by the caller.
void SwapGlobalBag(std::shared_ptr<JX_Bag>& bag);
}  // namespace jx
