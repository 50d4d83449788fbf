// The live side end to end: every catalogue map pinned in the test's private bpffs, the desk's
// programs attached to a private cgroup, and the traffic driver sending as app UIDs in the test
// process's own network namespace. One test per family compares what the services report with
// what the driver sent, beyond what the demo's self-checks already hold; a bounded soak calls
// every family's services while traffic runs.
//
// Byte formula on loopback TCP (timestamps on): every segment carries 20 bytes of IP and 32 of
// TCP header, the SYN 8 more of options; so the sender's bytes are its payload, plus what it
// retransmitted, + 52 x its packets + 8. UDP: payload + 28 per datagram.
#include <arpa/inet.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include <kovralive/Live.h>
#include <kovralive/Traffic.h>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using sandbox::openMap;

// Room in the three sequence maps: small, so that a test can fill them.
constexpr uint32_t kSequenceEntries = 64;

class LiveTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        ASSERT_TRUE(testNetwork());
        struct stat netns;
        ASSERT_EQ(0, stat("/proc/self/ns/net", &netns));
        setenv(live::kNetnsEnv, std::to_string(netns.st_ino).c_str(), 1);
        for (const PinnedMapInfo& row : kPinnedMaps) {
            const bool sequence = strstr(row.path, "sk_tcp_cookie_") != nullptr;
            RawMap(row.path, row.keySize, row.valueSize, sequence ? kSequenceEntries : 4096);
        }
        try {
            mLive = std::make_unique<live::LiveSide>();
            if (!mLive->swept().empty()) fprintf(stderr, "live test: %s\n", mLive->swept().c_str());
        } catch (const live::LiveError& e) {
            // Like a missing bpffs: a kernel without cgroup programs skips, except under CI.
            if (!e.cannotAttach || underCi()) FAIL() << e.what();
            GTEST_SKIP() << "live test skipped: " << e.what();
        }
    }
    void TearDown() override {
        mLive.reset();
        KernelTest::TearDown();
    }
    // Flows in the driver's own notation ("uid=10001,peer=10002,bytes=1000,proto=udp"), 30 s at
    // most unless a flow says otherwise.
    std::vector<traffic::Sent> drive(const std::vector<std::string>& flows) const {
        std::vector<traffic::Flow> parsed;
        for (const std::string& f : flows) {
            parsed.push_back(traffic::parseFlow(
                    f.find("limit=") != std::string::npos ? f : "limit=30000," + f));
        }
        return traffic::run(parsed, mLive->cgroup());
    }
    std::unique_ptr<live::LiveSide> mLive;
};

template <typename Map>
Map snapshot(int (*service)(Map&)) {
    Map out;
    EXPECT_EQ(0, service(out));
    return out;
}

// The counter of `uid` in a service's table; a UID without one fails the test, naming it, and
// reads as 0, which every check of a counter here also refuses.
template <typename Map>
uint64_t counterOf(const Map& counters, uint32_t uid) {
    const auto found = counters.find(uid);
    if (found == counters.end()) ADD_FAILURE() << "no counter for UID " << uid;
    return found == counters.end() ? 0 : found->second;
}

