#include "tools/ToolRun.h"

#include <sys/wait.h>

#include <atomic>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace vlm::test {

ToolResult runTool(std::vector<std::string> args, const std::string& dir, std::chrono::milliseconds timeout)
{
    static std::atomic<unsigned> runNumber{0};
    const std::string stem = dir + "/run" + std::to_string(++runNumber);
    // The shell sends standard error to a file of its own, then becomes the
    // program: same process id, same signals.
    args.insert(args.begin(), {"/bin/sh", "-c", "exec \"$@\" 2>\"$0\"", stem + ".err"});
    ChildProcess child(args, stem + ".out");
    ToolResult result;
    const std::optional<int> status = child.waitExit(timeout);
    if (status && WIFEXITED(*status))
        result.exitCode = WEXITSTATUS(*status);
    result.out = child.output();
    result.err = TempDir::read(stem + ".err");
    return result;  // one still running is killed with `child`
}

} // namespace vlm::test
