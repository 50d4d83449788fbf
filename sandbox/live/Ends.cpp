#include "Ends.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include <kovrasandbox/Clock.h>

#include "Waits.h"

namespace kovra::traffic {
namespace {

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

}  // namespace

ReceiverReport receive(const Flow& flow, const std::string& ip, int stop, int report) {
    const uint64_t deadline = sandbox::monotonicNowNs() + flow.limitMs * 1000000ull;
    const bool tcp = flow.protocol == Protocol::kTcp;
    const int fd = socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    sockaddr_in addr = addressOf(ip, 0);
    socklen_t len = sizeof(addr);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        (tcp && listen(fd, 128) != 0) ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        const ReceiverReport failed{0, errno};
        const uint16_t none = 0;
        if (write(report, &none, sizeof(none)) != sizeof(none)) _exit(1);
        return failed;
    }
    setInt(fd, SOL_SOCKET, SO_RCVBUF, 4 << 20);
    const uint16_t port = ntohs(addr.sin_port);
    if (write(report, &port, sizeof(port)) != sizeof(port)) _exit(1);
    std::vector<char> buffer(1 << 16);
    ReceiverReport done;
    if (!tcp) {
        // The sender is done once `stop` closes; what is still on its way is read after it.
        while (awaitData(fd, stop, deadline) || readable(fd, 200)) {
            const ssize_t n = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (n > 0) done.received += static_cast<uint64_t>(n);
        }
        return done;
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
            done.received += static_cast<uint64_t>(n);
        }
        close(conn);
    }
    close(fd);
    return done;
}

SenderReport send(const Flow& flow, const std::string& ip, uint16_t port) {
    SenderReport sent;
    const uint64_t start = sandbox::monotonicNowNs();
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
            return sent;
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
                return sent;
            }
        }
        ++sent.connections;
        for (uint64_t done = 0; done < flow.bytes && remainingMs(deadline) > 0;) {
            pace(fd);
            if (remainingMs(deadline) == 0) break;
            const size_t size =
                    static_cast<size_t>(std::min<uint64_t>(flow.chunk, flow.bytes - done));
            const ssize_t n = tcp ? ::send(fd, chunk.data(), size, MSG_NOSIGNAL)
                                  : sendto(fd, chunk.data(), size, 0, to, sizeof(peer));
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (n < 0) {
                sent.error = errno;
                close(fd);
                return sent;
            }
            done += static_cast<uint64_t>(n);
            total += static_cast<uint64_t>(n);
            sent.bytes += static_cast<uint64_t>(n);
            ++sent.messages;
        }
        if (tcp) {
            sleepUntil(sandbox::monotonicNowNs() + flow.holdMs * 1000000ull, deadline);
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
    return sent;
}

}  // namespace kovra::traffic
