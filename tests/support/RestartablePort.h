#pragma once

namespace vlm::test {

/// A free loopback port below the kernel's ephemeral range, which the kernel
/// never hands to a client socket or a bind to port 0: a server a test stops
/// and starts again finds it still free. Random, so that tests side by side
/// rarely try the same one; falls back to a port the kernel chooses.
int pickRestartablePort();

} // namespace vlm::test
