// A bounded soak (KOVRA_SOAK_SECONDS, 20 by default): flows of every kind run through the live
// programs while services of every family are called in a loop and the screen toggles. No call
// may crash or return a status its service does not have, descriptors must not leak, and the
// traffic totals never go down.
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <future>
#include <set>
#include <thread>

#include "Live.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using Clock = std::chrono::steady_clock;

int soakSeconds() {
    const char* text = getenv("KOVRA_SOAK_SECONDS");
    return text != nullptr && atoi(text) > 0 ? atoi(text) : 20;
}

// The UIDs that send; 10053 is blocked and unblocked in turn.
std::vector<traffic::Flow> round() {
    std::vector<traffic::Flow> flows;
    for (uint32_t uid : {10051, 10052, 10053}) {
        traffic::Flow f = flow(uid, 10059, 40000);
        f.rate = 40000;
        f.limitMs = 3000;
        flows.push_back(f);
    }
    flows[1].protocol = traffic::Protocol::kUdp;
    flows[2].connections = 20;
    flows[2].bytes = 500;
    return flows;
}

using LiveSoak = LiveTest;

TEST_F(LiveSoak, EveryFamilyUnderLiveTraffic) {
    ASSERT_EQ(0, bpfUpdateAppSocketSpeedsIfindex(1, 1, 0));
    ASSERT_EQ(0, bpfUpdateAppSocketSpeedsConfig(200));
    live::setFrozen(10052, true);
    const int fdsBefore = openFdCount();
    const auto end = Clock::now() + std::chrono::seconds(soakSeconds());
    // Services are called at least until one round of traffic has ended, which on a slow
    // machine (or under valgrind, which runs one thread at a time) can take past `end`; a driver
    // that never finishes a round fails the test at `deadline` instead of hanging it.
    const auto deadline = end + std::chrono::seconds(120);
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    auto driver = std::async(std::launch::async, [&] {
        while (!stop) {
            drive(round());
            ++rounds;
        }
    });

    const std::set<int> okOrWalkError{0, -1};
    std::unordered_map<int64_t, KovraStatsValue> previous;
    uint64_t calls = 0;
    for (uint32_t i = 0; (Clock::now() < end || rounds == 0) && Clock::now() < deadline; ++i) {
        std::unordered_map<int64_t, KovraStatsValue> totals;
        ASSERT_EQ(0, bpfGetUidPurStatsTotal(totals));
        for (const auto& [uid, now] : totals) {
            const auto before = previous.find(uid);
            if (before == previous.end()) continue;
            EXPECT_GE(now.txBytes, before->second.txBytes) << uid;
            EXPECT_GE(now.rxBytes, before->second.rxBytes) << uid;
            EXPECT_GE(now.txPackets, before->second.txPackets) << uid;
        }
        previous = totals;
        std::unordered_map<int64_t, KovraStatsValue> netd;
        ASSERT_EQ(0, bpfGetUidStatsTotal(netd));

        std::unordered_map<uint64_t, AppFreezeSynInfo> syns;
        std::unordered_map<uint64_t, AppFreezeStatsInfo> frozen;
        ASSERT_EQ(0, bpfFetchAppFreezeSyns(syns));
        ASSERT_EQ(0, bpfFetchAppFreezeStats(frozen));
        AppFreezeConfig config{i, 2, 3};
        ASSERT_EQ(0, bpfSetAppFreezeConfig(config));

        std::unordered_map<uint64_t, SpeedsValue> sockets;
        std::unordered_set<uint64_t> watched;
        std::unordered_map<uint64_t, IfaceSpeedsValue> pairs;
        ASSERT_EQ(0, bpfGetAppSocketSpeedsTotal(sockets, 500, 0, watched));
        ASSERT_EQ(0, bpfGetAppUidSpeedsTotal(pairs, 500));

        ASSERT_EQ(0, bpfUpdateScreenStateMap(i % 2, i));
        ASSERT_EQ(0, bpfAddAppImHbLenMap(10051, 1000));
        std::unordered_map<uint32_t, uint64_t> counters;
        std::unordered_map<uint32_t, uint32_t> finDrops;
        // A key the kernel side or a reset deletes between listing and reading ends a walk: -1.
        for (auto reader :
             {bpfGetAppTcpInwakeupMap, bpfGetAppTcpOutwakeupMap, bpfGetAppTcpWakeupdurationMap,
              bpfGetAppTcpOutImHbMap, bpfGetAppTcpOutAlignMap, bpfGetAppTcpInKeepAliveMap,
              bpfGetAppTcpReinwakeupMap, bpfGetAppTcpReoutwakeupMap}) {
            EXPECT_EQ(1u, okOrWalkError.count(reader(counters)));
        }
        EXPECT_EQ(1u, okOrWalkError.count(bpfGetAppTcpFinDropMap(finDrops)));

        if (i % 4 == 0) {
            ASSERT_EQ(0, bpfDisableNetwork(10053));
        } else if (i % 4 == 2) {
            ASSERT_EQ(0, bpfEnableNetwork(10053));
        }
        calls += 20;
        // Lets the driver's thread run where threads take turns (valgrind runs one at a time).
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    stop = true;
    driver.get();
    bpfEnableNetwork(10053);
    EXPECT_GT(rounds, 0);
    // The last listing in the loop may predate the first flow (a slow machine, valgrind): once
    // every round has ended, the sender's traffic is counted.
    std::unordered_map<int64_t, KovraStatsValue> totals;
    ASSERT_EQ(0, bpfGetUidPurStatsTotal(totals));
    ASSERT_EQ(1u, totals.count(10051)) << "no traffic of UID 10051 was counted";
    EXPECT_GT(totals.at(10051).txBytes, 0u);
    EXPECT_EQ(fdsBefore, openFdCount()) << "a descriptor leaked";
    RecordProperty("service_calls", std::to_string(calls));
    RecordProperty("traffic_rounds", std::to_string(rounds.load()));
}

}  // namespace
}  // namespace kovra::test
