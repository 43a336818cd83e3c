#include "app/BusTap.h"

namespace vlm::host {

BusTap::BusTap(std::size_t limit, std::size_t byteLimit)
    : limit(limit == 0 ? 1 : limit), byteLimit(byteLimit == 0 ? 1 : byteLimit)
{
}

BusTap::Batch BusTap::take(std::chrono::milliseconds timeout)
{
    Batch batch;
    std::unique_lock<std::mutex> lock(mutex);
    ready.wait_for(lock, timeout, [&] { return closed || !queue.empty() || dropped > 0; });
    batch.messages.assign(std::make_move_iterator(queue.begin()), std::make_move_iterator(queue.end()));
    queue.clear();
    bytes = 0;
    batch.dropped = dropped;
    dropped = 0;
    batch.closed = closed;
    return batch;
}

BusTap::Offered BusTap::offer(const BusMessage& message)
{
    Offered offered;
    const std::size_t size = message.text.size();
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (closed)
            return offered;
        if (size > byteLimit) {
            // Keeping it would mean dropping everything else and still not fit.
            offered.dropped = 1;
        } else {
            while (!queue.empty() && (queue.size() >= limit || bytes + size > byteLimit)) {
                bytes -= queue.front().text.size();
                queue.pop_front();
                ++offered.dropped;
            }
            queue.push_back(message);
            bytes += size;
        }
        dropped += offered.dropped;
        droppedTotal += offered.dropped;
        offered.droppedTotal = droppedTotal;
    }
    ready.notify_one();
    return offered;
}

std::size_t BusTap::queuedMessages() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return queue.size();
}

std::size_t BusTap::queuedBytes() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return bytes;
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
