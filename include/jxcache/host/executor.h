// Executors for background work: a thread pool for I/O-bound tasks, a sub-executor that runs at
// most N of its tasks at once on a parent, and QueueOnlyOnce (a delayed task that is queued at
// most once at a time).
//
// Shut-down is three steps, in order: StopTakingWork (Post returns false from then on),
// CancelQueued (tasks not yet started are dropped, never run), WaitForRunning (returns when no
// task of this executor is running). The destructor of a pool does all three.
// Any thread may Post. A task must not wait for its own executor to drain.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace zelcore::threads {

using Task = std::function<void()>;

class Executor {
 public:
  virtual ~Executor() = default;
  // Queues the task; false when the executor no longer takes work.
  virtual bool Post(Task task) = 0;
  virtual void StopTakingWork() = 0;
  // False once StopTakingWork has been called.
  virtual bool IsTakingWork() const = 0;
  virtual void CancelQueued() = 0;
  virtual void WaitForRunning() = 0;
  // Holds back queued tasks that have not started yet: none starts before `until`.
  virtual void HoldBackUntil(std::chrono::steady_clock::time_point until) = 0;
  // Tasks queued and not yet started.
  virtual size_t QueuedCount() const = 0;

  void Shutdown() {
    StopTakingWork();
    CancelQueued();
    WaitForRunning();
  }
};

// A pool of threads for tasks that mostly wait on I/O. threadCount 0 means two per core.
std::shared_ptr<Executor> CreateIOBoundExecutor(unsigned threadCount = 0);
// Runs its tasks on `parent`, at most maxConcurrent at once, in the order posted.
std::shared_ptr<Executor> CreateSubExecutor(std::shared_ptr<Executor> parent,
                                            unsigned maxConcurrent);

// A task posted to an executor after a delay; Queue while it is already queued does nothing.
// Once it has started running it may be queued again. Cancel drops a queued run.
class QueueOnlyOnce {
 public:
  QueueOnlyOnce(std::shared_ptr<Executor> executor, Task task, uint32_t delayMs, int flags);
  ~QueueOnlyOnce();
  QueueOnlyOnce(const QueueOnlyOnce&) = delete;
  QueueOnlyOnce& operator=(const QueueOnlyOnce&) = delete;

  // Returns true when this call queued the task, false when it was already queued or the
  // executor no longer takes work.
  bool Queue();
  bool IsQueued() const;
  void Cancel();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace zelcore::threads
