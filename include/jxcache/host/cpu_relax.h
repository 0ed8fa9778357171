// The pause a spinning thread takes between looks at a word another core is about to change:
// it lets that core's hyper-thread sibling run and saves the memory order machinery a flush.
#pragma once

#include <thread>

namespace zelcore::threads {

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  __asm__ __volatile__("yield");
#endif
}

// How a thread waits for a word that another thread holds for a few instructions: pauses that
// double from 1 to 64, then the processor given up at every further round. A holder that takes
// longer than that has lost its processor (a host runs more threads than there are cores), and
// may be waiting for this very one: spinning on would burn the rest of this thread's time slice
// while the holder cannot run. With two threads on one core that cost a quarter of the hits.
class SpinBackoff {
 public:
  void Wait() {
    if (pauses_ > kMaxPauses) {
      std::this_thread::yield();
      return;
    }
    for (unsigned i = 0; i < pauses_; ++i) CpuRelax();
    pauses_ <<= 1;
  }

 private:
  static constexpr unsigned kMaxPauses = 64;
  unsigned pauses_ = 1;
};

}  // namespace zelcore::threads
