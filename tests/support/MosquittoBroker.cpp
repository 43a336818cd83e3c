#include "support/MosquittoBroker.h"
#include "support/RestartablePort.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

namespace vlm::test {

MosquittoBroker::MosquittoBroker(Options opts) : options(std::move(opts)), listenPort(pickRestartablePort())
{
    if (options.userName.empty())
        return;
    ChildProcess tool({"/usr/bin/mosquitto_passwd", "-b", "-c", dir.file("passwd"), options.userName, options.password},
                      dir.file("mosquitto_passwd.log"));
    const auto status = tool.waitExit(std::chrono::seconds(10));
    if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0)
        throw std::runtime_error("mosquitto_passwd failed: " + tool.output());
}

void MosquittoBroker::writeConfig()
{
    std::string config = "listener " + std::to_string(listenPort) + " 127.0.0.1\n";
    if (tls())
        config += "certfile " + options.tlsCertFile + "\nkeyfile " + options.tlsKeyFile + "\n";
    if (!options.listenerConfig.empty())
        config += options.listenerConfig + "\n";
    config += "persistence false\nlog_dest stderr\nlog_type error\nlog_type warning\nlog_type notice\n";
    // As root, mosquitto would switch to its own user and could no longer read this test's files.
    if (::geteuid() == 0)
        config += "user root\n";
    if (options.userName.empty())
        config += "allow_anonymous true\n";
    else
        config += "allow_anonymous false\npassword_file " + dir.file("passwd") + "\n";
    dir.write("mosquitto.conf", config);
}

void MosquittoBroker::start()
{
    if (running())
        return;
    // Someone may take the free port before mosquitto binds it; only the first
    // start may move to another port, a restart must not.
    const int attempts = everStarted ? 1 : 3;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (attempt > 0)
            listenPort = pickRestartablePort();
        if (launch()) {
            everStarted = true;
            return;
        }
    }
    throw std::runtime_error("mosquitto did not start on port " + std::to_string(listenPort) + ": " + output());
}

bool MosquittoBroker::launch()
{
    writeConfig();
    child = std::make_unique<ChildProcess>(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", dir.file("mosquitto.conf")},
                                           dir.file("mosquitto.log"));
    for (int attempt = 0; attempt < 100 && child->running(); ++attempt) {
        try {
            Poco::Net::StreamSocket probe;
            probe.connect(Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(listenPort)),
                          Poco::Timespan(0, 200000));
            return true;
        } catch (const Poco::Exception&) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    stop();
    return false;
}

void MosquittoBroker::stop()
{
    if (!running())
        return;
    child->signal(SIGTERM);
    child->waitExit(std::chrono::seconds(3));
    child.reset();  // kills and reaps one that is still running
}

} // namespace vlm::test
