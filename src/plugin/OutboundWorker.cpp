#include "OutboundWorker.h"

#include <algorithm>
#include <vector>

#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {

namespace {

// Every worker of the process, and the threads of those a task ended.
struct Workers {
    std::mutex mutex;  // guards alive, ownerless
    std::condition_variable changed;
    size_t alive = 0;
    std::vector<std::thread> ownerless;

    // Threads nobody joined by the end of the process (the host never
    // unloaded the library) are let go: destroyed joinable, they would end it.
    ~Workers()
    {
        for (auto& t : ownerless)
            if (t.joinable())
                t.detach();
    }
};

Workers& workers()
{
    static Workers all;
    return all;
}

} // namespace

OutboundWorker::OutboundWorker(size_t capacity) : state(std::make_shared<State>(capacity))
{
    {
        std::lock_guard<std::mutex> lock(workers().mutex);
        ++workers().alive;
    }
    thread = std::thread([s = state] { run(s); });
}

OutboundWorker::~OutboundWorker()
{
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->stopping = true;
    }
    state->wake.notify_all();
    const bool onOwnThread = thread.get_id() == std::this_thread::get_id();
    if (!onOwnThread && thread.joinable())
        thread.join();
    Workers& all = workers();
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        if (onOwnThread)
            all.ownerless.push_back(std::move(thread));
        --all.alive;
    }
    all.changed.notify_all();
}

bool OutboundWorker::joinAllEnded(std::chrono::milliseconds limit)
{
    Workers& all = workers();
    std::vector<std::thread> ended;
    bool none = false;
    {
        std::unique_lock<std::mutex> lock(all.mutex);
        none = all.changed.wait_for(lock, limit, [&] { return all.alive == 0; });
        ended.swap(all.ownerless);
    }
    for (auto& t : ended)
        t.join();
    return none;
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
