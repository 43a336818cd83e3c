#include "tools/ToolRun.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <thread>

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
    // Everything the child needs is prepared before fork: after it, only
    // async-signal-safe calls.
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (out < 0 || err < 0 || in < 0)
        throw std::runtime_error("cannot open the output files in " + dir);
    const pid_t parent = ::getpid();
    child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(127);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::dup2(in, STDIN_FILENO);
        // The test's own blocked signals must not carry over.
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out);
    ::close(err);
    ::close(in);
    if (child < 0)
        throw std::runtime_error("fork failed");
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
