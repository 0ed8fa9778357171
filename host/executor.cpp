// The thread pool, the sub-executor and QueueOnlyOnce.
//
// Each executor keeps its state in a shared object that the threads and the tasks it posts hold
// (strongly for the pool's own threads, weakly for anything queued elsewhere), so that work still
// sitting in another queue can never reach an executor that has been destroyed.
#include "jxcache/host/executor.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "jxcache/host/thread_annotations.h"

namespace zelcore::threads {
namespace {

using Clock = std::chrono::steady_clock;

// The executors whose tasks the calling thread is running, innermost first. Lets waits that
// would otherwise wait for the caller itself (an executor destroyed by one of its own tasks)
// leave the caller out.
struct RunningFrame {
  const void* owner;
  const RunningFrame* outer;
};
thread_local const RunningFrame* t_running = nullptr;

bool RunningTaskOf(const void* owner) {
  for (const RunningFrame* f = t_running; f != nullptr; f = f->outer) {
    if (f->owner == owner) return true;
  }
  return false;
}

// An exception ends the task, never the thread that runs it.
void RunTask(const void* owner, const Task& task, const char* executorKind) {
  RunningFrame frame{owner, t_running};
  t_running = &frame;
  try {
    task();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "jxcache: a task on the %s threw: %s\n", executorKind, e.what());
  } catch (...) {
    std::fprintf(stderr, "jxcache: a task on the %s threw a non-standard exception\n",
                 executorKind);
  }
  t_running = frame.outer;
}

// ---- Delays --------------------------------------------------------------------------------

// One process-wide thread that turns delays into posts, so that a delayed task occupies no
// executor thread (nor a sub-executor's place) while it waits and queuing never blocks.
class DelayTimer {
 public:
  using Key = std::pair<Clock::time_point, uint64_t>;

  static DelayTimer& Instance() {
    // Never destroyed: its detached thread may still be waiting when the process exits.
    static DelayTimer* const timer = new DelayTimer;
    return *timer;
  }

  Key Schedule(Clock::time_point when, std::function<void()> fire) {
    jx::MutexLock lock(mu_);
    if (!started_) {
      std::thread([this] { Loop(); }).detach();
      started_ = true;
    }
    const Key key{when, ++lastSeq_};
    entries_.emplace(key, std::move(fire));
    if (entries_.begin()->first == key) cv_.notify_one();
    return key;
  }

  void Unschedule(const Key& key) {
    std::function<void()> dropped;
    jx::MutexLock lock(mu_);
    auto it = entries_.find(key);
    if (it == entries_.end()) return;
    dropped = std::move(it->second);
    entries_.erase(it);
  }

 private:
  void Loop() {
    jx::MutexLock lock(mu_);
    for (;;) {
      if (entries_.empty()) {
        cv_.wait(lock.Native());
        continue;
      }
      auto first = entries_.begin();
      // A copy: wait_until reads its deadline again after waking, and an Unschedule while this
      // thread waits may have freed the entry that held it.
      const Clock::time_point due = first->first.first;
      if (Clock::now() < due) {
        cv_.wait_until(lock.Native(), due);
        continue;
      }
      std::function<void()> fire = std::move(first->second);
      entries_.erase(first);
      lock.Unlock();
      try {
        fire();
      } catch (const std::exception& e) {
        std::fprintf(stderr, "jxcache: a delayed post failed: %s\n", e.what());
      } catch (...) {
        std::fprintf(stderr, "jxcache: a delayed post failed\n");
      }
      fire = nullptr;
      lock.Lock();
    }
  }

  jx::Mutex mu_;
  std::condition_variable cv_;
  std::map<Key, std::function<void()>> entries_ GUARDED_BY(mu_);
  uint64_t lastSeq_ GUARDED_BY(mu_) = 0;
  bool started_ GUARDED_BY(mu_) = false;
};

// ---- Thread pool ---------------------------------------------------------------------------

struct PoolState {
  explicit PoolState(unsigned max) : maxThreads(max) {}

