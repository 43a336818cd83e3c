// velmora-chaos: the whole gateway (broker, simulator, host with the plug-in)
// under load while faults fire, then a check that every request and command
// got exactly one answer or a documented refusal, that the host's memory
// stayed bounded, and that it ran throughout and stopped cleanly.

#include <signal.h>

#include <cstdio>
#include <exception>

#include "ChaosRun.h"

int main(int argc, char** argv)
{
    std::optional<vlm::chaos::Settings> settings;
    try {
        settings = vlm::chaos::parseSettings(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "velmora-chaos: %s (see --help)\n", e.what());
        return 2;
    }
    if (!settings) {
        std::fputs(vlm::chaos::usage().c_str(), stdout);
        return 0;
    }
    // A peer that goes away mid-write must be an error code, not the end of the driver.
    ::signal(SIGPIPE, SIG_IGN);
    try {
        vlm::chaos::ChaosRun run(*settings);
        return run.run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "velmora-chaos: %s\n", e.what());
        return 1;
    }
}
