#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "configmanager/common.h"

using namespace QenConfigManager;

namespace {

// A caller's task: aborts on cue, reports its identifier, counts its life.
class FakeTask : public TaskHandle {
 public:
  explicit FakeTask(std::string id, std::atomic<int>* alive) : id_(std::move(id)), alive_(alive) { ++*alive_; }
  ~FakeTask() override { --*alive_; }
  bool IsAborted() override { return aborted.load(); }
  std::string GetTaskId() const override { return id_; }

  std::atomic<bool> aborted{false};

 private:
  std::string id_;
  std::atomic<int>* alive_;
};

}  // namespace

TEST(TaskPluginMonitor, ForwardsToTheTaskFromAnotherThreadAndKeepsItAlive) {
  std::atomic<int> alive{0};
  auto task = std::make_shared<FakeTask>("task-42", &alive);
  std::shared_ptr<PluginMonitor> monitor = std::make_shared<TaskPluginMonitor>(task);
  std::weak_ptr<FakeTask> weak = task;
  task.reset();
  ASSERT_EQ(alive.load(), 1) << "the monitor must own the task";

  // The launcher polls from its monitor thread.
  bool before = true, after = false;
  std::string id;
  std::thread watcher([&] {
    before = monitor->IsAborted();
    id = monitor->GetTaskId();
  });
  watcher.join();
  {
    std::shared_ptr<FakeTask> held = weak.lock();
    ASSERT_TRUE(held);
    held->aborted = true;
  }
  std::thread([&] { after = monitor->IsAborted(); }).join();
  EXPECT_FALSE(before);
  EXPECT_TRUE(after);
  EXPECT_EQ(id, "task-42");

  monitor.reset();
  EXPECT_EQ(alive.load(), 0);
}

TEST(TaskHandle, DefaultObjectsDoNothing) {
  auto task = TaskHandle::Dummy();
  EXPECT_FALSE(task->IsAborted());
  EXPECT_EQ(task->GetTaskId(), "");
  task->UpdateProgress(100.0f);

  auto child1 = task->ChildTask(1);
  auto child2 = task->ChildTask(1);
  ASSERT_TRUE(child1 && child2);
  EXPECT_NE(child1, child2);
  EXPECT_NE(child1, task);

  auto sink = task->AddNotification();
  ASSERT_TRUE(sink);
  sink->PluginInfo("corvane.qen.settings.apply.plugin.started", {"ntp"});
  sink->PluginWarning("", {});
  sink->PluginError(ErrorInfo("corvane.qen.settings.apply.plugin.aborted", {"ntp"}));

  TaskPluginMonitor overDummy(TaskHandle::Dummy());
  EXPECT_FALSE(overDummy.IsAborted());
  EXPECT_EQ(overDummy.GetTaskId(), "");
  EXPECT_FALSE(PluginMonitor::Dummy()->IsAborted());
  EXPECT_EQ(PluginMonitor::Dummy()->GetTaskId(), "");
}
