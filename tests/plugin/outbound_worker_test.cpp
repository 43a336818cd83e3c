#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "OutboundWorker.h"
#include "PublishSequence.h"
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

using vlm::OutboundClass;

vlm::OutboundBounds smallBounds()
{
    vlm::OutboundBounds bounds;
    bounds.perClass = {{{2, 1000}, {3, 1000}, {6, 1000}}};
    bounds.total = {6, 1000};
    return bounds;
}

TEST(OutboundWorker, RunsTasksInOrderAndAFullClassDropsItsOwnOldest)
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
        vlm::OutboundWorker worker(smallBounds());
        worker.post([&] { gate.wait(); }, OutboundClass::answer);
        gate.waitEntered();
        EXPECT_TRUE(worker.post(record("t1"), OutboundClass::staleTelemetry));
        EXPECT_TRUE(worker.post(record("answer1"), OutboundClass::answer));
        EXPECT_TRUE(worker.post(record("t2"), OutboundClass::staleTelemetry));
        EXPECT_TRUE(worker.post(record("t3"), OutboundClass::staleTelemetry));  // telemetry full: t1 goes
        EXPECT_TRUE(worker.post(record("e1"), OutboundClass::event));
        EXPECT_FALSE(worker.post(record("big"), OutboundClass::event, 1001));  // bigger than its class
        EXPECT_EQ(worker.dropped().of(OutboundClass::staleTelemetry), 1u);
        EXPECT_EQ(worker.dropped().of(OutboundClass::event), 1u);
        EXPECT_EQ(worker.dropped().of(OutboundClass::answer), 0u);
        gate.release();
    }  // the destructor lets queued work finish
    EXPECT_EQ(ran, (std::vector<std::string>{"answer1", "t2", "t3", "e1"}));
    EXPECT_EQ(log.errors("outbound queue full: 1 stale telemetry publications dropped so far"), 1);
    EXPECT_EQ(log.errors("outbound queue full: 1 event publications dropped so far"), 1);
}

// A flood of every class at once: nothing grows past its bound, the counters
// say what went, and every answer goes out as long as answers alone stay
// within their bound, which is the whole queue's.
TEST(OutboundQueue, AnOverfilledQueueKeepsItsBoundsAndGivesUpAnswersLast)
{
    vlm::test::LogCapture log;
    vlm::OutboundBounds bounds;
    bounds.perClass = {{{50, 50 * 100}, {100, 100 * 100}, {300, 300 * 100}}};
    bounds.total = {300, 300 * 100};
    vlm::OutboundQueue queue(bounds);
    int answersRun = 0;
    int othersRun = 0;
    constexpr int rounds = 2000;  // far past every bound
    constexpr int answers = 280;  // within the answers' own bound
    int answersPosted = 0;
    bool withinBounds = true;
    for (int i = 0; i < rounds; ++i) {
        queue.push([&] { ++othersRun; }, OutboundClass::staleTelemetry, 100);
        queue.push([&] { ++othersRun; }, OutboundClass::event, 100);
        if (i % 7 == 0 && answersPosted < answers) {
            EXPECT_TRUE(queue.push([&] { ++answersRun; }, OutboundClass::answer, 100));
            ++answersPosted;
        }
        const auto held = queue.queued();
        for (std::size_t c = 0; c < vlm::outboundClassCount; ++c) {
            withinBounds = withinBounds && held[c].tasks <= bounds.perClass[c].tasks &&
                           held[c].bytes <= bounds.perClass[c].bytes;
        }
        withinBounds = withinBounds && held[0].tasks + held[1].tasks + held[2].tasks <= bounds.total.tasks;
    }
    EXPECT_TRUE(withinBounds);
    const auto held = queue.queued();
    EXPECT_EQ(held[2].tasks, static_cast<std::size_t>(answers));
    // The answers took the room of the lower classes: telemetry went first.
    EXPECT_EQ(held[0].tasks, 0u);
    EXPECT_EQ(held[0].tasks + held[1].tasks + held[2].tasks, bounds.total.tasks);
    std::function<void()> task;
    while (queue.popFront(task))  // bounded: the queue holds at most 300
        task();
    const vlm::OutboundDrops drops = queue.dropped();
    EXPECT_EQ(answersRun, answers);
    EXPECT_EQ(drops.of(OutboundClass::answer), 0u);
    EXPECT_EQ(drops.of(OutboundClass::staleTelemetry) + drops.of(OutboundClass::event) +
                  static_cast<std::uint64_t>(othersRun),
              2u * rounds);
    EXPECT_GT(drops.of(OutboundClass::staleTelemetry), 1000u);
    // One line per burst: the first drop and every thousandth, per class.
    EXPECT_EQ(log.errors("outbound queue full: 1 stale telemetry publications dropped so far"), 1);
    EXPECT_EQ(log.errors("outbound queue full: 1000 stale telemetry publications dropped so far"), 1);
    EXPECT_EQ(log.errors("outbound queue full: 2 stale telemetry publications dropped so far"), 0);
}

