#include "Netns.h"

namespace kovra::test {
namespace {

TestNetwork& processNetwork() {
    static TestNetwork network;
    return network;
}

}  // namespace

void NetnsTest::SetUp() {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    static const std::string problem = sandbox::enterPrivateNetwork(processNetwork());
    ASSERT_EQ("", problem) << "cannot set up the private network namespace";
}

const TestNetwork& NetnsTest::network() const {
    return processNetwork();
}

}  // namespace kovra::test
