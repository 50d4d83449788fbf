// The far end of a veth pair in a namespace of its own, held by a child: see Netns.h.
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kovrasandbox/Child.h"
#include "kovrasandbox/Netns.h"

namespace kovra::sandbox {
namespace {

// Keeps an interface from sending IPv6 neighbour discovery of its own (traffic of no app), where
// the kernel has IPv6 at all.
void quietIpv6(const std::string& interface) {
    const std::string knob = "/proc/sys/net/ipv6/conf/" + interface + "/disable_ipv6";
    if (FILE* file = fopen(knob.c_str(), "w")) {
        fputs("1", file);
        fclose(file);
    }
}

// Gives the named interface an address and brings it up.
void configure(const std::string& name, const std::string& address) {
    const unsigned ifindex = if_nametoindex(name.c_str());
    if (ifindex == 0) throw Error("no interface " + name);
    quietIpv6(name);
    addIpv4(ifindex, address.c_str(), 24);
    setLinkUp(ifindex);
}

int openNetns(pid_t holder) {
    const std::string path = "/proc/" + std::to_string(holder) + "/ns/net";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("opening", path);
    return fd;
}

// The holder: a namespace of its own, then, once the caller has moved the far end in, its
// address and lo up; then it waits to be ended, deaf to the terminal's signals.
[[noreturn]] void holdFarEnd(pid_t parent, int ready, int go, const std::string& far,
                             const std::string& address) {
    dieWithParent(parent);
    for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) signal(sig, SIG_IGN);
    char byte = 0;
    bool ok = unshare(CLONE_NEWNET) == 0;
    if (write(ready, &ok, 1) != 1 || !ok || read(go, &byte, 1) != 1) _exit(1);
    try {
        configure(far, address);
        setLinkUp(if_nametoindex("lo"));
    } catch (const Error&) {
        ok = false;
    }
    if (write(ready, &ok, 1) != 1) _exit(1);
    pause();
    _exit(0);
}

}  // namespace

VethPeer::VethPeer(const std::string& near, const std::string& far, const std::string& nearAddress,
                   const std::string& farAddress) {
    int ready[2], go[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(go, O_CLOEXEC) != 0) fail("pipe for", far);
    const pid_t parent = getpid();
    mHolder = fork();
    if (mHolder == 0) holdFarEnd(parent, ready[1], go[0], far, farAddress);
    close(ready[1]);
    close(go[0]);
    bool ok = false;
    try {
        if (mHolder < 0 || read(ready[0], &ok, 1) != 1 || !ok) {
            throw Error("the network namespace of " + far + " could not be made");
        }
        createVethPair(near.c_str(), far.c_str());
        const int netns = openNetns(mHolder);
        try {
            moveToNetns(if_nametoindex(far.c_str()), netns);
        } catch (const Error&) {
            close(netns);
            throw;
        }
        close(netns);
        configure(near, nearAddress);
        const char byte = 1;
        if (write(go[1], &byte, 1) != 1 || read(ready[0], &ok, 1) != 1 || !ok) {
            throw Error(far + " could not be configured in its namespace");
        }
    } catch (const Error&) {
        close(ready[0]);
        close(go[1]);
        end();
        throw;
    }
    close(ready[0]);
    close(go[1]);
}

VethPeer::~VethPeer() {
    end();
}

void VethPeer::end() {
    if (mHolder > 0) {
        kill(mHolder, SIGKILL);
        waitpid(mHolder, nullptr, 0);
    }
    mHolder = -1;
}

void VethPeer::enter() const {
    const int netns = openNetns(mHolder);
    const int entered = setns(netns, CLONE_NEWNET);
    close(netns);
    if (entered != 0) fail("entering the network namespace of", "a veth peer");
}

}  // namespace kovra::sandbox
