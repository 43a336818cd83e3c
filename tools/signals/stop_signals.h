#pragma once

// How the command-line programs (pilot-rpc, pilot-sim) end: SIGINT and SIGTERM
// are never delivered to a handler, they are taken by sigwait or sigtimedwait
// in the main thread, which then shuts down in order.

#include <pthread.h>
#include <signal.h>

namespace velmora_signals {

/// SIGINT and SIGTERM.
inline sigset_t stop_signal_set()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

/// Blocks SIGINT and SIGTERM in the calling thread, so every thread started
/// from it afterwards has them blocked too and only a sigwait takes them; and
/// ignores SIGPIPE, so a reader or peer that went away ends a write, not the
/// process. Call first thing in main, before any thread starts. Returns the
/// set to wait on.
inline sigset_t block_stop_signals()
{
    const sigset_t set = stop_signal_set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return set;
}

}  // namespace velmora_signals
