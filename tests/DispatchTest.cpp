#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include <PlenkKit/Clock.h>
#include <PlenkKit/NotificationCenter.h>
#include <PlenkKit/RunLoop.h>
#include <PlenkKit/Task.h>

#include "dispatch/SerialQueue.h"

using namespace plenk;
using namespace std::chrono_literals;

TEST(TaskTest, SmallClosuresStayInlineAndLargeOnesStillRun) {
    int hits = 0;
    auto shared = std::make_shared<int>(7);
    Task small([&hits, shared] { hits += *shared; });
    std::array<char, 200> big{};
    big[199] = 3;
    Task large([&hits, big] { hits += big[199]; });
    Task moved = std::move(large);
    EXPECT_FALSE(static_cast<bool>(large));  // NOLINT(bugprone-use-after-move): checking the moved-from state
    small();
    moved();
    EXPECT_EQ(hits, 10);
    EXPECT_EQ(shared.use_count(), 2);
    small.reset();
    EXPECT_EQ(shared.use_count(), 1);  // the capture died with the task
}

TEST(RunLoopTest, RunsTasksInPostOrderFromManyThreadsUntilStopped) {
    RunLoop loop;
    std::vector<int> seen;
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&loop, &seen, t] {
            for (int i = 0; i < 500; ++i) loop.post([&seen, t, i] { seen.push_back(t * 1000 + i); });
        });
    }
    for (auto& p : posters) p.join();
    loop.runUntilIdle();
    ASSERT_EQ(seen.size(), 2000u);
    // Per-poster order is kept.
    std::array<int, 4> last{-1, -1, -1, -1};
    for (int v : seen) {
        EXPECT_GT(v % 1000, last[static_cast<std::size_t>(v / 1000)]);
        last[static_cast<std::size_t>(v / 1000)] = v % 1000;
    }

    // runUntil stops on its condition; stop() from a task ends run().
    std::atomic<int> count{0};
    std::thread producer([&] {
        for (int i = 0; i < 10; ++i) loop.post([&] { ++count; });
    });
    EXPECT_TRUE(loop.runUntil([&] { return count.load() == 10; }));
    producer.join();
    bool inside = false;
    loop.post([&] {
        inside = loop.isCurrent();
        loop.stop();
    });
    EXPECT_FALSE(loop.isCurrent());
    loop.run();
    EXPECT_TRUE(inside);
    EXPECT_FALSE(loop.runUntil([] { return false; }, 10ms));
}

TEST(RunLoopTest, DelayedTasksFollowTheVirtualClock) {
    auto clock = std::make_shared<VirtualClock>();
    RunLoop loop(clock);
    std::vector<int> order;
    loop.postAfter(3s, [&] { order.push_back(3); });
    loop.postAfter(1s, [&] { order.push_back(1); });
    loop.post([&] { order.push_back(0); });
    loop.runUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{0}));
    clock->advance(2s);
    loop.runUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{0, 1}));
    clock->advance(1s);
    loop.runUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 3}));
    EXPECT_THROW(loop.post(Task{}), std::invalid_argument);  // empty tasks are refused at the door
    EXPECT_THROW(loop.postAfter(1s, Task{}), std::invalid_argument);
    EXPECT_EQ(loop.pendingTasks(), 0u);
}

TEST(SerialQueueTest, RunsSeriallyOnItsOwnLabelledThreadAndMayEndInsideATask) {
    dispatch::SerialQueue queue("Corebluetooth");
    std::atomic<int> running{0};
    std::atomic<int> maxRunning{0};
    std::vector<int> order;
    for (int i = 0; i < 200; ++i) {
        queue.post([&, i] {
            maxRunning = std::max(maxRunning.load(), ++running);
            EXPECT_TRUE(queue.isCurrent() && dispatch::SerialQueue::current() == &queue);
            order.push_back(i);
            --running;
        });
    }
    queue.drain();
    EXPECT_TRUE(queue.idle());
    EXPECT_EQ(maxRunning.load(), 1);
    std::vector<int> expected(200);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected);
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_EQ(dispatch::SerialQueue::current(), nullptr);

    // A queue may be destroyed from its own task.
    auto owned = std::make_shared<dispatch::SerialQueue>("self");
    std::atomic<bool> done{false};
    auto* raw = owned.get();
    raw->post([q = std::move(owned), &done]() mutable {
        q.reset();  // last reference dies on the queue itself
        done = true;
    });
    for (int i = 0; i < 1000 && !done; ++i) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(done.load());
}

TEST(VirtualClockTest, FiresDueTimersInDeadlineOrderAndHonoursCancel) {
    VirtualClock clock;
    std::vector<int> fired;
    clock.callAfter(2s, [&] { fired.push_back(2); });
    const auto cancelled = clock.callAfter(1s, [&] { fired.push_back(99); });
    clock.callAfter(1s, [&] {
        fired.push_back(1);
        clock.callAfter(500ms, [&] { fired.push_back(15); });  // set while firing, due inside this advance
    });
    EXPECT_TRUE(clock.cancel(cancelled));
    EXPECT_FALSE(clock.cancel(cancelled));
    clock.advance(2s);
    EXPECT_EQ(fired, (std::vector<int>{1, 15, 2}));
    EXPECT_EQ(clock.pendingTimers(), 0u);
}

TEST(NotificationCenterTest, DeliversByNameAndAllowsReentrantChanges) {
    NotificationCenter center;
    std::vector<std::string> got;
    NotificationCenter::Token self = 0;
    self = center.addObserver("log", [&](const Notification& n) {
        got.push_back(n.name + ":" + n.object.value_or("-"));
        center.removeObserver(self);  // removing itself inside the call is fine
        center.post("Connect");
    });
    center.addObserver("", [&](const Notification& n) { got.push_back("any:" + n.name); });
    center.post("log", "didDiscoverPeripheral");
    center.post("log", "again");
    EXPECT_EQ(got,
              (std::vector<std::string>{"log:didDiscoverPeripheral", "any:Connect", "any:log", "any:log"}));
}
