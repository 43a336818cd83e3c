#include "OutboundWorker.h"

#include <algorithm>

#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {

OutboundWorker::OutboundWorker(size_t capacity)
    : state(std::make_shared<State>(capacity)), thread([s = state] { run(s); })
{
}

OutboundWorker::~OutboundWorker()
{
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->stopping = true;
    }
    state->wake.notify_all();
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else if (thread.joinable())
        thread.join();
}

bool OutboundWorker::post(std::function<void()> task, bool droppable)
{
    size_t droppedSoFar = 0;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->stopping)
            return false;
        bool queueNew = true;
        if (state->tasks.size() >= state->capacity) {
            auto oldest = std::find_if(state->tasks.begin(), state->tasks.end(),
                                       [](const State::Task& t) { return t.droppable; });
            if (oldest != state->tasks.end()) {
                state->tasks.erase(oldest);
                droppedSoFar = ++state->droppedCount;
            } else if (droppable) {
                // Everything queued must stay: the new telemetry is the one to go.
                droppedSoFar = ++state->droppedCount;
                queueNew = false;
            }
            // Work that is not droppable always queues, over the capacity.
        }
        if (queueNew)
            state->tasks.push_back({std::move(task), droppable});
    }
    if (droppedSoFar == 1 || (droppedSoFar > 0 && droppedSoFar % 1000 == 0))
        PCP_LOG_ERROR("outbound queue full: %zu stale telemetry publications dropped so far", droppedSoFar);
    state->wake.notify_one();
    return droppedSoFar == 0;
}

size_t OutboundWorker::dropped() const
{
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->droppedCount;
}

void OutboundWorker::run(const std::shared_ptr<State>& s)
{
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lock(s->mutex);
            s->wake.wait(lock, [&] { return s->stopping || !s->tasks.empty(); });
            if (s->tasks.empty())
                return;
            task = std::move(s->tasks.front().run);
            s->tasks.pop_front();
        }
        try {
            task();
        } catch (...) {
            // Each task logs its own failures; one must not stop the rest.
        }
        task = nullptr;  // release what the task held before waiting again
    }
}

} // namespace vlm
