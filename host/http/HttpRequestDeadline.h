#pragma once

// A deadline for receiving each request, so that a client that trickles its
// bytes (or sends nothing) cannot hold a server thread.
//
// POCO bounds each socket read by the socket time-out, not the whole request:
// a client sending one byte every 50 s keeps a head "in progress" forever,
// and a new connection may sit silent for the full time-out before its first
// byte. So a watchdog thread keeps, for every connection being served, the
// moment its current request must be in:
//
//   thread takes up the connection -- head -- body -- handler ... answer done
//   |<----------- limit ------------------->|
//                                                      answer done -- idle -- head -- body -- ...
//                                                      |<--- keep-alive + limit ------------>|
//
// The deadline covers the head and the body together; the handler ends it
// (received()) once the body is read, before any long wait of its own. On a
// kept-alive connection POCO itself ends the idle wait for the next request
// after its keep-alive time-out, so the next deadline is that time-out plus
// the limit: an idle connection is closed by POCO, uncounted, and only a
// request that began but did not arrive in time is cut. (Idle kept-alive
// connections cannot starve the host's reserve either: near the thread limit
// the server answers without keep-alive, see HttpApiRequestHandler.)
//
// When a deadline passes the watchdog shuts the connection's receiving side
// down: a read blocked on it returns at once with end of stream, so the head
// or body is incomplete and the request is answered 408 (or the connection
// just closes), and the thread is free. The sending side stays open, so an
// answer can still be written. The cut is made on a duplicate of the
// connection's descriptor that the watchdog owns and closes itself: the
// connection's thread closes its own descriptor whenever it likes, and the
// number can never be reused for another socket under the watchdog.
//
// A stream-form handler that reads a body itself (the bus tap's POST) reads
// it under the deadline; one that gets a body and writes a long stream
// without reading it only loses the receiving side it never used.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/StreamSocket.h>

#include "VelmoraExport.h"

namespace vlm {

class VLM_EXPORT HttpRequestDeadlines {
public:
    /// Identifies a served connection: its socket, alive while it is served.
    using Connection = const Poco::Net::SocketImpl*;

    /// Starts the watchdog thread. `limit` bounds a request from when the
    /// thread starts waiting for it; `keepAliveIdle` is the server's
    /// keep-alive time-out, added for the requests after the first.
    HttpRequestDeadlines(std::chrono::milliseconds limit, std::chrono::milliseconds keepAliveIdle);
    /// Stops and joins the watchdog; every Watch must be gone.
    ~HttpRequestDeadlines();
    HttpRequestDeadlines(const HttpRequestDeadlines&) = delete;
    HttpRequestDeadlines& operator=(const HttpRequestDeadlines&) = delete;

    /// Keeps a connection under watch while its thread serves it; made by
    /// that thread before it reads the first request, the deadline starts now.
    class Watch {
    public:
        Watch(HttpRequestDeadlines& deadlines, Poco::Net::StreamSocket& socket);
        ~Watch();
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

    private:
        HttpRequestDeadlines& deadlines;
        Connection connection;
    };

    /// The connection a request came on; null for a request not from POCO's
    /// server (then every call below does nothing).
    static Connection connectionOf(Poco::Net::HTTPServerRequest& request);

    /// The request is in: no deadline until the next arm(). False when the
    /// deadline had already passed (the request is incomplete; answer 408).
    bool received(Connection connection);

    /// Whether the connection's deadline passed and it was cut.
    bool wasCut(Connection connection) const;

    /// The connection's answer is done: its next request must be in within
    /// the keep-alive time-out and the limit from now.
    void arm(Connection connection);

    /// Connections under watch, that is threads serving a connection.
    int connections() const;

    /// Connections cut so far.
    std::uint64_t cuts() const;

    std::chrono::milliseconds limit() const { return deadline; }

private:
    struct Entry {
        int duplicate = -1;  // the watchdog's own descriptor of the socket; -1 if dup failed
        std::string client;
        std::chrono::steady_clock::time_point due;
        bool armed = true;
        bool cut = false;
    };

    void add(Connection connection, Poco::Net::StreamSocket& socket);
    void remove(Connection connection);
    void watch();

    const std::chrono::milliseconds deadline;
    const std::chrono::milliseconds keepAliveIdle;
    mutable std::mutex mutex;  // guards entries, cutCount, stopping
    std::condition_variable wake;
    std::map<Connection, Entry> entries;
    std::uint64_t cutCount = 0;
    bool stopping = false;
    std::thread watchdog;
};

} // namespace vlm
