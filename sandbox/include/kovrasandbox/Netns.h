// A private network namespace with real interfaces, built over rtnetlink with libnl-route: for
// tests that ask the kernel about interface addresses and for traffic that must stay on the desk.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>

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

// The far end of a veth pair in a network namespace of its own, held by a child process for as
// long as this object lives (and no longer than the thread that made it): for traffic that must
// leave by a real interface. The near end stays in the caller's namespace.
class VethPeer {
  public:
    // Creates the pair `near`/`far`, moves `far` into the new namespace, with lo up there, and
    // gives each end its address (/24), up and without IPv6 traffic of its own.
    VethPeer(const std::string& near, const std::string& far, const std::string& nearAddress,
             const std::string& farAddress);
    ~VethPeer();
    VethPeer(const VethPeer&) = delete;
    VethPeer& operator=(const VethPeer&) = delete;

    // Moves the calling process (a child that receives there) into the far end's namespace.
    void enter() const;

  private:
    void end();
    pid_t mHolder = -1;
};

}  // namespace kovra::sandbox
