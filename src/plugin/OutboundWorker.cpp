#include "OutboundWorker.h"

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

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

OutboundWorker::OutboundWorker(OutboundBounds bounds) : queue(std::make_shared<OutboundQueue>(bounds))
{
    {
        std::lock_guard<std::mutex> lock(workers().mutex);
        ++workers().alive;
    }
    thread = std::thread([q = queue] { run(q); });
}

OutboundWorker::~OutboundWorker()
{
    queue->stop();
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

bool OutboundWorker::post(std::function<void()> task, OutboundClass cls, std::size_t bytes)
{
    return queue->push(std::move(task), cls, bytes);
}

OutboundDrops OutboundWorker::dropped() const
{
    return queue->dropped();
}

std::array<OutboundBound, outboundClassCount> OutboundWorker::queued() const
{
    return queue->queued();
}

void OutboundWorker::run(const std::shared_ptr<OutboundQueue>& q)
{
    std::function<void()> task;
    while (q->waitFront(task)) {
        try {
            task();
        } catch (...) {
            // Each task logs its own failures; one must not stop the rest.
        }
        task = nullptr;  // release what the task held before waiting again
    }
}

} // namespace vlm