TEST(OutboundQueue, AnswersBeyondTheirOwnBoundDropTheOldestAnswer)
{
    vlm::OutboundQueue queue(smallBounds());
    for (int i = 0; i < 8; ++i)
        EXPECT_TRUE(queue.push([] {}, OutboundClass::answer, static_cast<std::size_t>(i)));
    EXPECT_EQ(queue.queued()[2].tasks, 6u);
    EXPECT_EQ(queue.queued()[2].bytes, 2u + 3 + 4 + 5 + 6 + 7);  // 0 and 1 went
    EXPECT_EQ(queue.dropped().of(OutboundClass::answer), 2u);
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

TEST(PublishSequence, DropsAreCountedPerClassAndAThrowingTaskDoesNotStopTheDrain)
{
    vlm::test::LogCapture log;
    vlm::PublishSequence sequence(smallBounds());
    std::vector<std::string> ran;
    auto record = [&ran](std::string name) { return [&ran, name] { ran.push_back(name); }; };
    sequence.push(record("t1"), OutboundClass::staleTelemetry, 10);
    sequence.push([] { throw std::runtime_error("broker gone"); }, OutboundClass::event, 10);
    sequence.push(record("t2"), OutboundClass::staleTelemetry, 10);
    sequence.push(record("t3"), OutboundClass::staleTelemetry, 10);  // telemetry full: t1 goes
    EXPECT_FALSE(sequence.push(record("big"), OutboundClass::event, 1001));
    sequence.push(record("e1"), OutboundClass::event, 10);
    EXPECT_EQ(sequence.dropped().of(OutboundClass::staleTelemetry), 1u);
    EXPECT_EQ(sequence.dropped().of(OutboundClass::event), 1u);
    EXPECT_EQ(sequence.queued()[0].bytes, 20u);
    sequence.drain();
    EXPECT_EQ(ran, (std::vector<std::string>{"t2", "t3", "e1"}));
    EXPECT_EQ(sequence.queued()[0].tasks + sequence.queued()[1].tasks, 0u);
    EXPECT_EQ(log.errors("publication failed: broker gone"), 1);
    EXPECT_EQ(log.errors("publication queue full: 1 stale telemetry publications dropped so far"), 1);
    EXPECT_EQ(log.errors("publication queue full: 1 event publications dropped so far"), 1);
}

// Threads push and drain at once, as pool threads do: every task runs once,
// one at a time, in the order queued, and none is left behind when the last
// drain() returns, though most calls return at once to the active drainer.
TEST(PublishSequence, ConcurrentDrainersRunEveryTaskOnceInOrder)
{
    constexpr int threads = 4;
    constexpr int perThread = 500;
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
                {
                    std::lock_guard<std::mutex> lock(pushing);
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
                        OutboundClass::event, 1);
                }
                sequence.drain();
            }
        });
    }
    for (auto& w : workers)
        w.join();
    EXPECT_FALSE(overlapped.load());
    ASSERT_EQ(ran.size(), static_cast<std::size_t>(threads * perThread));
    for (int n = 0; n < threads * perThread; ++n)
        ASSERT_EQ(ran[static_cast<std::size_t>(n)], n);
    EXPECT_EQ(sequence.dropped().of(OutboundClass::event), 0u);
}

} // namespace
