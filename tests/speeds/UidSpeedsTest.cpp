#include <algorithm>
#include <vector>

#include "Harness.h"
#include "SpeedRecords.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using UidSpeedsTable = std::unordered_map<uint64_t, IfaceSpeedsValue>;

constexpr uint32_t kStaleMs = 1000;

// The report's key: uid in the low half, ifindex in the high half.
uint64_t tableKey(const UidIfindexKey& key) {
    return uint64_t{key.ifindex} << 32 | key.uid;
}

std::vector<uint64_t> sortedTableKeys(const std::vector<UidIfindexKey>& keys) {
    std::vector<uint64_t> out;
    for (const UidIfindexKey& key : keys) out.push_back(tableKey(key));
    std::sort(out.begin(), out.end());
    return out;
}

void expectReport(const UidSpeedsTable& speeds, UidIfindexKey key, uint64_t first,
                  uint64_t second) {
    const auto entry = speeds.find(tableKey(key));
    ASSERT_NE(speeds.end(), entry) << "uid " << key.uid << " on " << key.ifindex << " not reported";
    EXPECT_EQ(first, entry->second.firstSpeedKbps) << "uid " << key.uid;
    EXPECT_EQ(second, entry->second.secondSpeedKbps) << "uid " << key.uid;
}

class UidSpeedsTest : public KernelTest {};

// The caller's clock makes the threshold exact: ages are whole milliseconds, and an age equal to
// the threshold is still fresh.
TEST_F(UidSpeedsTest, InternalWalkJudgesAgesAtTheCallersClock) {
    TestMap kernel(maps::kAppUidSpeeds);
    const uint64_t now = 1'000'000 * 1'000'000'000ull;
    const uint64_t threshold = kStaleMs * kNsPerMs;
    const uint64_t justStale = now - threshold - kNsPerMs;
    const UidIfindexKey still{10001, 3}, stale{10002, 3}, atThreshold{10003, 3},
            firstStale{10004, 3}, secondAhead{10005, 3}, widest{0xFFFFFFFF, 0xFFFFFFFE},
            known{10001, 4};
    const std::pair<UidIfindexKey, SpeedsValue> pairs[] = {
            {still, speedRecord(8, 0, now, 0, now)},
            {stale, speedRecord(3, 7000, justStale, 7000, justStale)},
            {atThreshold,
             speedRecord(3, 12'345, now - threshold, 6'999, now - threshold - kNsPerMs + 1)},
            {firstStale, speedRecord(3, 9'000, justStale, 4'000, now)},
            {secondAhead, speedRecord(3, 9'000, 0, 5'000, now + 1)},
            {widest, speedRecord(3, 1'000, now, 2'000, now)},
            {known, speedRecord(4, 1'000, now, 2'000, now)},
    };
    for (const auto& [key, value] : pairs) ASSERT_TRUE(kernel.put(key, value));
    UidSpeedsTable speeds{{tableKey(known), {77, 88}}};

    BpfMap handle(maps::kAppUidSpeeds);
    EXPECT_EQ(0, noLeak([&] {
                  return bpfGetAppUidSpeedsTotalInternal(speeds, handle, kStaleMs, now);
              }));

    EXPECT_EQ(6u, speeds.size());
    expectReport(speeds, still, 0, 0);
    expectReport(speeds, atThreshold, 12, 6);
    expectReport(speeds, firstStale, 0, 4);
    expectReport(speeds, secondAhead, 0, 5);
    expectReport(speeds, widest, 1, 2);
    expectReport(speeds, known, 77, 88);
    EXPECT_EQ(1u, speeds.count(0xFFFFFFFE'FFFFFFFFull)) << "uid low, ifindex high";
    EXPECT_EQ(sortedTableKeys({still, atThreshold, firstStale, secondAhead, widest, known}),
              sortedTableKeys(kernel.keys()))
            << "only the pair stale in both directions is pruned";
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(UidSpeedsTest, ServiceUsesTheMonotonicClockAndHidesAWalkError) {
    TestMap kernel(maps::kAppUidSpeeds);
    const uint64_t now = monotonicNow();
    ASSERT_TRUE(kernel.put({1, 1}, speedRecord(1, 3'000, now, 4'000, now)));
    ASSERT_TRUE(kernel.put({2, 1}, speedRecord(1, 3'000, kAtBoot, 4'000, kAtBoot)));
    ASSERT_TRUE(kernel.put({3, 1}, speedRecord(1, 3'000, kAtBoot, 4'000, now + 60'000 * kNsPerMs)));

    UidSpeedsTable speeds;
    EXPECT_EQ(0, noLeak([&] { return bpfGetAppUidSpeedsTotal(speeds, kStaleMs); }));
    EXPECT_EQ(2u, speeds.size());
    expectReport(speeds, {1, 1}, 3, 4);
    expectReport(speeds, {3, 1}, 0, 4);
    EXPECT_EQ(2u, kernel.size());
    EXPECT_TRUE(takeLogs().empty());

    const UidIfindexKey first = kernel.keys()[0];
    const LogLine walkError =
            errorLine("bpfGetAppUidSpeedsTotalInternal end with error: BpfMap::readValue() failed");
    speeds.clear();
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 2, EIO);
    EXPECT_EQ(0, noLeak([&] { return bpfGetAppUidSpeedsTotal(speeds, kStaleMs); }));
    EXPECT_EQ(1u, speeds.count(tableKey(first))) << "what was read stays";
    EXPECT_EQ(std::vector{walkError}, takeLogs());

    speeds.clear();
    BpfMap handle(maps::kAppUidSpeeds);
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 2, EIO);
    EXPECT_EQ(-1, bpfGetAppUidSpeedsTotalInternal(speeds, handle, kStaleMs, now));
    EXPECT_EQ(1u, speeds.size());
    EXPECT_EQ(std::vector{walkError}, takeLogs());
}

}  // namespace
}  // namespace kovra::test
