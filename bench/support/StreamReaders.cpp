#include "StreamReaders.h"

#include <chrono>

#include "e2e/EventStream.h"

namespace vlm::e2e {
namespace {

// Between a failed attempt and the next, so a host that is down is not spun on.
constexpr auto retryPause = std::chrono::milliseconds(200);

} // namespace

StreamReaders::StreamReaders(std::uint16_t httpPort, std::string streamPath, int readerCount)
    : port(httpPort), path(std::move(streamPath))
{
    for (int i = 0; i < readerCount; ++i)
        readers.emplace_back([this] { read(); });
}

StreamReaders::~StreamReaders()
{
    stop();
}

void StreamReaders::stop()
{
    stopping = true;
    for (auto& reader : readers) {
        if (reader.joinable())
            reader.join();
    }
}

void StreamReaders::read()
{
    while (!stopping) {
        try {
            EventStream stream(port, path);
            if (stream.contentType() != "text/event-stream") {
                ++count.refused;
                std::this_thread::sleep_for(retryPause);
                continue;
            }
            ++count.opens;
            // Line by line: head lines come on every tick, while a stream may
            // wait long for data it does not have to share.
            std::string line;
            while (!stopping && stream.nextLine(line)) {
                if (line.compare(0, 7, "data: {") == 0)
                    ++count.events;
            }
            if (!stopping)
                ++count.ends;
        } catch (const std::exception&) {
            ++count.ends;
            std::this_thread::sleep_for(retryPause);
        }
    }
}

} // namespace vlm::e2e
