#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vlm::test {

/// One program run by a test, its output appended to a log file. Signalled only by its own pid;
/// killed when the thread that started it ends (use the test's main thread) or by the destructor.
class ChildProcess {
public:
    /// Starts `argv[0]` (a path); with `withInput`, `writeLine` feeds its standard input.
    ChildProcess(std::vector<std::string> argv, std::string logPath, bool withInput = false);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return child; }
    /// Whether it still runs (reaps it when it has ended).
    bool running();
    /// The first complete line starting with `prefix` at or after byte `from` of the log, if any in time.
    std::optional<std::string> waitForLine(const std::string& prefix, std::chrono::milliseconds timeout,
                                           std::size_t from = 0);
    /// False when there is no channel or the child has gone; never raises SIGPIPE.
    bool writeLine(const std::string& line);
    void signal(int number);
    /// Its wait status once it has ended, or nothing after `timeout`.
    std::optional<int> waitExit(std::chrono::milliseconds timeout);
    std::string output() const;
    std::size_t outputSize() const { return output().size(); }

private:
    const std::string logPath;
    pid_t child = -1;
    int input = -1;  // our end of the child's standard input
    std::optional<int> status;
};

/// Process ids whose parent is `parent`.
std::vector<pid_t> childrenOf(pid_t parent);

} // namespace vlm::test
