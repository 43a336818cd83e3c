#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>

#include <gtest/gtest.h>

#include <Poco/Exception.h>

#include "ThreadPool.h"

namespace {

TEST(ThreadPool, ReportsFreeThreadsAndRefusesWhenAllAreBusy)
{
    vlm::ThreadPool pool(1, 2);
    EXPECT_EQ(pool.available(), 2);

    std::mutex mutex;
    std::condition_variable cv;
    bool release = false;
    std::atomic<int> running{0};
    auto blocker = [&] {
        ++running;
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [&] { return release; });
    };
    pool.start(blocker);
    pool.start(blocker);
    EXPECT_FALSE(pool.hasFreeThread());
    EXPECT_THROW(pool.start([] {}), Poco::NoThreadAvailableException);
    {
        std::lock_guard<std::mutex> lock(mutex);
        release = true;
    }
    cv.notify_all();
    pool.joinAll();
    EXPECT_EQ(running.load(), 2);
    EXPECT_EQ(pool.available(), 2);
}

TEST(ThreadPool, ATaskThatThrowsDoesNotCostAThread)
{
    vlm::ThreadPool pool(1, 1);
    pool.start([] { throw std::runtime_error("task failed"); });
    pool.joinAll();
    std::promise<int> done;
    pool.start([&] { done.set_value(7); });
    EXPECT_EQ(done.get_future().get(), 7);
    pool.joinAll();
}

} // namespace
