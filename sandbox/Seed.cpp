#include "kovrasandbox/Seed.h"

#include <tuple>
#include <vector>

#include <kovrabpf/KovraKernelContract.h>

#include "SeedParts.h"
#include "kovrasandbox/Maps.h"

namespace kovra::sandbox {

using namespace android::bpf;

uint64_t mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

uint64_t ago(uint64_t nowNs, uint64_t ageMs) {
    const uint64_t age = ageMs * 1000000;
    return nowNs > age ? nowNs - age : 1;
}

namespace {

// ---- Per-UID traffic: system UIDs and 300 apps. ----

std::vector<uint32_t> trafficUids() {
    std::vector<uint32_t> uids = {0, 1000, 1001, 1013, 1021, 1051, 1073};
    for (uint32_t uid = 10000; uid < 10300; ++uid) uids.push_back(uid);
    return uids;
}

StatsValue trafficOf(uint32_t uid) {
    const uint64_t h = mix(uid);
    const uint64_t rxPackets = 50 + h % 40000;
    const uint64_t txPackets = 30 + (h >> 32) % 30000;
    return {rxPackets, rxPackets * (120 + (h >> 16) % 1300), txPackets,
            txPackets * (80 + (h >> 48) % 900)};
}

void seedTraffic() {
    const auto netd = openMap(maps::kNetdAppUidStats);
    const auto vendor = openMap(maps::kUidPurStats);
    for (uint32_t uid : trafficUids()) {
        const StatsValue s = trafficOf(uid);
        netd.put(uid, s);
        // The vendor's map follows the apps only, with its two counters of its own.
        if (uid >= 10000 && uid < 10200) {
            const uint64_t h = mix(uid + 1);
            vendor.put(uid,
                       {s.rxPackets, s.rxBytes, s.txPackets, s.txBytes, h % 500, (h >> 20) % 50});
        }
    }
}

// ---- Freeze accounting: records of frozen apps, and the settings. ----

void seedFreeze(uint64_t nowNs) {
    const auto syns = openMap(maps::kAppFreezeSyn);
    for (uint64_t i = 0; i < 6; ++i) {
        const uint64_t key = (uint64_t{10040} + 7 * i) << 32 | (i % 2 ? 5228 : 443);
        syns.put(key, {{3 + i, ago(nowNs, 1000 * (i + 1))}});
    }
    const auto stats = openMap(maps::kAppFreezeStats);
    for (uint64_t uid : {10052u, 10061u, 10075u, 10088u}) {
        const uint64_t h = mix(uid);
        stats.put(uid, {{h % 90000, (h >> 20) % 40000, h % 90, (h >> 40) % 60, (h >> 8) % 7}});
    }
    openMap(maps::kAppFreezeConfig).put(KOVRA_FREEZE_CONFIG_KEY, {1, 30, 600});
}

// ---- Wake-up detector: counters of 20 apps per map, heartbeats, screen, overflow flags. ----

template <typename V>
void seedCounters(const PinnedMap<uint32_t, V>& map, uint64_t salt) {
    const auto counters = openMap(map);
    for (uint32_t i = 0; i < 20; ++i) {
        const uint32_t uid = 10000 + (salt * 37 + i * 13) % 300;
        counters.put(uid, static_cast<V>(1 + mix(uid * 16 + salt) % 400));
    }
}

template <typename V>
void seedSequences(const PinnedMap<uint64_t, V>& map, uint64_t salt) {
    const auto sequences = openMap(map);
    for (uint64_t cookie = 40961; cookie < 40993; ++cookie) {
        sequences.put(cookie, static_cast<V>(mix(cookie + salt)));
    }
}

void seedWakeup(uint64_t nowNs) {
    // Each map's numbers are salted by its place in these lists, so that no two maps agree.
    uint64_t salt = 0;
    std::apply([&](const auto*... map) { (seedCounters(*map, salt++), ...); },
               std::tuple{&maps::kAppTcpFinDrop, &maps::kAppTcpInwakeup, &maps::kAppTcpOutwakeup,
                          &maps::kAppTcpWakeupduration, &maps::kAppTcpOutImHb,
                          &maps::kAppTcpOutAlign, &maps::kAppTcpInKeepAlive,
                          &maps::kAppTcpReinwakeup, &maps::kAppTcpReoutwakeup});
    salt = 1;
    std::apply([&](const auto*... map) { (seedSequences(*map, salt++), ...); },
               std::tuple{&maps::kSkTcpCookieInSeq, &maps::kSkTcpCookieOutSeq,
                          &maps::kSkTcpCookieOutAck});

    const auto heartbeats = openMap(maps::kImAppHbLen);
    heartbeats.put(10010, 300);
    heartbeats.put(10020, 270);
    heartbeats.put(10031, 600);

    // The screen went on an hour ago.
    const auto screen = openMap(maps::kScreenState);
    screen.put(KOVRA_SCREEN_CODE_KEY, KOVRA_SCREEN_ON);
    screen.put(KOVRA_SCREEN_ON_STAMP_KEY, ago(nowNs, 3600 * 1000));

    // The kernel side found the inbound sequence map and the inbound wake-up map overflowing.
    // Value 2 and key 64 mean nothing to the library and stay as they are.
    const auto overflow = openMap(maps::kOverflowingMapCheck);
    overflow.put(KOVRA_OVERFLOW_IN_SEQ, KOVRA_OVERFLOWING);
    overflow.put(KOVRA_OVERFLOW_INWAKEUP, KOVRA_OVERFLOWING);
    overflow.put(KOVRA_OVERFLOW_OUT_SEQ, 2);
    overflow.put(64, KOVRA_OVERFLOWING);
}

// ---- Blocking: one app cut off by each switch. ----

void seedFirewall() {
    openMap(maps::kAppNetDisconnLimit).put(10066, 1);
    openMap(maps::kAppVuskLimit).put(10077, 1);
}

}  // namespace

void seedDemo(uint64_t nowNs) {
    seedTraffic();
    seedFreeze(nowNs);
    seedSpeeds(nowNs);
    seedWakeup(nowNs);
    seedFirewall();
}

}  // namespace kovra::sandbox
