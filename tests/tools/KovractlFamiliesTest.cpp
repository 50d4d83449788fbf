// kovractl's freeze, speeds, wake-up and blocking commands against the demo data set: what they
// print and what they do to the maps.
#include "Kovractl.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using sandbox::openMap;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(KovractlTest, FreezeHarvestsOnceAndWritesItsConfiguration) {
    auto syns = openMap(maps::kAppFreezeSyn);
    const auto records = syns.entries();
    ASSERT_FALSE(records.empty());
    Outcome run = kovractl({"--json", "freeze", "syns"});
    ASSERT_EQ(0, run.exitCode) << run;
    nlohmann::json rows = jsonOf(run);
    ASSERT_EQ(records.size(), rows.size());
    for (const auto& [key, record] : records) {
        auto row = std::find_if(rows.begin(), rows.end(), [&](auto& r) { return r["key"] == key; });
        ASSERT_NE(rows.end(), row) << key;
        EXPECT_EQ((std::vector<uint64_t>{record.data[0], record.data[1]}), (*row)["data"]);
    }
    EXPECT_EQ(0u, syns.size()) << "a harvest empties the kernel map";
    run = kovractl({"freeze", "syns"});
    EXPECT_EQ(0, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"KEY", "DATA0", "DATA1"}, {"0", "records"}}),
              tableRows(run.out));

    const auto stats = openMap(maps::kAppFreezeStats).entries();
    run = kovractl({"freeze", "stats"});
    ASSERT_EQ(0, run.exitCode) << run;
    auto table = tableRows(run.out);
    ASSERT_EQ(stats.size() + 2, table.size()) << run;
    for (const auto& [key, record] : stats) {
        std::vector<std::string> row = {std::to_string(key)};
        for (uint64_t word : record.data) row.push_back(std::to_string(word));
        EXPECT_NE(table.end(), std::find(table.begin(), table.end(), row)) << key;
    }

    auto config = openMap(maps::kAppFreezeConfig);
    run = kovractl({"freeze", "config", "get", "--json"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ(nlohmann::json::parse(R"({"word0":1,"word1":30,"word2":600})"), jsonOf(run));
    // -v lets the library's DEBUG line through.
    run = kovractl({"-v", "freeze", "config", "set", "2", "45", "900"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ("set the freeze configuration to 2 45 900: ok\n", run.out);
    EXPECT_TRUE(contains(run.err, "succ update config 2,45,900 over")) << run;
    EXPECT_TRUE(sameBytes(AppFreezeConfig{2, 45, 900}, *config.get(1)));
    run = kovractl({"freeze", "config", "set", "0", "0", "0"});
    EXPECT_EQ(0, run.exitCode) << run;
    EXPECT_TRUE(contains(run.err, "the library skips the write")) << run;
    EXPECT_TRUE(sameBytes(AppFreezeConfig{2, 45, 900}, *config.get(1)))
            << "a fresh process never writes 0 0 0";

    // A configuration map without a record: the lookup's ENOENT and the library's line.
    unlink(maps::kAppFreezeConfig.path);
    RawMap empty(maps::kAppFreezeConfig.path, 4, sizeof(AppFreezeConfig));
    run = kovractl({"freeze", "config", "get"});
    EXPECT_EQ(102, run.exitCode) << run;
    EXPECT_TRUE(contains(run.err,
                         "Failed to get bpfSetAppFreezeConfig stats: No such file or "
                         "directory"))
            << run;
}

// The nine counter maps under the names kovractl gives them.
const std::vector<std::pair<std::string, const char*>> kCounters = {
        {"fin-drop", maps::kAppTcpFinDrop.path},
        {"inwakeup", maps::kAppTcpInwakeup.path},
        {"outwakeup", maps::kAppTcpOutwakeup.path},
        {"wakeupduration", maps::kAppTcpWakeupduration.path},
        {"out-im-hb", maps::kAppTcpOutImHb.path},
        {"out-align", maps::kAppTcpOutAlign.path},
        {"in-keep-alive", maps::kAppTcpInKeepAlive.path},
        {"reinwakeup", maps::kAppTcpReinwakeup.path},
        {"reoutwakeup", maps::kAppTcpReoutwakeup.path},
};

uint64_t counterValue(const std::vector<uint8_t>& bytes) {
    uint64_t value = 0;
    memcpy(&value, bytes.data(), bytes.size());
    return value;
}

TEST_F(KovractlTest, WakeupShowsCountersAndScreenChangesResetWhatIsFlagged) {
    const Snapshot maps = snapshotMaps();
    std::map<uint32_t, nlohmann::json> expected;
    for (const auto& [name, path] : kCounters) {
        for (const auto& [key, value] : maps.at(path)) {
            uint32_t uid;
            memcpy(&uid, key.data(), sizeof(uid));
            expected[uid]["uid"] = uid;
            expected[uid][name] = counterValue(value);
        }
    }
    Outcome run = kovractl({"wakeup", "--json"});
    ASSERT_EQ(0, run.exitCode) << run;
    nlohmann::json rows = jsonOf(run);
    ASSERT_EQ(expected.size(), rows.size());
    for (const auto& row : rows) EXPECT_EQ(expected.at(row["uid"].get<uint32_t>()), row);

    run = kovractl({"wakeup", "inwakeup", "fin-drop"});
    ASSERT_EQ(0, run.exitCode) << run;
    auto table = tableRows(run.out);
    EXPECT_EQ((std::vector<std::string>{"UID", "inwakeup", "fin-drop"}), table.front());

    run = kovractl({"wakeup", "hb-len", "10044", "240"});
    ASSERT_EQ(0, run.exitCode) << run;
    auto heartbeats = openMap(maps::kImAppHbLen);
    EXPECT_EQ(240u, heartbeats.get(10044));

    // Screen on: flags 1 and 8 reset the inbound sequence and wake-up maps, once, with a line
    // that has no tag (so liblog prints the program's name); value 2 and key 64 stay.
    auto screen = openMap(maps::kScreenState);
    auto flags = openMap(maps::kOverflowingMapCheck);
    run = kovractl({"screen", "on", "1234"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ("screen on at stamp 1234: ok\n", run.out);
    EXPECT_TRUE(contains(run.err, "kovractl E ")) << run;
    EXPECT_TRUE(contains(run.err, "[BpfWakeupDetector] clear overflowing map:9")) << run;
    EXPECT_EQ(2u, screen.get(1));
    EXPECT_EQ(1234u, screen.get(3));
    EXPECT_EQ(0u, openMap(maps::kSkTcpCookieInSeq).size());
    EXPECT_EQ(0u, openMap(maps::kAppTcpInwakeup).size());
    EXPECT_NE(0u, openMap(maps::kSkTcpCookieOutSeq).size());
    EXPECT_EQ((std::vector<std::optional<uint32_t>>{0, 2, 0, 1}),
              (std::vector<std::optional<uint32_t>>{flags.get(1), flags.get(2), flags.get(8),
                                                    flags.get(64)}));
    run = kovractl({"screen", "on", "1235"});
    EXPECT_FALSE(contains(run.err, "clear overflowing")) << "nothing is flagged any more";

    run = kovractl({"--json", "screen", "off", "99"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ(nlohmann::json::parse(R"({"screen":"off","stamp":99,"status":0})"), jsonOf(run));
    EXPECT_EQ(1u, screen.get(1));
    EXPECT_EQ(99u, screen.get(2));
    EXPECT_EQ(0u, heartbeats.size()) << "screen off drops the heartbeat lengths";
}

// The demo data set's sockets and pairs (tools/kovractl/Seed.cpp): fresh ones are under a second
// old, stale ones minutes old, so a 30 s threshold tells them apart with room to spare.
TEST_F(KovractlTest, SpeedsReportPruneAndWipeInterfaces) {
    auto sockets = openMap(maps::kAppSocketSpeeds);
    auto info = openMap(maps::kAppSocketInfo);
    ASSERT_EQ(8u, sockets.size());

    // 40962 is under the floor, 40964 and 40965 are stale (pruned), 40967 talks to 127.0.0.9
    // on the loopback, measured with the local filter; 40968 is slow but watched; 40966's first
    // direction is stale and counts as 0.
    Outcome run = kovractl({"--json", "-v", "speeds", "sockets", "--stale-ms", "30000",
                            "--min-kbps", "100", "--watch", "40968,0x1"});
    ASSERT_EQ(0, run.exitCode) << run;
    std::map<uint64_t, std::pair<uint64_t, uint64_t>> reported;
    for (const auto& row : jsonOf(run)) {
        reported[row["cookie"]] = {row["firstSpeedKbps"], row["secondSpeedKbps"]};
    }
    EXPECT_EQ((std::map<uint64_t, std::pair<uint64_t, uint64_t>>{{40961, {2400, 800}},
                                                                 {40963, {15600, 1100}},
                                                                 {40966, {0, 500}},
                                                                 {40968, {20, 0}}}),
              reported);
    EXPECT_TRUE(contains(run.err, "add speed 40961 2400 800 kbps")) << run;
    for (uint64_t cookie : {40964u, 40965u}) {
        EXPECT_FALSE(sockets.get(cookie).has_value()) << cookie << " is pruned";
        EXPECT_FALSE(info.get(cookie).has_value()) << cookie << "'s information too";
    }
    EXPECT_EQ(6u, sockets.size());
    EXPECT_EQ(6u, info.size());

    run = kovractl({"speeds", "uids", "--stale-ms", "30000"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ(
            (std::vector<std::vector<std::string>>{{"UID", "IFINDEX", "FIRST_KBPS", "SECOND_KBPS"},
                                                   {"10012", "21", "1200", "300"},
                                                   {"10031", "21", "0", "0"},
                                                   {"10047", "22", "5500", "2000"},
                                                   {"10058", "21", "0", "250"},
                                                   {"4", "pairs"}}),
            tableRows(run.out));
    auto pairs = openMap(maps::kAppUidSpeeds);
    EXPECT_EQ(4u, pairs.size()) << "the two stale pairs are pruned";

    // Taking interface 22 out wipes its sockets, pairs and socket information, then its entry.
    auto measured = openMap(maps::kAppSocketSpeedsIfindex);
    run = kovractl({"speeds", "iface", "22", "off"});
    ASSERT_EQ(0, run.exitCode) << run;
    for (const auto& [cookie, value] : sockets.entries()) EXPECT_NE(22u, value.ifindex) << cookie;
    for (const auto& [cookie, value] : info.entries()) EXPECT_NE(22u, value.ifindex) << cookie;
    for (const auto& [key, value] : pairs.entries()) EXPECT_NE(22u, value.ifindex) << key.uid;
    EXPECT_FALSE(measured.get(22).has_value());
    EXPECT_EQ(4u, sockets.size());
    run = kovractl({"speeds", "iface", "22", "off"});
    EXPECT_EQ(1, run.exitCode) << "an interface that is not measured cannot be taken out";
    EXPECT_TRUE(contains(run.err, "bpfUpdateAppSocketSpeedsIfindex failed! 22,0,")) << run;

    run = kovractl({"speeds", "iface", "5", "on", "--local"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_TRUE(sameBytes(IfIndexSpeedConfig{1, 1}, *measured.get(5)));
    run = kovractl({"speeds", "config", "7"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ(7u, openMap(maps::kAppSocketSpeedsConfig).get(0));

    // On its own, outside a socket report, the subnet test has no interface context.
    run = kovractl({"speeds", "local", "40967"});
    EXPECT_EQ(1, run.exitCode) << run;
    EXPECT_TRUE(contains(run.err, "ifc_get_info failed is null")) << run;
}

TEST_F(KovractlTest, NetBlocksAndUnblocksWithTheServicesStatus) {
    auto disconnect = openMap(maps::kAppNetDisconnLimit);
    auto legacy = openMap(maps::kAppVuskLimit);
    Outcome run = kovractl({"net", "block", "10050"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ("block UID 10050: ok\n", run.out);
    EXPECT_EQ(1u, disconnect.get(10050));

    run = kovractl({"--json", "net", "unblock", "10050"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ(nlohmann::json::parse(R"({"uid":10050,"action":"unblock","status":0})"), jsonOf(run));
    EXPECT_FALSE(disconnect.get(10050).has_value());
    run = kovractl({"net", "unblock", "10050"});
    EXPECT_EQ(1, run.exitCode) << "unblocking a UID that is not blocked is the service's -1";
    EXPECT_EQ("", run.out);
    EXPECT_EQ("kovractl: unblock UID 10050 failed (status -1)\n", run.err);

    run = kovractl({"net", "legacy", "10077", "1"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_FALSE(legacy.get(10077).has_value());
    // Any rule but 1 blocks, negative ones too; the highest UID is the key with all bits set.
    run = kovractl({"net", "legacy", "4294967295", "-1"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ("legacy firewall block UID 4294967295: ok\n", run.out);
    EXPECT_EQ(1u, legacy.get(4294967295u));
    EXPECT_EQ(1u, legacy.size());
}

}  // namespace
}  // namespace kovra::test
