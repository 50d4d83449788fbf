// kovractl stats: per-UID traffic totals from netd's statistics map and the vendor's own.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

struct StatsOptions {
    uint32_t uid = 0;
};

using Totals = std::unordered_map<int64_t, KovraStatsValue>;

// netd's records have no vendor counters, so their table leaves those columns out.
void show(const Context& ctx, const Totals& totals, bool vendorCounters) {
    if (ctx.json) {
        Json rows = Json::array();
        for (int64_t uid : sortedKeys(totals)) {
            const KovraStatsValue& v = totals.at(uid);
            Json row = {{"uid", uid},
                        {"rxPackets", v.rxPackets},
                        {"rxBytes", v.rxBytes},
                        {"txPackets", v.txPackets},
                        {"txBytes", v.txBytes}};
            if (vendorCounters) {
                row["extra0"] = v.extra0;
                row["extra1"] = v.extra1;
            }
            rows.push_back(row);
        }
        printJson(rows);
        return;
    }
    std::vector<std::string> headers = {"UID", "RX_PACKETS", "RX_BYTES", "TX_PACKETS", "TX_BYTES"};
    if (vendorCounters) headers.insert(headers.end(), {"EXTRA0", "EXTRA1"});
    Table table(headers);
    for (int64_t uid : sortedKeys(totals)) {
        const KovraStatsValue& v = totals.at(uid);
        std::vector<std::string> row = {std::to_string(uid), std::to_string(v.rxPackets),
                                        std::to_string(v.rxBytes), std::to_string(v.txPackets),
                                        std::to_string(v.txBytes)};
        if (vendorCounters) {
            row.insert(row.end(), {std::to_string(v.extra0), std::to_string(v.extra1)});
        }
        table.add(row);
    }
    table.print();
    printf("%s\n", countOf(totals.size(), "UID").c_str());
}

// Narrows a full table to one UID when the command line names one.
Totals only(const Totals& totals, const CLI::Option* uidOption, uint32_t uid) {
    if (uidOption->count() == 0) return totals;
    Totals one;
    if (auto it = totals.find(uid); it != totals.end()) one.insert(*it);
    return one;
}

int netdTotals(const Context& ctx, const CLI::Option* uidOption, uint32_t uid) {
    requirePinned(MapFamily::kStats);
    Totals totals;
    const int status = bpfGetUidStatsTotal(totals);
    if (status == 0) show(ctx, only(totals, uidOption, uid), false);
    return finish(status, "reading netd's per-UID totals");
}

int vendorTotals(const Context& ctx, const CLI::Option* uidOption, uint32_t uid) {
    requirePinned(MapFamily::kStats);
    Totals totals;
    int status;
    if (uidOption->count() == 0) {
        status = bpfGetUidPurStatsTotal(totals);
    } else {
        status = bpfGetUidPurStats(uid, totals[uid]);
        if (status != 0) totals.clear();
    }
    if (status == 0) show(ctx, totals, true);
    return finish(status, "reading the vendor's per-UID totals");
}

}  // namespace

void addStatsCommands(CLI::App& app, Context& ctx) {
    CLI::App* stats = app.add_subcommand("stats", "Per-UID traffic totals")->require_subcommand(1);
    auto opts = std::make_shared<StatsOptions>();

    CLI::App* uids = stats->add_subcommand("uids", "Totals from netd's per-UID statistics map");
    CLI::Option* netdUid = addNumber(uids, "UID", opts->uid, "Only this UID")->required(false);
    onRun(uids, ctx, [&ctx, opts, netdUid] { return netdTotals(ctx, netdUid, opts->uid); });

    CLI::App* pur = stats->add_subcommand(
            "pur", "Totals from the vendor's per-UID statistics map (with its two extra counters)");
    CLI::Option* purUid = addNumber(pur, "UID", opts->uid,
                                    "Only this UID: a single lookup, which fails with ENOENT "
                                    "(exit 102) when the UID has no entry")
                                  ->required(false);
    onRun(pur, ctx, [&ctx, opts, purUid] { return vendorTotals(ctx, purUid, opts->uid); });
}

}  // namespace kovra::tool
