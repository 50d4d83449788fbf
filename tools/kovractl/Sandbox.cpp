// kovractl sandbox: a private bpffs holding every map of the catalogue, for trying the services
// on any Linux machine without the kernel side and without touching the machine's own maps.
#include "Sandbox.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <kovrasandbox/Bpffs.h>
#include <kovrasandbox/Maps.h>
#include <kovrasandbox/Seed.h>

#include "Commands.h"

namespace kovra::tool {
namespace {

// From here on this process and its children see a bpffs of their own at /sys/fs/bpf holding
// every map of the catalogue; the machine's (if it has one) stays as it is, and ours vanishes
// with the last of them.
void standUp(bool seed) {
    const std::string problem = sandbox::enterPrivateBpffs();
    if (!problem.empty()) {
        const char* hint = geteuid() != 0 ? "; try: sudo kovractl sandbox" : "";
        throw ToolError(kExitEnvironment, "sandbox: " + problem + hint);
    }
    try {
        sandbox::createCatalogueMaps();
        if (seed) sandbox::seedDemo();
    } catch (const sandbox::Error& error) {
        throw ToolError(kExitEnvironment, std::string("sandbox: ") + error.what());
    }
}

std::vector<char*> argvOf(std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    return argv;
}

}  // namespace

int runSandbox(const SandboxOptions& options) {
    standUp(options.seed == "demo");

    std::vector<std::string> command = options.command;
    if (command.empty()) {
        const char* shell = getenv("SHELL");
        command.push_back(shell != nullptr && *shell != '\0' ? shell : "/bin/sh");
        fprintf(stderr,
                "kovractl sandbox: private bpffs at %s with %zu maps%s; leave the shell to drop "
                "it\n",
                sandbox::kBpffs, android::bpf::kPinnedMaps.size(),
                options.seed.empty() ? "" : ", demo data seeded");
    }
    setenv("KOVRA_SANDBOX", "1", 1);
    // The command replaces this process, so its exit status is the sandbox's.
    std::vector<char*> argv = argvOf(command);
    execvp(argv[0], argv.data());
    const int err = errno;
    fprintf(stderr, "kovractl: sandbox: cannot run %s: %s\n", argv[0], strerror(err));
    return err == ENOENT ? 127 : 126;
}

void addSandboxCommand(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<SandboxOptions>();
    CLI::App* command = app.add_subcommand(
            "sandbox",
            "As root: run COMMAND (default: a shell) with a private bpffs at /sys/fs/bpf that "
            "holds "
            "every map of the catalogue, empty or seeded; the machine's own maps are not touched. "
            "Exits with COMMAND's status");
    command->add_option("--seed", opts->seed, "Fill the maps with a data set")
            ->check(CLI::IsMember({"demo"}));
    command->add_option("command", opts->command, "The command to run, after --");
    onRun(command, ctx, [opts] { return runSandbox(*opts); });
}

}  // namespace kovra::tool
