// A sub-executor whose parent runs out of memory strands no task and loses no runner place.
#include "jxcache/host/executor.h"

#include <gtest/gtest.h>

#include <deque>
#include <new>
#include <string>

namespace zelcore::threads {
namespace {

// A parent that runs its queue when told, and can fail the next post as an allocation would.
class ManualParent : public Executor {
 public:
  bool Post(Task task) override {
    if (failNextPost) {
      failNextPost = false;
      throw std::bad_alloc();
    }
    tasks_.push_back(std::move(task));
    return true;
  }
  void StopTakingWork() override {}
  bool IsTakingWork() const override { return true; }
  void CancelQueued() override { tasks_.clear(); }
  void WaitForRunning() override {}
  void HoldBackUntil(std::chrono::steady_clock::time_point) override {}
  size_t QueuedCount() const override { return tasks_.size(); }

  void RunAll() {
    while (!tasks_.empty()) {
      Task task = std::move(tasks_.front());
      tasks_.pop_front();
      task();
    }
  }

  bool failNextPost = false;

 private:
  std::deque<Task> tasks_;
};

TEST(SubExecutor, KeepsItsTasksAndPlacesWhenItsParentRunsOutOfMemory) {
  auto parent = std::make_shared<ManualParent>();
  auto sub = CreateSubExecutor(parent, 1);
  std::string ran;
  auto task = [&ran](char name) { return [&ran, name] { ran += name; }; };

  // No memory for the runner: the post is refused whole, and the place is free again.
  parent->failNextPost = true;
  bool posted = true;
  EXPECT_NO_THROW(posted = sub->Post(task('a')));
  EXPECT_FALSE(posted);
  EXPECT_EQ(sub->QueuedCount(), 0u);
  parent->RunAll();
  EXPECT_EQ(ran, "");

  // A runner that cannot hand its place on carries on with the queue itself.
  ASSERT_TRUE(sub->Post(task('b')));
  ASSERT_TRUE(sub->Post(task('c')));
  parent->failNextPost = true;
  EXPECT_NO_THROW(parent->RunAll());
  EXPECT_EQ(ran, "bc");
  EXPECT_EQ(sub->QueuedCount(), 0u);

  // And the place is back: the next task gets a runner.
  ASSERT_TRUE(sub->Post(task('d')));
  parent->RunAll();
  EXPECT_EQ(ran, "bcd");
}

}  // namespace
}  // namespace zelcore::threads
