// When telemetry samples fall due, on simulated time points.

#include <gtest/gtest.h>

#include "rate_clock.h"

namespace pilot_sim::test {
namespace {

using namespace std::chrono_literals;
using clock = rate_clock::clock;

TEST(RateClock, KeepsTheLongRunRateWhateverTheWakeUps)
{
    const auto start = clock::time_point{} + 1h;
    rate_clock five(5.0, start);
    std::size_t total = 0;
    // Irregular, late wake-ups over 10 s.
    for (auto t = start; t < start + 10s; t += 37ms)
        total += five.take_due(t);
    total += five.take_due(start + 10s);
    EXPECT_EQ(total, 50u);
}

TEST(RateClock, SendsSeveralSamplesPerWakeUpAboveOneKilohertz)
{
    const auto start = clock::time_point{} + 1h;
    rate_clock fast(100000.0, start);
    EXPECT_EQ(fast.next_wakeup(start), start + rate_clock::min_wakeup);
    EXPECT_EQ(fast.take_due(start + 1ms), 100u);
    EXPECT_EQ(fast.take_due(start + 2ms), 100u);
}

TEST(RateClock, WakesForTheNextSampleButNeverBusily)
{
    const auto start = clock::time_point{} + 1h;
    rate_clock two(2.0, start);
    EXPECT_EQ(two.next_wakeup(start), start + 500ms);
    EXPECT_EQ(two.take_due(start + 500ms), 1u);
    EXPECT_EQ(two.next_wakeup(start + 500ms), start + 1000ms);
    // Late: the due time has passed, so the next wake-up is a millisecond away.
    EXPECT_EQ(two.next_wakeup(start + 1200ms), start + 1201ms);
}

TEST(RateClock, SkipsTheBacklogOfALongStall)
{
    const auto start = clock::time_point{} + 1h;
    rate_clock hundred(100.0, start);
    EXPECT_EQ(hundred.take_due(start + 10ms), 1u);
    // Ten seconds asleep would owe a thousand samples; at most 100 ms worth come.
    EXPECT_EQ(hundred.take_due(start + 10s), 10u);
    EXPECT_EQ(hundred.take_due(start + 10s + 10ms), 1u);
}

TEST(RateClock, ZeroRateHasNothingDue)
{
    const auto start = clock::time_point{} + 1h;
    rate_clock off(0.0, start);
    EXPECT_EQ(off.take_due(start + 1h), 0u);
}

}  // namespace
}  // namespace pilot_sim::test
