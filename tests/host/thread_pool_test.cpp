#include <future>
#include <stdexcept>

#include <gtest/gtest.h>

#include <Poco/Exception.h>

#include "ThreadPool.h"

namespace {

// A refused task and one that throws must cost neither memory (the sanitizer
// builds see a leak) nor a pool thread.
TEST(ThreadPool, RefusesWhenEveryThreadIsBusyAndSurvivesAThrowingTask)
{
    vlm::ThreadPool pool(1, 1);
    std::promise<void> release;
    auto released = release.get_future().share();
    pool.start([released] { released.wait(); });
    EXPECT_FALSE(pool.hasFreeThread());
    EXPECT_THROW(pool.start([] {}), Poco::NoThreadAvailableException);
    release.set_value();
    pool.joinAll();

    pool.start([] { throw std::runtime_error("task failed"); });
    pool.joinAll();
    std::promise<int> done;
    pool.start([&] { done.set_value(7); });
    EXPECT_EQ(done.get_future().get(), 7);
    pool.joinAll();
}

} // namespace
