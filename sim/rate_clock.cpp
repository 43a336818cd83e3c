#include "rate_clock.h"

#include <algorithm>
#include <cmath>

namespace pilot_sim {

rate_clock::rate_clock(double hz, clock::time_point start) : hz_(hz), epoch_(start) {}

rate_clock::clock::time_point rate_clock::due_time(std::uint64_t n) const
{
    const std::chrono::duration<double> offset(static_cast<double>(n) / hz_);
    return epoch_ + std::chrono::duration_cast<clock::duration>(offset);
}

std::size_t rate_clock::take_due(clock::time_point now)
{
    if (hz_ <= 0.0 || now < epoch_)
        return 0;
    const double elapsed = std::chrono::duration<double>(now - epoch_).count();
    const auto due_total = static_cast<std::uint64_t>(std::floor(elapsed * hz_));
    if (due_total <= taken_)
        return 0;
    std::uint64_t due = due_total - taken_;

    const double backlog_limit = std::max(1.0, std::chrono::duration<double>(max_backlog).count() * hz_);
    if (static_cast<double>(due) > backlog_limit) {
        // Far behind (a stalled thread, a suspended process): send one
        // backlog's worth and restart the count from now.
        due = static_cast<std::uint64_t>(backlog_limit);
        epoch_ = now;
        taken_ = 0;
        return static_cast<std::size_t>(due);
    }
    taken_ = due_total;
    return static_cast<std::size_t>(due);
}

rate_clock::clock::time_point rate_clock::next_wakeup(clock::time_point now) const
{
    return std::max(due_time(taken_ + 1), now + min_wakeup);
}

}  // namespace pilot_sim
