// velmora-host as a process: its orderly stop on SIGTERM and
// SIGINT (also with streams open), and its refusal of a broken configuration.

#include <signal.h>
#include <sys/wait.h>

#include <iostream>

#include "support/ChildProcess.h"
#include "e2e/E2eTest.h"

namespace vlm::e2e {
namespace {

// "Within a few seconds": the host's own stop bound is 20 s, an orderly stop
// takes well under one.
constexpr auto stopBound = std::chrono::seconds(5);

class HostProcessTest : public E2eTest {
protected:
    /// Signals the host and waits for it; returns the wait status.
    int stopWith(int signalNumber)
    {
        EXPECT_TRUE(childrenOf(stack.host->pid()).empty());
        const auto sent = std::chrono::steady_clock::now();
        stack.host->signal(signalNumber);
        const auto status = stack.host->waitExit(stopBound);
        EXPECT_TRUE(status.has_value()) << "velmora-host still runs " << stopBound.count() << " s after the signal";
        if (!status)
            return -1;
        std::cout << "velmora-host ended "
                  << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - sent).count()
                  << " ms after the signal\n";
        return *status;
    }
};

TEST_F(HostProcessTest, SigtermEndsTheHostWithExitCodeZero)
{
    const pid_t hostPid = stack.host->pid();
    const int status = stopWith(SIGTERM);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(stack.host->waitForLine("velmora-host stopped", std::chrono::seconds(0)));
    EXPECT_TRUE(childrenOf(hostPid).empty());
    // It stopped what it started and nothing else.
    EXPECT_TRUE(stack.sim->running());
    EXPECT_TRUE(stack.broker.running());
}

TEST_F(HostProcessTest, SigintEndsTheHostEvenWithStreamsOpen)
{
    EventStream tap(stack.httpPort, "/host/bus");
    ASSERT_EQ(tap.contentType(), "text/event-stream");
    const auto telemetry = telemetryStream();
    ASSERT_TRUE(telemetry);

    const int status = stopWith(SIGINT);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(HostConfigurationProcess, ABrokenConfigurationEndsTheHostWithTheKeyAndTheReason)
{
    test::TempDir dir;
    const std::string config = dir.write("broken.json", R"({
      "mqtt": {"server_uri": "127.0.0.1:1883", "user_name": "", "pawsswd": ""},
      "plugins": [{"library": "libVelmoraPluginPilotControl.so", "service_port": 99999}]
    })");
    ChildProcess host({hostProgram(), "--config", config}, dir.file("host.out"));
    const auto status = host.waitExit(std::chrono::seconds(10));
    ASSERT_TRUE(status.has_value());
    ASSERT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 2);
    EXPECT_NE(host.output().find("plugins[0].service_port: must be from 1 to 65535, got 99999"), std::string::npos)
        << host.output();
}

} // namespace
} // namespace vlm::e2e
