#include <kovralive/Traffic.h>

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include <kovralive/Live.h>
#include <kovrasandbox/Child.h>
#include <kovrasandbox/Clock.h>
#include <kovrasandbox/Netns.h>

#include "Children.h"
#include "Ends.h"

namespace kovra::traffic {
namespace {

ino_t namespaceOf(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 ? st.st_ino : 0;
}

// Refuses every network namespace but the one its creator declared private in kNetnsEnv (the
// machine's own cannot always be told from /proc/1, which may be closed to us), and brings the
// loopback up.
void prepareNetwork() {
    const ino_t own = namespaceOf("/proc/self/ns/net");
    const char* declared = getenv(live::kNetnsEnv);
    if (own == 0 || declared == nullptr || std::to_string(own) != declared) {
        throw live::LiveError(
                "refusing to send traffic outside the live sandbox's own network namespace; run "
                "inside `kovractl sandbox --live`");
    }
    sandbox::setLinkUp(if_nametoindex("lo"));
}

// Changing credentials clears the parent-death signal: armed again after.
void dropTo(uint32_t uid) {
    const pid_t parent = getppid();
    if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 ||
        setresuid(uid, uid, uid) != 0) {
        sandbox::fail("taking", "UID " + std::to_string(uid));
    }
    sandbox::dieWithParent(parent);
}

template <typename T>
bool readAll(int fd, T& value) {
    ssize_t n;
    while ((n = read(fd, &value, sizeof(value))) < 0 && errno == EINTR) {
    }
    return n == static_cast<ssize_t>(sizeof(value));
}

// A report goes whole or not at all: a child that cannot write it ends without one.
template <typename T>
void writeReport(int fd, const T& report) {
    if (write(fd, &report, sizeof(report)) != static_cast<ssize_t>(sizeof(report))) _exit(1);
}

}  // namespace

std::vector<Sent> run(const std::vector<Flow>& flows, const std::string& cgroup) {
    if (flows.size() > kMaxFlows) {
        throw live::LiveError("at most " + std::to_string(kMaxFlows) + " flows at once");
    }
    forgetChildren();
    prepareNetwork();
    // A veth pair of the driver's own, named and addressed by its pid, so that drivers in
    // sandboxes side by side never collide.
    const pid_t pid = getpid();
    const std::string subnet =
            "198." + std::to_string(18 + ((pid >> 8) & 1)) + "." + std::to_string(pid & 255) + ".";
    const std::string vethApp = "kva" + std::to_string(pid), peerAddr = subnet + "2";
    std::optional<sandbox::VethPeer> veth;
    if (std::any_of(flows.begin(), flows.end(),
                    [](const Flow& f) { return f.route == Route::kVeth; })) {
        veth.emplace(vethApp, "kvp" + std::to_string(pid), subnet + "1", peerAddr);
    }
    struct Running {
        pid_t receiver, sender;
        int fromReceiver, fromSender, stop;
    };
    std::vector<Running> running;
    std::vector<int> parentOnly;
    std::vector<Sent> sent(flows.size());
    for (size_t i = 0; i < flows.size() && !stopRequested(); ++i) {
        const Flow& flow = flows[i];
        const bool overVeth = flow.route == Route::kVeth;
        const std::string ip = overVeth ? peerAddr : "127.0.0.1";
        sent[i].ifindex = if_nametoindex(overVeth ? vethApp.c_str() : "lo");
        int stop[2];
        if (pipe2(stop, O_CLOEXEC) != 0) sandbox::fail("pipe for", "a flow");
        parentOnly.push_back(stop[1]);
        auto [receiver, fromReceiver] =
                spawn(cgroup, parentOnly, [&, stopRead = stop[0]](int report) {
                    if (overVeth) veth->enter();
                    dropTo(flow.peerUid);
                    writeReport(report, receive(flow, ip, stopRead, report));
                });
        close(stop[0]);
        uint16_t port = 0;
        readAll(fromReceiver, port);
        sent[i].port = port;
        // A receiver that could not listen reports why; its sender then has nothing to send to.
        auto [sender, fromSender] = spawn(cgroup, parentOnly, [&, port](int report) {
            dropTo(flow.uid);
            const uint64_t begin = sandbox::monotonicNowNs();
            SenderReport result = port == 0 ? SenderReport{} : send(flow, ip, port);
            result.seconds = static_cast<double>(sandbox::monotonicNowNs() - begin) / 1e9;
            writeReport(report, result);
        });
        running.push_back({receiver, sender, fromReceiver, fromSender, stop[1]});
    }
    for (size_t i = 0; i < running.size(); ++i) {
        const Running& r = running[i];
        SenderReport sender;
        if (readAll(r.fromSender, sender)) {
            sent[i].bytes = sender.bytes;
            sent[i].messages = sender.messages;
            sent[i].retransmitted = sender.retransmitted;
            sent[i].connections = sender.connections;
            sent[i].cookie = sender.cookie;
            sent[i].error = sender.error;
            sent[i].seconds = sender.seconds;
        } else {
            sent[i].error = EPIPE;
        }
        close(r.stop);
        ReceiverReport receiver;
        if (readAll(r.fromReceiver, receiver)) {
            sent[i].received = receiver.received;
            sent[i].peerError = receiver.error;
        }
        close(r.fromSender);
        close(r.fromReceiver);
        waitpid(r.sender, nullptr, 0);
        waitpid(r.receiver, nullptr, 0);
    }
    forgetChildren();
    return sent;
}

}  // namespace kovra::traffic
