#include "kovrasandbox/Netns.h"

#include <errno.h>
#include <net/if.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/link/veth.h>
#include <sched.h>
#include <string.h>
#include <unistd.h>

#include <memory>

namespace kovra::sandbox {
namespace {

template <typename T, void (*Free)(T*)>
struct Freer {
    void operator()(T* p) const { Free(p); }
};
using Socket = std::unique_ptr<nl_sock, Freer<nl_sock, nl_socket_free>>;
using Link = std::unique_ptr<rtnl_link, Freer<rtnl_link, rtnl_link_put>>;
using Addr = std::unique_ptr<rtnl_addr, Freer<rtnl_addr, rtnl_addr_put>>;
using NlAddr = std::unique_ptr<nl_addr, Freer<nl_addr, nl_addr_put>>;

std::string failed(const std::string& step, int nlError) {
    return step + ": " + nl_geterror(nlError);
}

// Runs `request` over a fresh rtnetlink socket: it returns libnl's 0 or negative error code.
template <typename Request>
std::string withSocket(const std::string& step, Request request) {
    Socket socket(nl_socket_alloc());
    if (!socket) return step + ": no memory for a netlink socket";
    int err = nl_connect(socket.get(), NETLINK_ROUTE);
    if (err == 0) err = request(socket.get());
    return err == 0 ? "" : failed(step, err);
}

// Applies what `edit` sets on a blank link to the interface `ifindex`.
template <typename Edit>
std::string changeLink(const std::string& step, unsigned ifindex, Edit edit) {
    return withSocket(step, [&](nl_sock* socket) {
        rtnl_link* raw = nullptr;
        if (int err = rtnl_link_get_kernel(socket, static_cast<int>(ifindex), nullptr, &raw)) {
            return err;
        }
        Link current(raw);
        Link change(rtnl_link_alloc());
        if (!change) return -NLE_NOMEM;
        edit(change.get());
        return rtnl_link_change(socket, current.get(), change.get(), 0);
    });
}

}  // namespace

std::string createVethPair(const char* name, const char* peer) {
    return withSocket("creating the veth pair " + std::string(name), [&](nl_sock* socket) {
        return rtnl_link_veth_add(socket, name, peer, getpid());
    });
}

std::string setLinkUp(unsigned ifindex) {
    return changeLink("bringing interface " + std::to_string(ifindex) + " up", ifindex,
                      [](rtnl_link* link) { rtnl_link_set_flags(link, IFF_UP); });
}

std::string moveToNetns(unsigned ifindex, int netnsFd) {
    return changeLink("moving interface " + std::to_string(ifindex), ifindex,
                      [&](rtnl_link* link) { rtnl_link_set_ns_fd(link, netnsFd); });
}

std::string addIpv4(unsigned ifindex, const char* address, uint8_t prefixLength) {
    const std::string step = "adding " + std::string(address) + "/" + std::to_string(prefixLength);
    return withSocket(step, [&](nl_sock* socket) {
        nl_addr* parsed = nullptr;
        if (int err = nl_addr_parse(address, AF_INET, &parsed)) return err;
        NlAddr local(parsed);
        Addr addr(rtnl_addr_alloc());
        if (!addr) return -NLE_NOMEM;
        rtnl_addr_set_ifindex(addr.get(), static_cast<int>(ifindex));
        if (int err = rtnl_addr_set_local(addr.get(), local.get())) return err;
        rtnl_addr_set_prefixlen(addr.get(), prefixLength);
        return rtnl_addr_add(socket, addr.get(), NLM_F_EXCL);
    });
}

std::string enterPrivateNetwork(PrivateNetwork& network) {
    if (unshare(CLONE_NEWNET) != 0) return std::string("unshare(CLONE_NEWNET): ") + strerror(errno);
    network.loopback = if_nametoindex("lo");
    if (auto problem = setLinkUp(network.loopback); !problem.empty()) return problem;
    if (auto problem = createVethPair(PrivateNetwork::kSubnetName, PrivateNetwork::kBareName);
        !problem.empty()) {
        return problem;
    }
    network.subnet = if_nametoindex(PrivateNetwork::kSubnetName);
    network.bare = if_nametoindex(PrivateNetwork::kBareName);
    if (network.subnet == 0 || network.bare == 0) return "the veth pair has no index";
    for (unsigned ifindex : {network.subnet, network.bare}) {
        if (auto problem = setLinkUp(ifindex); !problem.empty()) return problem;
    }
    return addIpv4(network.subnet, "192.0.2.1", 24);
}

}  // namespace kovra::sandbox
