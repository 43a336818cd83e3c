#include "OutboundQueue.h"

#include <iterator>
#include <utility>

#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {

OutboundQueue::OutboundQueue(OutboundBounds b, std::string n) : bounds(b), name(std::move(n)) {}

std::uint64_t OutboundQueue::dropOldest(std::size_t cls, std::vector<std::function<void()>>& dropped)
{
    const Tasks::iterator oldest = byClass[cls].front();
    dropped.push_back(std::move(oldest->run));
    byClass[cls].pop_front();
    held[cls].tasks -= 1;
    held[cls].bytes -= oldest->bytes;
    heldTotal.tasks -= 1;
    heldTotal.bytes -= oldest->bytes;
    tasks.erase(oldest);
    return ++drops.byClass[cls];
}

bool OutboundQueue::overClass(std::size_t cls, std::size_t bytes) const
{
    const OutboundBound& bound = bounds.perClass[cls];
    return held[cls].tasks + 1 > bound.tasks || held[cls].bytes + bytes > bound.bytes;
}

bool OutboundQueue::overTotal(std::size_t bytes) const
{
    return heldTotal.tasks + 1 > bounds.total.tasks || heldTotal.bytes + bytes > bounds.total.bytes;
}

bool OutboundQueue::push(std::function<void()> task, OutboundClass cls, std::size_t bytes)
{
    const auto c = static_cast<std::size_t>(cls);
    // Drop counts to log once the lock is gone; a few per push at most.
    std::vector<std::pair<std::size_t, std::uint64_t>> dropCounts;
    // Dropped tasks are destroyed after the lock: what they hold may take time to release.
    std::vector<std::function<void()>> droppedTasks;
    bool queued = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping)
            return false;
        auto dropNew = [&] { dropCounts.emplace_back(c, ++drops.byClass[c]); };
        if (bytes > bounds.perClass[c].bytes || bytes > bounds.total.bytes) {
            dropNew();  // could never fit: it makes no room at others' cost
        } else {
            // A full class makes room from its own oldest tasks.
            while (overClass(c, bytes) && !byClass[c].empty())
                dropCounts.emplace_back(c, dropOldest(c, droppedTasks));
            // A full queue makes room from the lowest class present, never
            // from a class above the new task's.
            bool room = true;
            while (room && overTotal(bytes)) {
                room = false;
                for (std::size_t k = 0; k <= c; ++k) {
                    if (!byClass[k].empty()) {
                        dropCounts.emplace_back(k, dropOldest(k, droppedTasks));
                        room = true;
                        break;
                    }
                }
            }
            if (!overClass(c, bytes) && !overTotal(bytes)) {
                tasks.push_back({std::move(task), cls, bytes});
                byClass[c].push_back(std::prev(tasks.end()));
                held[c].tasks += 1;
                held[c].bytes += bytes;
                heldTotal.tasks += 1;
                heldTotal.bytes += bytes;
                queued = true;
            } else {
                dropNew();
            }
        }
    }
    for (const auto& [k, count] : dropCounts)
        logDrops(static_cast<OutboundClass>(k), count);
    if (queued)
        wake.notify_one();
    return queued;
}

void OutboundQueue::takeFront(std::function<void()>& task)
{
    Task& front = tasks.front();
    const auto c = static_cast<std::size_t>(front.cls);
    task = std::move(front.run);
    // The oldest task of all is the oldest of its class too.
    byClass[c].pop_front();
    held[c].tasks -= 1;
    held[c].bytes -= front.bytes;
    heldTotal.tasks -= 1;
    heldTotal.bytes -= front.bytes;
    tasks.pop_front();
}

bool OutboundQueue::popFront(std::function<void()>& task)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (tasks.empty())
        return false;
    takeFront(task);
    return true;
}

bool OutboundQueue::waitFront(std::function<void()>& task)
{
    std::unique_lock<std::mutex> lock(mutex);
    wake.wait(lock, [&] { return stopping || !tasks.empty(); });
    if (tasks.empty())
        return false;
    takeFront(task);
    return true;
}

void OutboundQueue::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
}

void OutboundQueue::logDrops(OutboundClass cls, std::uint64_t count) const
{
    if (count != 1 && count % 1000 != 0)
        return;
    const char* what = "stale telemetry publications";
    if (cls == OutboundClass::event)
        what = "event publications";
    else if (cls == OutboundClass::answer)
        what = "command answers";
    PCP_LOG_ERROR("%s full: %llu %s dropped so far", name.c_str(), static_cast<unsigned long long>(count), what);
}

OutboundDrops OutboundQueue::dropped() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return drops;
}

std::array<OutboundBound, outboundClassCount> OutboundQueue::queued() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return held;
}

} // namespace vlm
