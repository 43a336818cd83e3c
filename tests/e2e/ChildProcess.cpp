#include "e2e/ChildProcess.h"

#include "support/SpawnLogged.h"

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace vlm::e2e {
namespace {

constexpr auto pollPause = std::chrono::milliseconds(20);

} // namespace

ChildProcess::ChildProcess(std::vector<std::string> args, std::string log) : logPath(std::move(log))
{
    child = test::spawnLogged(args, logPath, true);
}

ChildProcess::~ChildProcess()
{
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

} // namespace vlm::e2e
