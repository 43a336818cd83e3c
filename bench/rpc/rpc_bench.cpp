// Client figures next to a raw-socket floor that moves the same bytes through
// the same in-process service:
//   (a) synchronous call round trip, p50 and p99, against a raw ping-pong;
//   (b) pipelined call_with_callback throughput against a raw sender that
//       writes one frame per send() while a raw reader takes the answers;
//   (c) publication intake (events/s reaching a handler) against a raw
//       reader that decodes the same frames.
// Usage: rpc_bench [round_trips] [pipelined_calls] [events]

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "raw_link.h"
#include "rpc/codec.h"
#include "rpc/function_id.h"
#include "rpc/rpc_client.h"
#include "rpc/service/rpc_service.h"

using namespace pilot_rpc;
using clock_type = std::chrono::steady_clock;

namespace {

double micros(clock_type::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }
double seconds(clock_type::duration d) { return std::chrono::duration<double>(d).count(); }

double percentile(std::vector<double> samples, double p)
{
    std::sort(samples.begin(), samples.end());
    const std::size_t index = std::min(samples.size() - 1, static_cast<std::size_t>(p * samples.size()));
    return samples[index];
}

std::string as_string(const msgpack::sbuffer& buffer) { return std::string(buffer.data(), buffer.size()); }

/// Id of the connection that the service accepts next after `before` accepts.
std::uint64_t await_connection(rpc_service& service, std::uint64_t before)
{
    if (!service.wait_for_accepted(before + 1, std::chrono::seconds(5))) {
        std::fprintf(stderr, "service did not accept\n");
        std::exit(1);
    }
    return before + 1;
}

double median(std::vector<double> values) { return percentile(std::move(values), 0.5); }

// The machine is shared, so each figure is the median of several rounds in
// which the client and its floor take turns.
constexpr int rounds = 5;

void round_trip(unsigned short port, std::size_t count)
{
    rpc_client client;
    if (!client.connect("127.0.0.1", port, false, 3)) {
        std::fprintf(stderr, "connect failed\n");
        std::exit(1);
    }
    bench::raw_link raw(port);
    const std::uint32_t echo = function_id("echo");
    std::uint64_t raw_id = 0;
    std::uint64_t answered = 0;
    for (std::size_t i = 0; i < 1000; ++i) {
        client.call<5000, int>("echo", static_cast<int>(i));
        raw.send_all(bench::frame_bytes(call_frame, ++raw_id, echo, as_string(pack_args(static_cast<int>(i)))));
        raw.read_frame(answered);
    }

    std::vector<double> c50, c99, r50, r99;
    for (int round = 0; round < rounds; ++round) {
        std::vector<double> client_us, raw_us;
        for (std::size_t i = 0; i < count / rounds; ++i) {
            const auto start = clock_type::now();
            client.call<5000, int>("echo", static_cast<int>(i));
            client_us.push_back(micros(clock_type::now() - start));
        }
        for (std::size_t i = 0; i < count / rounds; ++i) {
            const std::string frame =
                bench::frame_bytes(call_frame, ++raw_id, echo, as_string(pack_args(static_cast<int>(i))));
            const auto start = clock_type::now();
            raw.send_all(frame);
            raw.read_frame(answered);
            raw_us.push_back(micros(clock_type::now() - start));
        }
        c50.push_back(percentile(client_us, 0.50));
        c99.push_back(percentile(client_us, 0.99));
        r50.push_back(percentile(raw_us, 0.50));
        r99.push_back(percentile(raw_us, 0.99));
    }
    std::printf("(a) sync call round trip, %zu calls each, median of %d rounds\n", count, rounds);
    std::printf("    client  p50 %8.1f us   p99 %8.1f us\n", median(c50), median(c99));
    std::printf("    raw     p50 %8.1f us   p99 %8.1f us\n", median(r50), median(r99));
    std::printf("    ratio   p50 %8.2fx (target <= 1.5x)   p99 %.2fx\n", median(c50) / median(r50),
                median(c99) / median(r99));
}

void pipelined(unsigned short port, std::size_t count)
{
    rpc_client client;
    client.connect("127.0.0.1", port, false, 3);
    bench::raw_link raw(port);
    const std::uint32_t echo = function_id("echo");
    std::uint64_t raw_id = 0;

    std::vector<double> client_rates, raw_rates;
    for (int round = 0; round < rounds; ++round) {
        std::atomic<std::size_t> answered{0};
        std::promise<void> all;
        const auto start = clock_type::now();
        for (std::size_t i = 0; i < count; ++i)
            client.call_with_callback<120000>(
                "echo",
                [&](std::error_code, std::string_view) {
                    if (answered.fetch_add(1) + 1 == count)
                        all.set_value();
                },
                static_cast<int>(i));
        all.get_future().wait();
        client_rates.push_back(count / seconds(clock_type::now() - start));

        std::vector<std::string> frames;
        frames.reserve(count);
        for (std::size_t i = 0; i < count; ++i)
            frames.push_back(bench::frame_bytes(call_frame, (std::uint64_t{1} << 63) | ++raw_id, echo,
                                                as_string(pack_args(static_cast<int>(i)))));
        const auto raw_start = clock_type::now();
        std::thread reader([&] { raw.read_frames(count, [](std::uint8_t, std::string_view) {}); });
        for (const auto& frame : frames)
            raw.send_all(frame);
        reader.join();
        raw_rates.push_back(count / seconds(clock_type::now() - raw_start));
    }
    std::printf("(b) pipelined call_with_callback, %zu calls on one connection, median of %d rounds\n", count,
                rounds);
    std::printf("    client  %12.0f calls/s\n", median(client_rates));
    std::printf("    raw     %12.0f calls/s\n", median(raw_rates));
    std::printf("    ratio   %12.2f (target >= 0.5)\n", median(client_rates) / median(raw_rates));
}

void intake(rpc_service& service, unsigned short port, std::size_t count)
{
    const std::string topic = "pushTelemetry";
    const std::string payload =
        R"({"lat":22.5431,"lon":113.9589,"alt":120.4,"speed":12.3,"heading":271.0,"battery":87,"mode":"AUTO"})";
    const std::string frame =
        bench::frame_bytes(topic_frame, 0, function_id(topic), as_string(pack_publication(0, topic, payload)));
    const std::size_t per_chunk = 1000;
    std::string chunk;
    for (std::size_t i = 0; i < per_chunk; ++i)
        chunk += frame;
    const std::size_t chunks = (count + per_chunk - 1) / per_chunk;
    count = chunks * per_chunk;

    rpc_client client;
    std::uint64_t before = service.accepted_count();
    client.connect("127.0.0.1", port, false, 3);
    const std::uint64_t client_connection = await_connection(service, before);
    std::atomic<std::size_t> delivered{0};
    std::atomic<std::size_t> target{0};
    std::promise<void>* all = nullptr;
    std::mutex all_mutex;  // guards `all` between rounds
    client.subscribe(topic, [&](std::string_view data) {
        if (!data.empty() && delivered.fetch_add(1) + 1 == target.load()) {
            std::lock_guard<std::mutex> lock(all_mutex);
            all->set_value();
        }
    });
    while (service.subscriptions(client_connection).empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    before = service.accepted_count();
    bench::raw_link raw(port);
    const std::uint64_t raw_connection = await_connection(service, before);

    std::vector<double> client_rates, raw_rates;
    std::size_t decoded = 0;
    for (int round = 0; round < rounds; ++round) {
        std::promise<void> done;
        {
            std::lock_guard<std::mutex> lock(all_mutex);
            all = &done;
        }
        target.store(count * (round + 1));
        const auto start = clock_type::now();
        for (std::size_t i = 0; i < chunks; ++i)
            service.send_raw(client_connection, chunk);
        done.get_future().wait();
        client_rates.push_back(count / seconds(clock_type::now() - start));

        std::thread reader([&] {
            raw.read_frames(count, [&](std::uint8_t type, std::string_view body) {
                if (type != topic_frame)
                    return;
                const msgpack::object_handle handle = msgpack::unpack(body.data(), body.size());
                const msgpack::object& array = handle.get();
                if (array.type == msgpack::type::ARRAY && array.via.array.size == 3 &&
                    array.via.array.ptr[1].as<std::string_view>() == topic &&
                    !array.via.array.ptr[2].as<std::string_view>().empty())
                    ++decoded;
            });
        });
        const auto raw_start = clock_type::now();
        for (std::size_t i = 0; i < chunks; ++i)
            service.send_raw(raw_connection, chunk);
        reader.join();
        raw_rates.push_back(count / seconds(clock_type::now() - raw_start));
    }
    std::printf("(c) publication intake, %zu events of %zu bytes, median of %d rounds\n", count, frame.size(),
                rounds);
    std::printf("    client  %12.0f events/s\n", median(client_rates));
    std::printf("    raw     %12.0f events/s (%zu decoded)\n", median(raw_rates), decoded);
    std::printf("    ratio   %12.2f (target >= 0.5)\n", median(client_rates) / median(raw_rates));
}

}  // namespace

int main(int argc, char** argv)
{
    const std::size_t round_trips = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20000;
    const std::size_t calls = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 200000;
    const std::size_t events = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 500000;

    rpc_service service;
    service.set_recording(false);
    service.bind("echo", [](const msgpack::object& args) { return service_reply::success(args.via.array.ptr[0]); });
    const unsigned short port = service.start();

    round_trip(port, round_trips);
    pipelined(port, calls);
    intake(service, port, events);
    service.stop();
    return 0;
}
