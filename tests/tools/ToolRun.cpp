#include "tools/ToolRun.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "support/SpawnLogged.h"

namespace vlm::test {

namespace {

std::string readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::atomic<unsigned> runNumber{0};

} // namespace

ToolRun::ToolRun(std::vector<std::string> args, const std::string& dir)
{
    const std::string stem = dir + "/run" + std::to_string(++runNumber);
    outPath = stem + ".out";
    errPath = stem + ".err";
    // The shell sends standard error to a file of its own, then becomes the
    // program: same process id, same signals.
    args.insert(args.begin(), {"/bin/sh", "-c", "exec \"$@\" 2>\"$0\"", errPath});
    const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (in < 0)
        throw std::runtime_error("cannot open /dev/null");
    try {
        child = spawnLogged(args, outPath, true, in);
    } catch (...) {
        ::close(in);
        throw;
    }
    ::close(in);
}

ToolRun::~ToolRun()
{
    if (child > 0 && !status) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

ToolResult ToolRun::finish(std::chrono::milliseconds timeout)
{
    ToolResult result;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!status) {
        int raw = 0;
        const pid_t got = ::waitpid(child, &raw, WNOHANG);
        if (got == child) {
            status = raw;
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &raw, 0);
            status = raw;
            result.killed = true;
            break;
        }
        // waitpid has no time-out; a process end is polled.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (WIFEXITED(*status))
        result.exitCode = WEXITSTATUS(*status);
    result.out = readAll(outPath);
    result.err = readAll(errPath);
    return result;
}

void ToolRun::signal(int number)
{
    if (child > 0 && !status)
        ::kill(child, number);
}

std::string ToolRun::outputSoFar() const { return readAll(outPath); }

ToolResult runTool(const std::vector<std::string>& args, const std::string& dir, std::chrono::milliseconds timeout)
{
    ToolRun run(args, dir);
    return run.finish(timeout);
}

} // namespace vlm::test
