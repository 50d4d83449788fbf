// kovractl sandbox: a private bpffs holding every map of the catalogue, for trying the services
// on any Linux machine without touching the machine's own maps; with --live, the desk's own
// kernel side fills them from real traffic.
#include "Sandbox.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>

#include <kovrasandbox/Bpffs.h>
#include <kovrasandbox/Clock.h>
#include <kovrasandbox/Maps.h>
#include <kovrasandbox/Seed.h>

#include "Commands.h"
#include "Replay.h"

// The live side is the desk's own stand-in for the platform's eBPF programs; a device build of
// kovractl, where the platform's programs fill the maps, has none and no --live.
#include "SandboxLive.h"

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

}  // namespace

int execCommand(std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    restoreSignals();
    execvp(argv[0], argv.data());
    const int err = errno;
    fprintf(stderr, "kovractl: sandbox: cannot run %s: %s\n", argv[0], strerror(err));
    return err == ENOENT ? 127 : 126;
}

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
    if (live) return runMeasured(*live, command);
#endif
    // The command replaces this process, so its exit status is the sandbox's.
    return execCommand(command);
}

}  // namespace kovra::tool
