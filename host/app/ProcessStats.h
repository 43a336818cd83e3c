#pragma once

// The host process's own footprint, read from /proc/self.

#include <cstdint>
#include <optional>

namespace vlm::host {

struct ProcessStats {
    std::uint64_t residentBytes = 0;
    double cpuSeconds = 0;  // user and system
    std::uint64_t threads = 0;
    std::uint64_t openDescriptors = 0;
};

/// The figures now, or nothing when /proc cannot be read. Any thread.
std::optional<ProcessStats> readProcessStats();

} // namespace vlm::host
