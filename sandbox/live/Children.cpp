#include "Children.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <kovralive/Live.h>
#include <kovralive/Traffic.h>
#include <kovrasandbox/Child.h>

#include "Waits.h"

namespace kovra::traffic {
namespace {

// The signals that stop the flows, blocked while a child is forked and registered.
sigset_t stoppingSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) sigaddset(&set, sig);
    return set;
}

// The children of the flows that run, for stop(), which a signal handler calls.
constexpr size_t kMaxChildren = 2 * kMaxFlows;
volatile sig_atomic_t children[kMaxChildren];
volatile sig_atomic_t childCount = 0;
volatile sig_atomic_t stopping = 0;

}  // namespace

std::pair<pid_t, int> spawn(const std::string& cgroup, const std::vector<int>& parentOnly,
                            const std::function<void(int)>& body) {
    if (childCount == static_cast<sig_atomic_t>(kMaxChildren)) {
        throw live::LiveError("at most " + std::to_string(kMaxFlows) + " flows at once");
    }
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) sandbox::fail("pipe for", "a flow's report");
    const sigset_t blocked = stoppingSignals();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        sandbox::fail("fork for", "a flow");
    }
    if (pid == 0) {
        stopOnSignals();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        close(report[0]);
        for (int fd : parentOnly) close(fd);
        try {
            sandbox::dieWithParent(parent);
            live::joinCgroup(cgroup);
            body(report[1]);
        } catch (const std::exception& e) {
            fprintf(stderr, "kovra-traffic: %s\n", e.what());
            _exit(1);
        }
        _exit(0);
    }
    children[childCount] = pid;
    childCount = childCount + 1;
    if (stopping) kill(pid, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(report[1]);
    return {pid, report[0]};
}

void stop() {
    stopping = 1;
    for (sig_atomic_t i = 0; i < childCount; ++i) kill(children[i], SIGTERM);
}

bool stopRequested() {
    return stopping != 0;
}

void forgetChildren() {
    childCount = 0;
    stopping = 0;
}

}  // namespace kovra::traffic
