#include <limits.h>

#include "Harness.h"

namespace kovra::test {
namespace {

class NetworkBlockingTest : public KernelTest {};

constexpr int kAllow = 1;

TEST_F(NetworkBlockingTest, DisableWritesOneAndEnableDeletesIt) {
    TypedMap disconn(maps::kAppNetDisconnLimit);
    TypedMap legacy(maps::kAppVuskLimit);
    disconn.put(10123, 7);
    EXPECT_EQ(0, noLeak([] { return bpfDisableNetwork(10123); }));
    EXPECT_EQ(0, noLeak([] { return bpfDisableNetwork(10123); })) << "blocking twice is fine";
    EXPECT_EQ(1u, disconn.get(10123));
    EXPECT_EQ(0, noLeak([] { return bpfDisableNetwork(-1); }));
    EXPECT_EQ(0, noLeak([] { return bpfDisableNetwork(INT_MIN); }));
    EXPECT_EQ(1u, disconn.get(4294967295u)) << "negative UIDs keep their bits";
    EXPECT_EQ(1u, disconn.get(0x80000000u));
    EXPECT_EQ(3u, disconn.size());

    EXPECT_EQ(0, noLeak([] { return bpfEnableNetwork(10123); }));
    EXPECT_FALSE(disconn.get(10123).has_value());
    EXPECT_EQ(-1, noLeak([] { return bpfEnableNetwork(10123); })) << "no entry is a failure";
    EXPECT_EQ(-1, noLeak([] { return bpfEnableNetwork(777); }));
    EXPECT_EQ(0, noLeak([] { return bpfEnableNetwork(-1); }));
    EXPECT_FALSE(disconn.get(4294967295u).has_value());
    EXPECT_EQ(std::vector<uint32_t>{0x80000000u}, disconn.keys());

    EXPECT_EQ(0u, legacy.size());
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(NetworkBlockingTest, LegacySwitchBlocksForEveryRuleButOne) {
    TypedMap legacy(maps::kAppVuskLimit);
    TypedMap disconn(maps::kAppNetDisconnLimit);
    for (int rule : {0, 2, -1, INT_MIN}) {
        SCOPED_TRACE(rule);
        EXPECT_EQ(0, noLeak([&] { return bpfLegacySetFirewall(-2, rule); }));
        EXPECT_EQ(1u, legacy.get(4294967294u));
        EXPECT_EQ(0, noLeak([] { return bpfLegacySetFirewall(-2, kAllow); }));
        EXPECT_EQ(0u, legacy.size());
    }
    EXPECT_EQ(-1, noLeak([] { return bpfLegacySetFirewall(-2, kAllow); }))
            << "no entry is a failure";
    EXPECT_EQ(0u, disconn.size());
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(NetworkBlockingTest, RefusedWritesReturnMinusOneSilently) {
    // Full maps: the kernel refuses a new key but still lets an existing one be replaced.
    TypedMap disconn(maps::kAppNetDisconnLimit, /*maxEntries=*/1);
    TypedMap legacy(maps::kAppVuskLimit, /*maxEntries=*/1);
    disconn.put(5, 0);
    legacy.put(5, 0);
    EXPECT_EQ(-1, noLeak([] { return bpfDisableNetwork(6); }));
    EXPECT_EQ(-1, noLeak([] { return bpfLegacySetFirewall(6, 0); }));
    EXPECT_EQ(0, noLeak([] { return bpfDisableNetwork(5); }));
    EXPECT_EQ(0, noLeak([] { return bpfLegacySetFirewall(5, 0); }));
    EXPECT_EQ(1u, disconn.get(5));
    EXPECT_EQ(1u, legacy.get(5));
    EXPECT_TRUE(takeLogs().empty());
}

}  // namespace
}  // namespace kovra::test
