#include "VelmoraCommon.h"

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>

namespace vlm {

std::string logName()
{
    return "Velmora";
}

void configureLogging(const std::string& level, const std::string& destination)
{
    Poco::AutoPtr<Poco::Channel> sink;
    if (destination.empty() || destination == "console") {
        sink = new Poco::ConsoleChannel;  // standard error would mix with test output less, but Poco's goes to clog
    } else {
        Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(destination));
        file->setProperty("rotation", "10 M");
        file->setProperty("archive", "number");
        file->setProperty("purgeCount", "5");
        sink = file;
    }
    Poco::AutoPtr<Poco::PatternFormatter> format(new Poco::PatternFormatter("%Y-%m-%d %H:%M:%S.%i [%p] %U:%u %t"));
    Poco::AutoPtr<Poco::FormattingChannel> channel(new Poco::FormattingChannel(format, sink));
    Poco::Logger& logger = Poco::Logger::get(logName());
    logger.setChannel(channel);
    logger.setLevel(level.empty() ? std::string("information") : level);
}

} // namespace vlm
