// The speed services: socket and UID reports with their pruning, the local-subnet filter, and
// the binding of interfaces with its sweeps.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <tuple>

#include <netutils/ifc.h>

#include "Harness.h"

namespace kovra::test {
namespace {

using SpeedsTable = std::unordered_map<uint64_t, SpeedsValue>;
using UidSpeedsTable = std::unordered_map<uint64_t, IfaceSpeedsValue>;
using WatchList = std::unordered_set<uint64_t>;
using Kbps = std::vector<std::tuple<uint64_t, uint64_t, uint64_t>>;  // key, first, second

constexpr uint32_t kStaleMs = 1000;
constexpr uint64_t kNsPerMs = 1'000'000;
constexpr uint64_t kAtBoot = 0;  // the stamp of a record idle since boot

// CLOCK_MONOTONIC in nanoseconds. kAtBoot must be stale against kStaleMs, so on a machine up for
// less than 5 s, such as a fresh test VM, this first waits.
uint64_t monotonicNow() {
    const uint64_t now = monotonicNowNs();
    if (now >= 5'000 * kNsPerMs) return now;
    usleep(useconds_t((5'000 * kNsPerMs - now) / 1000));
    return monotonicNow();
}

// Opaque fields hold recognisable values, so a report can be checked to copy them through.
SpeedsValue speedRecord(uint32_t ifindex, uint64_t firstSpeed, uint64_t firstStamp,
                        uint64_t secondSpeed, uint64_t secondStamp) {
    return {0xC0DE0000u + ifindex, ifindex, 11,         12, firstSpeed, 13, firstStamp, 21, 22,
            secondSpeed,           23,      secondStamp};
}

SocketTuple socketOn(uint32_t ifindex, const char* peer = "0.0.0.0", uint32_t ipv4Valid = 1) {
    SocketTuple tuple;
    memset(&tuple, 0x5a, sizeof(tuple));
    tuple.ifindex = ifindex;
    tuple.ipv4Valid = ipv4Valid;
    tuple.remoteAddr4 = inet_addr(peer);
    return tuple;
}

// The UID report's key: uid in the low half, ifindex in the high half.
uint64_t tableKey(UidIfindexKey key) {
    return uint64_t{key.ifindex} << 32 | key.uid;
}

// Maps, tables and walks come in hash order.
template <typename K>
std::vector<K> sorted(std::vector<K> keys) {
    std::sort(keys.begin(), keys.end());
    return keys;
}
template <typename Table>
auto sortedKeys(const Table& table) {
    std::vector<typename Table::key_type> keys;
    for (const auto& entry : table) keys.push_back(entry.first);
    return sorted(keys);
}
std::vector<LogLine> sortedLines(std::vector<LogLine> lines) {
    std::sort(lines.begin(), lines.end(), [](auto& a, auto& b) { return a.text < b.text; });
    return lines;
}

Kbps kbpsOf(const SpeedsTable& speeds) {
    Kbps out;
    for (const auto& [key, v] : speeds) out.emplace_back(key, v.firstSpeed, v.secondSpeed);
    return sorted(out);
}
Kbps kbpsOf(const UidSpeedsTable& speeds) {
    Kbps out;
    for (const auto& [key, v] : speeds) out.emplace_back(key, v.firstSpeedKbps, v.secondSpeedKbps);
    return sorted(out);
}
std::vector<LogLine> addLines(const Kbps& kbps) {
    std::vector<LogLine> lines;
    for (const auto& [cookie, first, second] : kbps) {
        lines.push_back(debugLine("add speed " + std::to_string(cookie) + " " +
                                  std::to_string(first) + " " + std::to_string(second) + " kbps"));
    }
    return sortedLines(lines);
}

// Every socket report must close what it opens and leave the caller's watch list as it was.
int report(SpeedsTable& speeds, uint32_t minKbps, const WatchList& watched = {}) {
    WatchList copy = watched;
    const int status =
            noLeak([&] { return bpfGetAppSocketSpeedsTotal(speeds, kStaleMs, minKbps, copy); });
    EXPECT_EQ(watched, copy);
    return status;
}

// Enabled interfaces, cookies with speeds, cookies with information, UIDs with speeds.
using Gathered = std::tuple<std::vector<uint32_t>, std::vector<uint64_t>, std::vector<uint64_t>,
                            std::vector<uint32_t>>;

// Every map the speed services touch.
struct SpeedMaps {
    TypedMap<uint32_t, IfIndexSpeedConfig> interfaces{maps::kAppSocketSpeedsIfindex};
    TypedMap<uint64_t, SpeedsValue> sockets{maps::kAppSocketSpeeds};
    TypedMap<uint64_t, SocketTuple> info{maps::kAppSocketInfo};
    TypedMap<UidIfindexKey, SpeedsValue> uids{maps::kAppUidSpeeds};

    // Socket 10 + n and UID 100 + n were measured on interface n, and UID 1007 on interface 8
    // although its key names interface 7.
    void gatherOn(std::initializer_list<uint32_t> ifindexes) const {
        for (uint32_t n : ifindexes) {
            sockets.put(10 + n, speedRecord(n, 1, 2, 3, 4));
            info.put(10 + n, socketOn(n));
            uids.put({100 + n, n}, speedRecord(n, 1, 2, 3, 4));
        }
        uids.put({1007, 7}, speedRecord(8, 1, 2, 3, 4));
    }
    Gathered left() const {
        std::vector<uint32_t> uidsLeft;
        for (const UidIfindexKey& key : uids.keys()) uidsLeft.push_back(key.uid);
        return {sorted(interfaces.keys()), sorted(sockets.keys()), sorted(info.keys()),
                sorted(uidsLeft)};
    }
};

class SocketSpeedsTest : public KernelTest {};

TEST_F(SocketSpeedsTest, ReportAppliesStalenessFloorAndWatchListAndPrunes) {
    SpeedMaps kernel;
    const uint64_t now = monotonicNow(), ahead = now + 3'600'000 * kNsPerMs;
    const std::map<uint64_t, SpeedsValue> sockets = {
            {1, speedRecord(3, 5'000'999, now, 2'000'000, now)},
            // stale both ways: for 2 s, and since boot
            {2, speedRecord(3, 9'000'000, now - 2'000 * kNsPerMs, 9'000'000, kAtBoot)},
            {3, speedRecord(3, 7'000'000, kAtBoot, 3'000'000, now)},
            {4, speedRecord(3, 7'000'000, kAtBoot, 1'500'000, ahead)},  // a stamp ahead is fresh
            {5, speedRecord(3, 4'000'000, ahead, 9'000'000, kAtBoot)},
            {6, speedRecord(4, 8'000'000, now, 8'000'000, now)},  // already in the caller's table
            {7, speedRecord(3, 0, now, 500, now)},                // watched, slow
            {8, speedRecord(3, 0, now, 0, now)},                  // watched, still
            {9, speedRecord(3, 999'999, kAtBoot, 0, now)},        // watched, moving only if stale
            {10, speedRecord(3, 704, now, 0, now)},
            {11, speedRecord(3, 703, now, 703, now)},
            {12, speedRecord(3, 0, now, 704, now)},
    };
    for (const auto& [cookie, value] : sockets) kernel.sockets.put(cookie, value);
    kernel.info.put(1, socketOn(3));
    kernel.info.put(2, socketOn(3));
    SpeedsTable speeds{{6, speedRecord(9, 1, 2, 3, 4)}};

    // Below the floor of 1000 kbps only a watched socket with a live, non-zero speed is reported.
    EXPECT_EQ(0, report(speeds, 1000, {7, 8, 9, 99}));
    Kbps reported{{1, 5000, 2000}, {3, 0, 3000},    {4, 0, 1500},
                  {5, 4000, 0},    {6, 8000, 8000}, {7, 0, 0}};
    EXPECT_EQ(addLines(reported), sortedLines(takeLogs()));
    reported[4] = {6, 1, 3};  // the caller's entry for socket 6 stays, though it was logged
    EXPECT_EQ(reported, kbpsOf(speeds));
    SpeedsValue copied = sockets.at(1);
    copied.firstSpeed = 5000;
    copied.secondSpeed = 2000;
    EXPECT_TRUE(sameBytes(copied, speeds.at(1))) << "all but the speeds is copied through";
    const std::vector<uint64_t> live{1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(live, sorted(kernel.sockets.keys()));
    EXPECT_EQ(std::vector<uint64_t>{1}, kernel.info.keys()) << "pruning takes the info too";
    EXPECT_TRUE(sameBytes(sockets.at(1), *kernel.sockets.get(1)));

    // 4294968 kbps is 4294968000, which wraps to a floor of 704 in 32 bits.
    speeds.clear();
    EXPECT_EQ(0, report(speeds, 4294968));
    EXPECT_EQ((std::vector<uint64_t>{1, 3, 4, 5, 6, 10, 12}), sortedKeys(speeds));
    speeds.clear();
    EXPECT_EQ(0, report(speeds, 0));
    EXPECT_EQ(live, sortedKeys(speeds)) << "with no floor every socket is reported";

    // A walk error is logged; what was reported before it stays.
    speeds.clear();
    takeLogs();
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 2, EIO);
    EXPECT_EQ(0, report(speeds, 0));
    EXPECT_EQ(std::vector<uint64_t>{kernel.sockets.keys()[0]}, sortedKeys(speeds));
    std::vector<LogLine> lines = addLines(kbpsOf(speeds));
    lines.push_back(
            errorLine("bpfGetAppSocketSpeedsTotalInternal end with error: "
                      "BpfMap::readValue() failed"));
    EXPECT_EQ(lines, takeLogs());
}

using SocketSpeedsDeathTest = SocketSpeedsTest;

TEST_F(SocketSpeedsDeathTest, MissingSocketInformationEndsTheProcessBeforeAnyPruning) {
    TypedMap speedsMap(maps::kAppSocketSpeeds);
    TypedMap interfaces(maps::kAppSocketSpeedsIfindex);
    speedsMap.put(1, speedRecord(3, 1, kAtBoot, 1, kAtBoot));
    SpeedsTable speeds;
    WatchList watched;
    expectAborts([&] { bpfGetAppSocketSpeedsTotal(speeds, kStaleMs, 0, watched); });
    EXPECT_EQ(1u, speedsMap.size());
}

class SocketLocalityTest : public KernelTest {};

TEST_F(SocketLocalityTest, LocalSocketsAreLeftOutOnlyWhereTheInterfaceAsks) {
    SpeedMaps kernel;
    const sandbox::PrivateNetwork* network = testNetwork();
    ASSERT_TRUE(network);
    const sandbox::PrivateNetwork& net = *network;
    const uint64_t now = monotonicNow();
    const SocketTuple sockets[] = {
            socketOn(net.subnet, "192.0.2.9"),     // 1: in kovra0's subnet
            socketOn(net.subnet, "203.0.113.9"),   // 2: outside it
            socketOn(net.subnet, "192.0.2.9", 0),  // 3: no IPv4 peer
            socketOn(net.loopback, "127.0.0.9"),   // 4: in lo's subnet
            socketOn(net.bare, "192.0.2.9"),       // 5: interface without IPv4 address
            socketOn(987654, "192.0.2.9"),         // 6: no such interface
    };
    for (uint64_t cookie = 1; cookie <= 6; ++cookie) {
        const SocketTuple& tuple = sockets[cookie - 1];
        kernel.info.put(cookie, tuple);
        kernel.sockets.put(cookie, speedRecord(tuple.ifindex, 5000, now, 0, now));
    }

    // Alone, the test has no interface-control context to ask through.
    EXPECT_EQ(-1, noLeak([] { return bpfGetSocketLocalStatus(1); }));
    EXPECT_EQ(std::vector{errorLine("ifc_get_info failed is null kovra0 Bad file descriptor!")},
              takeLogs());
    ASSERT_EQ(0, ifc_init());
    std::vector<int> statuses;
    for (uint64_t cookie = 1; cookie <= 7; ++cookie) {
        statuses.push_back(noLeak([&] { return bpfGetSocketLocalStatus(cookie); }));
    }
    ifc_close();
    EXPECT_EQ((std::vector{1, 0, -1, 1, -1, -1, -1}), statuses);
    const LogLine noAddress =
            errorLine("ifc_get_info failed is null kovra1 Cannot assign requested address!");
    EXPECT_EQ((std::vector{noAddress, errorLine("ifName is null 987654!"),
                           errorLine("appSocketInfoMap read socket 7 failed!")}),
              takeLogs());

    // An unreadable measurement table filters nothing, silently.
    kernel.interfaces.put(net.subnet, {1, 1});
    SpeedsTable speeds;
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 1, EIO);
    EXPECT_EQ(0, report(speeds, 0));
    EXPECT_EQ(6u, speeds.size());
    EXPECT_EQ(6u, takeLogs().size());
    resetInterposers();

    // Only localEnable 1 filters, and a socket whose locality cannot be told is reported.
    kernel.interfaces.put(net.loopback, {1, 2});
    kernel.interfaces.put(net.bare, {1, 1});
    speeds.clear();
    EXPECT_EQ(0, report(speeds, 0));
    const Kbps reported{{2, 5, 0}, {3, 5, 0}, {4, 5, 0}, {5, 5, 0}, {6, 5, 0}};
    EXPECT_EQ(reported, kbpsOf(speeds));
    std::vector<LogLine> lines = addLines(reported);
    lines.push_back(noAddress);
    EXPECT_EQ(sortedLines(lines), sortedLines(takeLogs()));
    EXPECT_EQ(6u, kernel.sockets.size()) << "left-out sockets are not pruned";
}

class UidSpeedsTest : public KernelTest {};

// The caller's clock makes the threshold exact: ages are whole milliseconds, and an age equal to
// the threshold is still fresh.
TEST_F(UidSpeedsTest, InternalWalkJudgesAgesAtTheCallersClock) {
    TypedMap kernel(maps::kAppUidSpeeds);
    const uint64_t now = 1'000'000 * 1'000'000'000ull;
    const uint64_t atLimit = now - kStaleMs * kNsPerMs, justStale = atLimit - kNsPerMs;
    constexpr uint64_t kPruned = ~0ull;
    // Each pair with what the report holds for it.
    const std::tuple<UidIfindexKey, SpeedsValue, uint64_t, uint64_t> pairs[] = {
            {{10001, 3}, speedRecord(8, 0, now, 0, now), 0, 0},
            {{10002, 3}, speedRecord(3, 7000, justStale, 7000, justStale), kPruned, 0},
            {{10003, 3}, speedRecord(3, 12'345, atLimit, 6'999, justStale + 1), 12, 6},
            {{10004, 3}, speedRecord(3, 9'000, justStale, 4'000, now), 0, 4},
            {{10005, 3}, speedRecord(3, 9'000, 0, 5'000, now + 1), 0, 5},
            {{0xFFFFFFFF, 0xFFFFFFFE}, speedRecord(3, 1'000, now, 2'000, now), 1, 2},
            {{10001, 4}, speedRecord(4, 1'000, now, 2'000, now), 77, 88},  // already reported
    };
    UidSpeedsTable speeds{{tableKey({10001, 4}), {77, 88}}};
    Kbps expected;
    for (const auto& [key, value, first, second] : pairs) {
        kernel.put(key, value);
        if (first != kPruned) expected.emplace_back(tableKey(key), first, second);
    }
    BpfMap handle(maps::kAppUidSpeeds);
    EXPECT_EQ(0, bpfGetAppUidSpeedsTotalInternal(speeds, handle, kStaleMs, now));
    EXPECT_EQ(sorted(expected), kbpsOf(speeds));
    std::vector<uint64_t> left;
    for (const UidIfindexKey& key : kernel.keys()) left.push_back(tableKey(key));
    EXPECT_EQ(sortedKeys(speeds), sorted(left)) << "only the pair stale both ways is pruned";
    EXPECT_TRUE(takeLogs().empty());

    // With no age allowed, a stamp at or after the caller's clock is still fresh (age 0).
    UidSpeedsTable strict;
    EXPECT_EQ(0, bpfGetAppUidSpeedsTotalInternal(strict, handle, 0, now));
    EXPECT_EQ((Kbps{{tableKey({10001, 3}), 0, 0},
                    {tableKey({10004, 3}), 0, 4},
                    {tableKey({10005, 3}), 0, 5},
                    {tableKey({10001, 4}), 1, 2},
                    {tableKey({0xFFFFFFFF, 0xFFFFFFFE}), 1, 2}}),
              kbpsOf(strict));
}

TEST_F(UidSpeedsTest, ServiceUsesTheMonotonicClockAndHidesAWalkError) {
    TypedMap kernel(maps::kAppUidSpeeds);
    const uint64_t now = monotonicNow();
    kernel.put({1, 1}, speedRecord(1, 3'000, now, 4'000, now));
    kernel.put({2, 1}, speedRecord(1, 3'000, kAtBoot, 4'000, kAtBoot));
    kernel.put({3, 1}, speedRecord(1, 5'000, now, 6'000, now));
    UidSpeedsTable speeds;
    EXPECT_EQ(0, noLeak([&] { return bpfGetAppUidSpeedsTotal(speeds, kStaleMs); }));
    EXPECT_EQ((Kbps{{tableKey({1, 1}), 3, 4}, {tableKey({3, 1}), 5, 6}}), kbpsOf(speeds));
    EXPECT_EQ(2u, kernel.size());

    // Lookup 2 fails: the pair read first is all the report holds; only the walk returns -1.
    BpfMap handle(maps::kAppUidSpeeds);
    for (int status : {0, -1}) {
        UidSpeedsTable partial;
        failBpfCommand(BPF_MAP_LOOKUP_ELEM, 2, EIO);
        EXPECT_EQ(status,
                  status == 0 ? bpfGetAppUidSpeedsTotal(partial, kStaleMs)
                              : bpfGetAppUidSpeedsTotalInternal(partial, handle, kStaleMs, now));
        EXPECT_EQ(std::vector{tableKey(kernel.keys()[0])}, sortedKeys(partial));
        EXPECT_EQ(std::vector{errorLine("bpfGetAppUidSpeedsTotalInternal end with error: "
                                        "BpfMap::readValue() failed")},
                  takeLogs());
    }
}

class InterfaceBindingTest : public KernelTest {};

// The walk errors of the three sweeps, in the order a disable runs them.
const std::string kSweepFailed[] = {
        "bpfDeleteIfindexSocketSpeeds end with error: BpfMap::readValue() failed",
        "bpfDeleteIfindexUidSpeeds end with error: BpfMap::readValue() failed",
        "bpfDelIfIndexSocketInfoMap end with error: BpfMap::readValue() failed"};

TEST_F(InterfaceBindingTest, EnableStoresOneAndDisableWipesWhatTheValuesSayWasGathered) {
    SpeedMaps kernel;
    kernel.gatherOn({7, 8, 9});
    kernel.interfaces.put(8, {1, 0});
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(7, 5, 1); }));
    EXPECT_TRUE(sameBytes(IfIndexSpeedConfig{1, 1}, *kernel.interfaces.get(7)));
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(7, -1, 0); }));
    EXPECT_TRUE(sameBytes(IfIndexSpeedConfig{1, 0}, *kernel.interfaces.get(7)));
    EXPECT_EQ(Gathered({7, 8}, {17, 18, 19}, {17, 18, 19}, {107, 108, 109, 1007}), kernel.left());
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(7, 0, 1); }));
    EXPECT_EQ(Gathered({8}, {18, 19}, {18, 19}, {108, 109, 1007}), kernel.left());
    EXPECT_TRUE(takeLogs().empty());

