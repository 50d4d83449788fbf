#include <string.h>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using Table = std::unordered_map<int64_t, KovraStatsValue>;

constexpr uint32_t kMaxUid = 4294967295u;

class UidStatsTest : public KernelTest {};

KovraStatsValue kovra(uint64_t seed) { return {seed, seed + 1, seed + 2, seed + 3, seed + 4, seed + 5}; }
StatsValue netd(uint64_t seed) { return {seed, seed + 1, seed + 2, seed + 3}; }

// What a total must hold for one kernel entry: netd's records widen with two zero counters.
KovraStatsValue expected(const StatsValue& v) { return {v.rxPackets, v.rxBytes, v.txPackets, v.txBytes, 0, 0}; }
KovraStatsValue expected(const KovraStatsValue& v) { return v; }

// Both totals services share one contract; each case runs over both.
template <typename V>
struct Totals {
    PinnedMap<uint32_t, V> map;
    int (*service)(Table&);
    V (*make)(uint64_t);
    const char* walkError;
};
const Totals<StatsValue> kNetd{maps::kNetdAppUidStats, bpfGetUidStatsTotal, netd,
                               "bpfGetUidStatsTotalInternal end with error: %s"};
const Totals<KovraStatsValue> kPur{maps::kUidPurStats, bpfGetUidPurStatsTotal, kovra,
                                   "bpfGetFreezeStatsTotalInternal end with error: %s"};

template <typename V>
void copiesWithoutOverwriting(const Totals<V>& t) {
    TestMap map(t.map);
    Table out;
    EXPECT_EQ(0, noLeak([&] { return t.service(out); }));
    EXPECT_TRUE(out.empty()) << "an empty map adds nothing";

    for (uint32_t uid : {0u, 1000u, 10123u, kMaxUid}) ASSERT_TRUE(map.put(uid, t.make(uid)));
    const KovraStatsValue old = kovra(999);
    out = {{1000, old}, {-5, old}};
    EXPECT_EQ(0, noLeak([&] { return t.service(out); }));

    EXPECT_EQ(5u, out.size());
    EXPECT_TRUE(sameBytes(old, out.at(1000))) << "a UID already in the table keeps its value";
    EXPECT_TRUE(sameBytes(old, out.at(-5))) << "the caller's entries are never removed";
    EXPECT_TRUE(sameBytes(expected(t.make(0)), out.at(0)));
    EXPECT_TRUE(sameBytes(expected(t.make(10123)), out.at(10123)));
    ASSERT_EQ(1u, out.count(int64_t{kMaxUid})) << "UIDs are zero-extended, never negative";
    EXPECT_TRUE(sameBytes(expected(t.make(kMaxUid)), out.at(int64_t{kMaxUid})));
    EXPECT_EQ(0u, out.count(-1));
    EXPECT_EQ(4u, map.size()) << "reading never changes the kernel map";
    EXPECT_TRUE(takeLogs().empty());
}

template <typename V>
void reportsAFailedWalk(const Totals<V>& t) {
    TestMap map(t.map);
    for (uint32_t uid = 1; uid <= 5; ++uid) ASSERT_TRUE(map.put(uid, t.make(uid)));
    const auto order = map.keys();
    Table out;
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 3, EIO);
    EXPECT_EQ(-1, noLeak([&] { return t.service(out); }));
    EXPECT_EQ(2u, out.size()) << "entries read before the failure stay";
    EXPECT_EQ(1u, out.count(order[0]));
    EXPECT_EQ(1u, out.count(order[1]));
    char line[128];
    snprintf(line, sizeof(line), t.walkError, "BpfMap::readValue() failed");
    EXPECT_EQ(std::vector{errorLine(line)}, takeLogs());

    // A failing key step is a walk error too; only the end of the keys (ENOENT) is not.
    out.clear();
    failBpfCommand(BPF_MAP_GET_NEXT_KEY, 4, EBUSY);
    EXPECT_EQ(-1, noLeak([&] { return t.service(out); }));
    EXPECT_EQ(3u, out.size());
    snprintf(line, sizeof(line), t.walkError, "BpfMap::getNextKey() failed");
    EXPECT_EQ(std::vector{errorLine(line)}, takeLogs());
}

TEST_F(UidStatsTest, TotalsCopyEveryUidWithoutOverwriting) {
    copiesWithoutOverwriting(kNetd);
    copiesWithoutOverwriting(kPur);
}

TEST_F(UidStatsTest, TotalsReportAFailedWalkAndKeepWhatWasRead) {
    reportsAFailedWalk(kNetd);
    reportsAFailedWalk(kPur);
}

TEST_F(UidStatsTest, SingleUidLookup) {
    TestMap map(maps::kUidPurStats);
    ASSERT_TRUE(map.put(kMaxUid, kovra(7)));
    KovraStatsValue out = kovra(100);
    EXPECT_EQ(0, noLeak([&] { return bpfGetUidPurStats(kMaxUid, out); }));
    EXPECT_TRUE(sameBytes(kovra(7), out));
    EXPECT_TRUE(takeLogs().empty());

    out = kovra(100);
    EXPECT_EQ(-ENOENT, noLeak([&] { return bpfGetUidPurStats(42, out); }));
    EXPECT_TRUE(sameBytes(kovra(100), out)) << "a failed lookup leaves the record untouched";
    EXPECT_EQ(std::vector{errorLine("Failed to get current uid 42 stats: No such file or directory")},
              takeLogs());

    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 1, EACCES);
    EXPECT_EQ(-EACCES, noLeak([&] { return bpfGetUidPurStats(kMaxUid, out); }));
    EXPECT_EQ(std::vector{errorLine("Failed to get current uid 4294967295 stats: Permission denied")},
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
