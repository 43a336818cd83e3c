#include "app/StopSignals.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace vlm::host {
namespace {

sigset_t stopSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

// Only async-signal-safe calls: this may run while other threads hold locks.
[[noreturn]] void forceExit(const char* why)
{
    const std::string line = std::string("velmora-host: ") + why + "; exiting now\n";
    const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
    ::_exit(1);
}

} // namespace

StopSignals::StopSignals(std::function<void()> stop, std::chrono::seconds force)
    : onStop(std::move(stop)), forceAfter(force)
{
    // A parent that ignored them (a shell starting background jobs does so
    // for SIGINT) would have them discarded before sigtimedwait sees them.
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    const sigset_t set = stopSignalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    watcher = std::thread([this] { watch(); });
}

StopSignals::~StopSignals()
{
    done();
    if (watcher.joinable())
        watcher.join();
}

int StopSignals::wait()
{
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return requested; });
    return signalNumber;
}

void StopSignals::request()
{
    noteRequest(0);
}

void StopSignals::done()
{
    std::lock_guard<std::mutex> lock(mutex);
    finished = true;
}

void StopSignals::noteRequest(int number)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (requested)
            return;
        requested = true;
        signalNumber = number;
        deadline = std::chrono::steady_clock::now() + forceAfter;
    }
    changed.notify_all();
    if (onStop)
        onStop();
}

void StopSignals::watch()
{
    const sigset_t set = stopSignalSet();
    // Short waits, so that done() and the deadline are noticed without a signal.
    const timespec slice{0, 200 * 1000 * 1000};
    for (;;) {
        const int number = ::sigtimedwait(&set, nullptr, &slice);
        bool alreadyRequested = false;
        bool overdue = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (finished)
                return;
            alreadyRequested = requested;
            overdue = requested && std::chrono::steady_clock::now() >= deadline;
        }
        if (number > 0) {
            if (alreadyRequested)
                forceExit("second stop signal");
            noteRequest(number);
        } else if (overdue) {
            forceExit("the orderly stop did not finish in time");
        }
    }
}

} // namespace vlm::host
