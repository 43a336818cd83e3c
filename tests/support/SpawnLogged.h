#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vlm::test {

/// Starts `args[0]` (an absolute path), standard output and error appended to
/// `logPath`, keeping no other descriptor of the test (an inherited listener
/// would go on accepting after the test closed it). With `dieWithParentThread`
/// it is killed when the starting thread ends; with `inputFd` (not -1) it reads
/// standard input from there. Throws std::runtime_error when it cannot start.
pid_t spawnLogged(const std::vector<std::string>& args, const std::string& logPath, bool dieWithParentThread,
                  int inputFd = -1);

} // namespace vlm::test