  const unsigned maxThreads;
  mutable jx::Mutex mu;
  std::condition_variable workCv;  // work queued, or the pool is exiting
  std::condition_variable idleCv;  // a task finished
  std::deque<Task> queue GUARDED_BY(mu);
  std::vector<std::thread> threads GUARDED_BY(mu);
  unsigned idle GUARDED_BY(mu) = 0;  // threads waiting for work or for the hold-back to pass
  unsigned running GUARDED_BY(mu) = 0;
  bool takingWork GUARDED_BY(mu) = true;
  bool exiting GUARDED_BY(mu) = false;
  Clock::time_point holdUntil GUARDED_BY(mu){};
};

void PoolWorker(const std::shared_ptr<PoolState>& s) {
  jx::MutexLock lock(s->mu);
  for (;;) {
    if (s->exiting) return;
    if (s->queue.empty()) {
      ++s->idle;
      s->workCv.wait(lock.Native());
      --s->idle;
      continue;
    }
    const Clock::time_point hold = s->holdUntil;
    if (Clock::now() < hold) {
      ++s->idle;
      s->workCv.wait_until(lock.Native(), hold);
      --s->idle;
      continue;
    }
    Task task = std::move(s->queue.front());
    s->queue.pop_front();
    ++s->running;
    lock.Unlock();
    RunTask(s.get(), task, "I/O executor");
    task = nullptr;  // captures are released outside the pool's mutex too
    lock.Lock();
    --s->running;
    s->idleCv.notify_all();
  }
}

// The task of a queue entry: the pool queues tasks, the sub-executor numbered tasks.
Task TakeTask(Task& task) { return std::move(task); }
Task TakeTask(std::pair<uint64_t, Task>& entry) { return std::move(entry.second); }

// Shut-down and the queue queries, the same for the pool and the sub-executor: both states keep
// a mutex, a queue of not-yet-started tasks, a running count with its condition, a flag for
// taking work and a hold-back time.
template <class State>
class QueueingExecutor : public Executor {
 public:
  void StopTakingWork() override {
    jx::MutexLock lock(state_->mu);
    state_->takingWork = false;
  }

  bool IsTakingWork() const override {
    jx::MutexLock lock(state_->mu);
    return state_->takingWork;
  }

  void CancelQueued() override {
    // Dropped tasks are destroyed after the lock is released: their destructors may post. One
    // at a time, because taking the whole queue would need a new one, which allocates, and
    // executors' destructors come here. Tasks posted meanwhile stay.
    size_t toDrop;
    {
      jx::MutexLock lock(state_->mu);
      toDrop = state_->queue.size();
    }
    for (; toDrop > 0; --toDrop) {
      Task dropped;
      jx::MutexLock lock(state_->mu);
      if (state_->queue.empty()) return;
      dropped = TakeTask(state_->queue.front());
      state_->queue.pop_front();
    }
  }

  void WaitForRunning() override {
    // A task of this executor waiting for it does not wait for itself.
    const unsigned self = RunningTaskOf(state_.get()) ? 1 : 0;
    jx::MutexLock lock(state_->mu);
    while (state_->running > self) state_->idleCv.wait(lock.Native());
  }

  void HoldBackUntil(Clock::time_point until) override {
    jx::MutexLock lock(state_->mu);
    state_->holdUntil = std::max(state_->holdUntil, until);
  }

  size_t QueuedCount() const override {
    jx::MutexLock lock(state_->mu);
    return state_->queue.size();
  }

 protected:
  explicit QueueingExecutor(std::shared_ptr<State> state) : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};

class IOBoundExecutor final : public QueueingExecutor<PoolState> {
 public:
  explicit IOBoundExecutor(unsigned maxThreads)
      : QueueingExecutor(std::make_shared<PoolState>(maxThreads)) {}

  ~IOBoundExecutor() override {
    Shutdown();
    std::vector<std::thread> threads;
    {
      jx::MutexLock lock(state_->mu);
      state_->exiting = true;
      threads.swap(state_->threads);
    }
    state_->workCv.notify_all();
    for (std::thread& t : threads) {
      // The last owner may be one of the pool's own tasks: that thread finishes on its own.
      if (t.get_id() == std::this_thread::get_id()) {
        t.detach();
      } else {
        t.join();
      }
    }
  }

  bool Post(Task task) override {
    jx::MutexLock lock(state_->mu);
    if (!state_->takingWork) return false;
    state_->queue.push_back(std::move(task));
    // Threads start on demand: a pool sized for the worst case costs nothing while it is quiet.
    if (state_->queue.size() > state_->idle && state_->threads.size() < state_->maxThreads) {
      try {
        state_->threads.emplace_back(PoolWorker, state_);
      } catch (...) {
        state_->queue.pop_back();
        throw;
      }
    } else {
      state_->workCv.notify_one();
    }
    return true;
  }
};

// ---- Sub-executor --------------------------------------------------------------------------

struct SubState {
  SubState(std::shared_ptr<Executor> p, unsigned max) : parent(std::move(p)), maxConcurrent(max) {}

