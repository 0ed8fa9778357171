// Shared pieces of the stress and fault programs: seeded, bounded runs that print their seed
// first and their figures on the last line, and exit non-zero when an invariant broke.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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

}  // namespace jx::stress
