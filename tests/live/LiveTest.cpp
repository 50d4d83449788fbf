// One end-to-end test per family: the driver sends as app UIDs through the live programs, and
// what the services report is compared with what it sent.
//
// Byte formula on loopback TCP (timestamps on): every segment carries 20 bytes of IP and 32 of
// TCP header, the SYN 8 more of options; so the sender's bytes are its payload, plus what it
// retransmitted, + 52 x its packets + 8. (Acknowledgements may carry SACK blocks: the receiver's
// side is only compared with what the sender counted.) UDP: payload + 28 per datagram.
#include <arpa/inet.h>
#include <time.h>

#include <future>
#include <thread>

#include "Live.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using traffic::Protocol;
using traffic::Route;

template <typename Map>
auto snapshot(int (*service)(Map&)) {
    Map out;
    EXPECT_EQ(0, service(out));
    return out;
}

// Waits for `done` to hold, checking every 50 ms, for at most `seconds`.
template <typename F>
bool await(F done, int seconds = 15) {
    for (int i = 0; i < seconds * 20; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

using LiveStats = LiveTest;

TEST_F(LiveStats, TotalsEqualWhatTheDriverSent) {
    traffic::Flow tcp = flow(10001, 10002, 200000);
    traffic::Flow udp = flow(10003, 10004, 50 * 700);
    udp.protocol = Protocol::kUdp;
    udp.chunk = 700;
    const auto sent = drive({tcp, udp});
    ASSERT_EQ(200000u, sent[0].received);
    ASSERT_EQ(50u * 700, sent[1].received);

    const auto pur = snapshot(bpfGetUidPurStatsTotal);
    const auto netd = snapshot(bpfGetUidStatsTotal);
    const KovraStatsValue& app = pur.at(10001);
    const KovraStatsValue& peer = pur.at(10002);
    EXPECT_EQ(200000 + sent[0].retransmitted + 52 * app.txPackets + 8, app.txBytes);
    EXPECT_EQ(200000 + sent[0].retransmitted + 52 * peer.rxPackets + 8, peer.rxBytes);
    // The last acknowledgement may leave a socket that is closed already (TIME_WAIT: no UID).
    EXPECT_LE(app.txPackets, peer.rxPackets);
    EXPECT_LE(peer.rxPackets, app.txPackets + 2);
    // SYN, FIN, and at least one segment per 64 KiB; at most one per write and a few ACKs more.
    EXPECT_GE(app.txPackets, 2 + 200000 / 65536 + 1);
    EXPECT_LE(app.txPackets, sent[0].messages + 10);
    EXPECT_EQ(app.rxBytes + app.txBytes, app.extra0);
    EXPECT_EQ(0u, app.extra1);

    const KovraStatsValue& datagrams = pur.at(10003);
    EXPECT_EQ(50u, datagrams.txPackets);
    EXPECT_EQ(50u * (700 + 28), datagrams.txBytes);
    EXPECT_EQ(datagrams.txBytes, datagrams.extra1);
    EXPECT_EQ(datagrams.txBytes, pur.at(10004).rxBytes);

    // netd's record holds the same four counters.
    for (const auto& [uid, value] : pur) EXPECT_EQ(0, memcmp(&value, &netd.at(uid), 32)) << uid;
    KovraStatsValue one{};
    EXPECT_EQ(0, bpfGetUidPurStats(10001, one));
    EXPECT_TRUE(sameBytes(app, one));
}

using LiveFirewall = LiveTest;

TEST_F(LiveFirewall, BlockedAppsFailAtOnceAndOthersGoOn) {
    ASSERT_EQ(0, bpfDisableNetwork(10011));
    ASSERT_EQ(0, bpfLegacySetFirewall(10012, 0));
    traffic::Flow udp = flow(10011, 10002, 1000);
    udp.protocol = Protocol::kUdp;
    traffic::Flow toBlocked = flow(10001, 10011, 1000);  // its SYN is dropped on arrival
    toBlocked.limitMs = 1500;
    const auto sent = drive({flow(10011, 10002, 1000), udp, flow(10012, 10002, 1000),
                             flow(10001, 10002, 5000), toBlocked});
    EXPECT_EQ(EPERM, sent[0].error);
    EXPECT_EQ(EPERM, sent[1].error);
    EXPECT_EQ(EPERM, sent[2].error);
    EXPECT_EQ(0, sent[3].error);
    EXPECT_EQ(5000u, sent[3].received);
    EXPECT_NE(0, sent[4].error);
    // Dropped traffic is not counted.
    KovraStatsValue value{};
    EXPECT_EQ(-ENOENT, bpfGetUidPurStats(10011, value));
    EXPECT_EQ(-ENOENT, bpfGetUidPurStats(10012, value));

    ASSERT_EQ(0, bpfEnableNetwork(10011));
    ASSERT_EQ(0, bpfLegacySetFirewall(10012, 1));
    const auto after = drive({flow(10011, 10002, 1000), flow(10012, 10002, 1000)});
    EXPECT_EQ(1000u, after[0].received);
    EXPECT_EQ(1000u, after[1].received);
    EXPECT_EQ(0, bpfGetUidPurStats(10011, value));
}

// AppFreezeSynInfo and AppFreezeStatsInfo as the live side writes them (docs/live.md).
struct SynRecord {
    uint32_t uid;
    uint32_t remote4;
    uint16_t remotePort;
    uint16_t localPort;
    uint16_t attempts;
    uint8_t inbound;
    uint8_t protocol;
};
static_assert(sizeof(SynRecord) == sizeof(AppFreezeSynInfo));

using LiveFreeze = LiveTest;

TEST_F(LiveFreeze, FrozenAppsSynsAndTrafficAreHarvested) {
    live::setFrozen(10021, true);
    const auto sent = drive({flow(10021, 10002, 3000), flow(10003, 10021, 2000)});
    ASSERT_EQ(3000u, sent[0].received);

    std::unordered_map<uint64_t, AppFreezeSynInfo> syns;
    ASSERT_EQ(0, bpfFetchAppFreezeSyns(syns));
    ASSERT_EQ(2u, syns.size());
    SynRecord out;
    memcpy(&out, &syns.at(sent[0].cookie), sizeof(out));
    EXPECT_EQ(10021u, out.uid);
    EXPECT_EQ(sent[0].port, out.remotePort);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), out.remote4);
    EXPECT_EQ(1u, out.attempts);
    EXPECT_EQ(0u, out.inbound);
    for (const auto& [cookie, record] : syns) {
        if (cookie == sent[0].cookie) continue;
        SynRecord in;
        memcpy(&in, &record, sizeof(in));
        EXPECT_EQ(10021u, in.uid);
        EXPECT_EQ(1u, in.inbound);
        EXPECT_EQ(sent[1].port, in.localPort);
    }

    std::unordered_map<uint64_t, AppFreezeStatsInfo> stats;
    ASSERT_EQ(0, bpfFetchAppFreezeStats(stats));
    ASSERT_EQ(1u, stats.size());
    KovraStatsValue totals{};
    ASSERT_EQ(0, bpfGetUidPurStats(10021, totals));
    EXPECT_EQ(0, memcmp(&totals, &stats.at(10021), 32)) << "the same four counters";
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_LE(stats.at(10021).data[4], now.tv_sec * 1000000000ull + now.tv_nsec);

    // Harvested once; a thawed app is no longer accounted.
    live::setFrozen(10021, false);
    drive({flow(10021, 10002, 100)});
    syns.clear();
    stats.clear();
    EXPECT_EQ(0, bpfFetchAppFreezeSyns(syns));
    EXPECT_EQ(0, bpfFetchAppFreezeStats(stats));
    EXPECT_TRUE(syns.empty());
    EXPECT_TRUE(stats.empty());
}

