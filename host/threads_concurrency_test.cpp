// Locks, the gate, parking and executors, exercised from several threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/parking.h"
#include "jxcache/host/executor.h"
#include "jxcache/host/high_precision_time.h"
#include "jxcache/host/multi_tenant_mutex.h"
#include "jxcache/host/open_once_gate.h"
#include "jxcache/host/recursive_mutex.h"
#include "jxcache/host/striped_counter.h"
#include "jxcache/host/thread_annotations.h"
#include "standalone/standalone_host.h"

namespace zelcore::threads {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Only a hang should ever reach it.
bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = Clock::now() + 5s;
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

enum class Mode { kRead, kUpgrade, kWrite };
constexpr Mode kRead = Mode::kRead, kUpgrade = Mode::kUpgrade, kWrite = Mode::kWrite;

void Lock(MultiTenantRecursiveMutex& m, Mode mode) {
  mode == kRead ? m.LockRead() : mode == kUpgrade ? m.LockUpgrade() : m.LockWrite();
}
void Unlock(MultiTenantRecursiveMutex& m, Mode mode) {
  mode == kRead ? m.UnlockRead() : mode == kUpgrade ? m.UnlockUpgrade() : m.UnlockWrite();
}

// A thread that takes the lock and keeps it until released; the test must let a blocked one in.
class Contender {
 public:
  Contender(MultiTenantRecursiveMutex& m, Mode mode)
      : thread_([this, &m, mode] {
          Lock(m, mode);
          acquired_ = true;
          release_.Wait();
          Unlock(m, mode);
        }) {}
  ~Contender() {
    release_.Open();
    thread_.join();
  }
  bool Acquired() const { return acquired_; }
  bool AcquiresSoon() const {
    return Eventually([this] { return Acquired(); });
  }
  // A short wait can only make a test miss a fault, never fail a correct build.
  bool StaysBlocked() const {
    std::this_thread::sleep_for(30ms);
    return !Acquired();
  }
  void Release() { release_.Open(); }

