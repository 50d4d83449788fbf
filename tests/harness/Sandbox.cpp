#include <stdlib.h>

#include "Harness.h"

namespace kovra::test {
namespace {

// A death test's re-executed child finds its parent's bpffs through this variable.
constexpr char kShareVariable[] = "KOVRA_TEST_IN_PRIVATE_BPFFS";

}  // namespace

void KernelTest::SetUp() {
    const std::string problem = sandbox::enterPrivateBpffs(kShareVariable);
    if (!problem.empty()) {
        if (underCi()) FAIL() << "kernel-map test cannot run: " << problem;
        GTEST_SKIP() << "kernel-map test skipped: " << problem;
    }
    resetInterposers();
    sandbox::emptyBpffs();
    takeLogs();
}

void KernelTest::TearDown() {
    resetInterposers();
}

bool underCi() {
    const char* ci = getenv("CI");
    return ci != nullptr && strcmp(ci, "true") == 0;
}

const sandbox::PrivateNetwork* testNetwork() {
    static sandbox::PrivateNetwork network;
    static const std::string problem = sandbox::enterPrivateNetwork(network);
    EXPECT_EQ("", problem) << "cannot set up the private network namespace";
    return problem.empty() ? &network : nullptr;
}

void useReexecDeathTests() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

}  // namespace kovra::test
