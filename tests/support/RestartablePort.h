#pragma once

namespace vlm::test {

/// A free loopback port below the ephemeral range, which the kernel never hands to a client socket:
/// a server stopped and started again finds it free. Random, so parallel tests rarely collide.
int pickRestartablePort();

} // namespace vlm::test
