// kovractl end to end: its tables, JSON and exit codes against the maps it reads, its refusal of
// bad arguments, `kovractl maps`, and the sandbox.
#include <signal.h>

#include "Kovractl.h"

namespace kovra::test {
namespace {

using namespace android::bpf;
using sandbox::openMap;

TEST_F(KovractlTest, StatsShowTheMapsAsTablesAndJson) {
    const auto netd = openMap(maps::kNetdAppUidStats).entries();
    Outcome run = kovractl({"--json", "stats", "uids"});
    ASSERT_EQ(0, run.exitCode) << run;
    nlohmann::json rows = jsonOf(run);
    ASSERT_EQ(netd.size(), rows.size());
    for (const auto& [uid, v] : netd) {
        auto row = std::find_if(rows.begin(), rows.end(), [&](auto& r) { return r["uid"] == uid; });
        ASSERT_NE(rows.end(), row) << uid;
        EXPECT_EQ(v.rxPackets, (*row)["rxPackets"]);
        EXPECT_EQ(v.rxBytes, (*row)["rxBytes"]);
        EXPECT_EQ(v.txPackets, (*row)["txPackets"]);
        EXPECT_EQ(v.txBytes, (*row)["txBytes"]);
        EXPECT_FALSE(row->contains("extra0")) << "netd's records have no vendor counters";
    }

    // The table: a header, one row per UID in UID order, and a count.
    run = kovractl({"stats", "uids"});
    ASSERT_EQ(0, run.exitCode) << run;
    auto table = tableRows(run.out);
    ASSERT_EQ(netd.size() + 2, table.size()) << run;
    EXPECT_EQ((std::vector<std::string>{"UID", "RX_PACKETS", "RX_BYTES", "TX_PACKETS", "TX_BYTES"}),
              table.front());
    const StatsValue app = *openMap(maps::kNetdAppUidStats).get(10005);
    EXPECT_NE(table.end(),
              std::find(table.begin(), table.end(),
                        std::vector<std::string>{
                                "10005", std::to_string(app.rxPackets), std::to_string(app.rxBytes),
                                std::to_string(app.txPackets), std::to_string(app.txBytes)}));
    EXPECT_EQ("0", table[1][0]) << "rows come in UID order";
    EXPECT_EQ(std::to_string(netd.size()) + " UIDs", table.back()[0] + " " + table.back()[1]);

    // One UID of the vendor's map, with its two extra counters; one without an entry.
    const KovraStatsValue vendor = *openMap(maps::kUidPurStats).get(10123);
    run = kovractl({"stats", "pur", "10123", "--json"});
    ASSERT_EQ(0, run.exitCode) << run;
    EXPECT_EQ(nlohmann::json::parse(R"([{"uid":10123,"rxPackets":)" +
                                    std::to_string(vendor.rxPackets) + R"(,"rxBytes":)" +
                                    std::to_string(vendor.rxBytes) + R"(,"txPackets":)" +
                                    std::to_string(vendor.txPackets) + R"(,"txBytes":)" +
                                    std::to_string(vendor.txBytes) + R"(,"extra0":)" +
                                    std::to_string(vendor.extra0) + R"(,"extra1":)" +
                                    std::to_string(vendor.extra1) + "}]"),
              jsonOf(run));
    run = kovractl({"stats", "pur", "9"});
    EXPECT_EQ(102, run.exitCode) << "-ENOENT is exit 100 + 2: " << run;
    EXPECT_EQ("", run.out);
    EXPECT_NE(std::string::npos, run.err.find("Failed to get current uid 9 stats: No such file or "
                                              "directory"))
            << "the library's own log line reaches the user: " << run;
    EXPECT_NE(std::string::npos, run.err.find("kovractl: reading the vendor's per-UID totals "
                                              "failed: No such file or directory (status -2)"))
            << run;
}

// Each of these must be refused by the parser, before any service runs: some would harvest,
// prune, block or reset if they got through.
const std::vector<std::vector<std::string>> kBadCommands = {
        {},
        {"bogus"},
        {"stats"},
        {"stats", "bogus"},
        {"stats", "uids", "abc"},
        {"stats", "pur", "4294967296"},
        {"stats", "pur", "-1"},
        {"stats", "pur", "010"},
        {"stats", "pur", "1", "2"},
        {"sandbox", "--seed", "nosuch", "--", "true"},
        {"maps", "extra"},
        {"freeze"},
        {"freeze", "syns", "extra"},
        {"freeze", "config"},
        {"freeze", "config", "set", "1", "2"},
        {"freeze", "config", "set", "1", "2", "x"},
        {"wakeup", "bogus"},
        {"wakeup", "hb-len", "10044"},
        {"screen", "on"},
        {"screen", "dim", "5"},
        {"screen", "on", "abc"},
        {"net", "block"},
        {"net", "block", "abc"},
        {"net", "block", "4294967296"},
        {"net", "unblock", "10066", "extra"},
        {"net", "legacy", "10077", "abc"},
        {"speeds"},
        {"speeds", "sockets", "--min-kbps", "100"},
        {"speeds", "sockets", "--stale-ms", "x", "--min-kbps", "100"},
        {"speeds", "sockets", "--stale-ms", "1", "--min-kbps", "1", "--watch", "1,x"},
        {"speeds", "uids"},
        {"speeds", "iface", "22"},
        {"speeds", "iface", "22", "down"},
        {"speeds", "iface", "22", "off", "--local"},
        {"speeds", "config"},
        {"speeds", "local", "-5"},
};

TEST_F(KovractlTest, BadArgumentsGiveUsageAndTouchNoMap) {
    const Snapshot before = snapshotMaps();
    for (const auto& args : kBadCommands) {
        std::string line;
        for (const auto& arg : args) line += arg + " ";
        const Outcome run = kovractl(args);
        EXPECT_EQ(2, run.exitCode) << line << run;
        EXPECT_EQ("", run.out) << line;
        EXPECT_EQ(0u, run.err.rfind("kovractl: ", 0)) << line << run;
        EXPECT_NE(std::string::npos, run.err.find("Usage:")) << line << run;
    }
    EXPECT_TRUE(before == snapshotMaps()) << "a rejected command changed a map";

    // Every level has its help, on stdout, with exit 0.
    for (const auto& args : std::vector<std::vector<std::string>>{
                 {"--help"}, {"stats", "--help"}, {"stats", "pur", "--help"}, {"maps", "-h"}}) {
        const Outcome run = kovractl(args);
        EXPECT_EQ(0, run.exitCode) << run;
        EXPECT_NE(std::string::npos, run.out.find("Usage:")) << run;
    }
    EXPECT_NE(std::string::npos, kovractl({"--help"}).out.find("Exit codes:"));
}

TEST_F(KovractlTest, MapsReportsWhatIsPinnedAndWhatDoesNotFit) {
    Outcome run = kovractl({"maps", "--json"});
    ASSERT_EQ(0, run.exitCode) << run;
    nlohmann::json rows = jsonOf(run);
    ASSERT_EQ(kPinnedMaps.size(), rows.size());
    const Snapshot seeded = snapshotMaps();
    for (const auto& row : rows) {
        EXPECT_EQ("ok", row["state"]) << row;
        EXPECT_EQ(seeded.at(row["path"].get<std::string>()).size(), row["entries"]) << row;
        EXPECT_GT(row["entries"], 0u) << "the demo data set fills every map: " << row;
    }

    // A vendor statistics map one byte too wide, and no netd map: the services would abort.
    unlink(maps::kNetdAppUidStats.path);
    RawMap wide(maps::kUidPurStats.path, 4, sizeof(KovraStatsValue) + 1);
    run = kovractl({"maps"});
    EXPECT_EQ(3, run.exitCode) << run;
    auto table = tableRows(run.out);
    EXPECT_EQ((std::vector<std::string>{"app_uid_stats", "stats", "4", "32", "0", "missing"}),
              table[1]);
    EXPECT_EQ((std::vector<std::string>{"uid_pur_stats", "stats", "4", "48", "0", "sizes", "4/49,",
                                        "expected", "4/48"}),
              table[2]);

    // A missing map is caught before the library would abort on it ...
    run = kovractl({"stats", "uids"});
    EXPECT_EQ(3, run.exitCode) << run;
    EXPECT_NE(std::string::npos,
              run.err.find("kovractl: /sys/fs/bpf/netd_shared/map_netd_app_uid_stats_map is not "
                           "pinned"))
            << run;
    // ... a map that does not fit is the library's to refuse, and kovractl says why it died.
    RawMap netd(maps::kNetdAppUidStats.path, 4, sizeof(StatsValue));
    run = kovractl({"stats", "pur"});
    EXPECT_EQ(-SIGABRT, run.exitCode) << run;
    EXPECT_NE(std::string::npos, run.err.find("kovractl: the library ended the process")) << run;
}

TEST_F(KovractlTest, SandboxHasItsOwnBpffsAndPassesOnTheExitStatus) {
    const Snapshot ours = snapshotMaps();

    // Seeded: the same data set as this test's maps, in a bpffs of the sandbox's own.
    Outcome run = kovractl({"sandbox", "--seed", "demo", "--", KOVRACTL_PATH, "--json", "maps"});
    ASSERT_EQ(0, run.exitCode) << run;
    nlohmann::json rows = jsonOf(run);
    ASSERT_EQ(kPinnedMaps.size(), rows.size());
    for (const auto& row : rows) {
        EXPECT_EQ("ok", row["state"]) << row;
        EXPECT_EQ(ours.at(row["path"].get<std::string>()).size(), row["entries"]) << row;
    }

    // Not seeded: every map there and empty, although ours are full; the command's status and
    // its changes stay inside.
    run = kovractl({"sandbox", "--", "sh", "-c",
                    std::string(KOVRACTL_PATH) + " --json maps; test \"$KOVRA_SANDBOX\" = 1 && "
                                                 "rm /sys/fs/bpf/map_kovra-netd_app_vusk_limit_map "
                                                 "&& exit 7"});
    EXPECT_EQ(7, run.exitCode) << run;
    for (const auto& row : jsonOf(run)) EXPECT_EQ(0u, row["entries"]) << row;
    EXPECT_TRUE(ours == snapshotMaps()) << "the sandbox reached outside its own bpffs";

    run = kovractl({"sandbox", "--", "/nonexistent/command"});
    EXPECT_EQ(127, run.exitCode) << run;

    run = kovractl({"sandbox", "--seed", "demo"}, 65534);
    EXPECT_EQ(3, run.exitCode) << run;
    EXPECT_NE(std::string::npos, run.err.find("kovractl: sandbox: needs root")) << run;
}

}  // namespace
}  // namespace kovra::test
