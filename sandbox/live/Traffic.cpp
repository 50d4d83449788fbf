#include "Traffic.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/tcp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>

#include <kovrasandbox/Netns.h>

#include "Live.h"

namespace kovra::traffic {
namespace {

uint64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// Set in a flow's child by the signals that stop every flow: each wait below then ends at once.
volatile sig_atomic_t stopping = 0;

void stopThisChild(int) {
    stopping = 1;
}

// Sleeps until `ns`, or until `deadline` when that is sooner; a stopping signal cuts it short.
void sleepUntil(uint64_t ns, uint64_t deadline) {
    const uint64_t now = nowNs();
    ns = std::min(ns, deadline);
    if (ns <= now || stopping) return;
    const uint64_t wait = ns - now;
    timespec ts{static_cast<time_t>(wait / 1000000000ull), static_cast<long>(wait % 1000000000ull)};
    nanosleep(&ts, nullptr);
}

int remainingMs(uint64_t deadline) {
    const uint64_t now = nowNs();
    return now >= deadline || stopping ? 0 : static_cast<int>((deadline - now) / 1000000 + 1);
}

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
volatile sig_atomic_t stopRequested = 0;

ino_t namespaceOf(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 ? st.st_ino : 0;
}

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
    if (ifindex == 0) throw sandbox::Error("no interface " + name);
    quietIpv6(name);
    sandbox::addIpv4(ifindex, address.c_str(), 24);
    sandbox::setLinkUp(ifindex);
}

// The far end of the veth pair: a network namespace held by a child that waits to be ended.
struct VethPeer {
    pid_t holder = -1;
    std::string app;  // the app side's interface, in the driver's namespace
    std::string appAddr;
    std::string peerAddr;

    void start() {
        const pid_t pid = getpid();
        const std::string subnet = "198." + std::to_string(18 + ((pid >> 8) & 1)) + "." +
                                   std::to_string(pid & 255) + ".";
        app = "kva" + std::to_string(pid);
        const std::string peer = "kvp" + std::to_string(pid);
        appAddr = subnet + "1";
        peerAddr = subnet + "2";
        int ready[2], go[2];
        if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(go, O_CLOEXEC) != 0) {
            throw std::runtime_error(std::string("pipe: ") + strerror(errno));
        }
        const pid_t parent = getpid();
        holder = fork();
        if (holder == 0) {
            live::dieWithParent(parent);
            for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) signal(sig, SIG_IGN);
            // Once the parent has moved the peer in: its address, and lo and the peer up.
            char byte = 0;
            bool ok = unshare(CLONE_NEWNET) == 0;
            if (write(ready[1], &ok, 1) != 1 || !ok || read(go[0], &byte, 1) != 1) _exit(1);
            try {
                configure(peer, peerAddr);
                sandbox::setLinkUp(if_nametoindex("lo"));
            } catch (const std::exception&) {
                ok = false;
            }
            if (write(ready[1], &ok, 1) != 1) _exit(1);
            pause();
            _exit(0);
        }
        close(ready[1]);
        close(go[0]);
        bool ok = false;
        if (holder < 0 || read(ready[0], &ok, 1) != 1 || !ok) {
            throw std::runtime_error("the veth peer's network namespace could not be made");
        }
        sandbox::createVethPair(app.c_str(), peer.c_str());
        const std::string ns = "/proc/" + std::to_string(holder) + "/ns/net";
        const int nsFd = open(ns.c_str(), O_RDONLY | O_CLOEXEC);
        if (nsFd < 0) sandbox::fail("opening", ns);
        try {
            sandbox::moveToNetns(if_nametoindex(peer.c_str()), nsFd);
        } catch (...) {
            close(nsFd);
            throw;
        }
        close(nsFd);
        configure(app, appAddr);
        const char byte = 1;
        if (write(go[1], &byte, 1) != 1 || read(ready[0], &ok, 1) != 1 || !ok) {
            throw std::runtime_error("the veth peer could not be configured");
        }
        close(ready[0]);
        close(go[1]);
    }

    // Enters the peer's namespace (in a receiving child).
    void enter() const {
        const std::string path = "/proc/" + std::to_string(holder) + "/ns/net";
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) throw std::runtime_error("setns");
        close(fd);
    }

    ~VethPeer() {
        if (holder > 0) {
            kill(holder, SIGKILL);
            waitpid(holder, nullptr, 0);
        }
    }
};

