#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"

namespace {

using vlm::test::LogCapture;

/// Runs `body` on a thread of its own inside a network namespace made for it,
/// holding one TUN interface, 10.200.0.1/24, whose packets nobody reads: an
/// address there is routed but never answers. Returns why it could not be
/// set up.
std::optional<std::string> inSilentNetwork(const std::function<void()>& body)
{
    std::optional<std::string> unavailable;
    std::thread([&] {
        ifreq device{};
        std::strncpy(device.ifr_name, "silent0", IFNAMSIZ - 1);
        device.ifr_flags = IFF_TUN | IFF_NO_PI;
        const int tun = ::unshare(CLONE_NEWNET) == 0 ? ::open("/dev/net/tun", O_RDWR | O_CLOEXEC) : -1;
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        bool ready = tun >= 0 && fd >= 0 && ::ioctl(tun, TUNSETIFF, &device) == 0;
        auto* address = reinterpret_cast<sockaddr_in*>(&device.ifr_addr);
        address->sin_family = AF_INET;
        address->sin_addr.s_addr = ::inet_addr("10.200.0.1");
        ready = ready && ::ioctl(fd, SIOCSIFADDR, &device) == 0;
        address->sin_addr.s_addr = ::inet_addr("255.255.255.0");
        ready = ready && ::ioctl(fd, SIOCSIFNETMASK, &device) == 0 && ::ioctl(fd, SIOCGIFFLAGS, &device) == 0;
        device.ifr_flags |= IFF_UP;
        ready = ready && ::ioctl(fd, SIOCSIFFLAGS, &device) == 0;
        if (ready)
            body();
        else
            unavailable = std::string("setting up the namespace: ") + std::strerror(errno);
        ::close(fd);
        ::close(tun);
    }).join();
    return unavailable;
}

TEST(PingHost, LoopbackAnswersACannotSendFailureSaysWhyAndASilentHostIsGivenUpAfterTwoSeconds)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "an ICMP echo needs a raw socket, which needs root here";
    LogCapture log;
    EXPECT_TRUE(vlm::pingHost("127.0.0.1"));

    // Capabilities belong to a thread: this one gives up raw sockets, so the
    // ping cannot even start and must say why, once (the answered one said nothing).
    bool answered = true;
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        ASSERT_EQ(::syscall(SYS_capget, &header, data), 0);
        data[CAP_NET_RAW / 32].effective &= ~(1u << (CAP_NET_RAW % 32));
        ASSERT_EQ(::syscall(SYS_capset, &header, data), 0);
        answered = vlm::pingHost("127.0.0.1");
    }).join();
    EXPECT_FALSE(answered);
    EXPECT_EQ(log.errors("ping failed: I/O error: " + std::to_string(EPERM) + ", ip: 127.0.0.1"), 1);
    EXPECT_EQ(log.lines().size(), 1u);

    answered = true;
    std::chrono::steady_clock::duration took{};
    log.clear();
    const auto unavailable = inSilentNetwork([&] {
        const auto start = std::chrono::steady_clock::now();
        answered = vlm::pingHost("10.200.0.2");
        took = std::chrono::steady_clock::now() - start;
    });
    if (unavailable)
        GTEST_SKIP() << *unavailable << " (a namespace needs CAP_SYS_ADMIN, the interface /dev/net/tun)";
    EXPECT_FALSE(answered);
    // It waited for the reply rather than failing on the way out, and gave up
    // at its own limit, with room for a loaded machine.
    EXPECT_GE(took, std::chrono::milliseconds(1900));
    EXPECT_LT(took, std::chrono::seconds(6));
    EXPECT_FALSE(log.contains("ping failed"));
}

} // namespace
