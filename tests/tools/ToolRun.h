#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vlm::test {

/// What a finished program left: its exit code (-1 when a signal ended it or
/// it had to be killed) and what it wrote on standard output and error.
struct ToolResult {
    int exitCode = -1;
    std::string out;
    std::string err;
    bool killed = false;  ///< it outlived its time-out and was killed
};

/// One run of a command-line program with its standard output and error in
/// files of `dir`. The child gets /dev/null as input and dies with the test
/// thread that started it. Not thread-safe: one test thread drives it.
class ToolRun {
public:
    ToolRun(std::vector<std::string> args, const std::string& dir);
    /// Kills and reaps it if it still runs.
    ~ToolRun();
    ToolRun(const ToolRun&) = delete;
    ToolRun& operator=(const ToolRun&) = delete;

    /// Waits up to `timeout` for it to end; kills it after that.
    ToolResult finish(std::chrono::milliseconds timeout);
    /// Sends `number` while it runs.
    void signal(int number);
    /// What it wrote on standard output so far.
    std::string outputSoFar() const;

private:
    std::string outPath;
    std::string errPath;
    pid_t child = -1;
    std::optional<int> status;
};

/// Runs the program to its end (at most `timeout`).
ToolResult runTool(const std::vector<std::string>& args, const std::string& dir,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

} // namespace vlm::test
