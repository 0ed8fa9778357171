// The pause a spinning thread takes between looks at a word another core is about to change:
// it lets that core's hyper-thread sibling run and saves the memory order machinery a flush.
#pragma once

namespace zelcore::threads {

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  __asm__ __volatile__("yield");
#endif
}

}  // namespace zelcore::threads
