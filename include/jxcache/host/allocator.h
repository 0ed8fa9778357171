// The host's tagged STL allocator. Standalone, memory comes from the ordinary heap.
#pragma once

#include <memory>

namespace zelcore::allocator {

template <class T>
using STLAllocator = std::allocator<T>;

}  // namespace zelcore::allocator
