#pragma once

// The one check every front makes before it hands a request to the link: a
// frame the micro service cannot take would make it close the connection and
// fail every call in flight on it, so such a request is refused here instead.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "rpc/rpc_client.h"

namespace vlm {

/// Counts the refusal in `refused` and throws std::length_error with
/// "request of N bytes exceeds the link's frame limit of 10485760", N being
/// the frame's size with its header.
[[noreturn]] void refuseOversizeRequest(std::atomic<std::uint64_t>& refused, std::size_t frameSize);

/// Throws as `refuseOversizeRequest` does when a call carrying `args` would
/// encode to a frame of the link's frame limit or more. The size is the exact
/// encoded size, computed without packing. Any thread.
template <typename... Args>
void requireFrameFits(std::atomic<std::uint64_t>& refused, const Args&... args)
{
    const std::size_t size = pilot_rpc::call_frame_size(args...);
    if (!pilot_rpc::frame_fits(size))
        refuseOversizeRequest(refused, size);
}

} // namespace vlm
