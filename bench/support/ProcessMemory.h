#pragma once

#include <sys/types.h>

namespace vlm::e2e {

/// Resident set size of a process in KiB ("VmRSS"), 0 when it cannot be read.
long residentKiB(pid_t pid);

/// The highest resident set size the process has had in KiB ("VmHWM"), 0
/// when it cannot be read.
long peakResidentKiB(pid_t pid);

} // namespace vlm::e2e
