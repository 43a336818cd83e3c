#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vlm::test {

/// Starts `args[0]` (an absolute path) with `args`, its standard output and
/// error appended to `logPath`. The child keeps no other descriptor of the
/// test process: an inherited listener would go on accepting connections
/// after the test closed it. With `dieWithParentThread` the child is killed
/// when the thread that started it ends, so an aborted test leaves nothing
/// behind. With `inputFd` (not -1) the child reads its standard input from
/// that descriptor; otherwise it inherits the test's. Throws
/// std::runtime_error when the log cannot be opened or fork fails.
pid_t spawnLogged(const std::vector<std::string>& args, const std::string& logPath, bool dieWithParentThread,
                  int inputFd = -1);

} // namespace vlm::test
