// Uses the library as a camera HAL does while its peers are killed and stopped; see docs/chaos.md.

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <random>

#include "Activities.h"
#include "Campaign.h"
#include "Peers.h"
#include "Program.h"
#include "VelChiDesktopHelper.h"
#include "Workload.h"

// For a leak checker: the bus library keeps memory of each attempt to reach a bus that is not there.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the checker's
extern "C" const char* __lsan_default_suppressions() {
    return "leak:sd_bus_new\n";
}

namespace {

struct Options {
    uint32_t rounds = 3;
    uint32_t seed = std::random_device()();
};

std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App cli(
        "Kills, stops and restarts the desktop service, the application and their bus at random moments "
        "while captures and frames go through the library. Prints what that did for each kind of fault, and "
        "fails on a hang, a crash, a call over its bound, or growth.");
    cli.add_option("--rounds", options.rounds, "how often each fault happens (default 3)")
        ->check(CLI::Range(1, 100000));
    cli.add_option("--seed", options.seed, "of the moments and the order (default: another each time)");
    return vel::sim::parseArguments(cli, argc, argv);
}

// Only for a thread that cannot say so itself.
void tellHang(int) {
    static constexpr char kText[] = "chaos: failed: it hangs: a round takes over two minutes\n";
    (void)!write(STDOUT_FILENO, kText, sizeof(kText) - 1);
    _exit(1);
}

int run(const Options& options) {
    vel::chaos::Peers peers;
    vel::chaos::CallMeter meter;
    vel::chaos::Workload workload({*VelChiDesktopHelper::getInstance(), meter});
    vel::chaos::Campaign campaign(peers, workload, meter, options.seed);
    try {
        campaign.run(options.rounds);
        campaign.print();
        return 0;
    } catch (const std::exception& error) {
        campaign.print();
        std::printf("chaos: failed: %s (seed %u)\n", error.what(), options.seed);
        _exit(1);  // threads that hang in a call cannot be waited for; the peers end with this process
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto code = parse(argc, argv, options)) return *code;
    (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);  // for whoever reads along, and for ends without a flush
    std::printf("seed %u\n", options.seed);
    signal(SIGALRM, tellHang);
    const int code = run(options);
    if (code == 0) std::printf("chaos: all is well\n");
    return code;
}