 private:
  std::atomic<bool> acquired_{false};
  OpenOnceGate release_;
  std::thread thread_;
};

TEST(MultiTenantMutex, RecursionKeepsTheStrongestModeHeld) {
  MultiTenantRecursiveMutex m;
  {  // read inside read
    m.LockRead();
    m.LockRead();
    EXPECT_TRUE(Contender(m, kRead).AcquiresSoon());
    Contender writer(m, kWrite);
    m.UnlockRead();
    EXPECT_TRUE(writer.StaysBlocked());
    m.UnlockRead();
    EXPECT_TRUE(writer.AcquiresSoon());
  }
  {  // an upgrader takes read, upgrade and write; dropping write returns to upgrade
    m.LockUpgrade();
    m.LockRead();
    m.LockUpgrade();
    m.LockWrite();
    m.LockWrite();
    Contender reader(m, kRead);
    m.UnlockWrite();
    EXPECT_TRUE(reader.StaysBlocked());
    m.UnlockWrite();
    EXPECT_TRUE(m.IsUpgradeLockedByCurrentThread() && !m.IsWriteLockedByCurrentThread());
    EXPECT_TRUE(reader.AcquiresSoon());
    Contender upgrader(m, kUpgrade);
    m.UnlockUpgrade();
    m.UnlockRead();
    EXPECT_TRUE(upgrader.StaysBlocked());
    m.UnlockUpgrade();
    EXPECT_TRUE(upgrader.AcquiresSoon());
  }
  {  // a writer takes everything; dropping write while still reading leaves a plain reader
    m.LockWrite();
    m.LockUpgrade();
    m.LockRead();
    m.LockWrite();
    m.UnlockWrite();
    m.UnlockUpgrade();
    Contender reader(m, kRead);
    EXPECT_TRUE(reader.StaysBlocked());
    m.UnlockWrite();
    EXPECT_TRUE(m.IsReadLockedByCurrentThread() && !m.IsUpgradeLockedByCurrentThread());
    EXPECT_TRUE(reader.AcquiresSoon());
    EXPECT_TRUE(Contender(m, kUpgrade).AcquiresSoon());
    Contender writer(m, kWrite);
    EXPECT_TRUE(writer.StaysBlocked());
    m.UnlockRead();
    reader.Release();
    EXPECT_TRUE(writer.AcquiresSoon());
  }
  EXPECT_FALSE(MultiTenantRecursiveMutex::CurrentThreadHoldsAny());
}

TEST(MultiTenantMutex, ManyHeldMutexesReleasedInAnyOrder) {
  // More than a thread keeps inline, released out of order.
  std::vector<MultiTenantRecursiveMutex> mutexes(20);
  auto mode = [](size_t i) { return i % 2 == 0 ? kRead : kWrite; };
  for (size_t i = 0; i < mutexes.size(); ++i) Lock(mutexes[i], mode(i));
  for (size_t i : {0u, 19u, 7u, 12u, 1u, 18u, 8u, 9u, 2u, 13u}) {
    Unlock(mutexes[i], mode(i));
    EXPECT_FALSE(mutexes[i].IsHeldByCurrentThread()) << i;
  }
  for (size_t i = 0; i < mutexes.size(); ++i) {
    if (!mutexes[i].IsHeldByCurrentThread()) continue;
    EXPECT_EQ(mutexes[i].IsWriteLockedByCurrentThread(), mode(i) == kWrite) << i;
    EXPECT_TRUE(MultiTenantRecursiveMutex::CurrentThreadHoldsAny());
    Unlock(mutexes[i], mode(i));
  }
  EXPECT_FALSE(MultiTenantRecursiveMutex::CurrentThreadHoldsAny());
  for (auto& m : mutexes) EXPECT_TRUE(Contender(m, kWrite).AcquiresSoon());
}

TEST(MultiTenantMutex, UpgradeToWriteWaitsForOtherReaders) {
  MultiTenantRecursiveMutex m;
  Contender reader(m, kRead);
  ASSERT_TRUE(reader.AcquiresSoon());
  m.LockUpgrade();  // an upgrader shares with readers
  std::atomic<bool> readerLeft{false};
  std::thread leave([&] {
    std::this_thread::sleep_for(20ms);
    readerLeft = true;
    reader.Release();
  });
  m.LockWrite();
  EXPECT_TRUE(readerLeft);
  m.UnlockWrite();
  m.UnlockUpgrade();
  leave.join();
}

TEST(MultiTenantMutex, WaitingWriterDoesNotBlockAThreadThatAlreadyReads) {
  MultiTenantRecursiveMutex m;
  OpenOnceGate holds, reenter, done;
  std::atomic<bool> reentered{false};
  std::thread a([&] {
    m.LockRead();
    holds.Open();
    reenter.Wait();
    m.LockRead();  // must not wait behind the writer
    reentered = true;
    done.Wait();
    m.UnlockRead();
    m.UnlockRead();
  });
  holds.Wait();
  Contender writer(m, kWrite);
  EXPECT_TRUE(writer.StaysBlocked());
  Contender newReader(m, kRead);  // a new reader does wait behind it
  EXPECT_TRUE(newReader.StaysBlocked());
  reenter.Open();
  EXPECT_TRUE(Eventually([&] { return reentered.load(); }));
  done.Open();
  EXPECT_TRUE(writer.AcquiresSoon());
  EXPECT_FALSE(newReader.Acquired());
  writer.Release();
  EXPECT_TRUE(newReader.AcquiresSoon());
  a.join();
}

TEST(MultiTenantMutex, MisuseThrowsAndLeavesTheLockUsable) {
  MultiTenantRecursiveMutex m;
  EXPECT_THROW(m.UnlockRead(), LockUsageError);
  EXPECT_THROW(m.UnlockWrite(), LockUsageError);
  auto& host = jx::StandaloneHost::Instance();
  host.SetEchoReports(false);
  host.ClearReports();
  m.LockRead();
  try {
    m.LockUpgrade();
    ADD_FAILURE() << "upgrade while reading must throw";
  } catch (const LockUsageError& e) {
    EXPECT_NE(std::string(e.what()).find("read lock held"), std::string::npos);
  }
  EXPECT_THROW(m.LockWrite(), LockUsageError);
  EXPECT_EQ(host.CountReports(jx::HostReport::Kind::kFailedVerification, "read lock held"), 2u);
  EXPECT_THROW(m.UnlockUpgrade(), LockUsageError);
  EXPECT_TRUE(m.IsReadLockedByCurrentThread() && !m.IsUpgradeLockedByCurrentThread());
  EXPECT_TRUE(Contender(m, kUpgrade).AcquiresSoon());  // the failed calls took nothing
  {
    Contender writer(m, kWrite);
    EXPECT_TRUE(writer.StaysBlocked());
    m.UnlockRead();
    EXPECT_TRUE(writer.AcquiresSoon());
  }
  m.LockWrite();
  m.UnlockWrite();
}

TEST(MultiTenantMutex, ModesExcludeEachOtherUnderContention) {
  MultiTenantRecursiveMutex m;
  std::atomic<int> readers{0}, upgraders{0}, writers{0}, violations{0}, writes{0};
  long guarded = 0;  // written under write only: TSan must see those writes ordered
  // Takes the mutex again while holding it, which the thread-safety analysis cannot follow.
  auto work = [&](unsigned seed) NO_THREAD_SAFETY_ANALYSIS {
    for (int i = 0; i < 2000; ++i) {
      seed = seed * 1103515245u + 12345u;
      // Yielding inside some critical sections makes the threads overlap even on few cores.
      auto maybeYield = [seed] {
        if ((seed >> 8) % 8 == 0) std::this_thread::yield();
      };
      const unsigned pick = (seed >> 16) % 4;
      if (pick < 2) {
        ScopedReadLockWrapper read(m);
        ++readers;
        ScopedReadLockWrapper again(m);
        if (writers.load() != 0 || guarded < 0) ++violations;
        maybeYield();
        --readers;
        continue;
      }
      ScopedUpgradeLockWrapper upgrade(m);
      if (upgraders.fetch_add(1) != 0 || writers.load() != 0) ++violations;
      if (pick == 3) {
        ScopedWriteLockWrapper write(m);
        ScopedReadLockWrapper nested(m);
        if (writers.fetch_add(1) != 0 || readers.load() != 0) ++violations;
        ++guarded;
        ++writes;
        maybeYield();
        --writers;
      }
      maybeYield();
      --upgraders;
      upgrade.Unlock();
      if (pick == 2 && (seed & 1)) {  // plain writers too, not only converted upgraders
        ScopedWriteLockWrapper write(m);
        if (writers.fetch_add(1) != 0 || readers.load() != 0 || upgraders.load() != 0) {
          ++violations;
        }
        ++guarded;
        ++writes;
        --writers;
      }
    }
  };
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 5; ++t) threads.emplace_back(work, t + 1);
  for (auto& t : threads) t.join();
  EXPECT_EQ(violations.load(), 0);
  EXPECT_EQ(guarded, writes.load());
}

