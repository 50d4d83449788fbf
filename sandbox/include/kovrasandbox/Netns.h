// A private network namespace with real interfaces, built over rtnetlink with libnl-route: for
// tests that ask the kernel about interface addresses and for traffic that must stay on the desk.
#pragma once

#include <stdint.h>

#include <kovrasandbox/Error.h>

namespace kovra::sandbox {

// The interfaces of the private network namespace, all up.
struct PrivateNetwork {
    static constexpr char kSubnetName[] = "kovra0";  // 192.0.2.1/24
    static constexpr char kBareName[] = "kovra1";    // kovra0's veth peer, no IPv4 address
    unsigned loopback = 0;                           // lo, 127.0.0.1/8
    unsigned subnet = 0;
    unsigned bare = 0;
};

// Moves this process into a network namespace of its own, with lo up and the veth pair of
// PrivateNetwork. Later children of the process share it. Each of these throws Error saying
// which step failed.
void enterPrivateNetwork(PrivateNetwork& network);

// The steps it is made of, for other layouts.
void createVethPair(const char* name, const char* peer);
void setLinkUp(unsigned ifindex);
// Moves an interface into the network namespace open at `netnsFd`.
void moveToNetns(unsigned ifindex, int netnsFd);
void addIpv4(unsigned ifindex, const char* address, uint8_t prefixLength);

}  // namespace kovra::sandbox
