#include <errno.h>
#include <stdio.h>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;

class AppFreezeRecordsTest : public KernelTest {};

AppFreezeSynInfo syn(uint64_t seed) {
    return {{seed, ~seed}};
}
AppFreezeStatsInfo stats(uint64_t seed) {
    return {{seed, seed + 1, seed + 2, seed + 3, ~seed}};
}

// Both harvests share one contract; each case runs over both.
template <typename V>
struct Harvest {
    PinnedMap<uint64_t, V> map;
    int (*service)(std::unordered_map<uint64_t, V>&);
    V (*make)(uint64_t);
    const char* walkError;
};
const Harvest<AppFreezeSynInfo> kSyns{maps::kAppFreezeSyn, bpfFetchAppFreezeSyns, syn,
                                      "bpfFetchAppFreezeSyns end with error: %s"};
const Harvest<AppFreezeStatsInfo> kStats{maps::kAppFreezeStats, bpfFetchAppFreezeStats, stats,
                                         "bpfFetchAppFreezeStats end with error: %s"};

template <typename V>
std::string walkErrorLine(const Harvest<V>& h, const char* message) {
    char line[128];
    snprintf(line, sizeof(line), h.walkError, message);
    return line;
}

template <typename V>
void deliversThenEmptiesTheKernelMap(const Harvest<V>& h) {
    TestMap map(h.map);
    const V old = h.make(999);
    std::unordered_map<uint64_t, V> out{{7, old}, {99, old}};
    EXPECT_EQ(0, noLeak([&] { return h.service(out); }));
    EXPECT_EQ(2u, out.size()) << "an empty map adds nothing";

    const uint64_t kMaxKey = ~uint64_t{0};
    for (uint64_t key : {uint64_t{0}, uint64_t{7}, uint64_t{1} << 40, kMaxKey}) {
        ASSERT_TRUE(map.put(key, h.make(key)));
    }
    EXPECT_EQ(0, noLeak([&] { return h.service(out); }));
    EXPECT_EQ(5u, out.size());
    EXPECT_TRUE(sameBytes(old, out.at(7))) << "a key already in the table keeps its value";
    EXPECT_TRUE(sameBytes(old, out.at(99))) << "the caller's entries are never removed";
    for (uint64_t key : {uint64_t{0}, uint64_t{1} << 40, kMaxKey}) {
        ASSERT_EQ(1u, out.count(key)) << key;
        EXPECT_TRUE(sameBytes(h.make(key), out.at(key))) << key;
    }
    EXPECT_EQ(0u, map.size()) << "every record is cleared, the undelivered one for key 7 too";

    EXPECT_EQ(0, noLeak([&] { return h.service(out); }));
    EXPECT_EQ(5u, out.size()) << "a second harvest with nothing new adds nothing";
    EXPECT_TRUE(takeLogs().empty());
}

template <typename V>
void failedWalkLeavesTheKernelMapWhole(const Harvest<V>& h) {
    TestMap map(h.map);
    for (uint64_t key = 1; key <= 5; ++key) ASSERT_TRUE(map.put(key, h.make(key)));
    const auto order = map.keys();
    std::unordered_map<uint64_t, V> out;
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 3, EIO);
    EXPECT_EQ(-1, noLeak([&] { return h.service(out); }));
    EXPECT_EQ(2u, out.size()) << "records read before the failure stay";
    EXPECT_EQ(1u, out.count(order[0]));
    EXPECT_EQ(1u, out.count(order[1]));
    EXPECT_EQ(std::vector{errorLine(walkErrorLine(h, "BpfMap::readValue() failed"))}, takeLogs());
    for (uint64_t key = 1; key <= 5; ++key) {
        const auto kept = map.get(key);
        ASSERT_TRUE(kept.has_value()) << "record " << key << " was deleted undelivered";
        EXPECT_TRUE(sameBytes(h.make(key), *kept));
    }

    // A walk that cannot even start is no end of the map either.
    failBpfCommand(BPF_MAP_GET_NEXT_KEY, 1, EPERM);
    EXPECT_EQ(-1, noLeak([&] { return h.service(out); }));
    EXPECT_EQ(std::vector{errorLine(walkErrorLine(h, "BpfMap::getFirstKey() failed"))}, takeLogs());
    EXPECT_EQ(5u, map.size());

    // The next harvest delivers what the failed one left behind.
    resetInterposers();
    EXPECT_EQ(0, noLeak([&] { return h.service(out); }));
    EXPECT_EQ(5u, out.size());
    EXPECT_EQ(0u, map.size());
}

template <typename V>
void failedClearStillSucceeds(const Harvest<V>& h) {
    TestMap map(h.map);
    for (uint64_t key = 1; key <= 3; ++key) ASSERT_TRUE(map.put(key, h.make(key)));
    std::unordered_map<uint64_t, V> out;
    failBpfCommand(BPF_MAP_DELETE_ELEM, 2, EPERM);
    EXPECT_EQ(0, noLeak([&] { return h.service(out); }));
    EXPECT_EQ(3u, out.size()) << "everything read is delivered";
    EXPECT_EQ(2u, map.size()) << "the clear stopped at the failing delete";
    EXPECT_EQ(std::vector{untaggedError("Failed to delete data Operation not permitted")},
              takeLogs())
            << "only the clear reports its failure";
}

TEST_F(AppFreezeRecordsTest, HarvestDeliversEveryRecordThenEmptiesTheKernelMap) {
    deliversThenEmptiesTheKernelMap(kSyns);
    deliversThenEmptiesTheKernelMap(kStats);
}

TEST_F(AppFreezeRecordsTest, FailedWalkReturnsMinusOneAndLeavesTheKernelMapWhole) {
    failedWalkLeavesTheKernelMapWhole(kSyns);
    failedWalkLeavesTheKernelMapWhole(kStats);
}

TEST_F(AppFreezeRecordsTest, FailedClearDoesNotFailTheHarvest) {
    failedClearStillSucceeds(kSyns);
    failedClearStillSucceeds(kStats);
}

}  // namespace
}  // namespace kovra::test