TEST(RecursiveMutex, RecursesForTheOwnerAndExcludesOthers) {
  RecursiveMutex m;
  EXPECT_THROW(m.unlock(), std::logic_error);
  long counter = 0;
  auto work = [&] {
    for (int i = 0; i < 2000; ++i) {
      std::lock_guard<RecursiveMutex> outer(m);
      std::lock_guard<RecursiveMutex> inner(m);
      ++counter;
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  EXPECT_EQ(counter, 4000);
  m.lock();
  EXPECT_TRUE(m.try_lock() && m.IsLockedByCurrentThread());
  std::thread([&] { EXPECT_FALSE(m.IsLockedByCurrentThread() || m.try_lock()); }).join();
  m.unlock();
  m.unlock();
  EXPECT_FALSE(m.IsLockedByCurrentThread());
}

// More threads than stripes, in waves: ended threads hand their stripes on, and those past the
// stripes share one word. Nothing may be lost on the way.
TEST(StripedCounter, StaysExactAcrossSlotHandoverAndOverflow) {
  static zelcore::utility::StripedCounter<long long> counter;
  const long long before = counter.load();
  constexpr int kPerThread = 5000;
  constexpr int kThreads = static_cast<int>(kThreadSlots) + 8;
  for (int wave = 0; wave < 2; ++wave) {
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        counter.fetch_add(1);
        // All of the wave alive at once, so that some of it finds every stripe taken.
        started.fetch_add(1);
        while (started.load() < kThreads) std::this_thread::yield();
        for (int i = 1; i < kPerThread; ++i) counter.fetch_add(2);
        counter.fetch_sub(static_cast<long long>(kPerThread - 1));
      });
    }
    for (auto& t : threads) t.join();
  }
  EXPECT_EQ(counter.load() - before, 2LL * kThreads * kPerThread);
}

// Stamps never run backwards on a thread, and keep pace with the steady clock.
TEST(HighPrecisionTime, MonotonicOnEveryThreadAndKeepsPaceWithTheSteadyClock) {
  using zelcore::utility::HighPrecisionTime;
  auto run = [] {
    uint64_t last = HighPrecisionTime::GetCurrentTimeStamp();
    for (int i = 0; i < 200000; ++i) {
      const uint64_t now = HighPrecisionTime::GetCurrentTimeStamp();
      ASSERT_GE(now, last);
      last = now;
    }
  };
  std::thread a(run), b(run);
  a.join();
  b.join();
  const auto steady0 = std::chrono::steady_clock::now();
  const uint64_t stamp0 = HighPrecisionTime::GetCurrentTimeStamp();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const uint64_t stamp1 = HighPrecisionTime::GetCurrentTimeStamp();
  const auto steady1 = std::chrono::steady_clock::now();
  const double stampSeconds = HighPrecisionTime::ToSeconds(stamp1 - stamp0);
  const double steadySeconds = std::chrono::duration<double>(steady1 - steady0).count();
  EXPECT_NEAR(stampSeconds, steadySeconds, steadySeconds * 0.01);
}

