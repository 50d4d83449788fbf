#include "Harness.h"

namespace kovra::test {
namespace {

using Table = std::unordered_map<int64_t, KovraStatsValue>;

constexpr uint32_t kMaxUid = 4294967295u;

class UidStatsTest : public KernelTest {};

KovraStatsValue kovra(uint64_t seed) {
    return {seed, seed + 1, seed + 2, seed + 3, seed + 4, seed + 5};
}

TEST_F(UidStatsTest, SingleUidLookup) {
    TypedMap map(maps::kUidPurStats);
    map.put(kMaxUid, kovra(7));
    KovraStatsValue out = kovra(100);
    EXPECT_EQ(0, noLeak([&] { return bpfGetUidPurStats(kMaxUid, out); }));
    EXPECT_TRUE(sameBytes(kovra(7), out));
    EXPECT_TRUE(takeLogs().empty());

    out = kovra(100);
    EXPECT_EQ(-ENOENT, noLeak([&] { return bpfGetUidPurStats(42, out); }));
    EXPECT_TRUE(sameBytes(kovra(100), out)) << "a failed lookup leaves the record untouched";
    EXPECT_EQ(
            std::vector{errorLine("Failed to get current uid 42 stats: No such file or directory")},
            takeLogs());

    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 1, EACCES);
    EXPECT_EQ(-EACCES, noLeak([&] { return bpfGetUidPurStats(kMaxUid, out); }));
    EXPECT_EQ(
            std::vector{errorLine("Failed to get current uid 4294967295 stats: Permission denied")},
            takeLogs());
}

TEST_F(UidStatsTest, ServicesEndTheProcessOnAMapOfTheWrongShape) {
    RawMap shortValue(maps::kNetdAppUidStats.path, 4, 31);
    RawMap netdSizedPur(maps::kUidPurStats.path, 4, 32);
    Table out;
    KovraStatsValue one;
    expectAborts([&] { bpfGetUidStatsTotal(out); });
    expectAborts([&] { bpfGetUidPurStatsTotal(out); });
    expectAborts([&] { bpfGetUidPurStats(1, one); });
}

}  // namespace
}  // namespace kovra::test
