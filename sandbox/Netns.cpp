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

// Runs `request` over a fresh rtnetlink socket: it returns libnl's 0 or negative error code.
template <typename Request>
void withSocket(const std::string& step, Request request) {
    Socket socket(nl_socket_alloc());
    if (!socket) throw Error(step + ": no memory for a netlink socket", ENOMEM);
    int err = nl_connect(socket.get(), NETLINK_ROUTE);
    if (err == 0) err = request(socket.get());
    if (err != 0) throw Error(step + ": " + nl_geterror(err));
}

// Applies what `edit` sets on a blank link to the interface `ifindex`.
template <typename Edit>
void changeLink(const std::string& step, unsigned ifindex, Edit edit) {
    withSocket(step, [&](nl_sock* socket) {
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

void createVethPair(const char* name, const char* peer) {
    withSocket("creating the veth pair " + std::string(name),
               [&](nl_sock* socket) { return rtnl_link_veth_add(socket, name, peer, getpid()); });
}

void setLinkUp(unsigned ifindex) {
    changeLink("bringing interface " + std::to_string(ifindex) + " up", ifindex,
               [](rtnl_link* link) { rtnl_link_set_flags(link, IFF_UP); });
}

void moveToNetns(unsigned ifindex, int netnsFd) {
    changeLink("moving interface " + std::to_string(ifindex), ifindex,
               [&](rtnl_link* link) { rtnl_link_set_ns_fd(link, netnsFd); });
}

void addIpv4(unsigned ifindex, const char* address, uint8_t prefixLength) {
    const std::string step = "adding " + std::string(address) + "/" + std::to_string(prefixLength);
    withSocket(step, [&](nl_sock* socket) {
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

void enterPrivateNetwork(PrivateNetwork& network) {
    if (unshare(CLONE_NEWNET) != 0) fail("unshare(CLONE_NEWNET) for", "a private network");
    network.loopback = if_nametoindex("lo");
    setLinkUp(network.loopback);
    createVethPair(PrivateNetwork::kSubnetName, PrivateNetwork::kBareName);
    network.subnet = if_nametoindex(PrivateNetwork::kSubnetName);
    network.bare = if_nametoindex(PrivateNetwork::kBareName);
    if (network.subnet == 0 || network.bare == 0) throw Error("the veth pair has no index");
    for (unsigned ifindex : {network.subnet, network.bare}) setLinkUp(ifindex);
    addIpv4(network.subnet, "192.0.2.1", 24);
}

}  // namespace kovra::sandbox
