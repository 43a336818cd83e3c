// Event streams: the five streaming APIs answer with server-sent events that
// carry the newest data of their API.

#include <atomic>
#include <chrono>
#include <thread>

#include "ApiCatalogue.h"
#include "EventStreamData.h"
#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

// Head lines go out on every tick even without data: they keep the connection
// alive and a failing write is how a lost client is noticed.
constexpr auto streamTick = std::chrono::milliseconds(80);
constexpr int clientRetryMs = 10000;

// Counts a stream as open for as long as it is served.
class OpenStream {
public:
    explicit OpenStream(std::atomic<int>& open) : open(open) { open.fetch_add(1, std::memory_order_relaxed); }
    ~OpenStream() { open.fetch_sub(1, std::memory_order_relaxed); }
    OpenStream(const OpenStream&) = delete;
    OpenStream& operator=(const OpenStream&) = delete;

private:
    std::atomic<int>& open;
};

} // namespace

void PilotControlP::handleEventStream(const std::string& apiName, Poco::Net::HTTPServerRequest& request,
                                      Poco::Net::HTTPServerResponse& response)
{
    if (!impl->pilotConnected) {
        Poco::JSON::Object refused;
        refused.set("api", apiName);
        refused.set("target", impl->getStationId());
        refused.set("pilot_id", impl->getPilotId());
        response.setContentType("application/json");
        response.send() << makeErrorMsg(texts::vehicleNotConnected, refused, vehicleNotConnected);
        return;
    }

    const OpenStream counted(impl->streamsOpen);
    response.set("Cache-Control", "no-cache");
    response.setContentType("text/event-stream");
    response.set("Connection", "keep-alive");
    response.setChunkedTransferEncoding(true);
    const int number = apiNumber(apiName).value_or(0);
    std::ostream& out = response.send();

    uint32_t counter = 0;
    for (;;) {
        std::this_thread::sleep_for(streamTick);
        ++counter;
        out << "id: " << counter << "\n"
            << "event: " << apiName << "\n"
            << "retry: " << clientRetryMs << "\n";
        if (!impl->pilotConnected) {
            out << "data: " << makeErrorMsg(texts::vehicleNotConnected, vehicleNotConnected) << "\n\n";
            out.flush();
            break;
        }
        if (!out.good() || impl->stopped) {
            PCP_LOG_ERROR("client disconnect, api: %s", apiName.c_str());
            break;
        }
        std::string* slot = streamSlot(number);
        if (!slot) {
            PCP_LOG_ERROR("The api not found: %s", apiName.c_str());
            return;
        }
        std::string pending;
        {
            std::lock_guard<std::mutex> lock(impl->cacheMutex);
            pending.swap(*slot);  // each pending text goes to one stream only
        }
        // The service's text may hold line breaks; each line gets its own
        // "data: " so that none of them can start an "id:" or "event:" field.
        if (!pending.empty())
            writeEventData(out, pending);
        out.flush();
        if (!impl->pilotConnected)
            break;
    }
    out << "id: " << counter + 1 << "\n"
        << "event: disconnect\n"
        << "data: Connection closed\n\n";
    out.flush();
}

std::string* PilotControlP::streamSlot(int number)
{
    switch (number) {
    case api::pushTelemetry:
        return &impl->lastTelemetry;
    case api::updateProgress:
        return &impl->lastProgress;
    case api::softUpdateStatus:
        return &impl->lastSoftUpdateStatus;
    case api::getUpdateProgress:
        return &impl->lastUpdateProgress;
    case api::updateMagneticCompassCali:
        return &impl->lastMagCompassCali;
    default:
        return nullptr;
    }
}

} // namespace vlm