TEST(Parking, NoWakeUpIsLostInAPingPong) {
  // A lost wake-up hangs.
  std::atomic<int> turn{0};
  auto play = [&](int me) {
    for (int i = 0; i < 2000; ++i) {
      detail::ParkUntil(&turn, [&] { return turn.load() == me; });
      turn.store(1 - me);
      detail::WakeAll(&turn);
    }
  };
  std::thread other(play, 1);
  play(0);
  other.join();
  EXPECT_FALSE(detail::ParkUntil(
      &turn, [] { return false; }, Clock::now() + 5ms));
}

TEST(OpenOnceGate, ReleasesEveryWaiterAndHonoursDeadlines) {
  OpenOnceGate gate;
  const auto start = Clock::now();
  EXPECT_FALSE(gate.WaitUntil(start + 20ms));
  EXPECT_GE(Clock::now(), start + 20ms);
  EXPECT_FALSE(gate.IsOpen());
  std::atomic<int> passed{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      gate.Wait();
      ++passed;
    });
  }
  waiters.emplace_back([&] { passed += gate.WaitUntil(Clock::now() + 5s) ? 1 : 0; });
  std::this_thread::sleep_for(5ms);
  EXPECT_EQ(passed.load(), 0);
  gate.Open();
  gate.Open();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(passed.load(), 5);
}

// Shut-down of `executor` (whose `parent`, if any, must keep working).
void CheckShutdown(Executor& executor, Executor* parent) {
  OpenOnceGate started, proceed;
  std::atomic<bool> firstDone{false}, laterRan{false};
  ASSERT_TRUE(executor.Post([&] {
    started.Open();
    proceed.Wait();
    std::this_thread::sleep_for(10ms);
    firstDone = true;
  }));
  started.Wait();
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(executor.Post([&] { laterRan = true; }));
  EXPECT_EQ(executor.QueuedCount(), 5u);
  executor.StopTakingWork();
  EXPECT_FALSE(executor.Post([&] { laterRan = true; }));
  executor.CancelQueued();
  EXPECT_EQ(executor.QueuedCount(), 0u);
  proceed.Open();
  executor.WaitForRunning();
  EXPECT_TRUE(firstDone);
  if (parent != nullptr) {
    std::atomic<bool> parentRan{false};
    EXPECT_TRUE(parent->Post([&] { parentRan = true; }));
    EXPECT_TRUE(Eventually([&] { return parentRan.load(); }));
    parent->Shutdown();
  }
  EXPECT_FALSE(laterRan);
}

TEST(Executor, ShutdownCancelsQueuedAndWaitsForRunning) {
  CheckShutdown(*CreateIOBoundExecutor(1), nullptr);
  auto pool = CreateIOBoundExecutor(2);
  CheckShutdown(*CreateSubExecutor(pool, 1), pool.get());
}

TEST(Executor, SurvivesThrowingTasksAndHoldsBackWithoutBlockingTheParent) {
  auto pool = CreateIOBoundExecutor(1);
  auto sub = CreateSubExecutor(pool, 1);
  const auto holdUntil = Clock::now() + 100ms;
  pool->HoldBackUntil(Clock::now() + 20ms);
  sub->HoldBackUntil(holdUntil);
  std::atomic<bool> subRan{false}, parentRanFirst{false};
  Clock::time_point startedAt;
  auto fail = [] { throw std::runtime_error("deliberate failure in a test task"); };
  ASSERT_TRUE(pool->Post(fail));
  ASSERT_TRUE(sub->Post(fail));
  ASSERT_TRUE(sub->Post([&] {
    startedAt = Clock::now();
    subRan = true;
  }));
  // A sub-executor waiting out its hold-back must not sit on the parent's only thread.
  ASSERT_TRUE(pool->Post([&] { parentRanFirst = !subRan; }));
  ASSERT_TRUE(Eventually([&] { return subRan.load(); }));
  EXPECT_GE(startedAt, holdUntil);
  EXPECT_TRUE(parentRanFirst);
}

