// Stop signals: a second one, or an orderly stop that hangs, ends the process.
// Each case runs in a fresh child process (death-test style "threadsafe"),
// where no other thread can take the signal.

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/StopSignals.h"

namespace {

using vlm::host::StopSignals;

TEST(StopSignals, ASecondSignalOrAStopThatHangsEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
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
