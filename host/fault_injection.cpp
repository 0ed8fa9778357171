// Process-wide fault plan for the file layer.
//
// Call counting is on every file operation's path, so the common case (nothing planned) is one
// relaxed atomic increment and one relaxed load; the mutex is taken only while a plan is armed.
#include "host/fault_injection.h"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>
#include <vector>

namespace zelcore::filesupport {
namespace {

struct Plan {
  uint64_t call;  // the call count at which the fault fires
  int err;        // or FaultInjection::kShortTransfer
  bool persistent;
};

struct State {
  std::array<std::atomic<uint64_t>, kFileOpCount> calls{};
  std::atomic<uint64_t> injected{0};
  std::atomic<bool> shortReads{false};
  std::atomic<bool> armed{false};
  std::mutex mutex;
  std::array<std::vector<Plan>, kFileOpCount> plans;  // guarded by mutex
  // Planned kills: the reach count at which each point kills (0: none), and the reaches so far.
  std::atomic<bool> killArmed{false};
  std::array<uint64_t, kCrashPointCount> killAt{};   // guarded by mutex
  std::array<uint64_t, kCrashPointCount> reaches{};  // guarded by mutex
};

State& GetState() {
  static State state;
  return state;
}

size_t Index(FileOp op) { return static_cast<size_t>(op); }

}  // namespace

const char* FileOpName(FileOp op) {
  static constexpr const char* kNames[kFileOpCount] = {
      "create", "open", "write", "flush", "truncate", "rename", "size", "delete", "read"};
  const size_t i = Index(op);
  return i < kFileOpCount ? kNames[i] : "file operation";
}

const char* CrashPointName(CrashPoint point) {
  static constexpr const char* kNames[kCrashPointCount] = {"created", "written", "renaming",
                                                           "renamed"};
  const auto i = static_cast<size_t>(point);
  return i < kCrashPointCount ? kNames[i] : "crash point";
}

void FaultInjection::KillAtNth(CrashPoint point, uint64_t nth) {
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  const auto i = static_cast<size_t>(point);
  s.killAt[i] = s.reaches[i] + (nth == 0 ? 1 : nth);
  s.killArmed.store(true, std::memory_order_release);
}

void FaultInjection::Reached(CrashPoint point) {
  State& s = GetState();
  if (!s.killArmed.load(std::memory_order_acquire)) return;
  std::lock_guard lock(s.mutex);
  const auto i = static_cast<size_t>(point);
  if (++s.reaches[i] != s.killAt[i]) return;
  // SIGKILL cannot be caught: the process ends here, as it would at a power cut.
  ::kill(::getpid(), SIGKILL);
  for (;;) ::pause();
}

void FaultInjection::FailNth(FileOp op, uint64_t nth, int err, bool persistent) {
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  const uint64_t now = s.calls[Index(op)].load(std::memory_order_relaxed);
  s.plans[Index(op)].push_back(Plan{now + (nth == 0 ? 1 : nth), err, persistent});
  s.armed.store(true, std::memory_order_release);
}

void FaultInjection::ShortNth(FileOp op, uint64_t nth, bool persistent) {
  if (op == FileOp::kWrite || op == FileOp::kRead) FailNth(op, nth, kShortTransfer, persistent);
}

void FaultInjection::SetShortReads(bool on) {
  GetState().shortReads.store(on, std::memory_order_relaxed);
}

bool FaultInjection::ShortReads() { return GetState().shortReads.load(std::memory_order_relaxed); }

void FaultInjection::Reset() {
  State& s = GetState();
  std::lock_guard lock(s.mutex);
  for (auto& plans : s.plans) plans.clear();
  for (auto& calls : s.calls) calls.store(0, std::memory_order_relaxed);
  s.injected.store(0, std::memory_order_relaxed);
  s.shortReads.store(false, std::memory_order_relaxed);
  s.armed.store(false, std::memory_order_release);
  s.killAt.fill(0);
  s.reaches.fill(0);
  s.killArmed.store(false, std::memory_order_release);
}

uint64_t FaultInjection::CallCount(FileOp op) {
  return GetState().calls[Index(op)].load(std::memory_order_relaxed);
}

uint64_t FaultInjection::InjectedCount() {
  return GetState().injected.load(std::memory_order_relaxed);
}

int FaultInjection::ShouldFail(FileOp op) {
  State& s = GetState();
  const size_t i = Index(op);
  if (!s.armed.load(std::memory_order_acquire)) {
    s.calls[i].fetch_add(1, std::memory_order_relaxed);
    return 0;
  }
  std::lock_guard lock(s.mutex);
  const uint64_t call = s.calls[i].fetch_add(1, std::memory_order_relaxed) + 1;
  auto& plans = s.plans[i];
  for (auto it = plans.begin(); it != plans.end(); ++it) {
    if (call == it->call || (it->persistent && call > it->call)) {
      const int err = it->err;
      if (!it->persistent) plans.erase(it);
      s.injected.fetch_add(1, std::memory_order_relaxed);
      return err;
    }
  }
  return 0;
}

}  // namespace zelcore::filesupport
