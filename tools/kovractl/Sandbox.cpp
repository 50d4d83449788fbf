// kovractl sandbox: a private bpffs holding every map of the catalogue, for trying the services
// on any Linux machine without the kernel side and without touching the machine's own maps.
#include "Sandbox.h"

#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include "Commands.h"
#include "Seed.h"

namespace kovra::tool {
namespace {

constexpr char kBpffs[] = "/sys/fs/bpf";

[[noreturn]] void fail(const std::string& what) {
    throw ToolError(kExitEnvironment, "sandbox: " + what + ": " + strerror(errno));
}

// From here on this process and its children see a bpffs of their own at /sys/fs/bpf; the
// machine's (if it has one) stays as it is, and ours vanishes with the last of them.
void enterPrivateBpffs() {
    if (geteuid() != 0) {
        throw ToolError(kExitEnvironment,
                        "sandbox: needs root (CAP_SYS_ADMIN and CAP_BPF) to mount a private bpffs; "
                        "try: sudo kovractl sandbox");
    }
    if (unshare(CLONE_NEWNS) != 0) fail("unshare(CLONE_NEWNS)");
    // Without this the mount below would propagate back into the machine's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) fail("making / private");
    if (mount("bpf", kBpffs, "bpf", 0, nullptr) != 0) fail("mounting a bpffs at /sys/fs/bpf");
}

std::vector<char*> argvOf(std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    return argv;
}

}  // namespace

int runSandbox(const SandboxOptions& options) {
    enterPrivateBpffs();
    createCatalogueMaps();
    if (options.seed == "demo") seedDemo(monotonicNowNs());

    std::vector<std::string> command = options.command;
    if (command.empty()) {
        const char* shell = getenv("SHELL");
        command.push_back(shell != nullptr && *shell != '\0' ? shell : "/bin/sh");
        fprintf(stderr,
                "kovractl sandbox: private bpffs at %s with %zu maps%s; leave the shell to drop "
                "it\n",
                kBpffs, android::bpf::kPinnedMaps.size(),
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
