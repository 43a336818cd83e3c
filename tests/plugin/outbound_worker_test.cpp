#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "OutboundQueue.h"
#include "OutboundWorker.h"
#include "PublishSequence.h"
#include "support/LogCapture.h"

namespace {

using vlm::OutboundClass;
constexpr OutboundClass telemetry = OutboundClass::staleTelemetry, event = OutboundClass::event,
                        answer = OutboundClass::answer;

// The outbound worker and the publication sequence both keep their tasks in
// this queue, so its bounds are shown once here, with room for 2 telemetry
// tasks, 3 events, 6 answers and 6 in all, 1000 bytes each.
TEST(OutboundQueue, EachBoundDropsTheOldestOfTheRightClassCountsAndLogsOncePerBurst)
{
    // Pushes (t telemetry, e event, a answer of 1 byte; E an event of 600 bytes, B of 1001),
    // the pushes still queued by index in queue order, drops by class, pushes refused.
    const std::tuple<const char*, const char*, std::array<std::uint64_t, 3>, int> cases[] = {
        {"tatt", "123", {1, 0, 0}, 0},          // a full class drops its own oldest
        {"EE", "1", {0, 1, 0}, 0},              // in bytes too
        {"B", "", {0, 1, 0}, 1},                // bigger than its class: refused itself
        {"etaaeaaa", "234567", {1, 1, 0}, 0},   // a full queue drops the lowest class present
        {"aaaaaat", "012345", {1, 0, 0}, 1},    // never a class above the new task's
        {"aaaaaaa", "123456", {0, 0, 1}, 0},    // answers alone fill the queue before one goes
    };
    vlm::OutboundBounds bounds;
    bounds.perClass = {{{2, 1000}, {3, 1000}, {6, 1000}}};
    bounds.total = {6, 1000};
    for (const auto& [pushes, left, drops, refusals] : cases) {
        vlm::test::LogCapture log;
        vlm::OutboundQueue queue(bounds);
        std::string ran;
        int refused = 0;
        for (int i = 0; pushes[i] != 0; ++i) {
            const char k = pushes[i];
            const auto cls = k == 't' ? telemetry : k == 'a' ? answer : event;
            refused += !queue.push([&ran, i] { ran += std::to_string(i); }, cls, k == 'E' ? 600 : k == 'B' ? 1001 : 1);
        }
        std::function<void()> task;
        for (int n = 0; n < 10 && queue.popFront(task); ++n)
            task();
        EXPECT_EQ(ran, left) << pushes;
        EXPECT_EQ(queue.dropped().byClass, drops) << pushes;
        EXPECT_EQ(refused, refusals) << pushes;
        const char* names[] = {"stale telemetry publications", "event publications", "command answers"};
        for (std::size_t k = 0; k < 3; ++k) {
            const std::string line = std::string("outbound queue full: 1 ") + names[k] + " dropped so far";
            EXPECT_EQ(log.errors(line), drops[k] ? 1 : 0) << pushes << ": " << line;
        }
    }
}

// Threads push and drain at once, as pool threads do: every task runs once, one at a
// time, in order, none left behind when the last drain() returns, though most return
// at once to the active drainer. A task that throws is logged and the drain goes on.
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
    worker->post(
        [owner = std::move(owner), started = go.get_future().share()] {
            thread_local EndMarker marker;
            (void)marker;
            started.wait();
        },
        vlm::OutboundClass::answer);
    worker.reset();  // from here on the queued task holds the last reference
    auto unload = std::async(std::launch::async, [] { return vlm::OutboundWorker::joinAllEnded(10s); });
    EXPECT_EQ(unload.wait_for(100ms), std::future_status::timeout) << "returned while the task held the worker";
    go.set_value();
    ASSERT_EQ(unload.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(unload.get());
    EXPECT_TRUE(threadEnded.load());
}

TEST(PublishSequence, ConcurrentDrainersRunEveryTaskOnceInOrder)
{
    constexpr int threads = 4;
    constexpr int perThread = 500;
    vlm::test::LogCapture log;
    vlm::PublishSequence sequence;
    std::mutex pushing;  // guards next: makes queue order the numbers' order
    int next = 0;
    std::vector<int> ran;  // written only by the one active drainer
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < perThread; ++i) {
                std::unique_lock<std::mutex> lock(pushing);
                const int n = next++;
                sequence.push(
                    [&, n] {
                        if (running.fetch_add(1) != 0)
                            overlapped = true;
                        ran.push_back(n);
                        if (n % 50 == 0)
                            std::this_thread::yield();  // let others queue behind the drainer
                        running.fetch_sub(1);
                    },
                    event, 1);
                lock.unlock();
                sequence.drain();
            }
        });
    }
    for (auto& w : workers)
        w.join();
    sequence.push([] { throw std::runtime_error("broker gone"); }, event, 1);
    sequence.push([&] { ran.push_back(threads * perThread); }, event, 1);
    sequence.drain();
    EXPECT_FALSE(overlapped.load());
    ASSERT_EQ(ran.size(), static_cast<std::size_t>(threads * perThread + 1));
    for (int n = 0; n <= threads * perThread; ++n)
        ASSERT_EQ(ran[static_cast<std::size_t>(n)], n);
    EXPECT_EQ(log.errors("publication failed: broker gone"), 1);
}

} // namespace
