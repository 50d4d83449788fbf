// kovractl sandbox: a private bpffs holding every map of the catalogue, for trying the services
// on any Linux machine without touching the machine's own maps; with --live, the desk's own
// kernel side fills them from real traffic.
#include "Sandbox.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>

#include <kovrasandbox/Bpffs.h>
#include <kovrasandbox/Child.h>
#include <kovrasandbox/Clock.h>
#include <kovrasandbox/Maps.h>
#include <kovrasandbox/Netns.h>
#include <kovrasandbox/Seed.h>

#include "Commands.h"
#include "Replay.h"

// The live side is the desk's own stand-in for the platform's eBPF programs; a device build of
// kovractl, where the platform's programs fill the maps, has none and no --live.
#ifdef KOVRA_LIVE_SIDE
#include <kovralive/Live.h>
#endif

namespace kovra::tool {
namespace {

// From here on this process and its children see a bpffs of their own at /sys/fs/bpf holding
// every map of the catalogue; the machine's (if it has one) stays as it is, and ours vanishes
// with the last of them.
void standUp(const SandboxOptions& options) {
    std::optional<Capture> capture;
    if (!options.seed.empty() && options.seed != "demo") {
        capture = readCaptureFile(options.seed);
        if (!options.rawStamps) rebaseStamps(*capture, sandbox::monotonicNowNs());
    }
    try {
        sandbox::enterPrivateBpffs();
        sandbox::createCatalogueMaps();
        if (options.seed == "demo") sandbox::seedDemo();
        if (capture) replay(*capture, true);
    } catch (const sandbox::Error& error) {
        const char* hint = geteuid() != 0 ? "; try: sudo kovractl sandbox" : "";
        throw ToolError(kExitEnvironment, std::string("sandbox: ") + error.what() + hint);
    }
}

// Inside, `kovractl` is this very binary, wherever it was built, and `kovra-traffic` the driver
// built or installed beside it (in the build tree, its own folder next to kovractl's).
void putSelfOnPath() {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) return;
    std::string dir(self, static_cast<size_t>(length));
    dir.resize(dir.rfind('/'));
    const std::string driver = dir.substr(0, dir.rfind('/')) + "/kovra-traffic";
    if (access((driver + "/kovra-traffic").c_str(), X_OK) == 0) dir += ":" + driver;
    const char* path = getenv("PATH");
    setenv("PATH", (dir + ":" + (path != nullptr ? path : "/usr/bin:/bin")).c_str(), 1);
}

// The command starts as it would from a shell: kovractl's own dispositions (SIGPIPE ignored, its
// abort and termination handlers), what it inherited ignored and any blocked signal are not
// passed on. The kernel's own call, as libc keeps its internal signals out of signal()'s reach,
// and glibc's posix_spawn() passes those on ignored.
void restoreSignals() {
    struct {
        void (*handler)(int);
        unsigned long flags;
        void (*restorer)();
        uint64_t mask;
    } byDefault{SIG_DFL, 0, nullptr, 0};
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig != SIGKILL && sig != SIGSTOP) {
            syscall(SYS_rt_sigaction, sig, &byDefault, nullptr, sizeof(byDefault.mask));
        }
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

std::vector<char*> argvOf(std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    return argv;
}

#ifdef KOVRA_LIVE_SIDE
// The live side: a network namespace of the sandbox's own, so that no traffic reaches the
// machine's network, and the programs attached to a private cgroup.
std::unique_ptr<live::LiveSide> goLive() {
    sandbox::PrivateNetwork network;
    try {
        sandbox::enterPrivateNetwork(network);
    } catch (const sandbox::Error& error) {
        throw ToolError(kExitEnvironment, std::string("sandbox: ") + error.what());
    }
    struct stat netns;
    if (stat("/proc/self/ns/net", &netns) == 0) {
        setenv(live::kNetnsEnv, std::to_string(netns.st_ino).c_str(), 1);
    }
    try {
        auto live = std::make_unique<live::LiveSide>();
        if (!live->swept().empty())
            fprintf(stderr, "kovractl sandbox: %s\n", live->swept().c_str());
        setenv(live::kCgroupEnv, live->cgroup().c_str(), 1);
        return live;
    } catch (const live::LiveError& e) {
        throw ToolError(kExitEnvironment, std::string("sandbox: ") + e.what());
    }
}

pid_t measured = 0;

void forwardSignal(int sig) {
    if (measured > 0) kill(measured, sig);
}

// Runs the command in the live side's cgroup and waits for it, so that the sandbox outlives it
// and takes the programs and the cgroup down afterwards. Returns the command's exit status.
// The command dies with the sandbox, and what it starts is re-parented to the sandbox rather
// than to the machine's init; if the sandbox is killed, the live side's guard ends the rest.
int runMeasured(const live::LiveSide& live, std::vector<char*>& argv) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t self = getpid();
    measured = fork();
    if (measured < 0)
        throw ToolError(kExitEnvironment, std::string("sandbox: fork: ") + strerror(errno));
    if (measured == 0) {
        sandbox::dieWithParent(self);
        restoreSignals();
        try {
            live::joinCgroup(live.cgroup());
        } catch (const live::LiveError& e) {
            fprintf(stderr, "kovractl: sandbox: %s\n", e.what());
            _exit(kExitEnvironment);
        }
        execvp(argv[0], argv.data());
        const int err = errno;
        fprintf(stderr, "kovractl: sandbox: cannot run %s: %s\n", argv[0], strerror(err));
        _exit(err == ENOENT ? 127 : 126);
    }
    // Like system(): the terminal's interrupt is the command's to handle; a termination is
    // passed on.
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    signal(SIGTERM, forwardSignal);
    signal(SIGHUP, forwardSignal);
    // Orphans of the command are reaped on the way; the guard, a child too, is not waited for.
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, 0)) != measured;) {
        if (pid < 0 && errno != EINTR) break;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

#endif

}  // namespace

