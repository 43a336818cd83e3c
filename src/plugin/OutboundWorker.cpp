#include "OutboundWorker.h"

#include <algorithm>
#include <iterator>
#include <utility>
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

OutboundWorker::OutboundWorker(OutboundBounds bounds) : state(std::make_shared<State>(bounds))
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

std::uint64_t OutboundWorker::State::dropOldest(std::size_t cls, std::vector<std::function<void()>>& dropped)
{
    const Queue::iterator oldest = byClass[cls].front();
    dropped.push_back(std::move(oldest->run));
    byClass[cls].pop_front();
    held[cls].tasks -= 1;
    held[cls].bytes -= oldest->bytes;
    heldTotal.tasks -= 1;
    heldTotal.bytes -= oldest->bytes;
    tasks.erase(oldest);
    return ++drops.byClass[cls];
}

bool OutboundWorker::State::overClass(std::size_t cls, std::size_t bytes) const
{
    const OutboundBound& bound = bounds.perClass[cls];
    return held[cls].tasks + 1 > bound.tasks || held[cls].bytes + bytes > bound.bytes;
}

bool OutboundWorker::State::overTotal(std::size_t bytes) const
{
    return heldTotal.tasks + 1 > bounds.total.tasks || heldTotal.bytes + bytes > bounds.total.bytes;
}

bool OutboundWorker::post(std::function<void()> task, OutboundClass cls, std::size_t bytes)
{
    const auto c = static_cast<std::size_t>(cls);
    // Drop counts to log once the lock is gone; a few per post at most.
    std::vector<std::pair<std::size_t, std::uint64_t>> drops;
    // Dropped tasks are destroyed after the lock: what they hold may take time to release.
    std::vector<std::function<void()>> droppedTasks;
    bool queued = false;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        if (state->stopping)
            return false;
        auto dropNew = [&] { drops.emplace_back(c, ++state->drops.byClass[c]); };
        if (bytes > state->bounds.perClass[c].bytes || bytes > state->bounds.total.bytes) {
            dropNew();  // could never fit: it makes no room at others' cost
        } else {
            // A full class makes room from its own oldest tasks.
            while (state->overClass(c, bytes) && !state->byClass[c].empty())
                drops.emplace_back(c, state->dropOldest(c, droppedTasks));
            // A full queue makes room from the lowest class present, never
            // from a class above the new task's.
            bool room = true;
            while (room && state->overTotal(bytes)) {
                room = false;
                for (std::size_t k = 0; k <= c; ++k) {
                    if (!state->byClass[k].empty()) {
                        drops.emplace_back(k, state->dropOldest(k, droppedTasks));
                        room = true;
                        break;
                    }
                }
            }
            if (!state->overClass(c, bytes) && !state->overTotal(bytes)) {
                state->tasks.push_back({std::move(task), cls, bytes});
                state->byClass[c].push_back(std::prev(state->tasks.end()));
                state->held[c].tasks += 1;
                state->held[c].bytes += bytes;
                state->heldTotal.tasks += 1;
                state->heldTotal.bytes += bytes;
                queued = true;
            } else {
                dropNew();
            }
        }
    }
    for (const auto& [k, count] : drops)
        logDrops(static_cast<OutboundClass>(k), count);
    if (queued)
        state->wake.notify_one();
    return queued;
}

void OutboundWorker::logDrops(OutboundClass cls, std::uint64_t count)
{
    if (count != 1 && count % 1000 != 0)
        return;
    const char* what = "stale telemetry publications";
    if (cls == OutboundClass::event)
        what = "event publications";
    else if (cls == OutboundClass::answer)
        what = "command answers";
    PCP_LOG_ERROR("outbound queue full: %llu %s dropped so far", static_cast<unsigned long long>(count), what);
}

OutboundDrops OutboundWorker::dropped() const
{
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->drops;
}

std::array<OutboundBound, outboundClassCount> OutboundWorker::queued() const
{
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->held;
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
            State::Task& front = s->tasks.front();
            const auto c = static_cast<std::size_t>(front.cls);
            task = std::move(front.run);
            // The oldest task of all is the oldest of its class too.
            s->byClass[c].pop_front();
            s->held[c].tasks -= 1;
            s->held[c].bytes -= front.bytes;
            s->heldTotal.tasks -= 1;
            s->heldTotal.bytes -= front.bytes;
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
