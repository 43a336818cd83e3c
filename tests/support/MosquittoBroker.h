#pragma once

#include <memory>
#include <string>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace vlm::test {

/// A real mosquitto broker for one test, on 127.0.0.1, without persistence. It keeps its port, so
/// `stop()` then `start()` bring it back on the same address knowing no session, as a restarted
/// station broker would. Drive it from one thread that outlives it.
class MosquittoBroker {
public:
    struct Options {
        std::string userName, password;        ///< when set, only this user is let in
        std::string tlsCertFile, tlsKeyFile;   ///< PEM files; when set, the listener speaks TLS only
        std::string listenerConfig;            ///< further listener lines, e.g. "tls_version tlsv1.3"
    };

    MosquittoBroker() : MosquittoBroker(Options{}) {}
    explicit MosquittoBroker(Options options);
    ~MosquittoBroker() { stop(); }
    MosquittoBroker(const MosquittoBroker&) = delete;
    MosquittoBroker& operator=(const MosquittoBroker&) = delete;

    /// Returns once it accepts TCP connections; throws std::runtime_error with
    /// the broker's output when it does not come up within a few seconds.
    void start();
    /// SIGTERM, then SIGKILL after a bound; reaps it. Nothing when not running.
    void stop();
    /// Ends it at once (SIGKILL), as a crash would, and reaps it.
    void kill() { child.reset(); }

    bool running() const { return child != nullptr; }
    int port() const { return listenPort; }
    /// "127.0.0.1:<port>", the form the host configuration uses.
    std::string hostPort() const { return "127.0.0.1:" + std::to_string(listenPort); }
    /// "tcp://127.0.0.1:<port>", or "ssl://..." for a TLS listener.
    std::string uri() const { return (tls() ? "ssl://" : "tcp://") + hostPort(); }
    bool tls() const { return !options.tlsCertFile.empty(); }
    std::string output() const { return TempDir::read(dir.file("mosquitto.log")); }

private:
    void writeConfig();
    bool launch();

    Options options;
    TempDir dir;
    int listenPort = 0;
    std::unique_ptr<ChildProcess> child;
    bool everStarted = false;
};

} // namespace vlm::test