// Refuses every network namespace but the one its creator declared private in kNetnsEnv (the
// machine's own cannot always be told from /proc/1, which may be closed to us), and brings the
// loopback up.
void prepareNetwork() {
    const ino_t own = namespaceOf("/proc/self/ns/net");
    const char* declared = getenv(live::kNetnsEnv);
    if (own == 0 || declared == nullptr || std::to_string(own) != declared) {
        throw std::runtime_error(
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
        throw std::runtime_error(std::string("taking UID ") + std::to_string(uid) + ": " +
                                 strerror(errno));
    }
    live::dieWithParent(parent);
}

sockaddr_in addressOf(const std::string& ip, uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    inet_pton(AF_INET, ip.c_str(), &addr.sin_addr);
    return addr;
}

void setInt(int fd, int level, int name, int value) {
    setsockopt(fd, level, name, &value, sizeof(value));
}

void setTimeout(int fd, int name, int ms) {
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, name, &tv, sizeof(tv));
}

// A blocking send or receive waits at most 500 ms, and never past the deadline.
void boundTimeouts(int fd, uint64_t deadline) {
    const int ms = std::clamp(remainingMs(deadline), 1, 500);
    setTimeout(fd, SO_SNDTIMEO, ms);
    setTimeout(fd, SO_RCVTIMEO, ms);
}

bool readable(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) > 0;
}

// Waits for `fd` or `stop` to be readable; true when `fd` is.
bool awaitData(int fd, int stop, uint64_t deadline) {
    while (remainingMs(deadline) > 0) {
        pollfd p[2] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
        if (poll(p, 2, std::min(remainingMs(deadline), 1000)) < 0 && errno != EINTR) return false;
        if (p[0].revents != 0) return true;
        if (p[1].revents != 0) return false;
    }
    return false;
}

// What a receiving child reports: first its port, then what it read.
uint64_t receive(const Flow& flow, const std::string& ip, int stop, int report) {
    const uint64_t deadline = nowNs() + flow.limitMs * 1000000ull;
    const bool tcp = flow.protocol == Protocol::kTcp;
    const int fd = socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    sockaddr_in addr = addressOf(ip, 0);
    socklen_t len = sizeof(addr);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        (tcp && listen(fd, 128) != 0) ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        throw std::runtime_error(std::string("listening: ") + strerror(errno));
    }
    setInt(fd, SOL_SOCKET, SO_RCVBUF, 4 << 20);
    const uint16_t port = ntohs(addr.sin_port);
    if (write(report, &port, sizeof(port)) != sizeof(port)) _exit(1);
    std::vector<char> buffer(1 << 16);
    uint64_t received = 0;
    if (!tcp) {
        // The sender is done once `stop` closes; what is still on its way is read after it.
        while (awaitData(fd, stop, deadline) || readable(fd, 200)) {
            const ssize_t n = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (n > 0) received += static_cast<uint64_t>(n);
        }
        return received;
    }
    for (uint32_t c = 0; c < flow.connections && awaitData(fd, stop, deadline); ++c) {
        const int conn = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (conn < 0) break;
        if (flow.keepAlive) {
            setInt(conn, SOL_SOCKET, SO_KEEPALIVE, 1);
            setInt(conn, IPPROTO_TCP, TCP_KEEPIDLE, 1);
            setInt(conn, IPPROTO_TCP, TCP_KEEPINTVL, 1);
            setInt(conn, IPPROTO_TCP, TCP_KEEPCNT, 10);
        }
        while (awaitData(conn, stop, deadline)) {
            const ssize_t n = read(conn, buffer.data(), buffer.size());
            if (n <= 0) break;
            received += static_cast<uint64_t>(n);
        }
        close(conn);
    }
    close(fd);
    return received;
}

