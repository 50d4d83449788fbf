// The exact bpf(2) commands each service issues for a map of n entries. A walk costs one key
// step per entry plus the closing one and one lookup per entry; a clear one first-key step per
// entry plus the closing one and one delete per entry; a read-only open costs the object fetch
// and three info queries (flags, key size, value size); a read-write open adds the info query
// for the lock's map id. Anything more is waste, anything less a skipped step.
#include <time.h>

#include <algorithm>
#include <functional>
#include <unordered_set>

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
    Budget operator*(int times) const {
        return {objGet * times, info * times,   nextKey * times,
                lookup * times, update * times, erase * times};
    }
    int total() const { return objGet + info + nextKey + lookup + update + erase; }
};

Budget readOnlyOpen() {
    return {.objGet = 1, .info = 3};
}
Budget readWriteOpen() {
    return {.objGet = 1, .info = 4};
}
Budget walk(int n) {
    return {.nextKey = n + 1, .lookup = n};
}
Budget clearing(int n) {
    return {.nextKey = n + 1, .erase = n};
}
Budget lookups(int n) {
    return {.lookup = n};
}
Budget updates(int n) {
    return {.update = n};
}
Budget deletes(int n) {
    return {.erase = n};
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

// Entry i of a seeded map: the key i in the key's own width, a value with every byte i.
template <typename K>
K keyOf(int i) {
    const uint64_t wide = static_cast<uint64_t>(i);
    K key{};
    memcpy(&key, &wide, std::min(sizeof(K), sizeof(wide)));
    return key;
}

template <typename V>
V filled(int i) {
    V value;
    memset(&value, i, sizeof(value));
    return value;
}

// The interface the speed records below name.
constexpr uint32_t kIfindex = 7;

// A speed record on kIfindex, updated just now in both directions: never stale, never pruned.
SpeedsValue fresh(int i) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    SpeedsValue value = filled<SpeedsValue>(i);
    value.ifindex = kIfindex;
    value.firstStamp = value.secondStamp = now.tv_sec * 1000000000ull + now.tv_nsec;
    return value;
}

SocketTuple onInterface(int i) {
    SocketTuple tuple = filled<SocketTuple>(i);
    tuple.ifindex = kIfindex;
    return tuple;
}

using Maps = std::vector<RawMap>;

// Pins `map` holding entries 1..n made by `make`, after the maps already in `into`.
template <typename K, typename V>
Maps seeded(const PinnedMap<K, V>& map, int n, Maps into = {}, V (*make)(int) = filled<V>) {
    TestMap<K, V> raw(map);
    for (int i = 1; i <= n; ++i) EXPECT_TRUE(raw.put(keyOf<K>(i), make(i)));
    into.push_back(std::move(raw));
    return into;
}

// The three maps an interface's data lives in, n entries each on kIfindex.
Maps interfaceData(int n, Maps into = {}) {
    into = seeded(maps::kAppSocketSpeeds, n, std::move(into), fresh);
    into = seeded(maps::kAppUidSpeeds, n, std::move(into), fresh);
    return seeded(maps::kAppSocketInfo, n, std::move(into), onInterface);
}

// A sweep: the walk of its map with every entry deleted.
Budget sweep(int n) {
    return readWriteOpen() + walk(n) + deletes(n);
}

struct Case {
    std::string service;
    std::function<Maps(int n)> seed;  // the maps the call finds, n entries where it walks or clears
    std::function<void()> call;
    std::function<Budget(int n)> budget;
};

// A service that copies its map into a fresh table of the caller's and, when `harvests`, then
// clears the map.
template <typename Table, typename K, typename V>
Case copier(const char* service, const PinnedMap<K, V>& map, int (*call)(Table&),
            bool harvests = false) {
    return {service, [map](int n) { return seeded(map, n); },
            [call] {
                Table out;
                call(out);
            },
            [harvests](int n) {
                return harvests ? readWriteOpen() + walk(n) + clearing(n)
                                : readOnlyOpen() + walk(n);
            }};
}

AppFreezeConfig config(int n) {
    return {static_cast<uint32_t>(n) + 1, 2, 3};
}

