#include <stdlib.h>

#include "Harness.h"

namespace kovra::test {
namespace {

// A death test's re-executed child finds its parent's bpffs through this variable.
constexpr char kShareVariable[] = "KOVRA_TEST_IN_PRIVATE_BPFFS";

}  // namespace

void KernelTest::SetUp() {
    try {
        sandbox::enterPrivateBpffs(kShareVariable);
    } catch (const sandbox::Error& problem) {
        if (underCi()) FAIL() << "kernel-map test cannot run: " << problem.what();
        GTEST_SKIP() << "kernel-map test skipped: " << problem.what();
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
    static const bool entered = [] {
        try {
            sandbox::enterPrivateNetwork(network);
        } catch (const sandbox::Error& problem) {
            ADD_FAILURE() << "cannot set up the private network namespace: " << problem.what();
            return false;
        }
        return true;
    }();
    return entered ? &network : nullptr;
}

void useReexecDeathTests() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

}  // namespace kovra::test
