// A private network namespace with real interfaces, for tests that ask the kernel about
// interface addresses. It is built with rtnetlink from this process alone (no `ip` binary), so
// it also stands up on a minimal system; no traffic is ever sent through it.
#pragma once

#include "Harness.h"

namespace kovra::test {

// The interfaces of the private namespace, all up.
struct TestNetwork {
    static constexpr char kSubnetName[] = "kovra0";  // 192.0.2.1/24
    static constexpr char kBareName[] = "kovra1";    // kovra0's veth peer, no IPv4 address
    unsigned loopback = 0;                           // lo, 127.0.0.1/8
    unsigned subnet = 0;
    unsigned bare = 0;
};

// KernelTest, run inside the private network namespace. The process enters it on the first test
// and stays there; a test that cannot set it up fails.
class NetnsTest : public KernelTest {
  protected:
    void SetUp() override;
    const TestNetwork& network() const;
};

}  // namespace kovra::test
