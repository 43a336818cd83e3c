#pragma once

// Small waits and readers the host tests share: a bounded poll, log lines
// counted by part, and one event-stream block read off a real connection.

#include <chrono>
#include <functional>
#include <istream>
#include <string>
#include <thread>

#include "support/LogCapture.h"
#include "support/PollUntil.h"

namespace vlm::test {

/// How long any single wait in the host tests may take before it fails.
inline constexpr std::chrono::seconds hostTestBound{10};

/// Polls a condition that no callback announces, bounded in time.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = hostTestBound)
{
    return pollUntil(condition, timeout);
}

/// Log lines containing `part` at `priority` or more urgent.
inline int linesWith(const LogCapture& log, const std::string& part,
                     Poco::Message::Priority priority = Poco::Message::PRIO_TRACE)
{
    int n = 0;
    for (const auto& line : log.lines())
        n += line.priority <= priority && line.text.find(part) != std::string::npos ? 1 : 0;
    return n;
}

/// Reads one event block (up to the blank line); "" when the stream ended.
inline std::string readBlock(std::istream& in)
{
    std::string block;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty())
            return block;
        block += line + "\n";
    }
    return "";
}

} // namespace vlm::test
