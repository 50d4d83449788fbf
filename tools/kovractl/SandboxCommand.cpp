// kovractl sandbox as the command line declares it; what it does is runSandbox() (Sandbox.h).
#include "Commands.h"
#include "Sandbox.h"

namespace kovra::tool {
namespace {

constexpr char kSandboxHelp[] =
        "As root: run COMMAND (default: a shell) with a private bpffs at /sys/fs/bpf that holds "
        "every map of the catalogue, empty or seeded; the machine's own maps are not touched. "
        "Exits with COMMAND's status";

}  // namespace

void addSandboxCommand(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<SandboxOptions>();
    CLI::App* command = app.add_subcommand("sandbox", kSandboxHelp);
    command->add_option("--seed", opts->seed,
                        "Fill the maps: `demo`, the demo data set, or FILE, a capture "
                        "(`kovractl -j dump`), whose CLOCK_MONOTONIC stamps are shifted so that "
                        "each record keeps the age it had at capture")
            ->type_name("demo|FILE");
    command->add_flag("--raw-stamps", opts->rawStamps,
                      "With --seed FILE: keep the capture's stamps as they are");
#ifdef KOVRA_LIVE_SIDE
    command->add_flag("--live", opts->live,
                      "Also a private network namespace and the live kernel side: the project's "
                      "eBPF programs, attached to a private cgroup that COMMAND runs in, fill the "
                      "maps from COMMAND's traffic (see docs/live.md)");
#endif
    // The command's first word ends the sandbox's options: from there on every word is the
    // command's, so `kovractl sandbox kovractl stats uids -j` gives -j to the inner command. A
    // `--` before it is left over as an extra, the only one the sandbox takes.
    command->add_option("COMMAND", opts->command,
                        "Everything after the sandbox's own options (or after --), passed on "
                        "untouched")
            ->allow_extra_args();
    command->positionals_at_end()->allow_extras();
    onRun(command, ctx, [opts] { return runSandbox(*opts); });
}

}  // namespace kovra::tool
