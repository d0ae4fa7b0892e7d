// No host code under the library's locks, and lifetimes that end: an executor
// that runs its tasks under its own mutex, observers removed while another
// thread posts, a host that drops its loop with work queued, and a kit whose
// last owner lets go on the Bluetooth queue.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "support/KitTestSupport.h"

namespace plenk::test {
namespace {

using namespace std::chrono_literals;

// A main queue of a common design: one thread that keeps the executor's mutex
// while it runs a task, so post() from another thread waits for that task.
class LockingExecutor final : public Executor {
public:
    LockingExecutor() : thread_([this] { loop(); }) {}
    ~LockingExecutor() override {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    void post(Task task) override {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        wake_.notify_all();
    }
    void postAfter(std::chrono::nanoseconds, Task task) override { post(std::move(task)); }

private:
    void loop() {
        std::unique_lock lock(mutex_);
        while (!stop_) {
            wake_.wait(lock, [&] { return stop_ || !tasks_.empty(); });
            while (!stop_ && !tasks_.empty()) {
                Task task = std::move(tasks_.front());
                tasks_.pop_front();
                task();  // under the executor's mutex
            }
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    bool stop_ = false;
    std::thread thread_;
};

struct CountingHost final : PKPlenkDelegate {
    std::mutex mutex;
    std::condition_variable changed;
    int connects = 0;
    void plenkDidConnected(PKPlenk&) override {
        std::lock_guard lock(mutex);
        ++connects;
        changed.notify_all();
    }
    bool waitForConnects(int n) {
        std::unique_lock lock(mutex);
        // A liveness bound, not a timing assertion: a deadlock never gets here.
        return changed.wait_for(lock, 30s, [&] { return connects >= n; });
    }
};

TEST(KitLocking, AnExecutorThatRunsTasksUnderItsMutexNeverDeadlocksTheKit) {
    auto world = sim::World::make(Clock::steady());
    auto scale = world->addScale();
    scale->setSampleRate(1000);  // a steady stream of main-queue work
    world->setRadioState(bt::ManagerState::PoweredOn);
    auto executor = std::make_shared<LockingExecutor>();
    Context context;
    context.mainQueue = executor;
    context.notifications = std::make_shared<NotificationCenter>();
    context.log = std::make_shared<CapturingLogSink>();
    context.backend = std::make_shared<sim::SimBackend>(world);
    auto host = std::make_shared<CountingHost>();
    auto plenk = PKPlenk::create(context);
    plenk->setDelegate(host);

    constexpr int kCycles = 60;
    for (int cycle = 1; cycle <= kCycles; ++cycle) {
        ASSERT_TRUE(host->waitForConnects(cycle)) << "stuck in cycle " << cycle;
        // Button presses and battery answers run kit work on the main queue
        // while link events post to it from the Bluetooth queue.
        scale->pressButton(0);
        plenk->readPlenkBatteryLifeWithCompletion([](std::int64_t) {});
        scale->dropLink();
    }
    plenk.reset();
    world->drainQueues();
}

// A host observer removes itself in its destructor: once removeObserver has
// returned, no call may still be running or start.
TEST(NotificationCenterLifetime, ARemovedObserverIsNeverCalledAgain) {
    auto center = std::make_shared<NotificationCenter>();
    std::atomic<bool> posting{true};
    std::thread poster([&] {
        while (posting) center->post("tick");
    });
    std::atomic<int> calls{0};
    std::atomic<int> late{0};
    for (int i = 0; i < 200; ++i) {
        auto alive = std::make_shared<std::atomic<bool>>(true);
        const auto token = center->addObserver("tick", [alive, &calls, &late](const Notification&) {
            ++calls;
            std::this_thread::sleep_for(50us);  // widen the window a removal could slip into
            if (!*alive) ++late;
        });
        while (calls.load() == 0) std::this_thread::yield();
        center->removeObserver(token);
        *alive = false;
        calls = 0;
    }
    posting = false;
    poster.join();
    EXPECT_EQ(late.load(), 0);
}

// The host stops and drops its loop while facade work is still queued in it.
TEST(FacadeLifetime, MemoryReturnsWhenTheHostDropsItsLoopWithWorkQueued) {
    SimHarness h;
    auto scale = h.addScale();
    auto loop = std::make_shared<RunLoop>(h.clock);
    Context context = h.context;
    context.mainQueue = loop;
    auto plenk = PKPlenk::create(context);
    auto host = std::make_shared<PKPlenkDelegate>();
    plenk->setDelegate(host);
    for (int i = 0; i < 50; ++i) {  // connected, tared and subscribed
        h.world->drainQueues();
        loop->runUntilIdle();
    }
    ASSERT_TRUE(plenk->isConnected());
    // Work of both kinds waits in the loop: the kit's (holding the kit weakly)
    // and the facade's own (holding the facade).
    for (int i = 0; i < 5; ++i) scale->notify(wire::kDataCharacteristic, weightPacket(scale, 1.0f * i));
    h.world->drainQueues();
    plenk->rostaWeightDidUpdate(9.0f);
    plenk->rostaDidDisconnected(*plenk->rosta());
    ASSERT_GT(loop->pendingTasks(), 2u);

    const std::weak_ptr<PKPlenk> facade = plenk;
    const std::weak_ptr<RKRostaKit> kit = plenk->rosta();
    const std::weak_ptr<RunLoop> weakLoop = loop;
    plenk.reset();
    context.mainQueue.reset();
    loop.reset();
    h.world->drainQueues();
    EXPECT_TRUE(weakLoop.expired());
    EXPECT_TRUE(facade.expired());
    EXPECT_TRUE(kit.expired());
}

// Records the thread an object of the host is released on.
struct ReleaseProbe {
    explicit ReleaseProbe(std::shared_ptr<RunLoop> main, std::atomic<int>& offMain)
        : main_(std::move(main)), offMain_(offMain) {}
    ~ReleaseProbe() {
        if (!main_->isCurrent()) ++offMain_;
    }
    std::shared_ptr<RunLoop> main_;
    std::atomic<int>& offMain_;
};

class ProbedPickerView final : public PickerView {
public:
    explicit ProbedPickerView(std::shared_ptr<ReleaseProbe> probe) : probe_(std::move(probe)) {}
    void reloadData() override {}
    void dismiss(bool, std::function<void()> completion) override { completion(); }

private:
    std::shared_ptr<ReleaseProbe> probe_;
};

TEST_F(KitFixture, AKitReleasedOnTheBluetoothQueueReleasesTheHostsObjectsOnTheMainQueue) {
    auto scale = h.addScale();
    scale->queueConnectResult(sim::ConnectResult::failWithCode(kPlatformConnectionLimitReached));
    makeKit(false);
    h.settle();
    std::atomic<int> offMain{0};
    std::atomic<int> failures{0};
    auto presenter = std::make_shared<RecordingPresenter>();
    presenter->view = nullptr;
    auto closureProbe = std::make_shared<ReleaseProbe>(h.mainLoop, offMain);
    // The host's last reference to the kit goes inside the picker-mode failure
    // completion, which runs on the Bluetooth queue.
    kit->showDevicePickerOnViewContoller(presenter, [this, closureProbe, &failures](const ErrorPtr& error) {
        if (!error) return;
        ++failures;
        kit.reset();
    });
    closureProbe.reset();
    h.settle();
    ASSERT_NE(presenter->presented, nullptr);
    presenter->presented->setView(
        std::make_shared<ProbedPickerView>(std::make_shared<ReleaseProbe>(h.mainLoop, offMain)));
    auto picker = std::weak_ptr<CSRSelectDeviceViewController>(presenter->presented);
    presenter->presented.reset();

    // The tap, like every picker call, happens on the main queue.
    h.mainLoop->post([picker = picker.lock()] { picker->tableViewDidSelectRowAtIndexPath({0, 0}); });
    h.settle();
    EXPECT_EQ(failures.load(), 1);
    EXPECT_EQ(kit, nullptr);
    EXPECT_TRUE(picker.expired());
    EXPECT_EQ(offMain.load(), 0);  // neither the view nor the host's closure died on the Bluetooth queue
}

}  // namespace
}  // namespace plenk::test
