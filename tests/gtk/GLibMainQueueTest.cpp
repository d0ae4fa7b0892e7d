// The library's main queue on a GLib main context: order, threads and
// lifetime of tasks, on a context of the test's own iterated by this thread.
#include <PlenkKitGtk/GLibMainQueue.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gtk/support/MainContextWait.h"

namespace plenk::gtk {
namespace {

using namespace std::chrono_literals;
using test::waitUntil;

// Notes, when the last task holding it lets go, which thread that was and
// whether the task had run by then.
struct ReleaseProbe {
    const std::shared_ptr<bool> ran = std::make_shared<bool>(false);
    std::thread::id* releasedOn;
    bool* ranBeforeRelease;
    ~ReleaseProbe() {
        *releasedOn = std::this_thread::get_id();
        *ranBeforeRelease = *ran;
    }
};

class GLibMainQueueTest : public ::testing::Test {
protected:
    void TearDown() override {
        queue.reset();
        g_main_context_unref(context);
    }
    bool runUntil(const std::function<bool()>& done) { return waitUntil(done, test::kWaitLimit, context); }

    GMainContext* context = g_main_context_new();
    std::shared_ptr<GLibMainQueue> queue = GLibMainQueue::create(context);
};

TEST_F(GLibMainQueueTest, RunsTasksOnTheContextThreadInOrder) {
    const auto contextThread = std::this_thread::get_id();
    std::vector<std::string> log;  // touched by tasks only, on this thread
    bool offThread = false;
    const auto record = [&](std::string entry) {
        return [&, entry = std::move(entry)] {
            offThread = offThread || std::this_thread::get_id() != contextThread;
            log.push_back(entry);
        };
    };

    // Delayed tasks run by deadline, equal delays in posting order, whatever
    // order they were posted in; a task posting again queues behind what is
    // queued already.
    queue->postAfter(60ms, record("late-1"));
    queue->postAfter(20ms, record("early"));
    queue->postAfter(60ms, record("late-2"));
    queue->post([&] {
        log.emplace_back("outer");
        queue->post(record("inner"));
    });
    queue->post(record("queued"));
    ASSERT_TRUE(runUntil([&] { return log.size() == 6; }));
    EXPECT_EQ(log, (std::vector<std::string>{"outer", "queued", "inner", "early", "late-1", "late-2"}));
    log.clear();

    // From several threads at once: each thread's tasks in its posting order.
    constexpr int kThreads = 4;
    constexpr int kTasks = 200;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < kTasks; ++i) queue->post(record(std::to_string(t) + ":" + std::to_string(i)));
        });
    }
    for (auto& poster : posters) poster.join();
    ASSERT_TRUE(runUntil([&] { return log.size() == kThreads * kTasks; }));
    std::vector<int> next(kThreads, 0);
    for (const std::string& entry : log) {
        const int t = std::stoi(entry.substr(0, entry.find(':')));
        EXPECT_EQ(std::stoi(entry.substr(entry.find(':') + 1)), next[t]++) << "thread " << t;
    }
    EXPECT_FALSE(offThread);
    EXPECT_EQ(queue->pendingTasks(), 0U);

    // A task posted from another thread is destroyed on the context's thread,
    // after it ran.
    std::thread::id releasedOn;
    bool ranBeforeRelease = false;
    std::thread([&] {
        auto probe = std::make_shared<ReleaseProbe>();
        probe->releasedOn = &releasedOn;
        probe->ranBeforeRelease = &ranBeforeRelease;
        queue->post([probe = std::move(probe)] { *probe->ran = true; });
    }).join();
    ASSERT_TRUE(runUntil([&] { return releasedOn != std::thread::id{}; }));
    EXPECT_EQ(releasedOn, contextThread);
    EXPECT_TRUE(ranBeforeRelease);
}

// A loop asleep with nothing to do wakes for a post from another thread, and
// for a delayed post that is due before anything it waits for. A guard source
// ends a wait the queue failed to wake, which then fails the check.
TEST_F(GLibMainQueueTest, WakesASleepingLoop) {
    for (const bool delayed : {false, true}) {
        SCOPED_TRACE(delayed ? "postAfter" : "post");
        bool ran = false;
        bool guardFired = false;
        GSource* guard = g_timeout_source_new_seconds(60);
        g_source_set_callback(
            guard,
            +[](gpointer fired) -> gboolean { return *static_cast<bool*>(fired) = true, G_SOURCE_REMOVE; },
            &guardFired, nullptr);
        g_source_attach(guard, context);
        std::thread poster([&] {
            std::this_thread::sleep_for(50ms);  // most likely the loop sleeps by now
            if (delayed) {
                queue->postAfter(10ms, [&] { ran = true; });
            } else {
                queue->post([&] { ran = true; });
            }
        });
        while (!ran && !guardFired) g_main_context_iteration(context, TRUE);
        poster.join();
        g_source_destroy(guard);
        g_source_unref(guard);
        EXPECT_TRUE(ran);
        EXPECT_FALSE(guardFired);
    }
}

TEST_F(GLibMainQueueTest, DropsQueuedTasksUncalledAndRefusesEmptyOnes) {
    EXPECT_THROW(queue->post(Task{}), std::invalid_argument);
    EXPECT_THROW(queue->postAfter(1ms, nullptr), std::invalid_argument);
    EXPECT_EQ(queue->pendingTasks(), 0U);

    bool called = false;
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = captured;
    queue->post([&called, captured] { called = true; });
    queue->postAfter(1h, [&called, captured = std::move(captured)] { called = true; });
    EXPECT_EQ(queue->pendingTasks(), 2U);
    queue.reset();
    EXPECT_TRUE(watch.expired());
    // The context runs on without the queue's source.
    g_main_context_iteration(context, FALSE);
    EXPECT_FALSE(called);
}

}  // namespace
}  // namespace plenk::gtk