void send(const Flow& flow, const std::string& ip, uint16_t port, Sent& sent) {
    const uint64_t start = nowNs();
    const uint64_t deadline = start + flow.limitMs * 1000000ull;
    const bool tcp = flow.protocol == Protocol::kTcp;
    const sockaddr_in peer = addressOf(ip, port);
    const auto* to = reinterpret_cast<const sockaddr*>(&peer);
    std::vector<char> chunk(flow.chunk, 'k');
    uint64_t total = 0;  // over all connections, for the pacing
    auto pace = [&](int fd) {
        if (flow.rate != 0) sleepUntil(start + total * 1000000000ull / flow.rate, deadline);
        if (remainingMs(deadline) < 500) boundTimeouts(fd, deadline);
    };
    for (uint32_t c = 0; c < flow.connections && remainingMs(deadline) > 0; ++c) {
        const int fd = socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            sent.error = errno;
            return;
        }
        if (c == 0) {
            socklen_t len = sizeof(sent.cookie);
            getsockopt(fd, SOL_SOCKET, SO_COOKIE, &sent.cookie, &len);
        }
        boundTimeouts(fd, deadline);
        if (tcp) {
            setInt(fd, IPPROTO_TCP, TCP_NODELAY, 1);
            if (connect(fd, to, sizeof(peer)) != 0) {
                sent.error = errno;
                close(fd);
                return;
            }
        }
        ++sent.connections;
        for (uint64_t done = 0; done < flow.bytes && remainingMs(deadline) > 0;) {
            pace(fd);
            if (remainingMs(deadline) == 0) break;
            const size_t size = static_cast<size_t>(std::min<uint64_t>(flow.chunk, flow.bytes - done));
            const ssize_t n = tcp ? ::send(fd, chunk.data(), size, MSG_NOSIGNAL)
                                  : sendto(fd, chunk.data(), size, 0, to, sizeof(peer));
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (n < 0) {
                sent.error = errno;
                close(fd);
                return;
            }
            done += static_cast<uint64_t>(n);
            total += static_cast<uint64_t>(n);
            sent.bytes += static_cast<uint64_t>(n);
            ++sent.messages;
        }
        if (tcp) {
            sleepUntil(nowNs() + flow.holdMs * 1000000ull, deadline);
            // The peer closes once it has read everything: then all of it has arrived.
            shutdown(fd, SHUT_WR);
            boundTimeouts(fd, deadline);
            char sink[256];
            while (remainingMs(deadline) > 0) {
                const ssize_t n = read(fd, sink, sizeof(sink));
                if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) break;
            }
            tcp_info info{};
            socklen_t len = sizeof(info);
            if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0) {
                sent.retransmitted += info.tcpi_bytes_retrans;
            }
        }
        close(fd);
    }
}

// Runs `body` in a child that joined the cgroup; returns the child and the read end of its
// report pipe. The child first closes `parentOnly`: the write ends of the flows' stop pipes,
// whose end of file must reach each receiver when the parent closes them.
// The child dies with the thread that forked it, and a stopping signal (Ctrl-C reaches it too, or
// stop() passes one on) ends its flow early, with a report of what it did.
std::pair<pid_t, int> spawn(const std::string& cgroup, const std::vector<int>& parentOnly,
                            const std::function<void(int)>& body) {
    if (childCount == static_cast<sig_atomic_t>(kMaxChildren)) {
        throw std::runtime_error("at most " + std::to_string(kMaxFlows) + " flows at once");
    }
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) throw std::runtime_error(strerror(errno));
    const sigset_t blocked = stoppingSignals();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
    }
    if (pid == 0) {
        struct sigaction action {};
        action.sa_handler = stopThisChild;
        for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) sigaction(sig, &action, nullptr);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        close(report[0]);
        for (int fd : parentOnly) close(fd);
        try {
            live::dieWithParent(parent);
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
    if (stopRequested) kill(pid, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(report[1]);
    return {pid, report[0]};
}

template <typename T>
bool readAll(int fd, T& value) {
    ssize_t n;
    while ((n = read(fd, &value, sizeof(value))) < 0 && errno == EINTR) {
    }
    return n == static_cast<ssize_t>(sizeof(value));
}

uint64_t number(const std::string& key, const std::string& text, uint64_t max) {
    return parseNumber(key, text, max);
}

}  // namespace

