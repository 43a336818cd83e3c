#include "support/MosquittoBroker.h"
#include "support/RestartablePort.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

namespace vlm::test {
namespace {

const char* const brokerPath = "/usr/sbin/mosquitto";
const char* const passwdToolPath = "/usr/bin/mosquitto_passwd";
const char* const loopback = "127.0.0.1";

} // namespace

MosquittoBroker::MosquittoBroker() : MosquittoBroker(Options{}) {}

MosquittoBroker::MosquittoBroker(Options opts) : options(std::move(opts)), listenPort(pickRestartablePort())
{
    if (!options.userName.empty())
        writePasswordFile();
}

MosquittoBroker::~MosquittoBroker()
{
    stop();
}

std::string MosquittoBroker::hostPort() const
{
    return std::string(loopback) + ":" + std::to_string(listenPort);
}

std::string MosquittoBroker::uri() const
{
    return (tls() ? "ssl://" : "tcp://") + hostPort();
}

std::string MosquittoBroker::output() const
{
    return TempDir::read(dir.file("mosquitto.log"));
}

void MosquittoBroker::writePasswordFile()
{
    ChildProcess tool({passwdToolPath, "-b", "-c", dir.file("passwd"), options.userName, options.password},
                      dir.file("mosquitto_passwd.log"));
    const auto status = tool.waitExit(std::chrono::seconds(10));
    if (!status)
        throw std::runtime_error("mosquitto_passwd did not finish");
    if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0)
        throw std::runtime_error("mosquitto_passwd failed: " + tool.output());
}

void MosquittoBroker::writeConfig()
{
    std::string config;
    config += "listener " + std::to_string(listenPort) + " " + loopback + "\n";
    if (tls()) {
        config += "certfile " + options.tlsCertFile + "\n";
        config += "keyfile " + options.tlsKeyFile + "\n";
    }
    if (!options.listenerConfig.empty())
        config += options.listenerConfig + "\n";
    config += "persistence false\n";
    config += "log_dest stderr\n";
    config += "log_type error\nlog_type warning\nlog_type notice\n";
    // As root, mosquitto would switch to its own user and could no longer read
    // the files of this test's directory.
    if (::geteuid() == 0)
        config += "user root\n";
    if (options.userName.empty()) {
        config += "allow_anonymous true\n";
    } else {
        config += "allow_anonymous false\n";
        config += "password_file " + dir.file("passwd") + "\n";
    }
    dir.write("mosquitto.conf", config);
}

void MosquittoBroker::start()
{
    if (running())
        return;
    // The free port may be taken by someone else before mosquitto binds it; only the first start may move to another port, a restart must not.
    const int attempts = everStarted ? 1 : 3;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (launch()) {
            everStarted = true;
            return;
        }
        if (attempt + 1 < attempts)
            listenPort = pickRestartablePort();
    }
    throw std::runtime_error("mosquitto did not start on port " + std::to_string(listenPort) + ": " + output());
}

bool MosquittoBroker::launch()
{
    writeConfig();
    child = std::make_unique<ChildProcess>(std::vector<std::string>{brokerPath, "-c", dir.file("mosquitto.conf")},
                                           dir.file("mosquitto.log"));
    if (waitUntilAccepting())
        return true;
    stop();
    return false;
}

bool MosquittoBroker::waitUntilAccepting()
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        try {
            Poco::Net::StreamSocket probe;
            probe.connect(Poco::Net::SocketAddress(loopback, static_cast<Poco::UInt16>(listenPort)),
                          Poco::Timespan(0, 200000));
            probe.close();
            return true;
        } catch (const Poco::Exception&) {
        }
        if (!child->running()) {
            child.reset();
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
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

void MosquittoBroker::kill()
{
    child.reset();
}

} // namespace vlm::test
