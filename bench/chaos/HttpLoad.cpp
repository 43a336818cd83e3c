#include "HttpLoad.h"

#include <chrono>
#include <sstream>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>

#include "e2e/GatewayStack.h"

namespace vlm::chaos {
namespace {

// Longer than any answer the gateway owes while it works: a request still
// unanswered then is reported as unanswered.
const Poco::Timespan answerBound(30, 0);
constexpr auto retryPause = std::chrono::milliseconds(200);
const char* const nobodysGuid = "{00000000-0000-4000-8000-00000000C4A0}";

// One API that works without a vehicle and one that needs it, so vehicle
// faults show up as 4001 refusals.
const char* const groundApis[] = {"getConfig", "getTargetPoints"};

/// Posts `body` on `session` and tallies what came back; false when nothing
/// did (the session must be opened again).
bool post(Poco::Net::HTTPClientSession& session, const std::string& path, const std::string& body, HttpTally& tally)
{
    try {
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, path, Poco::Net::HTTPMessage::HTTP_1_1);
        request.setContentType("application/json");
        request.setContentLength(static_cast<std::streamsize>(body.size()));
        session.sendRequest(request) << body;
        Poco::Net::HTTPResponse response;
        std::ostringstream answer;
        Poco::StreamCopier::copyStream(session.receiveResponse(response), answer);
        tally.answer(response.getStatus(), answer.str());
        return true;
    } catch (const std::exception& e) {
        tally.noAnswer(path + ": " + e.what());
        return false;
    }
}

std::string groundRequest(const char* api, int client, std::uint64_t n)
{
    return std::string(R"({"type":"request","from":"chaos-app-)") + std::to_string(client) + R"(","target":")" +
           e2e::stationSn + R"(","msgId":"h)" + std::to_string(n) + R"(","api":")" + api + R"(","message":{}})";
}

std::string busMessage(int n, std::size_t bytes)
{
    const bool toPlugin = n % 10 == 0;
    std::string text = std::string(R"({"to":[")") + (toPlugin ? e2e::pilotGuid : nobodysGuid) +
                       R"("],"guid":"{00000000-0000-4000-8000-000000000001}","api":")" +
                       (toPlugin ? "getConfig" : "chaosFlood") + R"(","type":"request","seq_hint":)" +
                       std::to_string(n) + R"(,"data":{"pad":")";
    if (bytes > text.size() + 4)
        text.append(bytes - text.size() - 4, 'x');
    return text + R"("}})";
}

} // namespace

GroundApps::GroundApps(std::uint16_t httpPort, int clients, HttpTally& counts) : port(httpPort), tally(counts)
{
    for (int i = 0; i < clients; ++i)
        threads.emplace_back([this, i] { run(i); });
}

GroundApps::~GroundApps()
{
    stop();
}

void GroundApps::stop()
{
    stopping = true;
    for (auto& t : threads) {
        if (t.joinable())
            t.join();
    }
}

void GroundApps::run(int client)
{
    std::uint64_t n = 0;
    while (!stopping) {
        Poco::Net::HTTPClientSession session("127.0.0.1", port);
        session.setTimeout(answerBound);
        while (!stopping) {
            const char* api = groundApis[n % 2];
            if (!post(session, std::string("/index/api/pilot/") + api, groundRequest(api, client, ++n), tally)) {
                std::this_thread::sleep_for(retryPause);
                break;
            }
        }
    }
}

void floodBus(std::uint16_t port, int count, std::size_t bytes, HttpTally& tally, const std::atomic<bool>& stop)
{
    Poco::Net::HTTPClientSession session("127.0.0.1", port);
    session.setTimeout(answerBound);
    for (int i = 0; i < count && !stop; ++i) {
        if (!post(session, "/host/bus", busMessage(i, bytes), tally))
            session.reset();
    }
}

} // namespace vlm::chaos
