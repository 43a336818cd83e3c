#include "support/SpawnLogged.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <stdexcept>

namespace vlm::test {

pid_t spawnLogged(const std::vector<std::string>& args, const std::string& logPath, bool dieWithParentThread,
                  int inputFd)
{
    std::vector<char*> argv;
    for (const auto& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    const int logFd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (logFd < 0)
        throw std::runtime_error("cannot open " + logPath);
    const pid_t parent = ::getpid();
    const long maxFd = ::sysconf(_SC_OPEN_MAX);
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Only async-signal-safe calls from here to exec: the test has threads.
        if (dieWithParentThread) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent)
                ::_exit(127);
        }
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        if (inputFd >= 0)
            ::dup2(inputFd, STDIN_FILENO);
        ::dup2(logFd, STDOUT_FILENO);
        ::dup2(logFd, STDERR_FILENO);
        if (::close_range(STDERR_FILENO + 1, ~0U, 0) != 0)
            for (long fd = STDERR_FILENO + 1; fd < maxFd; ++fd)
                ::close(static_cast<int>(fd));
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(logFd);
    if (pid < 0)
        throw std::runtime_error("fork failed for " + args.front());
    return pid;
}

} // namespace vlm::test
