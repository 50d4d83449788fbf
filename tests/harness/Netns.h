// KernelTest in a private network namespace with real interfaces (sandbox/Netns.h), for tests
// that ask the kernel about interface addresses; no traffic is ever sent through it.
#pragma once

#include <kovrasandbox/Netns.h>

#include "Harness.h"

namespace kovra::test {

using TestNetwork = sandbox::PrivateNetwork;

// The process enters the namespace on the first test and stays there; a test that cannot set it
// up fails.
class NetnsTest : public KernelTest {
  protected:
    void SetUp() override;
    const TestNetwork& network() const;
};

}  // namespace kovra::test