  const std::shared_ptr<Executor> parent;
  const unsigned maxConcurrent;
  mutable jx::Mutex mu;
  std::condition_variable idleCv;  // a task finished
  std::deque<std::pair<uint64_t, Task>> queue GUARDED_BY(mu);
  uint64_t lastId GUARDED_BY(mu) = 0;
  unsigned runners GUARDED_BY(mu) = 0;  // runner tasks handed to the parent and not finished
  unsigned running GUARDED_BY(mu) = 0;
  bool takingWork GUARDED_BY(mu) = true;
  Clock::time_point holdUntil GUARDED_BY(mu){};
};

// One of the sub-executor's `maxConcurrent` runner places, carried by the runner task posted to
// the parent. When the parent drops that task without running it, the place is given back here.
struct RunnerPlace {
  explicit RunnerPlace(std::weak_ptr<SubState> s) : state(std::move(s)) {}
  ~RunnerPlace() {
    if (handedBack) return;
    if (std::shared_ptr<SubState> s = state.lock()) {
      jx::MutexLock lock(s->mu);
      --s->runners;
    }
  }
  RunnerPlace(const RunnerPlace&) = delete;
  RunnerPlace& operator=(const RunnerPlace&) = delete;

  std::weak_ptr<SubState> state;
  bool handedBack = false;
};

void RunOneSubTask(const std::shared_ptr<RunnerPlace>& place);

// Posts a runner task carrying one of the places the caller counted in `runners`. False when the
// parent refused it or memory ran out: the place is then given back. The caller must not hold
// the sub-executor's mutex.
bool PostRunner(const std::shared_ptr<SubState>& s) noexcept {
  std::shared_ptr<RunnerPlace> place;
  try {
    place = std::make_shared<RunnerPlace>(s);
  } catch (...) {
    jx::MutexLock lock(s->mu);
    --s->runners;
    return false;
  }
  try {
    // On refusal the task's copy of `place` is dropped; the last copy gives the place back.
    return s->parent->Post([place] { RunOneSubTask(place); });
  } catch (...) {
    return false;
  }
}

// Runs the oldest queued task, then hands the runner place to a fresh runner posted behind the
// parent's other work, so a busy sub-executor does not monopolise the parent's threads.
void RunOneSubTask(const std::shared_ptr<RunnerPlace>& place) {
  std::shared_ptr<SubState> s = place->state.lock();
  if (!s) return;  // the sub-executor is gone, and its tasks with it
  jx::MutexLock lock(s->mu);
  if (!s->queue.empty() && Clock::now() < s->holdUntil) {
    // Come back when the hold-back ends, keeping the place, rather than occupy a parent thread.
    const Clock::time_point until = s->holdUntil;
    lock.Unlock();
    try {
      DelayTimer::Instance().Schedule(until, [place] {
        if (std::shared_ptr<SubState> state = place->state.lock()) {
          state->parent->Post([place] { RunOneSubTask(place); });
        }
      });
      return;
    } catch (const std::bad_alloc&) {
      // No memory to wait with: run now rather than drop the place. A hold-back is a wish.
    }
    lock.Lock();
  }
  place->handedBack = true;
  for (;;) {
    if (s->queue.empty()) {
      --s->runners;
      return;
    }
    Task task = std::move(s->queue.front().second);
    s->queue.pop_front();
    ++s->running;
    lock.Unlock();
    RunTask(s.get(), task, "sub-executor");
    task = nullptr;
    lock.Lock();
    --s->running;
    s->idleCv.notify_all();
    if (s->queue.empty()) {
      --s->runners;
      return;
    }
    lock.Unlock();
    if (PostRunner(s)) return;
    // The place came back (no memory for a new runner): this runner carries on with the queue,
    // which nobody else may be about to run, unless another runner took the place meanwhile.
    lock.Lock();
    if (s->runners >= s->maxConcurrent) return;
    ++s->runners;
  }
}

class SubExecutor final : public QueueingExecutor<SubState> {
 public:
  SubExecutor(std::shared_ptr<Executor> parent, unsigned maxConcurrent)
      : QueueingExecutor(std::make_shared<SubState>(std::move(parent), maxConcurrent)) {}

  ~SubExecutor() override { Shutdown(); }

  bool Post(Task task) override {
    uint64_t id = 0;
    {
      jx::MutexLock lock(state_->mu);
      if (!state_->takingWork) return false;
      id = ++state_->lastId;
      state_->queue.emplace_back(id, std::move(task));
      if (state_->runners >= state_->maxConcurrent) return true;
      ++state_->runners;
    }
    if (PostRunner(state_)) return true;
    // The parent refused, or there was no memory for a runner: take the task back unless a
    // runner already took it.
    Task dropped;
    jx::MutexLock lock(state_->mu);
    auto it = std::find_if(state_->queue.begin(), state_->queue.end(),
                           [id](const auto& entry) { return entry.first == id; });
    if (it == state_->queue.end()) return true;
    dropped = std::move(it->second);
    state_->queue.erase(it);
    return false;
  }
};

}  // namespace

std::shared_ptr<Executor> CreateIOBoundExecutor(unsigned threadCount) {
  if (threadCount == 0) threadCount = std::max(2u, 2 * std::thread::hardware_concurrency());
  return std::make_shared<IOBoundExecutor>(threadCount);
}

