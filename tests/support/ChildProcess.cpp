#include "support/ChildProcess.h"

#include "support/SpawnLogged.h"
#include "support/TempDir.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>

namespace vlm::test {

pid_t spawnLogged(const std::vector<std::string>& args, const std::string& logPath, bool dieWithParentThread,
                  int inputFd)
{
    std::vector<char*> argv;
    for (const auto& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    const int logFd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (logFd < 0)
        throw std::runtime_error("cannot open " + logPath);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Only async-signal-safe calls from here to exec: the test has threads.
        if (dieWithParentThread) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
        }
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        if (inputFd >= 0)
            ::dup2(inputFd, STDIN_FILENO);
        ::dup2(logFd, STDOUT_FILENO);
        ::dup2(logFd, STDERR_FILENO);
        ::close_range(STDERR_FILENO + 1, ~0U, 0);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(logFd);
    if (pid < 0)
        throw std::runtime_error("fork failed for " + args.front());
    return pid;
}

ChildProcess::ChildProcess(std::vector<std::string> args, std::string log, bool withInput) : logPath(std::move(log))
{
    // A socket pair rather than a pipe: send() with MSG_NOSIGNAL reports a
    // child that has gone instead of raising SIGPIPE in the test.
    int ends[2] = {-1, -1};
    if (withInput && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("no input channel for " + args.front());
    try {
        child = spawnLogged(args, logPath, true, ends[1]);
    } catch (...) {
        ::close(ends[0]);
        ::close(ends[1]);
        throw;
    }
    ::close(ends[1]);
    input = ends[0];
}

ChildProcess::~ChildProcess()
{
    if (input >= 0)
        ::close(input);
    if (!running())
        return;
    ::kill(child, SIGKILL);
    int ignored = 0;
    while (::waitpid(child, &ignored, 0) < 0 && errno == EINTR) {
    }
}

bool ChildProcess::running()
{
    int s = 0;
    if (child <= 0 || status)
        return false;
    const pid_t r = ::waitpid(child, &s, WNOHANG);
    if (r == child)
        status = s;
    return r == 0;
}

std::optional<std::string> ChildProcess::waitForLine(const std::string& prefix, std::chrono::milliseconds timeout,
                                                     std::size_t from)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const bool alive = running();
        const std::string text = output();
        std::istringstream lines(from < text.size() ? text.substr(from) : std::string());
        for (std::string line; std::getline(lines, line);)
            if (line.compare(0, prefix.size(), prefix) == 0 && !lines.eof())
                return line;
        if (!alive || std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool ChildProcess::writeLine(const std::string& line)
{
    const std::string text = line + "\n";
    for (std::size_t written = 0; input >= 0 && written < text.size();) {
        const ssize_t n = ::send(input, text.data() + written, text.size() - written, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        written += static_cast<std::size_t>(n);
    }
    return input >= 0;
}

void ChildProcess::signal(int number)
{
    if (running())
        ::kill(child, number);
}

std::optional<int> ChildProcess::waitExit(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return running() ? std::nullopt : status;
}

std::string ChildProcess::output() const
{
    return TempDir::read(logPath);
}

std::vector<pid_t> childrenOf(pid_t parent)
{
    // Each thread of `parent` lists the children it started.
    std::vector<pid_t> children;
    try {
        for (Poco::DirectoryIterator task("/proc/" + std::to_string(parent) + "/task"), end; task != end; ++task) {
            std::ifstream list(task->path() + "/children");
            for (pid_t pid = 0; list >> pid;)
                children.push_back(pid);
        }
    } catch (const Poco::Exception&) {
        // The parent has ended: it has no children.
    }
    return children;
}

} // namespace vlm::test
