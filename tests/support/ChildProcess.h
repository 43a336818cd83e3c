#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vlm::test {

/// One program run by a test, with standard output and error going to a log
/// file the test reads.
///
/// The child is only ever signalled by its own process id. It is also bound
/// to the thread that started it (PR_SET_PDEATHSIG), so a test process that
/// dies leaves nothing behind; start it from the test's main thread. The
/// destructor kills (SIGKILL) and reaps a child that is still running.
///
/// Not thread-safe: one test thread drives it.
class ChildProcess {
public:
    /// Starts `argv[0]` (a path) with the arguments; appends its output to `logPath`.
    /// With `withInput`, its standard input is a channel `writeLine` feeds.
    /// Throws std::runtime_error when it cannot be started.
    ChildProcess(std::vector<std::string> argv, std::string logPath, bool withInput = false);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return child; }

    /// Whether it still runs (reaps it when it has ended).
    bool running();

    /// Waits until its output has a line that starts with `prefix`, at or after
    /// byte `from` of the log; returns that line, or nothing when the time-out
    /// passed or the child ended first.
    std::optional<std::string> waitForLine(const std::string& prefix, std::chrono::milliseconds timeout,
                                           std::size_t from = 0);

    /// Writes `line` and a line feed to its standard input (started
    /// `withInput`); false when it cannot (no channel, the child has gone).
    /// Never raises SIGPIPE.
    bool writeLine(const std::string& line);

    /// Sends a signal (only while it runs).
    void signal(int number);

    /// Waits up to `timeout` for it to end; returns its wait status, or nothing
    /// when it is still running.
    std::optional<int> waitExit(std::chrono::milliseconds timeout);

    /// Everything it wrote so far.
    std::string output() const;

    /// Size of the log now; for waitForLine(..., from) after a later event.
    std::size_t outputSize() const;

private:
    const std::string logPath;
    pid_t child = -1;
    int input = -1;  // our end of the child's standard input, -1 without one
    std::optional<int> status;
};

/// Process ids whose parent is `parent`, from /proc.
std::vector<pid_t> childrenOf(pid_t parent);

} // namespace vlm::test
