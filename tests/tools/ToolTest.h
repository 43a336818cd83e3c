#pragma once

// Base of the tests that run the real pilot-rpc and pilot-sim programs
// (their paths come in PILOT_RPC_PATH and PILOT_SIM_PATH).

#include <sstream>

#include <gtest/gtest.h>

#include "support/TempDir.h"
#include "tools/ToolRun.h"

namespace vlm::test {

/// The lines of `text`, without their line feeds.
inline std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

class ToolTest : public ::testing::Test {
protected:
    /// Runs pilot-rpc with `args` to its end, at most `timeout`.
    ToolResult tool(std::vector<std::string> args, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        args.insert(args.begin(), PILOT_RPC_PATH);
        return runTool(args, dir.path, timeout);
    }

    TempDir dir;
};

} // namespace vlm::test
