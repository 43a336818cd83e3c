#include "app/BusTap.h"

namespace vlm::host {

BusTap::BusTap(std::size_t limit) : limit(limit == 0 ? 1 : limit) {}

BusTap::Batch BusTap::take(std::chrono::milliseconds timeout)
{
    Batch batch;
    std::unique_lock<std::mutex> lock(mutex);
    ready.wait_for(lock, timeout, [&] { return closed || !queue.empty(); });
    batch.messages.assign(std::make_move_iterator(queue.begin()), std::make_move_iterator(queue.end()));
    queue.clear();
    batch.dropped = dropped;
    dropped = 0;
    batch.closed = closed;
    return batch;
}

void BusTap::offer(const BusMessage& message)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (closed)
            return;
        if (queue.size() >= limit) {
            queue.pop_front();
            ++dropped;
        }
        queue.push_back(message);
    }
    ready.notify_one();
}

void BusTap::close()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
    }
    ready.notify_all();
}

} // namespace vlm::host