using LiveSpeeds = LiveTest;

// Paced flows of 4 s over loopback (TCP) and the veth pair (UDP), measured in 500 ms windows:
// the speeds come within 10% of the paced rate, and go stale and are pruned once flows stop.
TEST_F(LiveSpeeds, PacedRatesAreMeasuredAndPrunedWhenStale) {
    ASSERT_EQ(0, bpfUpdateAppSocketSpeedsConfig(500));
    for (uint32_t ifindex = 1; ifindex <= 16; ++ifindex) {
        ASSERT_EQ(0, bpfUpdateAppSocketSpeedsIfindex(ifindex, 1, 0));
    }
    traffic::Flow tcp = flow(10031, 10032, 200000);
    tcp.rate = 50000;
    traffic::Flow udp = flow(10033, 10034, 100000);
    udp.protocol = Protocol::kUdp;
    udp.route = Route::kVeth;
    udp.rate = 25000;
    const auto sent = drive({tcp, udp});
    ASSERT_EQ(200000u, sent[0].received);

    const auto near = [](uint64_t kbps, uint64_t rate) {
        const double expected = static_cast<double>(rate) * 8 / 1000;
        EXPECT_NEAR(static_cast<double>(kbps), expected, expected * 0.1);
    };
    std::unordered_map<uint64_t, SpeedsValue> sockets;
    std::unordered_set<uint64_t> none;
    ASSERT_EQ(0, bpfGetAppSocketSpeedsTotal(sockets, 60000, 0, none));
    ASSERT_EQ(1u, sockets.count(sent[0].cookie));
    near(sockets.at(sent[0].cookie).secondSpeed, tcp.rate);
    EXPECT_EQ(0u, sockets.at(sent[0].cookie).firstSpeed) << "acknowledgements carry no payload";
    EXPECT_EQ(1u, sockets.at(sent[0].cookie).ifindex);
    near(sockets.at(sent[1].cookie).secondSpeed, udp.rate);
    EXPECT_EQ(sent[1].ifindex, sockets.at(sent[1].cookie).ifindex);

    const auto tuple = lookup(maps::kAppSocketInfo, sent[0].cookie);
    ASSERT_TRUE(tuple);
    EXPECT_EQ(1u, tuple->ifindex);
    EXPECT_EQ(1u, tuple->ipv4Valid);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), tuple->remoteAddr4);

    std::unordered_map<uint64_t, IfaceSpeedsValue> pairs;
    ASSERT_EQ(0, bpfGetAppUidSpeedsTotal(pairs, 60000));
    const auto pair = [](uint32_t uid, uint64_t ifindex) { return uid | ifindex << 32; };
    near(pairs.at(pair(10031, 1)).secondSpeedKbps, tcp.rate);
    near(pairs.at(pair(10032, 1)).firstSpeedKbps, tcp.rate);
    near(pairs.at(pair(10033, sent[1].ifindex)).secondSpeedKbps, udp.rate);

    // Stopped flows go stale: pruned with their socket information.
    ASSERT_TRUE(await([&] {
        sockets.clear();
        bpfGetAppSocketSpeedsTotal(sockets, 300, 0, none);
        return sockets.empty();
    }));
    EXPECT_FALSE(lookup(maps::kAppSocketInfo, sent[0].cookie));
    ASSERT_TRUE(await([&] {
        pairs.clear();
        bpfGetAppUidSpeedsTotal(pairs, 300);
        return pairs.empty();
    }));
    // An interface taken out of measurement is measured no more.
    ASSERT_EQ(0, bpfUpdateAppSocketSpeedsIfindex(1, 0, 0));
    drive({flow(10031, 10032, 1000)});
    ASSERT_EQ(0, bpfGetAppUidSpeedsTotal(pairs, 60000));
    EXPECT_EQ(0u, pairs.count(pair(10031, 1)));
}

