#include <arpa/inet.h>

#include <algorithm>
#include <vector>

#include <netutils/ifc.h>

#include "Harness.h"
#include "Netns.h"
#include "SpeedRecords.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using SpeedsTable = std::unordered_map<uint64_t, SpeedsValue>;
using WatchList = std::unordered_set<uint64_t>;

constexpr uint32_t kStaleMs = 1000;
constexpr uint64_t kAnHour = 3'600'000 * kNsPerMs;

// The maps a socket report reads, created in the test's private bpffs.
struct SocketMaps {
    TestMap<uint64_t, SpeedsValue> speeds{maps::kAppSocketSpeeds};
    TestMap<uint64_t, SocketTuple> info{maps::kAppSocketInfo};
    TestMap<uint32_t, IfIndexSpeedConfig> interfaces{maps::kAppSocketSpeedsIfindex};
};

SocketTuple socketOn(uint32_t ifindex, const char* peer, uint32_t ipv4Valid = 1) {
    SocketTuple tuple;
    memset(&tuple, 0x5a, sizeof(tuple));
    tuple.ifindex = ifindex;
    tuple.ipv4Valid = ipv4Valid;
    tuple.remoteAddr4 = inet_addr(peer);
    return tuple;
}

// What the report holds for a record: the record's own bytes with its speeds in kbps.
SpeedsValue reported(SpeedsValue value, uint64_t firstKbps, uint64_t secondKbps) {
    value.firstSpeed = firstKbps;
    value.secondSpeed = secondKbps;
    return value;
}

std::vector<uint64_t> sortedKeys(const SpeedsTable& table) {
    std::vector<uint64_t> keys;
    for (const auto& entry : table) keys.push_back(entry.first);
    std::sort(keys.begin(), keys.end());
    return keys;
}

// Log lines of a walk come in the kernel's key order.
std::vector<LogLine> sortedLogs() {
    std::vector<LogLine> lines = takeLogs();
    std::sort(lines.begin(), lines.end(),
              [](const auto& a, const auto& b) { return a.text < b.text; });
    return lines;
}

int report(SpeedsTable& speeds, uint32_t minKbps, WatchList watched = {}) {
    return noLeak([&] { return bpfGetAppSocketSpeedsTotal(speeds, kStaleMs, minKbps, watched); });
}

class SocketSpeedsTest : public KernelTest {};

TEST_F(SocketSpeedsTest, ReportsInKbpsAndPrunesSocketsStaleInBothDirections) {
    SocketMaps kernel;
    const uint64_t now = monotonicNow();
    const SpeedsValue fresh = speedRecord(3, 5'000'999, now, 2'000'000, now);
    const SpeedsValue stale = speedRecord(3, 9'000'000, kAtBoot, 9'000'000, kAtBoot);
    const SpeedsValue firstStale = speedRecord(3, 7'000'000, kAtBoot, 3'000'000, now);
    const SpeedsValue secondAhead = speedRecord(3, 7'000'000, kAtBoot, 1'500'000, now + kAnHour);
    const SpeedsValue firstAhead = speedRecord(3, 4'000'000, now + kAnHour, 9'000'000, kAtBoot);
    const SpeedsValue known = speedRecord(4, 8'000'000, now, 8'000'000, now);
    const std::pair<uint64_t, SpeedsValue> sockets[] = {
            {1, fresh}, {2, stale}, {3, firstStale}, {4, secondAhead}, {5, firstAhead}, {6, known}};
    for (const auto& [cookie, value] : sockets) ASSERT_TRUE(kernel.speeds.put(cookie, value));
    ASSERT_TRUE(kernel.info.put(1, socketOn(3, "198.51.100.7")));
    ASSERT_TRUE(kernel.info.put(2, socketOn(3, "198.51.100.8")));
    const SpeedsValue old = speedRecord(9, 1, 2, 3, 4);
    SpeedsTable speeds{{6, old}};

    EXPECT_EQ(0, report(speeds, 1000));

    EXPECT_EQ((std::vector<uint64_t>{1, 3, 4, 5, 6}), sortedKeys(speeds));
    EXPECT_TRUE(sameBytes(reported(fresh, 5000, 2000), speeds.at(1)));
    EXPECT_TRUE(sameBytes(reported(firstStale, 0, 3000), speeds.at(3)));
    EXPECT_TRUE(sameBytes(reported(secondAhead, 0, 1500), speeds.at(4)))
            << "a stamp in the future is fresh";
    EXPECT_TRUE(sameBytes(reported(firstAhead, 4000, 0), speeds.at(5)));
    EXPECT_TRUE(sameBytes(old, speeds.at(6))) << "a cookie already reported keeps its entry";
    EXPECT_EQ((std::vector{
                      debugLine("add speed 1 5000 2000 kbps"), debugLine("add speed 3 0 3000 kbps"),
                      debugLine("add speed 4 0 1500 kbps"), debugLine("add speed 5 4000 0 kbps"),
                      debugLine("add speed 6 8000 8000 kbps")}),
              sortedLogs());

    EXPECT_EQ((std::vector<uint64_t>{1, 3, 4, 5, 6}), sorted(kernel.speeds.keys()));
    EXPECT_EQ(std::vector<uint64_t>{1}, kernel.info.keys())
            << "pruning takes the socket's information too";
    EXPECT_TRUE(sameBytes(fresh, *kernel.speeds.get(1)))
            << "reporting never rewrites the kernel's record";
}

