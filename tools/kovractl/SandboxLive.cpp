// The live sandbox (--live): a network namespace of its own and the desk's kernel side, whose
// programs fill the maps from the traffic of the command, run in their cgroup. Only in a build
// with the live side.
#ifdef KOVRA_LIVE_SIDE
#include "SandboxLive.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kovrasandbox/Child.h>
#include <kovrasandbox/Netns.h>

#include "Sandbox.h"
#include "ToolError.h"

namespace kovra::tool {
namespace {

pid_t measured = 0;

void forwardSignal(int sig) {
    if (measured > 0) kill(measured, sig);
}

}  // namespace

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

// Runs the command in the live side's cgroup and waits for it, so that the sandbox outlives it
// and takes the programs and the cgroup down afterwards. Returns the command's exit status.
// The command dies with the sandbox, and what it starts is re-parented to the sandbox rather
// than to the machine's init; if the sandbox is killed, the live side's guard ends the rest.
int runMeasured(const live::LiveSide& live, std::vector<std::string>& command) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t self = getpid();
    measured = fork();
    if (measured < 0)
        throw ToolError(kExitEnvironment, std::string("sandbox: fork: ") + strerror(errno));
    if (measured == 0) {
        sandbox::dieWithParent(self);
        try {
            live::joinCgroup(live.cgroup());
        } catch (const live::LiveError& e) {
            fprintf(stderr, "kovractl: sandbox: %s\n", e.what());
            _exit(kExitEnvironment);
        }
        _exit(execCommand(command));
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

}  // namespace kovra::tool
#endif
