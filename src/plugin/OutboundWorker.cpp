#include "OutboundWorker.h"

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

bool OutboundWorker::post(std::function<void()> task)
{
    bool kept = true;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->stopping)
            return false;
        if (state->tasks.size() >= state->capacity) {
            state->tasks.pop_front();
            ++state->droppedCount;
            kept = false;
        }
        state->tasks.push_back(std::move(task));
    }
    state->wake.notify_one();
    return kept;
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
            task = std::move(s->tasks.front());
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