uint64_t parseNumber(const std::string& name, const std::string& text, uint64_t max) {
    uint64_t value = 0;
    bool fits = !text.empty() && (text.size() == 1 || text[0] != '0');
    for (size_t i = 0; fits && i < text.size(); ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - '0';
        fits = digit <= 9 && value <= (max - digit) / 10;
        value = value * 10 + digit;
    }
    if (!fits) {
        throw std::invalid_argument(name + "=" + text + ": expected a number 0.." +
                                    std::to_string(max) + " (digits only, no leading zero)");
    }
    return value;
}

void stop() {
    stopRequested = 1;
    for (sig_atomic_t i = 0; i < childCount; ++i) kill(children[i], SIGTERM);
}

Flow parseFlow(const std::string& text) {
    Flow flow;
    bool hasUid = false, hasPeer = false;
    std::set<std::string> seen;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');) {
        const size_t eq = item.find('=');
        const std::string key = item.substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
        if (!seen.insert(key).second) throw std::invalid_argument("`" + key + "` given twice");
        if (key == "uid") {
            flow.uid = static_cast<uint32_t>(number(key, value, UINT32_MAX));
            hasUid = true;
        } else if (key == "peer") {
            flow.peerUid = static_cast<uint32_t>(number(key, value, UINT32_MAX));
            hasPeer = true;
        } else if (key == "proto" && (value == "tcp" || value == "udp")) {
            flow.protocol = value == "tcp" ? Protocol::kTcp : Protocol::kUdp;
        } else if (key == "route" && (value == "lo" || value == "veth")) {
            flow.route = value == "lo" ? Route::kLoopback : Route::kVeth;
        } else if (key == "bytes") {
            flow.bytes = number(key, value, kMaxBytes);
        } else if (key == "chunk") {
            flow.chunk = static_cast<uint32_t>(number(key, value, 65000));
        } else if (key == "rate") {
            flow.rate = number(key, value, kMaxBytes);
        } else if (key == "conns") {
            flow.connections = static_cast<uint32_t>(number(key, value, kMaxConnections));
        } else if (key == "hold") {
            flow.holdMs = static_cast<uint32_t>(number(key, value, kMaxLimitMs));
        } else if (key == "keepalive") {
            flow.keepAlive = number(key, value, 1) == 1;
        } else if (key == "limit") {
            flow.limitMs = static_cast<uint32_t>(number(key, value, kMaxLimitMs));
        } else {
            throw std::invalid_argument("unknown flow setting `" + item + "`");
        }
    }
    if (!hasUid || !hasPeer) throw std::invalid_argument("a flow needs uid= and peer=");
    if (flow.chunk == 0 || flow.connections == 0 || flow.limitMs == 0) {
        throw std::invalid_argument("chunk, conns and limit must be at least 1");
    }
    return flow;
}

