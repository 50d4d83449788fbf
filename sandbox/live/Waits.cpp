#include "Waits.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>

#include <kovrasandbox/Clock.h>

namespace kovra::traffic {
namespace {

// Set by the signals that stop every flow: each wait then ends at once.
volatile sig_atomic_t stopping = 0;

void markStopping(int) {
    stopping = 1;
}

void setTimeout(int fd, int name, int ms) {
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, name, &tv, sizeof(tv));
}

}  // namespace

void stopOnSignals() {
    struct sigaction action {};
    action.sa_handler = markStopping;
    for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) sigaction(sig, &action, nullptr);
}

void sleepUntil(uint64_t ns, uint64_t deadline) {
    const uint64_t now = sandbox::monotonicNowNs();
    ns = std::min(ns, deadline);
    if (ns <= now || stopping) return;
    const uint64_t wait = ns - now;
    timespec ts{static_cast<time_t>(wait / 1000000000ull), static_cast<long>(wait % 1000000000ull)};
    nanosleep(&ts, nullptr);
}

int remainingMs(uint64_t deadline) {
    const uint64_t now = sandbox::monotonicNowNs();
    return now >= deadline || stopping ? 0 : static_cast<int>((deadline - now) / 1000000 + 1);
}

void boundTimeouts(int fd, uint64_t deadline) {
    const int ms = std::clamp(remainingMs(deadline), 1, 500);
    setTimeout(fd, SO_SNDTIMEO, ms);
    setTimeout(fd, SO_RCVTIMEO, ms);
}

bool readable(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) > 0;
}

bool awaitData(int fd, int stop, uint64_t deadline) {
    while (remainingMs(deadline) > 0) {
        pollfd p[2] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
        if (poll(p, 2, std::min(remainingMs(deadline), 1000)) < 0 && errno != EINTR) return false;
        if (p[0].revents != 0) return true;
        if (p[1].revents != 0) return false;
    }
    return false;
}

}  // namespace kovra::traffic