using LiveWakeup = LiveTest;

TEST_F(LiveWakeup, ScreenOffCountsAndScreenOnResetsWhatOverflowed) {
    ASSERT_EQ(0, bpfUpdateScreenStateMap(0, 1));
    ASSERT_EQ(0, bpfAddAppImHbLenMap(10041, 100));
    traffic::Flow heartbeats = flow(10041, 10042, 1000);  // ten 100-byte writes, 250 ms apart
    heartbeats.chunk = 100;
    heartbeats.rate = 400;
    traffic::Flow idle = flow(10043, 10044, 10);  // idle 2.5 s: the peer probes it
    idle.holdMs = 2500;
    idle.keepAlive = true;
    traffic::Flow churn = flow(10045, 10046, 0);  // fills the 64-entry sequence maps
    churn.connections = 100;
    traffic::Flow closing = flow(10047, 10048, 10);  // blocked while open: its FIN is dropped
    closing.holdMs = 1500;
    closing.limitMs = 4000;
    auto running = std::async(std::launch::async, [&] {
        return drive({heartbeats, idle, churn, closing});
    });
    KovraStatsValue seen{};
    ASSERT_TRUE(await([&] { return bpfGetUidPurStats(10047, seen) == 0; }));
    ASSERT_EQ(0, bpfDisableNetwork(10047));
    const auto sent = running.get();
    ASSERT_EQ(1000u, sent[0].received);

    const auto out = snapshot(bpfGetAppTcpOutwakeupMap);
    const auto in = snapshot(bpfGetAppTcpInwakeupMap);
    EXPECT_EQ(1u, out.at(10041)) << "one burst: writes 250 ms apart";
    EXPECT_EQ(1u, in.at(10042));
    EXPECT_EQ(10u, snapshot(bpfGetAppTcpOutImHbMap).at(10041));
    EXPECT_GE(snapshot(bpfGetAppTcpWakeupdurationMap).at(10041), 2000u);
    EXPECT_GE(snapshot(bpfGetAppTcpInKeepAliveMap).at(10043), 1u);
    EXPECT_EQ(1u, snapshot(bpfGetAppTcpReoutwakeupMap).at(10043)) << "its FIN, 2.5 s later";
    EXPECT_GE(snapshot(bpfGetAppTcpFinDropMap).at(10047), 1u);
    for (uint32_t bit : {1, 2, 4}) {
        EXPECT_EQ(1u, lookup(maps::kOverflowingMapCheck, bit).value_or(0))
                << bit << "; sequences in: " << sandbox::openMap(maps::kSkTcpCookieInSeq).size();
    }

    takeLogs();
    ASSERT_EQ(0, bpfUpdateScreenStateMap(1, 2));
    EXPECT_EQ(std::vector{untaggedError("[BpfWakeupDetector] clear overflowing map:7")}, takeLogs());
    EXPECT_FALSE(lookup(maps::kSkTcpCookieInSeq, sent[2].cookie));
    // Screen on: nothing counts.
    drive({heartbeats});
    EXPECT_EQ(out, snapshot(bpfGetAppTcpOutwakeupMap));
}

}  // namespace
}  // namespace kovra::test