std::vector<Sent> run(const std::vector<Flow>& flows, const std::string& cgroup) {
    if (flows.size() > kMaxFlows) {
        throw std::runtime_error("at most " + std::to_string(kMaxFlows) + " flows at once");
    }
    childCount = 0;
    prepareNetwork();
    VethPeer veth;
    if (std::any_of(flows.begin(), flows.end(), [](const Flow& f) { return f.route == Route::kVeth; })) {
        veth.start();
    }
    struct Running {
        pid_t receiver, sender;
        int fromReceiver, fromSender, stop;
    };
    std::vector<Running> running;
    std::vector<int> parentOnly;
    std::vector<Sent> sent(flows.size());
    for (size_t i = 0; i < flows.size() && !stopRequested; ++i) {
        const Flow& flow = flows[i];
        const bool overVeth = flow.route == Route::kVeth;
        const std::string ip = overVeth ? veth.peerAddr : "127.0.0.1";
        sent[i].ifindex = if_nametoindex(overVeth ? veth.app.c_str() : "lo");
        int stop[2];
        if (pipe2(stop, O_CLOEXEC) != 0) throw std::runtime_error(strerror(errno));
        parentOnly.push_back(stop[1]);
        auto [receiver, fromReceiver] = spawn(cgroup, parentOnly, [&, stopRead = stop[0]](int report) {
            if (overVeth) veth.enter();
            dropTo(flow.peerUid);
            const uint64_t received = receive(flow, ip, stopRead, report);
            if (write(report, &received, sizeof(received)) != sizeof(received)) _exit(1);
        });
        close(stop[0]);
        uint16_t port = 0;
        readAll(fromReceiver, port);
        sent[i].port = port;
        auto [sender, fromSender] = spawn(cgroup, parentOnly, [&, port](int report) {
            dropTo(flow.uid);
            const uint64_t begin = nowNs();
            Sent result = sent[i];
            if (port == 0) result.error = ECONNREFUSED;
            else send(flow, ip, port, result);
            result.seconds = static_cast<double>(nowNs() - begin) / 1e9;
            if (write(report, &result, sizeof(result)) != sizeof(result)) _exit(1);
        });
        running.push_back({receiver, sender, fromReceiver, fromSender, stop[1]});
    }
    for (size_t i = 0; i < running.size(); ++i) {
        const Running& r = running[i];
        Sent result;
        if (readAll(r.fromSender, result)) {
            result.port = sent[i].port;
            sent[i] = result;
        } else {
            sent[i].error = EPIPE;
        }
        close(r.stop);
        readAll(r.fromReceiver, sent[i].received);
        close(r.fromSender);
        close(r.fromReceiver);
        waitpid(r.sender, nullptr, 0);
        waitpid(r.receiver, nullptr, 0);
    }
    childCount = 0;
    stopRequested = 0;
    return sent;
}

std::string table(const std::vector<Flow>& flows, const std::vector<Sent>& sent) {
    std::string out = "flow  uid    peer   proto route ifindex conns bytes_sent  messages  "
                      "retrans  received    seconds  cookie  error\n";
    for (size_t i = 0; i < flows.size(); ++i) {
        const Flow& f = flows[i];
        const Sent& s = sent[i];
        char line[256];
        snprintf(line, sizeof(line),
                 "%-5zu %-6u %-6u %-5s %-5s %-7u %-5u %-11llu %-9llu %-8llu %-11llu %-8.2f %-7llu %s\n",
                 i, f.uid, f.peerUid, f.protocol == Protocol::kTcp ? "tcp" : "udp",
                 f.route == Route::kLoopback ? "lo" : "veth", s.ifindex, s.connections,
                 static_cast<unsigned long long>(s.bytes),
                 static_cast<unsigned long long>(s.messages),
                 static_cast<unsigned long long>(s.retransmitted),
                 static_cast<unsigned long long>(s.received), s.seconds,
                 static_cast<unsigned long long>(s.cookie), s.error == 0 ? "-" : strerror(s.error));
        out += line;
    }
    return out;
}

std::string json(const std::vector<Flow>& flows, const std::vector<Sent>& sent) {
    std::ostringstream out;
    out << "[";
    for (size_t i = 0; i < flows.size(); ++i) {
        const Flow& f = flows[i];
        const Sent& s = sent[i];
        out << (i == 0 ? "" : ",") << "\n  {\"uid\": " << f.uid << ", \"peer\": " << f.peerUid
            << ", \"proto\": \"" << (f.protocol == Protocol::kTcp ? "tcp" : "udp")
            << "\", \"route\": \"" << (f.route == Route::kLoopback ? "lo" : "veth")
            << "\", \"ifindex\": " << s.ifindex << ", \"rate\": " << f.rate
            << ", \"connections\": " << s.connections << ", \"bytes\": " << s.bytes
            << ", \"messages\": " << s.messages << ", \"retransmitted\": " << s.retransmitted
            << ", \"received\": " << s.received
            << ", \"seconds\": " << s.seconds << ", \"cookie\": " << s.cookie
            << ", \"port\": " << s.port << ", \"error\": "
            << (s.error == 0 ? "null" : "\"" + std::string(strerror(s.error)) + "\"") << "}";
    }
    out << "\n]\n";
    return out.str();
}

}  // namespace kovra::traffic
