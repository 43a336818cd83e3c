#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace vlm::test {

/// What a finished program left: its exit code (-1 when a signal ended it or
/// it had to be killed) and what it wrote on standard output and error.
struct ToolResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

/// Runs the program `args[0]` to its end, at most `timeout`, with its standard
/// output and error kept apart in files of `dir`.
ToolResult runTool(std::vector<std::string> args, const std::string& dir,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

} // namespace vlm::test
