#include "Netns.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace kovra::test {
namespace {

// One rtnetlink request under construction: the header, the message's fixed part, then
// attributes, which may nest.
class Request {
  public:
    Request(uint16_t type, uint16_t flags) {
        header()->nlmsg_len = NLMSG_LENGTH(0);
        header()->nlmsg_type = type;
        header()->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | flags;
    }

    template <typename T>
    void put(const T& fixed) {
        append(&fixed, sizeof(fixed));
    }

    void attribute(uint16_t type, const void* data, size_t size) {
        const rtattr head{static_cast<unsigned short>(RTA_LENGTH(size)), type};
        append(&head, sizeof(head));
        append(data, size);
    }
    void attribute(uint16_t type, const char* text) { attribute(type, text, strlen(text) + 1); }

    // Opens a nested attribute; close() sets its length once everything inside is added.
    size_t open(uint16_t type) {
        const size_t at = NLMSG_ALIGN(header()->nlmsg_len);
        attribute(type, nullptr, 0);
        return at;
    }
    void close(size_t at) {
        reinterpret_cast<rtattr*>(mBuffer + at)->rta_len =
                static_cast<unsigned short>(header()->nlmsg_len - at);
    }

    nlmsghdr* header() { return reinterpret_cast<nlmsghdr*>(mBuffer); }

  private:
    void append(const void* data, size_t size) {
        const size_t at = NLMSG_ALIGN(header()->nlmsg_len);
        if (at + size > sizeof(mBuffer)) abort();
        if (size != 0) memcpy(mBuffer + at, data, size);
        header()->nlmsg_len = static_cast<uint32_t>(at + size);
    }

    alignas(nlmsghdr) char mBuffer[512] = {};
};

// Sends `request` to the kernel and waits for its acknowledgement: 0 or -errno.
int send(Request& request) {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) return -errno;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    int status = -EPROTO;
    if (sendto(fd, request.header(), request.header()->nlmsg_len, 0,
               reinterpret_cast<sockaddr*>(&kernel), sizeof(kernel)) < 0) {
        status = -errno;
    } else {
        alignas(nlmsghdr) char reply[1024];
        const ssize_t size = recv(fd, reply, sizeof(reply), 0);
        const auto* head = reinterpret_cast<const nlmsghdr*>(reply);
        if (size < 0) {
            status = -errno;
        } else if (NLMSG_OK(head, static_cast<size_t>(size)) && head->nlmsg_type == NLMSG_ERROR) {
            status = static_cast<const nlmsgerr*>(NLMSG_DATA(head))->error;
        }
    }
    ::close(fd);
    return status;
}

int createVethPair(const char* name, const char* peer) {
    Request request(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
    request.put(ifinfomsg{});
    request.attribute(IFLA_IFNAME, name);
    const size_t linkInfo = request.open(IFLA_LINKINFO);
    request.attribute(IFLA_INFO_KIND, "veth");
    const size_t data = request.open(IFLA_INFO_DATA);
    const size_t peerInfo = request.open(VETH_INFO_PEER);
    request.put(ifinfomsg{});
    request.attribute(IFLA_IFNAME, peer);
    request.close(peerInfo);
    request.close(data);
    request.close(linkInfo);
    return send(request);
}

int setUp(unsigned ifindex) {
    Request request(RTM_NEWLINK, 0);
    ifinfomsg link{};
    link.ifi_index = static_cast<int>(ifindex);
    link.ifi_flags = IFF_UP;
    link.ifi_change = IFF_UP;
    request.put(link);
    return send(request);
}

int addIpv4(unsigned ifindex, const char* address, uint8_t prefixLength) {
    Request request(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL);
    ifaddrmsg addr{};
    addr.ifa_family = AF_INET;
    addr.ifa_prefixlen = prefixLength;
    addr.ifa_index = ifindex;
    request.put(addr);
    const in_addr_t ip = inet_addr(address);
    request.attribute(IFA_LOCAL, &ip, sizeof(ip));
    request.attribute(IFA_ADDRESS, &ip, sizeof(ip));
    return send(request);
}

std::string failed(const char* step, int status) {
    return std::string(step) + ": " + strerror(-status);
}

std::string enterPrivateNetwork(TestNetwork& network) {
    if (unshare(CLONE_NEWNET) != 0) return failed("unshare(CLONE_NEWNET)", -errno);
    network.loopback = if_nametoindex("lo");
    if (int status = setUp(network.loopback)) return failed("bringing lo up", status);
    if (int status = createVethPair(TestNetwork::kSubnetName, TestNetwork::kBareName)) {
        return failed("creating a veth pair", status);
    }
    network.subnet = if_nametoindex(TestNetwork::kSubnetName);
    network.bare = if_nametoindex(TestNetwork::kBareName);
    if (network.subnet == 0 || network.bare == 0) return "the veth pair has no index";
    for (unsigned ifindex : {network.subnet, network.bare}) {
        if (int status = setUp(ifindex)) return failed("bringing the veth pair up", status);
    }
    if (int status = addIpv4(network.subnet, "192.0.2.1", 24)) {
        return failed("adding 192.0.2.1/24", status);
    }
    return "";
}

TestNetwork& processNetwork() {
    static TestNetwork network;
    return network;
}

}  // namespace

void NetnsTest::SetUp() {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    static const std::string problem = enterPrivateNetwork(processNetwork());
    ASSERT_EQ("", problem) << "cannot set up the private network namespace";
}

const TestNetwork& NetnsTest::network() const {
    return processNetwork();
}

}  // namespace kovra::test
