#include "replay.h"

#include <algorithm>

namespace pilot_sim {

void replay_cursor::begin(clock::time_point now)
{
    round_start_ = now;
    index_ = 0;
    rounds_done_ = 0;
}

const velmora_recording::recorded_event* replay_cursor::next() const
{
    return index_ < plan_.events.size() ? &plan_.events[index_] : nullptr;
}

replay_cursor::clock::duration replay_cursor::scaled(std::int64_t ms) const
{
    return std::chrono::duration_cast<clock::duration>(std::chrono::duration<double, std::milli>(
        static_cast<double>(ms) / plan_.speed));
}

replay_cursor::clock::time_point replay_cursor::next_due() const
{
    if (!next())
        return round_start_;
    return round_start_ + scaled(plan_.events[index_].t_ms - plan_.events.front().t_ms);
}

void replay_cursor::advance()
{
    if (index_ >= plan_.events.size())
        return;
    ++index_;
    if (index_ < plan_.events.size())
        return;
    ++rounds_done_;
    if (!plan_.loop)
        return;
    const std::int64_t span = plan_.events.back().t_ms - plan_.events.front().t_ms;
    const std::size_t count = plan_.events.size();
    clock::duration gap = count > 1 ? scaled(span / static_cast<std::int64_t>(count - 1)) : std::chrono::seconds(1);
    gap = std::max<clock::duration>(gap, std::chrono::milliseconds(10));
    round_start_ = round_start_ + scaled(span) + gap;
    index_ = 0;
}

}  // namespace pilot_sim