std::shared_ptr<Executor> CreateSubExecutor(std::shared_ptr<Executor> parent,
                                            unsigned maxConcurrent) {
  if (!parent) throw std::invalid_argument("CreateSubExecutor needs a parent executor");
  return std::make_shared<SubExecutor>(std::move(parent), std::max(1u, maxConcurrent));
}

// ---- QueueOnlyOnce -------------------------------------------------------------------------

// A queued run is identified by its generation: Cancel bumps it, so a timer entry or a posted
// run left behind by a cancelled or superseded Queue finds a different generation and does
// nothing. Once a run starts, `queued` drops and Queue schedules the next one; on an executor
// with several threads that next run may overlap the current one.
struct QueueOnlyOnce::State : std::enable_shared_from_this<QueueOnlyOnce::State> {
  State(std::shared_ptr<Executor> e, Task t, uint32_t delay)
      : executor(std::move(e)), task(std::move(t)), delayMs(delay) {}

  bool Queue() {
    // A delayed run is posted later, by the timer; an executor that already refuses work would
    // drop it then, after this call had promised it.
    if (delayMs != 0 && !executor->IsTakingWork()) return false;
    jx::MutexLock lock(mu);
    if (queued || closed) return false;
    const uint64_t generation = ++lastGeneration;
    queued = true;
    std::weak_ptr<State> weak = weak_from_this();
    if (delayMs == 0) {
      lock.Unlock();
      return PostRun(generation);
    }
    timerKey = DelayTimer::Instance().Schedule(Clock::now() + std::chrono::milliseconds(delayMs),
                                               [weak, generation] {
                                                 if (std::shared_ptr<State> s = weak.lock())
                                                   s->Fire(generation);
                                               });
    timerPending = true;
    return true;
  }

  void Cancel() {
    jx::MutexLock lock(mu);
    CancelLocked();
  }

  // Cancels and waits for a run in progress (unless the caller is that run).
  void Close() {
    const unsigned self = RunningTaskOf(this) ? 1 : 0;
    jx::MutexLock lock(mu);
    closed = true;
    CancelLocked();
    while (running > self) cv.wait(lock.Native());
  }

  bool IsQueued() const {
    jx::MutexLock lock(mu);
    return queued;
  }

 private:
  void CancelLocked() REQUIRES(mu) {
    if (!queued) return;
    queued = false;
    ++lastGeneration;
    if (timerPending) {
      DelayTimer::Instance().Unschedule(timerKey);
      timerPending = false;
    }
  }

  bool StillQueued(uint64_t generation) const REQUIRES(mu) {
    return queued && lastGeneration == generation;
  }

  void Fire(uint64_t generation) {
    {
      jx::MutexLock lock(mu);
      if (!StillQueued(generation)) return;
      timerPending = false;
    }
    PostRun(generation);
  }

  bool PostRun(uint64_t generation) {
    std::weak_ptr<State> weak = weak_from_this();
    if (executor->Post([weak, generation] {
          if (std::shared_ptr<State> s = weak.lock()) s->Run(generation);
        })) {
      return true;
    }
    jx::MutexLock lock(mu);
    if (StillQueued(generation)) queued = false;
    return false;
  }

  void Run(uint64_t generation) {
    {
      jx::MutexLock lock(mu);
      if (!StillQueued(generation)) return;
      queued = false;
      ++running;
    }
    RunTask(this, task, "QueueOnlyOnce");
    {
      jx::MutexLock lock(mu);
      --running;
    }
    cv.notify_all();
  }

  const std::shared_ptr<Executor> executor;
  const Task task;
  const uint32_t delayMs;
  mutable jx::Mutex mu;
  std::condition_variable cv;  // a run finished
  bool queued GUARDED_BY(mu) = false;
  bool closed GUARDED_BY(mu) = false;
  bool timerPending GUARDED_BY(mu) = false;
  uint64_t lastGeneration GUARDED_BY(mu) = 0;
  unsigned running GUARDED_BY(mu) = 0;
  DelayTimer::Key timerKey GUARDED_BY(mu){};
};

QueueOnlyOnce::QueueOnlyOnce(std::shared_ptr<Executor> executor, Task task, uint32_t delayMs,
                             int flags)
    : state_(std::make_shared<State>(std::move(executor), std::move(task), delayMs)) {
  (void)flags;  // no flag changes the behaviour yet
}

QueueOnlyOnce::~QueueOnlyOnce() { state_->Close(); }

bool QueueOnlyOnce::Queue() { return state_->Queue(); }

bool QueueOnlyOnce::IsQueued() const { return state_->IsQueued(); }

void QueueOnlyOnce::Cancel() { state_->Cancel(); }

}  // namespace zelcore::threads
