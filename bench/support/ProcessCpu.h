#pragma once

// A process's CPU time from /proc/<pid>/stat, for drivers that report what
// the host costs without asking the host.

#include <sys/types.h>

#include <chrono>

namespace vlm::bench {

/// User plus system CPU seconds the process has used so far; -1 when
/// /proc cannot tell (the process is gone).
double cpuSeconds(pid_t pid);

/// The share of one core (percent) the process used over `window`, which
/// this call sleeps through; -1 when it could not be read.
double cpuPercentOver(pid_t pid, std::chrono::milliseconds window);

} // namespace vlm::bench
