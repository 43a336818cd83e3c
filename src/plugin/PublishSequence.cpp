#include "PublishSequence.h"

#include <exception>
#include <utility>

#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {

PublishSequence::PublishSequence(OutboundBounds bounds) : queue(bounds, "publication queue") {}

bool PublishSequence::push(std::function<void()> task, OutboundClass cls, std::size_t bytes)
{
    return queue.push(std::move(task), cls, bytes);
}

void PublishSequence::drain()
{
    {
        std::lock_guard<std::mutex> lock(drainMutex);
        if (draining)
            return;
        draining = true;
    }
    std::function<void()> task;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(drainMutex);
            if (!queue.popFront(task)) {
                draining = false;
                return;
            }
        }
        try {
            task();
        } catch (const std::exception& e) {
            PCP_LOG_ERROR("publication failed: %s", e.what());
        } catch (...) {
            PCP_LOG_ERROR("publication failed");
        }
        task = nullptr;  // release what the task held before taking the next
    }
}

} // namespace vlm
