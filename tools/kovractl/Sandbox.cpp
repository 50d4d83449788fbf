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

// Inside, `kovractl` is this very binary, wherever it was built.
void putSelfOnPath() {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) return;
    std::string dir(self, static_cast<size_t>(length));
    dir.resize(dir.rfind('/'));
    const char* path = getenv("PATH");
    setenv("PATH", (dir + ":" + (path != nullptr ? path : "/usr/bin:/bin")).c_str(), 1);
}

std::vector<char*> argvOf(std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    return argv;
}

}  // namespace

int runSandbox(const SandboxOptions& options) {
    const std::string kind = options.seed.empty() ? "empty" : "seeded";
    if (const char* outer = getenv("KOVRA_SANDBOX"); outer != nullptr) {
        fprintf(stderr,
                "kovractl sandbox: warning: already inside a sandbox (%s); this one hides its maps "
                "until you leave it\n",
                outer);
    }
    enterPrivateBpffs();
    createCatalogueMaps();
    if (options.seed == "demo") seedDemo(monotonicNowNs());

    std::vector<std::string> command = options.command;
    if (command.empty()) {
        const char* shell = getenv("SHELL");
        command.push_back(shell != nullptr && *shell != '\0' ? shell : "/bin/sh");
        fprintf(stderr,
                "kovractl sandbox (%s): private bpffs at %s with %zu maps; `kovractl` here is "
                "this build's; leave the shell to drop it\n",
                kind.c_str(), kBpffs, android::bpf::kPinnedMaps.size());
        // The prompt says where you are: Debian's bash prompt shows debian_chroot, sh shows PS1.
        setenv("debian_chroot", ("kovra sandbox: " + kind).c_str(), 1);
        setenv("PS1", ("(kovra sandbox: " + kind + ") \\w\\$ ").c_str(), 1);
    }
    setenv("KOVRA_SANDBOX", kind.c_str(), 1);
    putSelfOnPath();
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
    // The command itself never reaches the parser: main() takes it off the command line.
    command->footer("COMMAND: everything after the sandbox's own options (or after --), passed on "
                    "untouched");
    onRun(command, ctx, [&ctx, opts] {
        opts->command = ctx.sandboxCommand;
        return runSandbox(*opts);
    });
}

}  // namespace kovra::tool