std::vector<Case> cases() {
    using UidTotals = std::unordered_map<int64_t, KovraStatsValue>;
    using Counters = std::unordered_map<uint32_t, uint64_t>;
    std::vector<Case> all = {
            copier<UidTotals>("bpfGetUidStatsTotal", maps::kNetdAppUidStats, bpfGetUidStatsTotal),
            copier<UidTotals>("bpfGetUidPurStatsTotal", maps::kUidPurStats, bpfGetUidPurStatsTotal),
            {"bpfGetUidPurStats", [](int n) { return seeded(maps::kUidPurStats, n); },
             [] {
                 KovraStatsValue one;
                 bpfGetUidPurStats(1, one);
             },
             [](int) { return readOnlyOpen() + lookups(1); }},
            copier("bpfFetchAppFreezeSyns", maps::kAppFreezeSyn, bpfFetchAppFreezeSyns, true),
            copier("bpfFetchAppFreezeStats", maps::kAppFreezeStats, bpfFetchAppFreezeStats, true),
            {"bpfGetAppFreezeConfig", [](int n) { return seeded(maps::kAppFreezeConfig, n); },
             [] {
                 AppFreezeConfig out;
                 bpfGetAppFreezeConfig(out);
             },
             [](int) { return readWriteOpen() + lookups(1); }},
            // A configuration equal to the last one written costs nothing at all.
            {"bpfSetAppFreezeConfig twice", [](int n) { return seeded(maps::kAppFreezeConfig, n); },
             [] {
                 static int round = 0;
                 AppFreezeConfig next = config(++round);
                 bpfSetAppFreezeConfig(next);
                 bpfSetAppFreezeConfig(next);
             },
             [](int) { return readWriteOpen() + updates(1); }},
            copier("bpfGetAppTcpFinDropMap", maps::kAppTcpFinDrop, bpfGetAppTcpFinDropMap),
            {"bpfAddAppImHbLenMap", [](int n) { return seeded(maps::kImAppHbLen, n); },
             [] { bpfAddAppImHbLenMap(1, 300); }, [](int) { return readWriteOpen() + updates(1); }},
            // A zero state writes its two entries and clears the heartbeat lengths.
            {"bpfUpdateScreenStateMap(0)",
             [](int n) { return seeded(maps::kImAppHbLen, n, seeded(maps::kScreenState, 0)); },
             [] { bpfUpdateScreenStateMap(0, 42); },
             [](int n) { return readWriteOpen() + updates(2) + readWriteOpen() + clearing(n); }},
            // A non-zero state reads six flags and resets the one flagged map.
            {"bpfUpdateScreenStateMap(1)",
             [](int n) {
                 Maps maps = seeded(maps::kAppTcpInwakeup, n, seeded(maps::kScreenState, 0));
                 TestMap check(maps::kOverflowingMapCheck);
                 EXPECT_TRUE(check.put(8, 1));
                 maps.push_back(std::move(check));
                 return maps;
             },
             [] { bpfUpdateScreenStateMap(1, 42); },
             [](int n) {
                 return readWriteOpen() + updates(2) + readWriteOpen() + lookups(6) +
                        readWriteOpen() + clearing(n) + updates(1);
             }},
            {"bpfDisableNetwork", [](int n) { return seeded(maps::kAppNetDisconnLimit, n); },
             [] { bpfDisableNetwork(1); }, [](int) { return readWriteOpen() + updates(1); }},
            {"bpfEnableNetwork", [](int n) { return seeded(maps::kAppNetDisconnLimit, n); },
             [] { bpfEnableNetwork(1); }, [](int) { return readWriteOpen() + deletes(1); }},
            {"bpfGetAppUidSpeedsTotal",
             [](int n) { return seeded(maps::kAppUidSpeeds, n, {}, fresh); },
             [] {
                 std::unordered_map<uint64_t, IfaceSpeedsValue> out;
                 bpfGetAppUidSpeedsTotal(out, 60000);
             },
             [](int n) { return readWriteOpen() + walk(n); }},
            // With no interface asking for the local filter, no socket needs its information.
            {"bpfGetAppSocketSpeedsTotal",
             [](int n) {
                 return seeded(maps::kAppSocketSpeedsIfindex, 0,
                               seeded(maps::kAppSocketInfo, 0,
                                      seeded(maps::kAppSocketSpeeds, n, {}, fresh)));
             },
             [] {
                 std::unordered_map<uint64_t, SpeedsValue> out;
                 std::unordered_set<uint64_t> watched;
                 bpfGetAppSocketSpeedsTotal(out, 60000, 0, watched);
             },
             [](int n) { return readWriteOpen() * 3 + walk(0) + walk(n); }},
            {"bpfGetSocketLocalStatus",
             [](int n) { return seeded(maps::kAppSocketInfo, n, {}, onInterface); },
             [] { bpfGetSocketLocalStatus(1); }, [](int) { return readWriteOpen() + lookups(1); }},
            {"bpfDeleteIfindexSocketSpeeds", [](int n) { return interfaceData(n); },
             [] { bpfDeleteIfindexSocketSpeeds(kIfindex); }, sweep},
            {"bpfDeleteIfindexUidSpeeds", [](int n) { return interfaceData(n); },
             [] { bpfDeleteIfindexUidSpeeds(kIfindex); }, sweep},
            {"bpfDelIfIndexSocketInfoMap", [](int n) { return interfaceData(n); },
             [] { bpfDelIfIndexSocketInfoMap(kIfindex); }, sweep},
            // Disabling an interface sweeps its three maps, then drops its table entry.
            {"bpfUpdateAppSocketSpeedsIfindex(disable)",
             [](int n) {
                 TestMap table(maps::kAppSocketSpeedsIfindex);
                 EXPECT_TRUE(table.put(kIfindex, {1, 0}));
                 Maps maps;
                 maps.push_back(std::move(table));
                 return interfaceData(n, std::move(maps));
             },
             [] { bpfUpdateAppSocketSpeedsIfindex(kIfindex, 0, 0); },
             [](int n) { return readWriteOpen() + sweep(n) * 3 + deletes(1); }},
            {"bpfUpdateAppSocketSpeedsIfindex(enable)",
             [](int n) { return seeded(maps::kAppSocketSpeedsIfindex, n); },
             [] { bpfUpdateAppSocketSpeedsIfindex(kIfindex, 1, 1); },
             [](int) { return readWriteOpen() + updates(1); }},
            {"bpfUpdateAppSocketSpeedsConfig",
             [](int n) { return seeded(maps::kAppSocketSpeedsConfig, n); },
             [] { bpfUpdateAppSocketSpeedsConfig(5); },
             [](int) { return readWriteOpen() + updates(1); }},
            {"bpfLegacySetFirewall", [](int n) { return seeded(maps::kAppVuskLimit, n); },
             [] { bpfLegacySetFirewall(1, 1); }, [](int) { return readWriteOpen() + deletes(1); }},
    };
    struct Reader {
        const char* name;
        PinnedMap<uint32_t, uint64_t> map;
        int (*read)(Counters&);
    };
    const Reader readers[] = {
            {"bpfGetAppTcpInwakeupMap", maps::kAppTcpInwakeup, bpfGetAppTcpInwakeupMap},
            {"bpfGetAppTcpOutwakeupMap", maps::kAppTcpOutwakeup, bpfGetAppTcpOutwakeupMap},
            {"bpfGetAppTcpWakeupdurationMap", maps::kAppTcpWakeupduration,
             bpfGetAppTcpWakeupdurationMap},
            {"bpfGetAppTcpOutImHbMap", maps::kAppTcpOutImHb, bpfGetAppTcpOutImHbMap},
            {"bpfGetAppTcpOutAlignMap", maps::kAppTcpOutAlign, bpfGetAppTcpOutAlignMap},
            {"bpfGetAppTcpInKeepAliveMap", maps::kAppTcpInKeepAlive, bpfGetAppTcpInKeepAliveMap},
            {"bpfGetAppTcpReinwakeupMap", maps::kAppTcpReinwakeup, bpfGetAppTcpReinwakeupMap},
            {"bpfGetAppTcpReoutwakeupMap", maps::kAppTcpReoutwakeup, bpfGetAppTcpReoutwakeupMap}};
    for (const Reader& r : readers) all.push_back(copier<Counters>(r.name, r.map, r.read));
    return all;
}

class BudgetTest : public KernelTest {};

TEST_F(BudgetTest, EveryServiceIssuesExactlyItsAlgorithmsCommands) {
    for (const Case& c : cases()) {
        for (int n : {0, 1, 7}) {
            SCOPED_TRACE(testing::Message() << c.service << " over " << n << " entries");
            const Maps maps = c.seed(n);
            resetInterposers();
            c.call();
            EXPECT_EQ(c.budget(n), issued());
        }
    }
}

}  // namespace
}  // namespace kovra::test
