// The real pilot-sim program: started, read, used and stopped as the demo and
// the end-to-end tests do.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <regex>

#include "sim_fixture.h"

namespace pilot_sim::test {
namespace {

/// A child process with its standard output on a pipe and its standard error
/// in a file. Killed on destruction if still running.
class child_process {
public:
    explicit child_process(std::vector<std::string> args, const std::string& stderr_path)
    {
        // Everything the child needs is prepared here: after fork it may
        // only call async-signal-safe functions.
        std::vector<char*> argv;
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        int out[2];
        if (::pipe(out) != 0)
            throw std::runtime_error("pipe failed");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            const int err = ::open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (err >= 0)
                ::dup2(err, STDERR_FILENO);
            const int nothing = ::open("/dev/null", O_RDONLY);
            if (nothing >= 0)
                ::dup2(nothing, STDIN_FILENO);
            ::close(out[0]);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(out[1]);
        stdout_ = out[0];
    }

    ~child_process()
    {
        if (pid_ > 0 && !exit_code_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (stdout_ >= 0)
            ::close(stdout_);
    }

    /// The next line of standard output, or nothing after `timeout`.
    std::optional<std::string> read_line(std::chrono::milliseconds timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const std::size_t end = buffer_.find('\n');
            if (end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                    std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return std::nullopt;
            pollfd in{stdout_, POLLIN, 0};
            if (::poll(&in, 1, static_cast<int>(left.count())) <= 0)
                continue;
            char chunk[512];
            const ssize_t got = ::read(stdout_, chunk, sizeof chunk);
            if (got <= 0)
                return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(got));
        }
    }

    void signal(int number) { ::kill(pid_, number); }

    /// The exit code once the process has ended, or nothing after `timeout`.
    std::optional<int> wait_for_exit(std::chrono::milliseconds timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                return exit_code_;
            }
            std::this_thread::sleep_for(10ms);
        }
        return std::nullopt;
    }

private:
    pid_t pid_ = -1;
    int stdout_ = -1;
    std::string buffer_;
    std::optional<int> exit_code_;
};

std::string scratch_path(const std::string& name)
{
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return ::testing::TempDir() + "pilot_sim_" + info->name() + "_" + name;
}

TEST(PilotSimProgram, ListensServesAndStopsCleanlyOnSigterm)
{
    const std::string settings = scratch_path("settings.json");
    std::ofstream(settings) << R"({"vehicle": {"pilot_id": "SIM-UAV-0042"}, "station": {"app_type": 1}})";
    child_process sim({PILOT_SIM_PATH, "--port", "0", "--telemetry-hz", "20", "--settings", settings},
                      scratch_path("stderr.log"));

    const auto line = sim.read_line(10s);
    ASSERT_TRUE(line) << "no listening line";
    std::smatch match;
    ASSERT_TRUE(std::regex_match(*line, match, std::regex(R"(pilot-sim listening on 127\.0\.0\.1:(\d+))"))) << *line;
    const auto port = static_cast<unsigned short>(std::stoi(match[1]));

    {
        event_recorder events;  // outlives the client that feeds it
        pilot_rpc::rpc_client client;
        ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
        EXPECT_EQ((client.call<3000, std::string>("getStringConfig", std::string("vehicle.pilot_id"))), "SIM-UAV-0042");
        EXPECT_EQ((client.call<3000, int>("getIntConfig", std::string("station.app_type"))), 1);
        events.subscribe(client, "pushTelemetry");
        EXPECT_TRUE(events.wait_for_count("pushTelemetry", 2));
    }

    sim.signal(SIGTERM);
    EXPECT_EQ(sim.wait_for_exit(10s), std::optional<int>(0));
}

TEST(PilotSimProgram, ExplainsItselfAndRejectsBadFlags)
{
    child_process help({PILOT_SIM_PATH, "--help"}, scratch_path("help.log"));
    const auto first = help.read_line(10s);
    ASSERT_TRUE(first);
    EXPECT_EQ(*first, "Usage: pilot-sim [OPTIONS]");
    EXPECT_EQ(help.wait_for_exit(10s), std::optional<int>(0));

    const std::string errors = scratch_path("bad.log");
    child_process bad({PILOT_SIM_PATH, "--telemetry-hz", "fast"}, errors);
    EXPECT_EQ(bad.wait_for_exit(10s), std::optional<int>(2));
    std::ifstream log(errors);
    std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("--telemetry-hz"), std::string::npos) << text;
}

}  // namespace
}  // namespace pilot_sim::test
