// The exact bpf(2) commands each service issues for a map of n entries. A walk costs one key
// step per entry plus the closing one and one lookup per entry; a read-only open costs the
// object fetch and three info queries (flags, key size, value size); a read-write open adds the
// info query for the lock's map id. Anything more is waste, anything less a skipped step.
#include <functional>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;

struct Budget {
    int objGet = 0, info = 0, nextKey = 0, lookup = 0, update = 0, erase = 0;

    Budget operator+(const Budget& o) const {
        return {objGet + o.objGet, info + o.info,     nextKey + o.nextKey,
                lookup + o.lookup, update + o.update, erase + o.erase};
    }
    int total() const { return objGet + info + nextKey + lookup + update + erase; }
};

Budget readOnlyOpen() {
    return {.objGet = 1, .info = 3};
}
Budget walk(int n) {
    return {.nextKey = n + 1, .lookup = n};
}
Budget lookups(int n) {
    return {.lookup = n};
}

Budget issued() {
    int all = 0;
    for (int cmd = 0; cmd <= BPF_PROG_BIND_MAP; ++cmd) all += bpfCommandCount(cmd);
    Budget b{bpfCommandCount(BPF_OBJ_GET),          bpfCommandCount(BPF_OBJ_GET_INFO_BY_FD),
             bpfCommandCount(BPF_MAP_GET_NEXT_KEY), bpfCommandCount(BPF_MAP_LOOKUP_ELEM),
             bpfCommandCount(BPF_MAP_UPDATE_ELEM),  bpfCommandCount(BPF_MAP_DELETE_ELEM)};
    EXPECT_EQ(b.total(), all) << "a command outside the budget's kinds";
    return b;
}

std::ostream& operator<<(std::ostream& os, const Budget& b) {
    return os << "{objGet " << b.objGet << ", info " << b.info << ", nextKey " << b.nextKey
              << ", lookup " << b.lookup << ", update " << b.update << ", delete " << b.erase
              << "}";
}
bool operator==(const Budget& a, const Budget& b) {
    return a.objGet == b.objGet && a.info == b.info && a.nextKey == b.nextKey &&
           a.lookup == b.lookup && a.update == b.update && a.erase == b.erase;
}

// Pins `map` holding keys 1..n with values made from them.
template <typename K, typename V>
RawMap seeded(const PinnedMap<K, V>& map, int n, V (*make)(K)) {
    TestMap<K, V> raw(map);
    for (int i = 1; i <= n; ++i) EXPECT_TRUE(raw.put(K(i), make(K(i))));
    return std::move(raw);
}

template <typename V>
V filled(uint32_t key) {
    V value;
    memset(&value, static_cast<int>(key), sizeof(value));
    return value;
}

struct Case {
    const char* service;
    std::function<RawMap(int n)> seed;
    std::function<int()> call;
    std::function<Budget(int n)> budget;
};

std::unordered_map<int64_t, KovraStatsValue> uidTotals;
KovraStatsValue oneUid;

const Case kCases[] = {
        {"bpfGetUidStatsTotal",
         [](int n) { return seeded(maps::kNetdAppUidStats, n, filled<StatsValue>); },
         [] { return bpfGetUidStatsTotal(uidTotals); },
         [](int n) { return readOnlyOpen() + walk(n); }},
        {"bpfGetUidPurStatsTotal",
         [](int n) { return seeded(maps::kUidPurStats, n, filled<KovraStatsValue>); },
         [] { return bpfGetUidPurStatsTotal(uidTotals); },
         [](int n) { return readOnlyOpen() + walk(n); }},
        {"bpfGetUidPurStats",
         [](int n) { return seeded(maps::kUidPurStats, n, filled<KovraStatsValue>); },
         [] { return bpfGetUidPurStats(1, oneUid); },
         [](int) { return readOnlyOpen() + lookups(1); }},
};

class BudgetTest : public KernelTest {};

TEST_F(BudgetTest, EveryServiceIssuesExactlyItsAlgorithmsCommands) {
    for (const Case& c : kCases) {
        for (int n : {0, 1, 7}) {
            SCOPED_TRACE(testing::Message() << c.service << " over " << n << " entries");
            const RawMap map = c.seed(n);
            uidTotals.clear();
            resetInterposers();
            c.call();
            EXPECT_EQ(c.budget(n), issued());
        }
    }
}

}  // namespace
}  // namespace kovra::test
