#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "VelmoraCommon.h"

namespace vlm::test {

/// Records every line written to the host logger while it lives. The channel is
/// set once before main: Poco reads it without a lock, so a swap could free it under a logging thread.
class LogCapture {
public:
    struct Line {
        Poco::Message::Priority priority;
        std::string text;
        std::string source;
        std::string logger;
    };

    LogCapture() { reset(true); }
    ~LogCapture() { reset(false); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines() const
    {
        std::lock_guard<std::mutex> lock(recorder().mutex);
        return recorder().lines;
    }
    int count(const std::string& text, Poco::Message::Priority priority) const
    {
        const auto all = lines();
        return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const Line& l) {
            return l.text == text && l.priority == priority;
        }));
    }
    int errors(const std::string& text) const { return count(text, Poco::Message::PRIO_ERROR); }
    int infos(const std::string& text) const { return count(text, Poco::Message::PRIO_INFORMATION); }
    bool contains(const std::string& part) const
    {
        const auto all = lines();
        return std::any_of(all.begin(), all.end(), [&](const Line& l) { return l.text.find(part) != std::string::npos; });
    }
    void clear() { reset(true); }

    static bool install()
    {
        Poco::Logger& logger = Poco::Logger::get(logName());
        logger.setChannel(&recorder());
        logger.setLevel(Poco::Message::PRIO_INFORMATION);
        return true;
    }

private:
    void reset(bool active)
    {
        std::lock_guard<std::mutex> lock(recorder().mutex);
        recorder().lines.clear();
        recorder().active = active;
    }

    // Without a capture, passes warnings and worse on to standard error so a
    // failing test still shows them.
    struct Recorder : Poco::Channel {
        void log(const Poco::Message& msg) override
        {
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (active) {
                    lines.push_back({msg.getPriority(), msg.getText(), msg.getSourceFile() ? msg.getSourceFile() : "",
                                     msg.getSource()});
                    return;
                }
            }
            if (msg.getPriority() <= Poco::Message::PRIO_WARNING)
                console->log(msg);
        }
        mutable std::mutex mutex;  // guards lines, active
        std::vector<Line> lines;
        bool active = false;
        Poco::AutoPtr<Poco::ConsoleChannel> console{new Poco::ConsoleChannel};
    };

    static Recorder& recorder()
    {
        static auto* instance = new Recorder;  // never released: it records for the whole process
        return *instance;
    }
};

inline const bool logCaptureInstalled = LogCapture::install();

} // namespace vlm::test
