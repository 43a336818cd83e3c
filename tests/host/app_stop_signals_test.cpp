// Stop signals: the first one asks for an orderly stop, a second one or a
// stop that hangs ends the process. Each case runs in a fresh child process
// (death-test style "threadsafe"), where no other thread can take the signal.

#include <signal.h>
#include <unistd.h>

#include <atomic>

#include <gtest/gtest.h>

#include "app/StopSignals.h"

namespace {

using vlm::host::StopSignals;

class StopSignalsTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(StopSignalsTest, RequestWakesTheWaiterAndCallsOnStopOnce)
{
    std::atomic<int> calls{0};
    StopSignals signals([&] { ++calls; }, std::chrono::seconds(30));
    signals.request();
    signals.request();
    EXPECT_EQ(signals.wait(), 0);
    EXPECT_EQ(calls.load(), 1);
    signals.done();
}

TEST_F(StopSignalsTest, SigtermBecomesAnOrderlyStopRequest)
{
    EXPECT_EXIT(
        {
            int number = 0;
            std::atomic<int> calls{0};
            {
                StopSignals signals([&] { ++calls; }, std::chrono::seconds(30));
                ::kill(::getpid(), SIGTERM);
                number = signals.wait();
            }  // joins the watcher before the child exits
            ::_exit(number == SIGTERM && calls.load() == 1 ? 0 : 3);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(StopSignalsTest, ASecondSignalEndsTheProcessAtOnce)
{
    EXPECT_EXIT(
        {
            StopSignals signals(nullptr, std::chrono::seconds(30));
            ::kill(::getpid(), SIGINT);
            signals.wait();
            ::kill(::getpid(), SIGINT);
            for (int i = 0; i < 100; ++i)
                ::usleep(100 * 1000);
            ::_exit(3);
        },
        ::testing::ExitedWithCode(1), "second stop signal; exiting now");
}

TEST_F(StopSignalsTest, AStopThatHangsIsCutShort)
{
    EXPECT_EXIT(
        {
            StopSignals signals(nullptr, std::chrono::seconds(0));
            signals.request();
            for (int i = 0; i < 100; ++i)
                ::usleep(100 * 1000);
            ::_exit(3);
        },
        ::testing::ExitedWithCode(1), "the orderly stop did not finish in time; exiting now");
}

} // namespace
