#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace vlm::test {

/// A real mosquitto broker for one test, listening on 127.0.0.1 only.
///
/// The port is chosen once by the kernel (bind to port 0) and kept for the
/// broker's whole life, so `stop()` followed by `start()` brings the broker back
/// on the same address, as a restarted station broker would come back.
/// The broker runs without persistence: after a restart it knows no session and
/// no subscription, which is what a client's re-subscription must cope with.
///
/// The child process is only ever signalled by its own process id. It is also
/// bound to the thread that started it (PR_SET_PDEATHSIG), so a test process
/// that dies abruptly does not leave a broker behind; start it from a thread
/// that outlives the broker (the test's main thread).
///
/// Not thread-safe: one test thread drives it.
class MosquittoBroker {
public:
    struct Options {
        /// When set, anonymous clients are refused and only this user with
        /// `password` is let in.
        std::string userName;
        std::string password;
        /// When both are set (PEM files), the listener speaks TLS only.
        std::string tlsCertFile;
        std::string tlsKeyFile;
        /// Further lines for the listener, e.g. "tls_version tlsv1.3".
        std::string listenerConfig;
    };

    MosquittoBroker();
    explicit MosquittoBroker(Options options);
    /// Stops the broker if it still runs.
    ~MosquittoBroker();
    MosquittoBroker(const MosquittoBroker&) = delete;
    MosquittoBroker& operator=(const MosquittoBroker&) = delete;

    /// Starts the broker and returns once it accepts TCP connections. Throws
    /// std::runtime_error with the broker's own output when it does not come up
    /// within a few seconds.
    void start();

    /// Ends the broker: SIGTERM, then SIGKILL when it has not exited within a
    /// bound, and reaps it. Does nothing when it is not running.
    void stop();

    /// Ends the broker at once (SIGKILL), as a crash would, and reaps it.
    /// Does nothing when it is not running.
    void kill();

    bool running() const { return child != nullptr; }
    int port() const { return listenPort; }
    pid_t pid() const { return child ? child->pid() : -1; }

    /// "127.0.0.1:<port>", the form the host configuration uses.
    std::string hostPort() const;
    /// "tcp://127.0.0.1:<port>", or "ssl://127.0.0.1:<port>" for a TLS listener.
    std::string uri() const;
    bool tls() const { return !options.tlsCertFile.empty(); }

    /// What the broker wrote to standard output and error so far.
    std::string output() const;

private:
    void writeConfig();
    void writePasswordFile();
    bool launch();
    bool waitUntilAccepting();

    Options options;
    TempDir dir;
    int listenPort = 0;
    std::unique_ptr<ChildProcess> child;
    bool everStarted = false;
};

} // namespace vlm::test
