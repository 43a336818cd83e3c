// Playing a flight recording back to the subscribers, on the service's I/O
// thread, beside the answers to calls.

#include "engine.h"

namespace pilot_sim {

namespace {

/// Events published in one turn when the playback has fallen behind; the I/O
/// thread then answers calls before it catches up further.
constexpr std::size_t catch_up_chunk = 1000;

/// Round ends logged: the first, then every this many.
constexpr std::size_t round_log_every = 100;

}  // namespace

void simulator::engine::arm_replay()
{
    if (!options_.replay || replay_)
        return;
    replay_.emplace(*options_.replay);
    log("replay of " + std::to_string(options_.replay->events.size()) + " events starts in " +
        std::to_string(replay_cursor::lead_in.count()) + " ms");
    scheduler_.after(replay_cursor::lead_in, [this] {
        replay_->begin(clock::now());
        replay_step();
    }, "replay");
}

void simulator::engine::replay_step()
{
    std::size_t published = 0;
    while (const velmora_recording::recorded_event* event = replay_->next()) {
        if (replay_->next_due() > clock::now())
            break;
        if (published == catch_up_chunk) {
            scheduler_.after(clock::duration::zero(), [this] { replay_step(); }, "replay");
            return;
        }
        service_.publish(event->topic, event->data);
        ++published;
        ++replayed_;
        const std::size_t rounds_before = replay_->rounds_done();
        replay_->advance();
        const std::size_t rounds = replay_->rounds_done();
        if (rounds != rounds_before && (rounds == 1 || rounds % round_log_every == 0))
            log("replay round " + std::to_string(rounds) + " done, " + std::to_string(replayed_) +
                " events published");
    }
    if (replay_->next())
        scheduler_.at(replay_->next_due(), [this] { replay_step(); }, "replay");
    else
        log("replay finished");
}

}  // namespace pilot_sim