int runSandbox(const SandboxOptions& options) {
    const std::string kind =
            std::string(options.live ? "live, " : "") + (options.seed.empty() ? "empty" : "seeded");
    if (const char* outer = getenv("KOVRA_SANDBOX"); outer != nullptr) {
        fprintf(stderr,
                "kovractl sandbox: warning: already inside a sandbox (%s); this one hides its maps "
                "until you leave it\n",
                outer);
    }
    standUp(options);
#ifdef KOVRA_LIVE_SIDE
    std::unique_ptr<live::LiveSide> live = options.live ? goLive() : nullptr;
#else
    const bool live = false;
#endif

    std::vector<std::string> command = options.command;
    if (command.empty()) {
        const char* shell = getenv("SHELL");
        command.push_back(shell != nullptr && *shell != '\0' ? shell : "/bin/sh");
        fprintf(stderr,
                "kovractl sandbox (%s): private bpffs at %s with %zu maps%s; `kovractl` here is "
                "this build's; leave the shell to drop it\n",
                kind.c_str(), sandbox::kBpffs, android::bpf::kPinnedMaps.size(),
                live ? ", live programs attached to the cgroup of this shell" : "");
        // The prompt says where you are: Debian's bash prompt shows debian_chroot, sh shows PS1.
        setenv("debian_chroot", ("kovra sandbox: " + kind).c_str(), 1);
        setenv("PS1", ("(kovra sandbox: " + kind + ") \\w\\$ ").c_str(), 1);
    }
    setenv("KOVRA_SANDBOX", kind.c_str(), 1);
    putSelfOnPath();
#ifdef KOVRA_LIVE_SIDE
    if (live) {
        std::vector<char*> argv = argvOf(command);
        return runMeasured(*live, argv);
    }
#endif
    // The command replaces this process, so its exit status is the sandbox's.
    std::vector<char*> argv = argvOf(command);
    restoreSignals();
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
