#include "soak_load.h"

#include <chrono>
#include <sstream>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>


namespace vlm::soak {
namespace {

const char* const requestBody =
    R"({"type":"request","from":"soak","target":"station-e2e","msgId":"s","message":{}})";

// Between a failed attempt and the next, so a host that is down is not spun on.
constexpr auto retryPause = std::chrono::milliseconds(200);

bool answeredOk(const std::string& body)
{
    return body.find("\"code\":200") != std::string::npos;
}

} // namespace

SoakLoad::SoakLoad(std::uint16_t port, const std::string& uri, const std::string& topic, int streamCount,
                   int httpClients, int intervalMs)
    : httpPort(port), brokerUri(uri), commandTopic(topic), mqttIntervalMs(intervalMs),
      streams(port, "/index/api/pilot/pushTelemetry", streamCount)
{
    for (int i = 0; i < httpClients; ++i)
        workers.emplace_back([this] { requestOverHttp(); });
    workers.emplace_back([this] { commandOverMqtt(); });
}

SoakLoad::~SoakLoad()
{
    stop();
}

void SoakLoad::stop()
{
    stopping = true;
    streams.stop();
    for (auto& worker : workers) {
        if (worker.joinable())
            worker.join();
    }
}

void SoakLoad::requestOverHttp()
{
    while (!stopping) {
        try {
            Poco::Net::HTTPClientSession session("127.0.0.1", httpPort);
            session.setTimeout(Poco::Timespan(15, 0));
            while (!stopping) {
                Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, "/index/api/pilot/getConfig",
                                               Poco::Net::HTTPMessage::HTTP_1_1);
                request.setContentLength(static_cast<std::streamsize>(std::char_traits<char>::length(requestBody)));
                session.sendRequest(request) << requestBody;
                Poco::Net::HTTPResponse response;
                std::ostringstream body;
                Poco::StreamCopier::copyStream(session.receiveResponse(response), body);
                if (response.getStatus() == 200 && answeredOk(body.str()))
                    ++count.httpServed;
                else
                    ++count.httpFailed;
            }
        } catch (const std::exception&) {
            ++count.httpFailed;
            std::this_thread::sleep_for(retryPause);
        }
    }
}

void SoakLoad::commandOverMqtt()
{
    mqtt::async_client client(brokerUri, "velmora-soak-ground-app");
    client.set_message_callback([this](mqtt::const_message_ptr message) {
        const std::string payload = message->to_string();
        if (payload.find("\"type\":\"response\"") == std::string::npos)
            return;
        if (answeredOk(payload))
            ++count.mqttAnswered;
        else
            ++count.mqttRefused;
    });
    try {
        client.connect(mqtt::connect_options_builder().clean_session(true).finalize())->wait_for(std::chrono::seconds(5));
        client.subscribe(commandTopic, 0)->wait_for(std::chrono::seconds(5));
    } catch (const std::exception&) {
        return;
    }
    std::uint64_t id = 0;
    while (!stopping) {
        const std::string command = R"({"api":"getConfig","type":"request","from":"soak","target":"station-e2e",)"
                                    R"("msgId":"m)" + std::to_string(++id) + R"(","message":{}})";
        try {
            client.publish(commandTopic, command.data(), command.size(), 0, false)->wait_for(std::chrono::seconds(5));
            ++count.mqttSent;
        } catch (const std::exception&) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(mqttIntervalMs));
    }
    try {
        // Answers to the last commands are still on their way.
        std::this_thread::sleep_for(std::chrono::seconds(1));
        client.disconnect()->wait_for(std::chrono::seconds(5));
    } catch (const std::exception&) {
    }
}

} // namespace vlm::soak
