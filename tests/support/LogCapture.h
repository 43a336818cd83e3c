#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "VelmoraCommon.h"

namespace vlm::test {

/// Records every line written to the host logger while it lives, so a test can
/// assert on exact log texts. Restores the previous channel and level on exit.
class LogCapture {
public:
    struct Line {
        Poco::Message::Priority priority;
        std::string text;
        std::string source;
    };

    LogCapture() : channel(new Recorder), logger(Poco::Logger::get(logName()))
    {
        previousChannel = logger.getChannel();
        previousLevel = logger.getLevel();
        logger.setChannel(channel);
        logger.setLevel(Poco::Message::PRIO_INFORMATION);
    }
    ~LogCapture()
    {
        logger.setChannel(previousChannel);
        logger.setLevel(previousLevel);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines() const
    {
        std::lock_guard<std::mutex> lock(channel->mutex);
        return channel->lines;
    }

    /// Lines whose text is exactly `text` at the given priority.
    int count(const std::string& text, Poco::Message::Priority priority) const
    {
        int n = 0;
        for (const auto& line : lines())
            n += (line.text == text && line.priority == priority) ? 1 : 0;
        return n;
    }
    int errors(const std::string& text) const { return count(text, Poco::Message::PRIO_ERROR); }
    int infos(const std::string& text) const { return count(text, Poco::Message::PRIO_INFORMATION); }

    /// Whether any line contains `part`.
    bool contains(const std::string& part) const
    {
        for (const auto& line : lines())
            if (line.text.find(part) != std::string::npos)
                return true;
        return false;
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(channel->mutex);
        channel->lines.clear();
    }

private:
    struct Recorder : Poco::Channel {
        void log(const Poco::Message& msg) override
        {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back({msg.getPriority(), msg.getText(), msg.getSourceFile() ? msg.getSourceFile() : ""});
        }
        mutable std::mutex mutex;  // guards lines
        std::vector<Line> lines;
    };

    Poco::AutoPtr<Recorder> channel;
    Poco::Logger& logger;
    Poco::AutoPtr<Poco::Channel> previousChannel;
    int previousLevel;
};

} // namespace vlm::test
