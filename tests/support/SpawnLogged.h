#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vlm::test {

/// Starts `args[0]` (an absolute path), output appended to `logPath`, keeping no other descriptor
/// of the test (an inherited listener would go on accepting after the test closed it). With
/// `dieWithParentThread` it dies with the starting thread; `inputFd` (not -1) becomes its input.
pid_t spawnLogged(const std::vector<std::string>& args, const std::string& logPath, bool dieWithParentThread,
                  int inputFd = -1);

} // namespace vlm::test
