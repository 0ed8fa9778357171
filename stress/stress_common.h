// Shared pieces of the stress and fault programs: seeded, bounded runs that print their seed
// first and their figures on the last line, and exit non-zero when an invariant broke.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace jx::stress {

// A run without --seed is the same run every time; another seed explores further.
inline constexpr uint64_t kDefaultSeed = 12345;

struct Options {
  uint64_t seed = kDefaultSeed;
  uint64_t ops = 20000;
  double seconds = 20.0;
  int threads = 4;
};

// --seed N --ops N --seconds S --threads N; unknown arguments are an error (exit 2).
inline Options ParseOptions(int argc, char** argv, const char* program, uint64_t defaultOps) {
  Options o;
  o.ops = defaultOps;
  o.seed = kDefaultSeed;
  for (int i = 1; i < argc; ++i) {
    auto next = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "%s: %s needs a value\n", program, name);
        std::exit(2);
      }
      return argv[++i];
    };
    if (!std::strcmp(argv[i], "--seed")) {
      o.seed = std::strtoull(next("--seed"), nullptr, 10);
    } else if (!std::strcmp(argv[i], "--ops")) {
      o.ops = std::strtoull(next("--ops"), nullptr, 10);
    } else if (!std::strcmp(argv[i], "--seconds")) {
      o.seconds = std::strtod(next("--seconds"), nullptr);
    } else if (!std::strcmp(argv[i], "--threads")) {
      o.threads = std::atoi(next("--threads"));
    } else {
      std::fprintf(stderr, "%s: unknown argument %s (use --seed, --ops, --seconds, --threads)\n",
                   program, argv[i]);
      std::exit(2);
    }
  }
  std::printf("%s: seed %llu, ops %llu, at most %.0f s, %d threads\n", program,
              static_cast<unsigned long long>(o.seed), static_cast<unsigned long long>(o.ops),
              o.seconds, o.threads);
  std::fflush(stdout);
  return o;
}

// Counts broken invariants and says what broke (the first few times).
class Violations {
 public:
  void Report(const char* what) {
    if (count_.fetch_add(1) < 10) std::fprintf(stderr, "VIOLATION: %s\n", what);
  }
  void Check(bool ok, const char* what) {
    if (!ok) Report(what);
  }
  uint64_t Count() const { return count_.load(); }

 private:
  std::atomic<uint64_t> count_{0};
};

// The hard bound a Watchdog or HardBound puts on a whole run: a run may overrun its time bound by
// what its last operation and its shut-down take, never by this much.
inline double HardSeconds(const Options& o) { return 2.0 * o.seconds + 120.0; }
// How long one watched thread may go without progress before the run counts as hung.
inline constexpr double kStallSeconds = 60.0;

class Deadline {
 public:
  explicit Deadline(double seconds)
      : end_(std::chrono::steady_clock::now() +
             std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                 std::chrono::duration<double>(seconds))) {}
  bool Passed() const { return std::chrono::steady_clock::now() >= end_; }

 private:
  std::chrono::steady_clock::time_point end_;
};

