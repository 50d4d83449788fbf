// The thirteen services that copy a map into the caller's table share one contract, checked here
// for each of them: the per-UID totals, the freeze harvests (which then empty their map) and the
// wake-up counter readers.
#include <stdio.h>

#include <functional>
#include <limits>

#include "Harness.h"

namespace kovra::test {
namespace {

enum class Kind { kRead, kHarvest };

// A value unlike any other service's and any other key's, filling every byte; all zero for
// kZeroKey, so that a service that reads another's map, truncates or skips zeros shows.
constexpr uint64_t kCallersKey = 1000, kZeroKey = 10123, kCallersOnly = 99;
template <typename V>
V valueOf(size_t service, uint64_t key) {
    V value{};
    if (key == kZeroKey) return value;
    auto* bytes = reinterpret_cast<uint8_t*>(&value);
    for (size_t i = 0; i < sizeof(V); ++i) bytes[i] = uint8_t((service + 1) * 37 + key * 7 + i);
    return value;
}

// The table entry for a map value: the same bytes, widened with zeros (netd's four counters
// become the six of a KovraStatsValue).
template <typename M, typename V>
M widened(const V& value) {
    static_assert(sizeof(V) <= sizeof(M));
    M out{};
    memcpy(&out, &value, sizeof(V));
    return out;
}

template <typename Table>
void expectSameTable(const Table& expected, const Table& actual) {
    EXPECT_EQ(expected.size(), actual.size());
    for (const auto& [key, value] : expected) {
        const auto it = actual.find(key);
        ASSERT_NE(actual.end(), it) << "missing key " << key;
        EXPECT_TRUE(sameBytes(value, it->second)) << "key " << key;
    }
}

template <typename Table, typename K, typename V>
void checkCopier(size_t index, const PinnedMap<K, V>& pinned, int (*service)(Table&), Kind kind,
                 const char* walkError) {
    using Key = typename Table::key_type;
    using Mapped = typename Table::mapped_type;
    SCOPED_TRACE(pinned.path);
    TypedMap map(pinned);  // stays pinned, so later services find it with its own values
    if (kind == Kind::kRead) reportMapFlags(BPF_F_RDONLY);  // a read-only map is fine to read
    const Mapped old = widened<Mapped>(valueOf<V>(99, 1));
    const Table callers{{Key(kCallersKey), old}, {Key(kCallersOnly), old}};
    Table table = callers;
    EXPECT_EQ(0, noLeak([&] { return service(table); }));
    expectSameTable(callers, table);

    // Keys are zero-extended into the table's key, the caller's entries stay as they were.
    Table expected = callers;
    for (uint64_t key :
         {uint64_t{0}, kCallersKey, kZeroKey, uint64_t{std::numeric_limits<K>::max()}}) {
        map.put(K(key), valueOf<V>(index, key));
        expected.try_emplace(Key(K(key)), widened<Mapped>(valueOf<V>(index, key)));
    }
    EXPECT_EQ(0, noLeak([&] { return service(table); }));
    expectSameTable(expected, table);
    EXPECT_EQ(kind == Kind::kHarvest ? 0u : 4u, map.size())
            << "a harvest clears every record, the undelivered one too; a read clears none";
    EXPECT_TRUE(takeLogs().empty());

    // A failed walk returns -1, keeps what it read before and leaves the map whole; only the end
    // of the keys ends a walk well.
    for (const K& key : map.keys()) map.erase(key);
    for (uint64_t key = 1; key <= 5; ++key) map.put(K(key), valueOf<V>(index, key));
    const std::vector<K> order = map.keys();
    for (const WalkFailure& f : kWalkFailures) {
        SCOPED_TRACE(f.message);
        failBpfCommand(f.cmd, f.nth, f.err);
        table.clear();
        EXPECT_EQ(-1, noLeak([&] { return service(table); }));
        Table partial;
        for (size_t i = 0; i < f.read; ++i) {
            partial.try_emplace(Key(order[i]), widened<Mapped>(valueOf<V>(index, order[i])));
        }
        expectSameTable(partial, table);
        std::vector<LogLine> lines;
        if (walkError != nullptr) {
            char line[128];
            snprintf(line, sizeof(line), walkError, f.message);
            lines.push_back(errorLine(line));
        }
        EXPECT_EQ(lines, takeLogs());
        EXPECT_EQ(5u, map.size());
    }
    resetInterposers();
    if (kind == Kind::kRead) return;

    // The next harvest delivers what the failed ones left; one whose clear fails still succeeds.
    table.clear();
    EXPECT_EQ(0, noLeak([&] { return service(table); }));
    EXPECT_EQ(5u, table.size());
    for (uint64_t key = 1; key <= 3; ++key) map.put(K(key), valueOf<V>(index, key));
    failBpfCommand(BPF_MAP_DELETE_ELEM, 2, EPERM);
    table.clear();
    EXPECT_EQ(0, noLeak([&] { return service(table); }));
    EXPECT_EQ(3u, table.size()) << "everything read is delivered";
    EXPECT_EQ(2u, map.size()) << "the clear stopped at the failing delete";
    EXPECT_EQ(std::vector{untaggedError("Failed to delete data Operation not permitted")},
              takeLogs());
    resetInterposers();
}

class CopyingServicesTest : public KernelTest {};

TEST_F(CopyingServicesTest, CopyIntoTheCallersTableAndStopAtAFailedWalk) {
    const std::function<void(size_t)> services[] = {
            [](size_t i) {
                checkCopier(i, maps::kNetdAppUidStats, bpfGetUidStatsTotal, Kind::kRead,
                            "bpfGetUidStatsTotalInternal end with error: %s");
            },
            [](size_t i) {
                checkCopier(i, maps::kUidPurStats, bpfGetUidPurStatsTotal, Kind::kRead,
                            "bpfGetFreezeStatsTotalInternal end with error: %s");
            },
            [](size_t i) {
                checkCopier(i, maps::kAppFreezeSyn, bpfFetchAppFreezeSyns, Kind::kHarvest,
                            "bpfFetchAppFreezeSyns end with error: %s");
            },
            [](size_t i) {
                checkCopier(i, maps::kAppFreezeStats, bpfFetchAppFreezeStats, Kind::kHarvest,
                            "bpfFetchAppFreezeStats end with error: %s");
            },
            [](size_t i) {
                checkCopier(i, maps::kAppTcpFinDrop, bpfGetAppTcpFinDropMap, Kind::kRead, nullptr);
            },
    };
    size_t index = 0;
    for (const auto& check : services) check(index++);

    struct Counter {
        PinnedMap<uint32_t, uint64_t> map;
        int (*read)(std::unordered_map<uint32_t, uint64_t>&);
    };
    for (const Counter& c : {Counter{maps::kAppTcpInwakeup, bpfGetAppTcpInwakeupMap},
                             Counter{maps::kAppTcpOutwakeup, bpfGetAppTcpOutwakeupMap},
                             Counter{maps::kAppTcpWakeupduration, bpfGetAppTcpWakeupdurationMap},
                             Counter{maps::kAppTcpOutImHb, bpfGetAppTcpOutImHbMap},
                             Counter{maps::kAppTcpOutAlign, bpfGetAppTcpOutAlignMap},
                             Counter{maps::kAppTcpInKeepAlive, bpfGetAppTcpInKeepAliveMap},
                             Counter{maps::kAppTcpReinwakeup, bpfGetAppTcpReinwakeupMap},
                             Counter{maps::kAppTcpReoutwakeup, bpfGetAppTcpReoutwakeupMap}}) {
        checkCopier(index++, c.map, c.read, Kind::kRead, nullptr);
    }
}

}  // namespace
}  // namespace kovra::test
