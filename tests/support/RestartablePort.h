#pragma once

namespace vlm::test {

/// A loopback port that is free now and lies below the kernel's ephemeral
/// range. The kernel never hands such a port to a client socket or to a
/// bind to port 0, so a server that a test stops and starts again on it finds
/// it free, where a port the kernel chose could meanwhile have become the
/// local end of another test's connection. Chosen at random so that tests
/// running side by side rarely try the same one; falls back to a port the
/// kernel chooses.
int pickRestartablePort();

} // namespace vlm::test
