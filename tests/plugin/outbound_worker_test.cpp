#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "OutboundWorker.h"
#include "support/LogCapture.h"

namespace {

// Holds the worker's thread inside a first task until released, so the queue
// behind it fills up deterministically.
struct Gate {
    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex);
        entered = true;
        changed.notify_all();
        changed.wait(lock, [&] { return open; });
    }
    void waitEntered()
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return entered; });
    }
    void release()
    {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool open = false;
};

TEST(OutboundWorker, RunsTasksInOrderAndDropsOnlyStaleTelemetryWhenFull)
{
    vlm::test::LogCapture log;
    Gate gate;
    std::mutex mutex;
    std::vector<std::string> ran;
    auto record = [&](std::string name) {
        return [&, name] {
            std::lock_guard<std::mutex> lock(mutex);
            ran.push_back(name);
        };
    };
    {
        vlm::OutboundWorker worker(3);
        worker.post([&] { gate.wait(); });
        gate.waitEntered();
        EXPECT_TRUE(worker.post(record("t1"), true));
        EXPECT_TRUE(worker.post(record("answer1")));
        EXPECT_TRUE(worker.post(record("t2"), true));
        EXPECT_FALSE(worker.post(record("t3"), true));  // full: t1 makes room
        EXPECT_FALSE(worker.post(record("answer2")));   // full: t2 makes room
        EXPECT_FALSE(worker.post(record("answer3")));   // full: t3 makes room
        EXPECT_FALSE(worker.post(record("t4"), true));  // only answers queued: t4 itself goes
        EXPECT_TRUE(worker.post(record("answer4")));    // answers always queue, over the capacity
        EXPECT_EQ(worker.dropped(), 4u);
        gate.release();
    }  // the destructor lets queued work finish
    EXPECT_EQ(ran, (std::vector<std::string>{"answer1", "answer2", "answer3", "answer4"}));
    EXPECT_EQ(log.errors("outbound queue full: 1 stale telemetry publications dropped so far"), 1);
}

// The plug-in's unload must not return while a worker thread still runs:
// the host may unmap the library right after it.
TEST(OutboundWorker, AWorkerEndedByItsOwnTaskIsJoinedBeforeUnloadReturns)
{
    using namespace std::chrono_literals;
    // Set by a thread-local's destructor: the last thing the worker's thread does.
    static std::atomic<bool> threadEnded{false};
    struct EndMarker {
        ~EndMarker() { threadEnded = true; }
    };
    // Ends the worker from inside its own task, and lingers, so that a thread
    // nobody joins would still be running when the test looks.
    struct LastOwner {
        std::shared_ptr<vlm::OutboundWorker> worker;
        ~LastOwner()
        {
            worker.reset();
            std::this_thread::sleep_for(200ms);
        }
    };
    std::promise<void> go;
    auto worker = std::make_shared<vlm::OutboundWorker>();
    EXPECT_FALSE(vlm::OutboundWorker::joinAllEnded(20ms));  // a worker exists

    std::shared_ptr<LastOwner> owner(new LastOwner{worker});
    worker->post([owner = std::move(owner), started = go.get_future().share()] {
        thread_local EndMarker marker;
        (void)marker;
        started.wait();
    });
    worker.reset();  // from here on the queued task holds the last reference
    auto unload = std::async(std::launch::async, [] { return vlm::OutboundWorker::joinAllEnded(10s); });
    EXPECT_EQ(unload.wait_for(100ms), std::future_status::timeout) << "returned while the task held the worker";
    go.set_value();
    ASSERT_EQ(unload.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(unload.get());
    EXPECT_TRUE(threadEnded.load());
}

} // namespace