    // A sweep that fails does not stop the others, nor the table delete, nor fail the call.
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 1, EIO);
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(8, 0, 0); }));
    EXPECT_EQ(Gathered({}, {18, 19}, {19}, {109}), kernel.left());
    // Interface 9 was never enabled: its data still goes, but the table delete fails the call.
    EXPECT_EQ(-1, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(9, 0, 0); }));
    EXPECT_EQ(Gathered({}, {18}, {}, {}), kernel.left());
    failBpfCommand(BPF_MAP_UPDATE_ELEM, 1, E2BIG);
    EXPECT_EQ(-1, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(9, 1, 1); }));
    const std::string failed = "bpfUpdateAppSocketSpeedsIfindex failed! 9,";
    EXPECT_EQ((std::vector{errorLine(kSweepFailed[0]),
                           errorLine(failed + "0,No such file or directory"),
                           errorLine(failed + "1,Argument list too long")}),
              takeLogs());
}

TEST_F(InterfaceBindingTest, SweepsAloneDeleteByTheValuesInterfaceAndReportWalkErrors) {
    SpeedMaps kernel;
    kernel.gatherOn({7, 8});
    int (*const sweeps[])(uint32_t) = {bpfDeleteIfindexSocketSpeeds, bpfDeleteIfindexUidSpeeds,
                                       bpfDelIfIndexSocketInfoMap};
    for (size_t i = 0; i < 3; ++i) {
        failBpfCommand(BPF_MAP_LOOKUP_ELEM, 1, EIO);
        EXPECT_EQ(-1, noLeak([&] { return sweeps[i](7); }));
        EXPECT_EQ(std::vector{errorLine(kSweepFailed[i])}, takeLogs());
        resetInterposers();
        EXPECT_EQ(0, noLeak([&] { return sweeps[i](7); }));
    }
    EXPECT_EQ(Gathered({}, {18}, {18}, {108, 1007}), kernel.left());
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(InterfaceBindingTest, ConfigWordGoesUnderKeyZeroAndARejectedWriteStillSucceeds) {
    TypedMap config(maps::kAppSocketSpeedsConfig);
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsConfig(0xDEADBEEF); }));
    EXPECT_EQ(std::vector<uint32_t>{0}, config.keys());
    EXPECT_EQ(0xDEADBEEF, config.get(0));
    failBpfCommand(BPF_MAP_UPDATE_ELEM, 1, ENOSPC);
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsConfig(5); }));
    EXPECT_TRUE(takeLogs().empty());
}

}  // namespace
}  // namespace kovra::test