TEST_F(SocketSpeedsTest, FloorWrapsIn32BitsAndWatchedSocketsMustMove) {
    SocketMaps kernel;
    const uint64_t now = monotonicNow();
    enum : uint64_t {
        kStill = 1,
        kAtWrappedFloor,
        kBelowWrappedFloor,
        kWatchedSlow,
        kWatchedStill,
        kWatchedOnlyStale,
        kSlow
    };
    const std::pair<uint64_t, SpeedsValue> sockets[] = {
            {kStill, speedRecord(3, 0, now, 0, now)},
            {kAtWrappedFloor, speedRecord(3, 704, now, 0, now)},
            {kBelowWrappedFloor, speedRecord(3, 703, now, 703, now)},
            {kWatchedSlow, speedRecord(3, 0, now, 500, now)},
            {kWatchedStill, speedRecord(3, 0, now, 0, now)},
            {kWatchedOnlyStale, speedRecord(3, 999'999, kAtBoot, 0, now)},
            {kSlow, speedRecord(3, 500, now, 500, now)},
    };
    for (const auto& [cookie, value] : sockets) ASSERT_TRUE(kernel.speeds.put(cookie, value));

    SpeedsTable speeds;
    EXPECT_EQ(0, report(speeds, 0));
    EXPECT_EQ(7u, speeds.size()) << "with no floor every socket is reported, even a still one";
    takeLogs();

    // 4294968 kbps is 4294968000, which wraps to a floor of 704 in 32 bits.
    speeds.clear();
    EXPECT_EQ(0, report(speeds, 4294968));
    EXPECT_EQ(std::vector<uint64_t>{kAtWrappedFloor}, sortedKeys(speeds));
    EXPECT_EQ(std::vector{debugLine("add speed 2 0 0 kbps")}, takeLogs());

    speeds.clear();
    WatchList watched{kWatchedSlow, kWatchedStill, kWatchedOnlyStale, 99};
    const WatchList asGiven = watched;
    EXPECT_EQ(0, noLeak([&] { return bpfGetAppSocketSpeedsTotal(speeds, kStaleMs, 1, watched); }));
    EXPECT_EQ(std::vector<uint64_t>{kWatchedSlow}, sortedKeys(speeds))
            << "below the floor only a watched socket with a live, non-zero speed is reported";
    EXPECT_EQ(asGiven, watched);
    EXPECT_EQ(7u, kernel.speeds.size());
}

TEST_F(SocketSpeedsTest, AWalkErrorIsLoggedAndKeepsWhatWasReported) {
    SocketMaps kernel;
    const uint64_t now = monotonicNow();
    for (uint64_t cookie = 1; cookie <= 3; ++cookie) {
        ASSERT_TRUE(kernel.speeds.put(cookie, speedRecord(3, 2000 * cookie, now, 0, now)));
    }
    const uint64_t first = kernel.speeds.keys()[0];
    SpeedsTable speeds;
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 2, EIO);
    EXPECT_EQ(0, report(speeds, 0));
    EXPECT_EQ(std::vector<uint64_t>{first}, sortedKeys(speeds));
    char added[64];
    snprintf(added, sizeof(added), "add speed %lu %lu 0 kbps", first, 2 * first);
    EXPECT_EQ(
            (std::vector{debugLine(added), errorLine("bpfGetAppSocketSpeedsTotalInternal end with "
                                                     "error: BpfMap::readValue() failed")}),
            takeLogs());
}

TEST_F(SocketSpeedsTest, MisshapenSocketInformationEndsTheProcessBeforeAnyPruning) {
    TestMap speedsMap(maps::kAppSocketSpeeds);
    TestMap interfaces(maps::kAppSocketSpeedsIfindex);
    ASSERT_TRUE(speedsMap.put(1, speedRecord(3, 1, 0, 1, 0)));
    SpeedsTable speeds;
    WatchList watched;
    expectAborts([&] { bpfGetAppSocketSpeedsTotal(speeds, kStaleMs, 0, watched); });

    RawMap shortTuple(maps::kAppSocketInfo.path, 8, 56);
    expectAborts([&] { bpfGetAppSocketSpeedsTotal(speeds, kStaleMs, 0, watched); });
    expectAborts([&] { bpfGetSocketLocalStatus(1); });
    EXPECT_EQ(1u, speedsMap.size()) << "the stale socket outlives the aborted calls";
}

class SocketLocalityTest : public NetnsTest {};

TEST_F(SocketLocalityTest, LocalStatusComparesThePeerWithTheInterfaceSubnet) {
    TestMap info(maps::kAppSocketInfo);
    const unsigned subnet = network().subnet;
    ASSERT_TRUE(info.put(1, socketOn(subnet, "192.0.2.77")));
    ASSERT_TRUE(info.put(2, socketOn(subnet, "192.0.3.77")));
    ASSERT_TRUE(info.put(3, socketOn(subnet, "192.0.2.77", 0)));
    ASSERT_TRUE(info.put(4, socketOn(network().bare, "192.0.2.77")));
    ASSERT_TRUE(info.put(5, socketOn(987654, "192.0.2.77")));

    // Alone, the test has no interface-control context to ask through.
    EXPECT_EQ(-1, noLeak([] { return bpfGetSocketLocalStatus(1); }));
    EXPECT_EQ(std::vector{errorLine("ifc_get_info failed is null kovra0 Bad file descriptor!")},
              takeLogs());

    ASSERT_EQ(0, ifc_init());
    EXPECT_EQ(1, noLeak([] { return bpfGetSocketLocalStatus(1); }));
    EXPECT_EQ(0, noLeak([] { return bpfGetSocketLocalStatus(2); }));
    EXPECT_EQ(-1, noLeak([] { return bpfGetSocketLocalStatus(3); })) << "no IPv4 peer, no answer";
    EXPECT_TRUE(takeLogs().empty());

    EXPECT_EQ(-1, noLeak([] { return bpfGetSocketLocalStatus(4); }));
    EXPECT_EQ(-1, noLeak([] { return bpfGetSocketLocalStatus(5); }));
    EXPECT_EQ(-1, noLeak([] { return bpfGetSocketLocalStatus(6); }));
    ifc_close();
    EXPECT_EQ(
            (std::vector{
                    errorLine(
                            "ifc_get_info failed is null kovra1 Cannot assign requested address!"),
                    errorLine("ifName is null 987654!"),
                    errorLine("appSocketInfoMap read socket 6 failed!")}),
            takeLogs());
}

TEST_F(SocketLocalityTest, ReportLeavesOutLocalSocketsOnlyWhereTheInterfaceAsks) {
    SocketMaps kernel;
    const TestNetwork& net = network();
    const uint64_t now = monotonicNow();
    enum : uint64_t { kLocal = 1, kRemote, kNoIpv4, kLoopback, kBare };
    const std::pair<uint64_t, SocketTuple> sockets[] = {
            {kLocal, socketOn(net.subnet, "192.0.2.9")},
            {kRemote, socketOn(net.subnet, "203.0.113.9")},
            {kNoIpv4, socketOn(net.subnet, "192.0.2.9", 0)},
            {kLoopback, socketOn(net.loopback, "127.0.0.9")},
            {kBare, socketOn(net.bare, "192.0.2.9")},
    };
    for (const auto& [cookie, tuple] : sockets) {
        ASSERT_TRUE(kernel.info.put(cookie, tuple));
        ASSERT_TRUE(kernel.speeds.put(cookie, speedRecord(tuple.ifindex, 5000, now, 0, now)));
    }
    ASSERT_TRUE(kernel.interfaces.put(net.subnet, {1, 1}));

    // The measurement table cannot be read: nothing is filtered, and nothing is said about it.
    SpeedsTable speeds;
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 1, EIO);
    EXPECT_EQ(0, report(speeds, 0));
    EXPECT_EQ(5u, speeds.size());
    EXPECT_EQ(5u, takeLogs().size());
    resetInterposers();

    ASSERT_TRUE(kernel.interfaces.put(net.loopback, {1, 2}));
    ASSERT_TRUE(kernel.interfaces.put(net.bare, {1, 0}));
    speeds.clear();
    EXPECT_EQ(0, report(speeds, 0));
    EXPECT_EQ((std::vector<uint64_t>{kRemote, kNoIpv4, kLoopback, kBare}), sortedKeys(speeds))
            << "only localEnable 1 filters";
    takeLogs();

    ASSERT_TRUE(kernel.interfaces.put(net.loopback, {1, 1}));
    ASSERT_TRUE(kernel.interfaces.put(net.bare, {1, 1}));
    speeds.clear();
    EXPECT_EQ(0, report(speeds, 0));
    EXPECT_EQ((std::vector<uint64_t>{kRemote, kNoIpv4, kBare}), sortedKeys(speeds));
    EXPECT_EQ((std::vector{debugLine("add speed 2 5 0 kbps"), debugLine("add speed 3 5 0 kbps"),
                           debugLine("add speed 5 5 0 kbps"),
                           errorLine("ifc_get_info failed is null kovra1 Cannot assign requested "
                                     "address!")}),
              sortedLogs());
    EXPECT_EQ(5u, kernel.speeds.size()) << "filtered sockets are not pruned";
}

}  // namespace
}  // namespace kovra::test