// Whole transfers over the pipes between a program and its child processes, retried when a
// signal interrupts them (sanitizer runtimes deliver signals of their own).
inline bool ReadAll(int fd, void* data, size_t length) {
  auto* p = static_cast<char*>(data);
  while (length > 0) {
    const ssize_t n = ::read(fd, p, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}
inline bool WriteAll(int fd, const void* data, size_t length) {
  const auto* p = static_cast<const char*>(data);
  while (length > 0) {
    const ssize_t n = ::write(fd, p, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

// Bytes a child process sends back, read within `seconds`: a child that hangs without closing its
// end of the pipe must not hang its parent too. False on end of file, error or time out.
inline bool ReadAllWithin(int fd, void* data, size_t length, double seconds) {
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                       std::chrono::duration<double>(seconds));
  auto* p = static_cast<char*>(data);
  while (length > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd pfd{fd, POLLIN, 0};
    const int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t n = ::read(fd, p, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

// How a child process ended, waited for with a time limit.
struct ChildEnd {
  bool hung = false;  // still running at the limit: killed with SIGKILL
  int status = 0;     // waitpid's status
  bool Exited(int code = 0) const {
    return !hung && WIFEXITED(status) && WEXITSTATUS(status) == code;
  }
  bool KilledBy(int sig) const { return !hung && WIFSIGNALED(status) && WTERMSIG(status) == sig; }
};

// Waits for `pid` at most `seconds`. A child still running then is a hang: it is named on
// stderr with `what` it was doing, killed with SIGKILL and reaped.
inline ChildEnd WaitChild(const char* program, pid_t pid, double seconds, const char* what) {
  ChildEnd end;
  const auto limit = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(seconds));
  auto nap = std::chrono::microseconds(200);
  for (;;) {
    const pid_t got = ::waitpid(pid, &end.status, WNOHANG);
    if (got == pid) return end;
    if (got < 0 && errno != EINTR) {
      std::fprintf(stderr, "%s: waitpid(%d) for %s: %s\n", program, static_cast<int>(pid), what,
                   std::strerror(errno));
      end.status = -1;
      return end;
    }
    if (std::chrono::steady_clock::now() >= limit) break;
    std::this_thread::sleep_for(nap);
    nap = std::min<std::chrono::microseconds>(nap * 2, std::chrono::milliseconds(20));
  }
  std::fprintf(stderr, "%s: HANG: child %d (%s) still running after %.1f s: killed\n", program,
               static_cast<int>(pid), what, seconds);
  end.hung = true;
  ::kill(pid, SIGKILL);
  while (::waitpid(pid, &end.status, 0) < 0 && errno == EINTR) {
  }
  return end;
}

// Fails a run that hangs, loudly: a thread of its own watches the threads that registered, and
// aborts the process (so that a core or the sanitizer's stack shows where each thread stands)
// when one of them made no progress for `stallSeconds`, or when the whole run took more than
// `hardSeconds`. Before aborting it prints, for every watched thread, what it was last doing and
// how long ago it last moved on.
//
// Not for a process that forks and whose children start threads: a second thread in the parent
// at fork time is what ThreadSanitizer refuses. Those use HardBound and WaitChild instead.
class Watchdog {
 public:
  Watchdog(const char* program, double stallSeconds, double hardSeconds)
      : program_(program),
        stall_(ToDuration(stallSeconds)),
        hard_(ToDuration(hardSeconds)),
        start_(Clock::now()),
        thread_([this] { Watch(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    cv_.notify_one();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  // A thread to watch, named for the report; returns its slot (-1 past the last slot: such a
  // thread goes unwatched, and the report says so).
  int Add(const char* name) {
    const int slot = count_.fetch_add(1);
    if (slot >= kSlots) return -1;
    Slot& s = slots_[slot];
    std::snprintf(s.name, sizeof s.name, "%s", name);
    s.doing.store("starting");
    s.last.store(Now());
    s.state.store(kActive);
    return slot;
  }
  // Progress: the thread moved on to `doing` (a string that outlives the run), step `step`.
  void Beat(int slot, const char* doing = nullptr, uint64_t step = 0) {
    if (slot < 0 || slot >= kSlots) return;
    Slot& s = slots_[slot];
    if (doing) s.doing.store(doing, std::memory_order_relaxed);
    s.step.store(step, std::memory_order_relaxed);
    s.last.store(Now(), std::memory_order_relaxed);
    s.state.store(kActive, std::memory_order_relaxed);
  }
  // The thread waits for others (a join, say): it is not expected to move on by itself, and only
  // the hard bound (or the others' stall) catches the wait.
  void Waiting(int slot, const char* what) {
    if (slot < 0 || slot >= kSlots) return;
    slots_[slot].doing.store(what, std::memory_order_relaxed);
    slots_[slot].last.store(Now(), std::memory_order_relaxed);
    slots_[slot].state.store(kWaiting, std::memory_order_relaxed);
  }
  void Done(int slot) {
    if (slot >= 0 && slot < kSlots) slots_[slot].state.store(kDone, std::memory_order_relaxed);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr int kSlots = 64;
  enum : int { kUnused, kActive, kWaiting, kDone };
  struct Slot {
    char name[48] = {};
    std::atomic<const char*> doing{""};
    std::atomic<uint64_t> step{0};
    std::atomic<int64_t> last{0};
    std::atomic<int> state{kUnused};
  };

  static Clock::duration ToDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  }
  static int64_t Now() { return Clock::now().time_since_epoch().count(); }

  void Watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!cv_.wait_for(lock, std::chrono::milliseconds(100), [&] { return stop_; })) {
      const int64_t now = Now();
      int stalled = -1;
      const int n = std::min(count_.load(), kSlots);
      for (int i = 0; i < n && stalled < 0; ++i) {
        if (slots_[i].state.load() == kActive && now - slots_[i].last.load() > stall_.count())
          stalled = i;
      }
      const bool overTime = Clock::now() - start_ > hard_;
      if (stalled < 0 && !overTime) continue;
      if (stalled >= 0) {
        std::fprintf(stderr, "%s: HANG: thread \"%s\" made no progress for %.0f s\n", program_,
                     slots_[stalled].name, Seconds(stall_.count()));
      } else {
        std::fprintf(stderr, "%s: HANG: still running %.0f s after its start\n", program_,
                     Seconds(hard_.count()));
      }
      for (int i = 0; i < n; ++i) {
        const Slot& s = slots_[i];
        static constexpr const char* kStates[] = {"unused", "running", "waiting", "done"};
        std::fprintf(stderr, "  thread \"%s\" (%s): %s, step %llu, last moved on %.1f s ago\n",
                     s.name, kStates[s.state.load()], s.doing.load(),
                     static_cast<unsigned long long>(s.step.load()), Seconds(now - s.last.load()));
      }
      if (count_.load() > kSlots) std::fprintf(stderr, "  (more threads, unwatched)\n");
      std::fflush(stderr);
      std::abort();
    }
  }
  static double Seconds(int64_t ticks) {
    return std::chrono::duration<double>(Clock::duration(ticks)).count();
  }

  const char* program_;
  const Clock::duration stall_, hard_;
  const Clock::time_point start_;
  std::array<Slot, kSlots> slots_;
  std::atomic<int> count_{0};
  std::mutex mutex_;
  std::condition_variable cv_;
  bool stop_ = false;
  std::thread thread_;
};

// The hard bound of a process that forks (see Watchdog): SIGALRM after `seconds` prints the
// phase it was in and the child it was waiting for, kills that child and aborts. One per process;
// an alarm is not inherited by the children.
namespace hard_bound {
inline std::atomic<const char*> gProgram{""};
inline std::atomic<const char*> gPhase{"starting"};
inline std::atomic<pid_t> gChild{0};

inline void WriteText(const char* text) {
  size_t n = 0;
  while (text[n] != 0) ++n;
  while (n > 0) {
    const ssize_t w = ::write(STDERR_FILENO, text, n);
    if (w <= 0) return;
    text += w;
    n -= static_cast<size_t>(w);
  }
}

inline void OnAlarm(int) {
  // Only async-signal-safe calls here.
  WriteText(gProgram.load());
  WriteText(": HANG: over its time bound while ");
  WriteText(gPhase.load());
  const pid_t child = gChild.load();
  if (child > 0) {
    char digits[24];
    int i = sizeof digits - 1;
    digits[i] = 0;
    for (long v = child; v > 0 && i > 0; v /= 10) digits[--i] = static_cast<char>('0' + v % 10);
    WriteText(" (waiting for child ");
    WriteText(digits + i);
    WriteText(", killed)");
    ::kill(child, SIGKILL);
  }
  WriteText("\n");
  std::abort();
}
}  // namespace hard_bound

class HardBound {
 public:
  HardBound(const char* program, double seconds) {
    hard_bound::gProgram.store(program);
    struct sigaction sa {};
    sa.sa_handler = hard_bound::OnAlarm;
    ::sigaction(SIGALRM, &sa, nullptr);
    ::alarm(static_cast<unsigned>(seconds < 1 ? 1 : seconds));
  }
  ~HardBound() { ::alarm(0); }
  HardBound(const HardBound&) = delete;
  HardBound& operator=(const HardBound&) = delete;
  // What the process does now (a string that outlives the run), and the child it waits for.
  static void Phase(const char* what, pid_t child = 0) {
    hard_bound::gPhase.store(what);
    hard_bound::gChild.store(child);
  }
};

// How much of its planned work a time-bounded run did. A run may stop at its time bound, but one
// that covered less than `floorPercent` of the plan tested too little to pass: it says so and
// counts as failed. Prints "coverage" with the figures; returns whether the floor was met.
inline bool CoverageMet(const char* program, const char* unit, uint64_t done, uint64_t planned,
                        double floorPercent) {
  const double percent =
      planned == 0 ? 100.0 : 100.0 * static_cast<double>(done) / static_cast<double>(planned);
  const bool met = percent + 1e-9 >= floorPercent;
  std::printf("%s: coverage %llu of %llu %s (%.1f%%), floor %.0f%%%s\n", program,
              static_cast<unsigned long long>(done), static_cast<unsigned long long>(planned), unit,
              percent, floorPercent, met ? "" : ": BELOW THE FLOOR");
  return met;
}

}  // namespace jx::stress
