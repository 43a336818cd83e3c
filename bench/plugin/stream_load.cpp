// Holds many event streams open against the plug-in while the service pushes
// telemetry, and measures how late each block arrives; then measures forwarded
// HTTP requests per second with 16 and 64 concurrent clients.
//
//   plugin_stream_load [streams=256] [seconds=10] [telemetry_hz=20]

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>

#include "BenchPlugin.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t nowMicros()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

double percentile(std::vector<double>& values, double p)
{
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size())));
    return values[index];
}

// Reads one stream until `deadline`, recording the delay of every data line
// that carries a send time ("sent":<microseconds>).
void readStream(uint16_t port, Clock::time_point deadline, std::vector<double>& delaysMs, std::mutex& mutex,
                std::atomic<int>& opened)
{
    try {
        Poco::Net::HTTPClientSession session("127.0.0.1", port);
        session.setTimeout(Poco::Timespan(5, 0));
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/index/api/pilot/pushTelemetry",
                                       Poco::Net::HTTPMessage::HTTP_1_1);
        session.sendRequest(request);
        Poco::Net::HTTPResponse response;
        std::istream& in = session.receiveResponse(response);
        ++opened;
        std::vector<double> local;
        std::string line;
        while (Clock::now() < deadline && std::getline(in, line)) {
            const auto at = line.find("\"sent\":");
            if (line.rfind("data: ", 0) != 0 || at == std::string::npos)
                continue;
            const long long sent = std::atoll(line.c_str() + at + 7);
            local.push_back(static_cast<double>(nowMicros() - sent) / 1000.0);
        }
        session.abort();
        std::lock_guard<std::mutex> lock(mutex);
        delaysMs.insert(delaysMs.end(), local.begin(), local.end());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "stream failed: %s\n", e.what());
    }
}

double requestsPerSecond(uint16_t port, int clients, std::chrono::seconds duration)
{
    std::atomic<long> served{0};
    std::atomic<long> failed{0};
    const auto deadline = Clock::now() + duration;
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&] {
            Poco::Net::HTTPClientSession session("127.0.0.1", port);
            session.setTimeout(Poco::Timespan(10, 0));
            for (int i = 0; i < 100000 && Clock::now() < deadline; ++i) {
                try {
                    const std::string body = R"({"type":"request","from":"bench"})";
                    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, "/index/api/pilot/getConfig",
                                                   Poco::Net::HTTPMessage::HTTP_1_1);
                    request.setContentLength(static_cast<std::streamsize>(body.size()));
                    session.sendRequest(request) << body;
                    Poco::Net::HTTPResponse response;
                    std::string answer;
                    Poco::StreamCopier::copyToString(session.receiveResponse(response), answer);
                    if (response.getStatus() == 200 && answer.find("\"code\":200") != std::string::npos)
                        ++served;
                    else
                        ++failed;
                } catch (const std::exception&) {
                    ++failed;
                    session.reset();
                }
            }
        });
    }
    for (auto& t : threads)
        t.join();
    if (failed > 0)
        std::printf("  (%ld failed requests)\n", failed.load());
    return static_cast<double>(served.load()) / static_cast<double>(duration.count());
}

} // namespace

int main(int argc, char** argv)
{
    const int streams = argc > 1 ? std::atoi(argv[1]) : 256;
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 10;
    const int hz = argc > 3 ? std::atoi(argv[3]) : 20;

    // Room for every stream at once, for the 64 request clients, and the
    // server's reserve for host paths (an eighth of the threads) on top.
    const int requestClients = 64;
    const int threads = (streams + requestClients) * 8 / 7 + 1;
    vlm::bench::BenchPlugin stack(threads, streams, requestClients);
    const long rssStart = vlm::bench::residentKilobytes();
    stack.service.publish("pilotConnectState", "true");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    std::vector<double> delays;
    std::mutex mutex;
    std::atomic<int> opened{0};
    const auto deadline = Clock::now() + std::chrono::seconds(seconds) + std::chrono::seconds(2);
    std::vector<std::thread> readers;
    for (int i = 0; i < streams; ++i)
        readers.emplace_back(readStream, stack.server->port(), deadline, std::ref(delays), std::ref(mutex),
                             std::ref(opened));
    for (int i = 0; i < 500 && opened < streams; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    long pushed = 0;
    const auto period = std::chrono::microseconds(1000000 / std::max(1, hz));
    auto next = Clock::now();
    long rssPeak = 0;
    while (Clock::now() < deadline - std::chrono::seconds(2)) {
        stack.service.publish("pushTelemetry", R"({"alt":100.5,"speed":12.0,"sent":)" + std::to_string(nowMicros()) + "}");
        ++pushed;
        rssPeak = std::max(rssPeak, vlm::bench::residentKilobytes());
        next += period;
        std::this_thread::sleep_until(next);
    }
    for (auto& r : readers)
        r.join();

    std::printf("event streams: %d open (%d requested), %ld telemetry events pushed at %d Hz over %d s\n",
                opened.load(), streams, pushed, hz, seconds);
    std::printf("  blocks with data received: %zu (each pending text goes to one stream)\n", delays.size());
    std::printf("  delivery delay p50 %.1f ms, p99 %.1f ms\n", percentile(delays, 0.50), percentile(delays, 0.99));
    std::printf("  process RSS: %ld kB before streams, %ld kB peak with streams\n", rssStart, rssPeak);

    for (int clients : {16, requestClients}) {
        const double rate = requestsPerSecond(stack.server->port(), clients, std::chrono::seconds(5));
        std::printf("HTTP getConfig with %d clients: %.0f requests/s (%.1f per client; the answer pause caps a "
                    "client near 20/s)\n",
                    clients, rate, rate / clients);
    }
    return 0;
}
