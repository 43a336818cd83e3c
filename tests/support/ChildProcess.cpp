#include "support/ChildProcess.h"

#include "support/SpawnLogged.h"

#include <dirent.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace vlm::test {
namespace {

constexpr auto pollPause = std::chrono::milliseconds(20);

} // namespace

ChildProcess::ChildProcess(std::vector<std::string> args, std::string log, bool withInput) : logPath(std::move(log))
{
    // A socket pair rather than a pipe: send() with MSG_NOSIGNAL reports a
    // child that has gone instead of raising SIGPIPE in the test.
    int ends[2] = {-1, -1};
    if (withInput && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("no input channel for " + args.front());
    try {
        child = spawnLogged(args, logPath, true, withInput ? ends[1] : -1);
    } catch (...) {
        if (withInput) {
            ::close(ends[0]);
            ::close(ends[1]);
        }
        throw;
    }
    if (withInput) {
        ::close(ends[1]);
        input = ends[0];
    }
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
    if (child <= 0 || status)
        return false;
    int s = 0;
    const pid_t r = ::waitpid(child, &s, WNOHANG);
    if (r == child) {
        status = s;
        return false;
    }
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
        std::string line;
        while (std::getline(lines, line)) {
            if (line.compare(0, prefix.size(), prefix) == 0 && !lines.eof())
                return line;
        }
        if (!alive || std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(pollPause);
    }
}

bool ChildProcess::writeLine(const std::string& line)
{
    if (input < 0)
        return false;
    const std::string text = line + "\n";
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::send(input, text.data() + written, text.size() - written, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        written += static_cast<std::size_t>(n);
    }
    return true;
}

void ChildProcess::signal(int number)
{
    if (running())
        ::kill(child, number);
}

std::optional<int> ChildProcess::waitExit(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(pollPause);
    }
    return status;
}

std::string ChildProcess::output() const
{
    std::ifstream in(logPath);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::size_t ChildProcess::outputSize() const
{
    return output().size();
}

std::vector<pid_t> childrenOf(pid_t parent)
{
    std::vector<pid_t> children;
    DIR* proc = ::opendir("/proc");
    if (!proc)
        return children;
    while (const dirent* entry = ::readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0')
            continue;
        std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
        std::string text;
        std::getline(stat, text);
        // "pid (comm) state ppid ...": the name may hold spaces and parentheses.
        const auto close = text.rfind(')');
        if (close == std::string::npos)
            continue;
        std::istringstream rest(text.substr(close + 1));
        std::string state;
        long ppid = 0;
        if (rest >> state >> ppid && ppid == parent)
            children.push_back(static_cast<pid_t>(pid));
    }
    ::closedir(proc);
    return children;
}

} // namespace vlm::test