// Waits for `done` to hold, checking every 50 ms, for at most 15 s.
template <typename F>
bool await(F done) {
    for (int i = 0; i < 300 && !done(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

using LiveStats = LiveTest;

TEST_F(LiveStats, BothRecordsHoldWhatTheDriverSent) {
    const auto sent = drive({"uid=10001,peer=10002,bytes=200000",
                             "uid=10003,peer=10004,bytes=35000,proto=udp,chunk=700"});
    ASSERT_EQ(200000u, sent[0].received);
    const auto pur = snapshot(bpfGetUidPurStatsTotal);
    const auto netd = snapshot(bpfGetUidStatsTotal);
    const KovraStatsValue& app = pur.at(10001);
    EXPECT_EQ(200000 + sent[0].retransmitted + 52 * app.txPackets + 8, app.txBytes);
    // The last acknowledgement may leave a socket that is closed already (TIME_WAIT: no UID).
    EXPECT_LE(app.txPackets, pur.at(10002).rxPackets);
    EXPECT_LE(pur.at(10002).rxPackets, app.txPackets + 2);
    // SYN, FIN, and at least one segment per 64 KiB; at most one per write and a few ACKs more.
    EXPECT_GE(app.txPackets, 2 + 200000 / 65536 + 1);
    EXPECT_LE(app.txPackets, sent[0].messages + 10);
    EXPECT_EQ(app.rxBytes + app.txBytes, app.extra0) << "TCP bytes";
    EXPECT_EQ(0u, app.extra1);
    EXPECT_EQ(50u * (700 + 28), pur.at(10003).extra1) << "UDP bytes";
    EXPECT_EQ(pur.at(10003).txBytes, pur.at(10004).rxBytes);
    // netd's record holds the same four counters.
    for (const auto& [uid, value] : pur) EXPECT_EQ(0, memcmp(&value, &netd.at(uid), 32)) << uid;
    KovraStatsValue one{};
    EXPECT_EQ(0, bpfGetUidPurStats(10001, one));
    EXPECT_TRUE(sameBytes(app, one));
}

using LiveFirewall = LiveTest;

TEST_F(LiveFirewall, BlockedTrafficIsDroppedBothWaysAndNotCounted) {
    ASSERT_EQ(0, bpfDisableNetwork(10011));
    ASSERT_EQ(0, bpfLegacySetFirewall(10012, 0));
    // The last flow's SYN reaches the blocked app and is dropped there.
    const auto sent = drive({"uid=10011,peer=10002,bytes=1000", "uid=10012,peer=10002,bytes=1000",
                             "uid=10001,peer=10002,bytes=5000",
                             "uid=10001,peer=10011,bytes=1000,limit=1500"});
    EXPECT_EQ(EPERM, sent[0].error);
    EXPECT_EQ(EPERM, sent[1].error);
    EXPECT_EQ(5000u, sent[2].received);
    EXPECT_NE(0, sent[3].error);
    KovraStatsValue value{};
    EXPECT_EQ(-ENOENT, bpfGetUidPurStats(10011, value));
    EXPECT_EQ(-ENOENT, bpfGetUidPurStats(10012, value));
}

// A receiver that cannot listen reports its own error; its sender, left without a port to reach,
// sends nothing and reports none. The network namespace's one ephemeral port is taken for it.
TEST_F(LiveTest, EachEndReportsItsOwnError) {
    const char* const range = "/proc/sys/net/ipv4/ip_local_port_range";
    char before[64] = {};
    const int rangeFd = open(range, O_RDWR | O_CLOEXEC);
    ASSERT_GT(read(rangeFd, before, sizeof(before) - 1), 0);
    ASSERT_EQ(12, pwrite(rangeFd, "40000 40000\n", 12, 0));
    const int held = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(40000);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, bind(held, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    const auto sent = drive({"uid=10001,peer=10002,bytes=1000"});
    close(held);
    EXPECT_EQ(static_cast<ssize_t>(strlen(before)), pwrite(rangeFd, before, strlen(before), 0));
    close(rangeFd);
    EXPECT_EQ(EADDRINUSE, sent[0].peerError);
    EXPECT_EQ(0, sent[0].error);
    EXPECT_EQ(0u, sent[0].bytes);
}

// AppFreezeSynInfo as the live side writes it (docs/live.md).
struct SynRecord {
    uint32_t uid, remote4;
    uint16_t remotePort, localPort, attempts;
    uint8_t inbound, protocol;
};
static_assert(sizeof(SynRecord) == sizeof(AppFreezeSynInfo));

using LiveFreeze = LiveTest;

TEST_F(LiveFreeze, FrozenAppsSynsAndTrafficAreHarvestedOnce) {
    // Two apps frozen at once, each accounted under its own UID.
    live::setFrozen(10021, true);
    live::setFrozen(10022, true);
    const auto sent = drive({"uid=10021,peer=10002,bytes=3000", "uid=10003,peer=10021,bytes=2000",
                             "uid=10022,peer=10002,bytes=1000"});
    ASSERT_EQ(3000u, sent[0].received);

    auto syns = snapshot(bpfFetchAppFreezeSyns);
    ASSERT_EQ(3u, syns.size());
    for (const auto& [cookie, record] : syns) {
        SynRecord syn;
        memcpy(&syn, &record, sizeof(syn));
        const bool out = cookie == sent[0].cookie;
        EXPECT_EQ(cookie == sent[2].cookie ? 10022u : 10021u, syn.uid);
        if (cookie == sent[2].cookie) continue;
        EXPECT_EQ(out ? 0u : 1u, syn.inbound);
        EXPECT_EQ(1u, syn.attempts);
        EXPECT_EQ(sent[out ? 0 : 1].port, out ? syn.remotePort : syn.localPort);
        EXPECT_EQ(htonl(INADDR_LOOPBACK), syn.remote4);
    }
    auto stats = snapshot(bpfFetchAppFreezeStats);
    ASSERT_EQ(2u, stats.size());
    KovraStatsValue totals{};
    ASSERT_EQ(0, bpfGetUidPurStats(10021, totals));
    EXPECT_EQ(0, memcmp(&totals, &stats.at(10021), 32)) << "the same four counters";
    EXPECT_LE(stats.at(10021).data[4], sandbox::monotonicNowNs());

    // Harvested once; a thawed app is no longer accounted.
    live::setFrozen(10021, false);
    live::setFrozen(10022, false);
    drive({"uid=10021,peer=10002,bytes=100", "uid=10022,peer=10002,bytes=100"});
    EXPECT_TRUE(snapshot(bpfFetchAppFreezeSyns).empty());
    EXPECT_TRUE(snapshot(bpfFetchAppFreezeStats).empty());
}

using LiveSpeeds = LiveTest;

TEST_F(LiveSpeeds, RecordsNameTheirInterfaceAndStopWithIt) {
    ASSERT_EQ(0, bpfUpdateAppSocketSpeedsConfig(500));
    ASSERT_EQ(0, bpfUpdateAppSocketSpeedsIfindex(1, 1, 0));
    const auto sent = drive({"uid=10031,peer=10032,bytes=100000,rate=50000"});
    std::unordered_map<uint64_t, SpeedsValue> sockets;
    std::unordered_set<uint64_t> none;
    ASSERT_EQ(0, bpfGetAppSocketSpeedsTotal(sockets, 60000, 0, none));
    const SpeedsValue& record = sockets.at(sent[0].cookie);
    EXPECT_GT(record.secondSpeed, 0u);
    EXPECT_EQ(0u, record.firstSpeed) << "acknowledgements carry no payload";
    EXPECT_EQ(1u, record.ifindex);
    const auto tuple = openMap(maps::kAppSocketInfo).get(sent[0].cookie);
    ASSERT_TRUE(tuple);
    EXPECT_EQ(1u, tuple->ifindex);
    EXPECT_EQ(1u, tuple->ipv4Valid);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), tuple->remoteAddr4);

    // Stale records are pruned, a socket's with its information.
    std::unordered_map<uint64_t, IfaceSpeedsValue> pairs;
    ASSERT_TRUE(await([&] {
        sockets.clear();
        pairs.clear();
        bpfGetAppSocketSpeedsTotal(sockets, 300, 0, none);
        bpfGetAppUidSpeedsTotal(pairs, 300);
        return sockets.empty() && pairs.empty();
    }));
    EXPECT_FALSE(openMap(maps::kAppSocketInfo).get(sent[0].cookie));
    // An interface taken out of measurement is measured no more.
    ASSERT_EQ(0, bpfUpdateAppSocketSpeedsIfindex(1, 0, 0));
    drive({"uid=10031,peer=10032,bytes=1000"});
    ASSERT_EQ(0, bpfGetAppUidSpeedsTotal(pairs, 60000));
    EXPECT_TRUE(pairs.empty());
}

using LiveWakeup = LiveTest;

TEST_F(LiveWakeup, ScreenOffCountsAndScreenOnResetsWhatOverflowed) {
    ASSERT_EQ(0, bpfUpdateScreenStateMap(0, 1));
    ASSERT_EQ(0, bpfAddAppImHbLenMap(10041, 100));
    // Ten 100-byte heartbeats 250 ms apart; a connection idle 2.5 s that its peer probes; 100
    // connections that fill the 64-entry sequence maps; one whose FIN is dropped, as its app is
    // blocked while it is open (held 3 s, so that the block comes first on an emulated machine).
    const std::string heartbeats = "uid=10041,peer=10042,bytes=1000,chunk=100,rate=400";
    auto running = std::async(std::launch::async, [&] {
        return drive({heartbeats, "uid=10043,peer=10044,bytes=10,hold=2500,keepalive=1",
                      "uid=10045,peer=10046,bytes=0,conns=100",
                      "uid=10047,peer=10048,bytes=10,hold=3000,limit=6000"});
    });
    KovraStatsValue seen{};
    ASSERT_TRUE(await([&] { return bpfGetUidPurStats(10047, seen) == 0; }));
    ASSERT_EQ(0, bpfDisableNetwork(10047));
    const auto sent = running.get();
    ASSERT_EQ(1000u, sent[0].received);

    const auto out = snapshot(bpfGetAppTcpOutwakeupMap);
    EXPECT_EQ(1u, counterOf(out, 10041)) << "one burst: writes 250 ms apart";
    EXPECT_EQ(1u, counterOf(snapshot(bpfGetAppTcpInwakeupMap), 10042));
    EXPECT_GE(counterOf(snapshot(bpfGetAppTcpWakeupdurationMap), 10041), 2000u);
    EXPECT_EQ(1u, counterOf(snapshot(bpfGetAppTcpReoutwakeupMap), 10043)) << "its FIN, 2.5 s later";
    EXPECT_GE(counterOf(snapshot(bpfGetAppTcpFinDropMap), 10047), 1u);
    const auto check = openMap(maps::kOverflowingMapCheck);
    for (uint32_t bit : {1, 2, 4}) EXPECT_EQ(1u, check.get(bit).value_or(0)) << bit;

    takeLogs();
    ASSERT_EQ(0, bpfUpdateScreenStateMap(1, 2));
    EXPECT_EQ(std::vector{untaggedError("[BpfWakeupDetector] clear overflowing map:7")},
              takeLogs());
    EXPECT_FALSE(openMap(maps::kSkTcpCookieInSeq).get(sent[2].cookie));
    // Screen on: nothing counts.
    drive({heartbeats});
    EXPECT_EQ(out, snapshot(bpfGetAppTcpOutwakeupMap));
}

// A bounded soak (KOVRA_SOAK_SECONDS, 20 by default): rounds of TCP, UDP and short connections
// run while every family's services are called in a loop, the screen toggles and a sender is
// blocked and unblocked. No call may fail or leak, and the traffic totals never go down.
using LiveSoak = LiveTest;

TEST_F(LiveSoak, EveryFamilyUnderLiveTraffic) {
    ASSERT_EQ(0, bpfUpdateAppSocketSpeedsIfindex(1, 1, 0));
    live::setFrozen(10052, true);
    const int fdsBefore = openFdCount();
    const char* seconds = getenv("KOVRA_SOAK_SECONDS");
    const int soak = seconds != nullptr && atoi(seconds) > 0 ? atoi(seconds) : 20;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(soak);
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    auto driver = std::async(std::launch::async, [&] {
        for (; !stop; ++rounds) {
            drive({"uid=10051,peer=10059,bytes=40000,rate=40000,limit=3000",
                   "uid=10052,peer=10059,bytes=40000,rate=40000,limit=3000,proto=udp",
                   "uid=10053,peer=10059,bytes=500,conns=20,limit=3000"});
        }
    });
    // A failed assertion returns from the loop below; the driver must stop then too, or waiting
    // for it would hang the test.
    const std::shared_ptr<void> stopDriver(nullptr, [&](void*) { stop = true; });
    // Services are called at least until one round has ended, which on a slow machine (or under
    // valgrind, which runs one thread at a time) can take past `end`; a driver that never ends a
    // round fails the test two minutes later instead of hanging it.
    const auto deadline = end + std::chrono::seconds(120);
    std::unordered_map<int64_t, KovraStatsValue> previous;
    for (uint32_t i = 0; std::chrono::steady_clock::now() < (rounds == 0 ? deadline : end); ++i) {
        const auto totals = snapshot(bpfGetUidPurStatsTotal);
        for (const auto& [uid, now] : totals) {
            if (!previous.count(uid)) continue;
            EXPECT_GE(now.txBytes, previous[uid].txBytes) << uid;
            EXPECT_GE(now.rxPackets, previous[uid].rxPackets) << uid;
        }
        previous = totals;
        snapshot(bpfGetUidStatsTotal);
        snapshot(bpfFetchAppFreezeSyns);
        snapshot(bpfFetchAppFreezeStats);
        AppFreezeConfig config{i, 2, 3};
        ASSERT_EQ(0, bpfSetAppFreezeConfig(config));
        std::unordered_map<uint64_t, SpeedsValue> sockets;
        std::unordered_set<uint64_t> watched;
        std::unordered_map<uint64_t, IfaceSpeedsValue> pairs;
        ASSERT_EQ(0, bpfGetAppSocketSpeedsTotal(sockets, 500, 0, watched));
        ASSERT_EQ(0, bpfGetAppUidSpeedsTotal(pairs, 500));
        ASSERT_EQ(0, bpfUpdateScreenStateMap(i % 2, i));
        ASSERT_EQ(0, bpfAddAppImHbLenMap(10051, 1000));
        // A key the kernel side or a reset deletes between listing and reading ends a walk: -1.
        std::unordered_map<uint32_t, uint64_t> counters;
        for (auto reader :
             {bpfGetAppTcpInwakeupMap, bpfGetAppTcpOutwakeupMap, bpfGetAppTcpWakeupdurationMap,
              bpfGetAppTcpOutImHbMap, bpfGetAppTcpOutAlignMap, bpfGetAppTcpInKeepAliveMap,
              bpfGetAppTcpReinwakeupMap, bpfGetAppTcpReoutwakeupMap}) {
            const int status = reader(counters);
            EXPECT_TRUE(status == 0 || status == -1) << status;
        }
        ASSERT_EQ(0, i % 2 ? bpfEnableNetwork(10053) : bpfDisableNetwork(10053));
        // Lets the driver's thread run where threads take turns (valgrind).
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    stop = true;
    driver.get();
    EXPECT_GT(rounds, 0);
    // Once every round has ended, the sender's traffic is counted.
    EXPECT_GT(snapshot(bpfGetUidPurStatsTotal)[10051].txBytes, 0u);
    EXPECT_EQ(fdsBefore, openFdCount()) << "a descriptor leaked";
}

using LiveDriver = LiveTest;

// Every wait of a flow ends by its limit: pacing far slower than the limit allows, an idle hold.
TEST_F(LiveDriver, LimitsHoldInEveryWait) {
    const auto sent = drive({"uid=10061,peer=10062,bytes=3000,rate=1,limit=1000",
                             "uid=10063,peer=10062,bytes=3000,rate=100,limit=1000",
                             "uid=10064,peer=10062,bytes=10,hold=60000,limit=1000"});
    // Unlimited, these waits take 3000 s, 30 s and 60 s; the bound leaves room for a loaded or
    // emulated machine.
    for (const traffic::Sent& s : sent) EXPECT_LT(s.seconds, 10.0) << s.bytes;
    EXPECT_EQ(1000u, sent[0].bytes) << "one chunk, then the limit";
}

using LiveSweep = LiveTest;

// What killed live sides left goes once nobody holds its folder: an empty cgroup with its folder,
// a folder alone. A cgroup without a folder (its creator unknown), a held folder's and this live
// side's own stay.
TEST_F(LiveSweep, RemovesOnlyWhatKilledSidesLeft) {
    const std::string root = mLive->cgroup().substr(0, mLive->cgroup().rfind('/'));
    // {folder, cgroup, folder held, swept}
    const std::vector<std::array<bool, 4>> leftovers = {{true, true, false, true},
                                                        {true, false, false, true},
                                                        {false, true, false, false},
                                                        {true, true, true, false}};
    int lock = -1;
    const std::string tag = std::to_string(getpid());
    auto folder = [&](size_t i) { return "/tmp/kovra-live-cgroup." + tag + char('a' + i); };
    auto cgroup = [&](size_t i) { return root + "/kovra-live." + tag + char('a' + i); };
    for (size_t i = 0; i < leftovers.size(); ++i) {
        EXPECT_TRUE(!leftovers[i][0] || mkdir(folder(i).c_str(), 0700) == 0) << folder(i);
        EXPECT_TRUE(!leftovers[i][1] || mkdir(cgroup(i).c_str(), 0755) == 0) << cgroup(i);
        if (leftovers[i][2]) lock = open(folder(i).c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_TRUE(!leftovers[i][2] || flock(lock, LOCK_EX) == 0);
    }
    EXPECT_EQ("removed 1 empty cgroup(s) and 2 folder(s) left by killed live sandboxes",
              live::sweepLeftovers(root));
    for (size_t i = 0; i < leftovers.size(); ++i) {
        EXPECT_EQ(leftovers[i][0] && !leftovers[i][3], rmdir(folder(i).c_str()) == 0) << i;
        EXPECT_EQ(leftovers[i][1] && !leftovers[i][3], rmdir(cgroup(i).c_str()) == 0) << i;
    }
    close(lock);
    EXPECT_EQ(0, access(mLive->cgroup().c_str(), F_OK)) << "this live side's own";
}

}  // namespace
}  // namespace kovra::test
