// Misbehaviour on request: slow and missing answers, cut and refused links,
// frames a client must reject, and a vehicle that drops its link.

#include "engine.h"
#include "rpc/codec.h"
#include "sim_texts.h"

namespace pilot_sim {

const char* bad_frame_name(bad_frame kind)
{
    switch (kind) {
    case bad_frame::zero_length:
        return "zero-length";
    case bad_frame::oversize:
        return "oversize";
    case bad_frame::bad_type:
        return "bad-type";
    }
    return "unknown";
}

std::optional<bad_frame> parse_bad_frame(const std::string& name)
{
    for (const bad_frame kind : {bad_frame::zero_length, bad_frame::oversize, bad_frame::bad_type}) {
        if (name == bad_frame_name(kind))
            return kind;
    }
    return std::nullopt;
}

void simulator::engine::apply_fault_plan()
{
    const fault_plan& plan = options_.faults;
    for (const auto& [procedure, delay] : plan.delayed)
        delay_answers(procedure, delay);
    for (const auto& procedure : plan.unanswered)
        never_answer(procedure, true);
    if (plan.drop_after_frames != 0)
        drop_after_frames(plan.drop_after_frames);
    if (plan.refuse_for.count() > 0)
        refuse_connections_for(plan.refuse_for);
    if (plan.vehicle_disconnected) {
        vehicle_connected_ = false;
        log("fault: the vehicle link is down");
    }
}

void simulator::engine::after_handshake_faults()
{
    const fault_plan& plan = options_.faults;
    if (plan.bad_frame_after_handshake)
        send_bad_frame(*plan.bad_frame_after_handshake);
    if (plan.malformed_publication_after_handshake)
        send_malformed_publication();
}

void simulator::engine::delay_answers(const std::string& procedure, std::chrono::milliseconds delay)
{
    service_.delay_answers(procedure, delay);
    log("fault: answers to " + procedure + " delayed by " + std::to_string(delay.count()) + " ms");
}

void simulator::engine::never_answer(const std::string& procedure, bool never)
{
    service_.withhold_answers(procedure, never);
    log("fault: " + procedure + (never ? " is never answered" : " is answered again"));
}

void simulator::engine::drop_after_frames(std::size_t count)
{
    service_.drop_after_frames(count);
    if (count == 0)
        log("fault: links are no longer cut");
    else
        log("fault: every link is cut after " + std::to_string(count) + " frames from it");
}

void simulator::engine::refuse_connections_for(std::chrono::milliseconds duration)
{
    scheduler_.cancel("refuse");
    service_.stop_listening();
    log("fault: refusing connections for " + std::to_string(duration.count()) + " ms");
    scheduler_.after(duration, [this] { listen_again(); }, "refuse");
}

void simulator::engine::listen_again()
{
    try {
        service_.resume_listening();
        log("listening again on port " + std::to_string(service_.port()));
    } catch (const std::exception& e) {
        // Something else took the port while it was free. Clients know the
        // simulator by its port, so keep trying for it, as a restarted
        // service would.
        log("fault: cannot listen again on port " + std::to_string(service_.port()) + ": " + e.what() +
            "; trying again in 1 s");
        scheduler_.after(std::chrono::seconds(1), [this] { listen_again(); }, "refuse");
    }
}

std::size_t simulator::engine::send_bad_frame(bad_frame kind)
{
    pilot_rpc::frame_header header;
    std::string body;
    switch (kind) {
    case bad_frame::zero_length:
        header.body_len = 0;
        break;
    case bad_frame::oversize:
        // Announced, never sent: the client refuses the header alone.
        header.body_len = pilot_rpc::max_buffer_len + 1;
        break;
    case bad_frame::bad_type: {
        const msgpack::sbuffer packed = pilot_rpc::pack_args(0, std::string(texts::heartBeat), std::string("{}"));
        body.assign(packed.data(), packed.size());
        header.frame_type = 7;
        header.body_len = static_cast<std::uint32_t>(body.size());
        break;
    }
    }
    std::size_t sent = 0;
    for (const std::uint64_t connection : service_.connections())
        sent += service_.send_frame(connection, header, body) ? 1 : 0;
    log(std::string("fault: sent a ") + bad_frame_name(kind) + " frame to " + std::to_string(sent) +
        " connection(s)");
    return sent;
}

std::size_t simulator::engine::send_malformed_publication()
{
    // A publication that lacks its data element: decodes as MessagePack, but
    // not as [code, topic, data].
    const msgpack::sbuffer packed = pilot_rpc::pack_args(0, std::string(texts::pushTelemetry));
    const std::string body(packed.data(), packed.size());
    std::size_t sent = 0;
    for (const auto& [connection, topics] : topics_) {
        if (!topics.empty() && service_.send_frame(connection, pilot_rpc::topic_frame, 0, body))
            ++sent;
    }
    log("fault: sent a malformed publication to " + std::to_string(sent) + " connection(s)");
    return sent;
}

}  // namespace pilot_sim
