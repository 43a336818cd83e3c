#include "FrameLimit.h"

#include <stdexcept>
#include <string>

namespace vlm {

void refuseOversizeRequest(std::atomic<std::uint64_t>& refused, std::size_t frameSize)
{
    refused.fetch_add(1);
    // The fronts log and answer with this text; their forwarding-failure path
    // already writes one line per refused request, which the size of such
    // requests keeps rare.
    throw std::length_error("request of " + std::to_string(frameSize) + " bytes exceeds the link's frame limit of " +
                            std::to_string(pilot_rpc::max_frame_size));
}

} // namespace vlm