TEST(Executor, SubExecutorRunsAtMostNAtOnceInOrder) {
  auto pool = CreateIOBoundExecutor(6);
  auto sub = CreateSubExecutor(pool, 2);
  auto serial = CreateSubExecutor(pool, 1);
  std::atomic<int> active{0}, peak{0}, done{0};
  std::vector<int> order;  // appended to by the serial executor only
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(sub->Post([&] {
      const int now = ++active;
      for (int p = peak.load(); now > p && !peak.compare_exchange_weak(p, now);) {
      }
      std::this_thread::sleep_for(1ms);
      --active;
      ++done;
    }));
    ASSERT_TRUE(serial->Post([&, i] {
      order.push_back(i);
      ++done;
    }));
  }
  ASSERT_TRUE(Eventually([&] { return done.load() == 100; }));
  EXPECT_LE(peak.load(), 2);
  ASSERT_EQ(order.size(), 50u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[i], i);
}

TEST(Executor, SubExecutorDestroyedWhileItsRunnerIsQueued) {
  auto pool = CreateIOBoundExecutor(1);
  OpenOnceGate started, proceed;
  pool->Post([&] {
    started.Open();
    proceed.Wait();
  });
  started.Wait();
  std::atomic<bool> ran{false}, drained{false};
  auto sub = CreateSubExecutor(pool, 2);
  sub->Post([&] { ran = true; });
  sub->Post([&] { ran = true; });
  sub.reset();  // its runners still sit in the pool's queue
  proceed.Open();
  pool->Post([&] { drained = true; });
  EXPECT_TRUE(Eventually([&] { return drained.load(); }));
  EXPECT_FALSE(ran);
}

TEST(QueueOnlyOnce, CoalescesWhileQueuedAndRequeuesOnceStarted) {
  auto pool = CreateIOBoundExecutor(2);
  std::atomic<int> runs{0};
  OpenOnceGate inFirstRun, finishFirstRun;
  QueueOnlyOnce once(
      pool,
      [&] {
        if (++runs == 1) {
          inFirstRun.Open();
          finishFirstRun.Wait();
        }
      },
      10, 0);
  EXPECT_TRUE(once.Queue());
  for (int i = 0; i < 9; ++i) EXPECT_FALSE(once.Queue());
  EXPECT_TRUE(once.IsQueued());
  inFirstRun.Wait();
  EXPECT_FALSE(once.IsQueued());
  EXPECT_TRUE(once.Queue());  // a started run does not hold back the next one
  EXPECT_FALSE(once.Queue());
  finishFirstRun.Open();
  EXPECT_TRUE(Eventually([&] { return runs.load() == 2; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(runs.load(), 2);
}

TEST(QueueOnlyOnce, CancelAndDestructionDropQueuedRunsAndWaitForRunning) {
  auto pool = CreateIOBoundExecutor(2);
  std::atomic<int> runs{0};
  const auto count = [&] { ++runs; };
  {
    QueueOnlyOnce once(pool, count, 10, 0);
    EXPECT_TRUE(once.Queue());
    once.Cancel();
    EXPECT_FALSE(once.IsQueued());
    EXPECT_TRUE(once.Queue());  // queued again, then dropped by destruction
  }
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(runs.load(), 0);

  OpenOnceGate started;
  std::atomic<bool> finished{false};
  auto once = std::make_unique<QueueOnlyOnce>(
      pool,
      [&] {
        started.Open();
        std::this_thread::sleep_for(20ms);
        finished = true;
      },
      0, 0);
  EXPECT_TRUE(once->Queue());
  started.Wait();
  once.reset();
  EXPECT_TRUE(finished);

  // Refused at once, delayed or not: a refusal must not wait for the delay to be noticed.
  QueueOnlyOnce afterShutdown(pool, count, 0, 0);
  QueueOnlyOnce delayedAfterShutdown(pool, count, 10, 0);
  auto sub = CreateSubExecutor(CreateIOBoundExecutor(1), 1);
  QueueOnlyOnce delayedOnStoppedSub(sub, count, 10, 0);
  pool->Shutdown();
  sub->StopTakingWork();
  EXPECT_FALSE(pool->IsTakingWork());
  EXPECT_FALSE(afterShutdown.Queue());
  EXPECT_FALSE(delayedAfterShutdown.Queue());
  EXPECT_FALSE(delayedAfterShutdown.IsQueued());
  EXPECT_FALSE(delayedOnStoppedSub.Queue());
  EXPECT_EQ(runs.load(), 0);
}

}  // namespace
}  // namespace zelcore::threads
