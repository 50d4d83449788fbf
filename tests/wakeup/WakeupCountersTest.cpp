#include <errno.h>

#include <iterator>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;

template <typename V>
using Table = std::unordered_map<uint32_t, V>;

template <typename V>
struct Reader {
    const char* name;
    PinnedMap<uint32_t, V> map;
    int (*read)(Table<V>&);
};

const Reader<uint32_t> kFinDrop{"fin drop", maps::kAppTcpFinDrop, bpfGetAppTcpFinDropMap};
const Reader<uint64_t> kCounterReaders[] = {
        {"in wake-up", maps::kAppTcpInwakeup, bpfGetAppTcpInwakeupMap},
        {"out wake-up", maps::kAppTcpOutwakeup, bpfGetAppTcpOutwakeupMap},
        {"wake-up duration", maps::kAppTcpWakeupduration, bpfGetAppTcpWakeupdurationMap},
        {"out IM heartbeat", maps::kAppTcpOutImHb, bpfGetAppTcpOutImHbMap},
        {"out align", maps::kAppTcpOutAlign, bpfGetAppTcpOutAlignMap},
        {"in keep-alive", maps::kAppTcpInKeepAlive, bpfGetAppTcpInKeepAliveMap},
        {"re-in wake-up", maps::kAppTcpReinwakeup, bpfGetAppTcpReinwakeupMap},
        {"re-out wake-up", maps::kAppTcpReoutwakeup, bpfGetAppTcpReoutwakeupMap},
};

// Calls check(reader, index) for all nine readers.
template <typename F>
void forEachReader(F check) {
    check(kFinDrop, 0);
    for (size_t i = 0; i < std::size(kCounterReaders); ++i) check(kCounterReaders[i], i + 1);
}

constexpr uint32_t kCallersUid = 1000;
constexpr uint32_t kZeroUid = 10123;
constexpr uint32_t kUids[] = {0, kCallersUid, kZeroUid, 4294967295u};

// Differs from map to map, uses the top byte of the value and is 0 for kZeroUid, so that a reader
// that reads another reader's map, truncates or skips zero counters shows.
template <typename V>
V counter(size_t reader, uint32_t uid) {
    if (uid == kZeroUid) return 0;
    return static_cast<V>((uint64_t{reader + 1} << (8 * sizeof(V) - 8)) + uid);
}

template <typename V>
int readIntoEmptyTable(const Reader<V>& r) {
    Table<V> table;
    return noLeak([&] { return r.read(table); });
}

class WakeupCountersTest : public KernelTest {};

template <typename V>
void copiesASnapshotWithoutOverwriting(const Reader<V>& r, size_t index) {
    SCOPED_TRACE(r.name);
    TestMap map(r.map);
    Table<V> table{{kCallersUid, 5}};
    EXPECT_EQ(0, noLeak([&] { return r.read(table); }));
    EXPECT_EQ((Table<V>{{kCallersUid, 5}}), table) << "an empty map adds nothing";

    for (uint32_t uid : kUids) ASSERT_TRUE(map.put(uid, counter<V>(index, uid)));
    EXPECT_EQ(0, noLeak([&] { return r.read(table); }));
    const Table<V> expected{{0, counter<V>(index, 0)},
                            {kCallersUid, 5},
                            {kZeroUid, 0},
                            {4294967295u, counter<V>(index, 4294967295u)}};
    EXPECT_EQ(expected, table) << "the caller's value for a UID stays; every other UID is added";

    EXPECT_EQ(std::size(kUids), map.size()) << "reading is not harvesting";
    for (uint32_t uid : kUids) EXPECT_EQ(counter<V>(index, uid), map.get(uid));
}

template <typename V>
void keepsWhatWasReadBeforeAFailure(const Reader<V>& r, size_t index) {
    SCOPED_TRACE(r.name);
    TestMap map(r.map);
    for (uint32_t uid = 1; uid <= 5; ++uid) ASSERT_TRUE(map.put(uid, counter<V>(index, uid)));
    const std::vector<uint32_t> order = map.keys();
    Table<V> table;
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 3, EIO);
    EXPECT_EQ(-1, noLeak([&] { return r.read(table); }));
    const Table<V> firstTwo{{order[0], counter<V>(index, order[0])},
                            {order[1], counter<V>(index, order[1])}};
    EXPECT_EQ(firstTwo, table);

    // Only the end of the keys ends a walk well; a first key that cannot be had is a failure.
    failBpfCommand(BPF_MAP_GET_NEXT_KEY, 1, EPERM);
    EXPECT_EQ(-1, noLeak([&] { return r.read(table); }));
    EXPECT_EQ(firstTwo, table);
    resetInterposers();
}

TEST_F(WakeupCountersTest, ReadersCopyTheirOwnMapWithoutOverwriting) {
    forEachReader([](const auto& r, size_t index) { copiesASnapshotWithoutOverwriting(r, index); });
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(WakeupCountersTest, ReadersReturnMinusOneOnAFailedWalkAndLogNothing) {
    forEachReader([](const auto& r, size_t index) { keepsWhatWasReadBeforeAFailure(r, index); });
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(WakeupCountersTest, HeartbeatLengthIsCreatedOrReplacedUntilTheMapIsFull) {
    TestMap map(maps::kImAppHbLen, 2);
    EXPECT_EQ(0, noLeak([] { return bpfAddAppImHbLenMap(10123, 300); }));
    EXPECT_EQ(0, noLeak([] { return bpfAddAppImHbLenMap(10123, 120); }));
    EXPECT_EQ(0, noLeak([] { return bpfAddAppImHbLenMap(10200, 45); }));
    EXPECT_EQ(120u, map.get(10123));
    EXPECT_EQ(45u, map.get(10200));

    EXPECT_EQ(-1, noLeak([] { return bpfAddAppImHbLenMap(10300, 60); }));
    EXPECT_EQ(2u, map.size());
    EXPECT_TRUE(takeLogs().empty());
}

using WakeupCountersDeathTest = WakeupCountersTest;

TEST_F(WakeupCountersDeathTest, ReadersAcceptAReadOnlyMapTheHeartbeatWriterRefuses) {
    forEachReader([](const auto& r, size_t) { TestMap map(r.map); });
    TestMap hbLen(maps::kImAppHbLen);
    reportMapFlags(BPF_F_RDONLY);
    forEachReader([](const auto& r, size_t) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(0, readIntoEmptyTable(r));
    });
    expectAborts([] { bpfAddAppImHbLenMap(10123, 300); });
    EXPECT_EQ(0u, hbLen.size());
}

}  // namespace
}  // namespace kovra::test
