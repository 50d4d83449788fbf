// kovractl stats: per-UID traffic totals from netd's statistics map and the vendor's own.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include "Commands.h"
#include "Watch.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

struct StatsOptions {
    uint32_t uid = 0;
    ListOptions list;
};

using Totals = std::unordered_map<int64_t, KovraStatsValue>;

const std::vector<std::string> kCounters = {"rxPackets", "rxBytes", "txPackets", "txBytes"};

// netd's records have no vendor counters: their columns are null there.
Rows rowsOf(const Totals& totals, bool vendorCounters) {
    Rows rows{{"uid", "rxPackets", "rxBytes", "txPackets", "txBytes", "extra0", "extra1"}, {}};
    for (int64_t uid : sortedKeys(totals)) {
        const KovraStatsValue& v = totals.at(uid);
        rows.rows.push_back({uid, v.rxPackets, v.rxBytes, v.txPackets, v.txBytes,
                             vendorCounters ? Json(v.extra0) : Json(nullptr),
                             vendorCounters ? Json(v.extra1) : Json(nullptr)});
    }
    return rows;
}

int totals(const Context& ctx, const StatsOptions& opts, const CLI::Option* uidOption,
           bool vendor) {
    const bool one = uidOption->count() > 0;
    View view{rowsOf({}, vendor).columns, "UID", kCounters, [&] {
                  Totals totals;
                  if (!vendor) {
                      check(call(bpfGetUidStatsTotal, totals), "reading netd's per-UID totals");
                      if (one) {
                          const auto it = totals.find(opts.uid);
                          totals = it == totals.end() ? Totals{} : Totals{*it};
                      }
                  } else if (one) {
                      check(call(bpfGetUidPurStats, opts.uid, totals[opts.uid]),
                            "reading the vendor's totals of UID " + std::to_string(opts.uid));
                  } else {
                      check(call(bpfGetUidPurStatsTotal, totals),
                            "reading the vendor's per-UID totals");
                  }
                  Listing listing;
                  listing.rows = rowsOf(totals, vendor);
                  return listing;
              }};
    return present(ctx, opts.list, view);
}

}  // namespace

void addStatsCommands(CLI::App& app, Context& ctx) {
    CLI::App* stats = app.add_subcommand("stats", "Per-UID traffic totals")->require_subcommand(1);
    auto opts = std::make_shared<StatsOptions>();

    CLI::App* uids = stats->add_subcommand("uids", "Totals from netd's per-UID statistics map");
    CLI::Option* netdUid = addNumber(uids, "UID", opts->uid, "Only this UID")->required(false);
    addListOptions(uids, opts->list, true, rowsOf({}, false).columns, kCounters);
    onRun(uids, ctx, {needs(maps::kNetdAppUidStats, Access::kReadOnly)},
          [&ctx, opts, netdUid] { return totals(ctx, *opts, netdUid, false); });

    CLI::App* pur = stats->add_subcommand(
            "pur", "Totals from the vendor's per-UID statistics map (with its two extra counters)");
    CLI::Option* purUid = addNumber(pur, "UID", opts->uid,
                                    "Only this UID: a single lookup, which fails with ENOENT "
                                    "(exit 4) when the UID has no entry")
                                  ->required(false);
    addListOptions(pur, opts->list, true, rowsOf({}, true).columns, kCounters);
    onRun(pur, ctx, {needs(maps::kUidPurStats, Access::kReadOnly)},
          [&ctx, opts, purUid] { return totals(ctx, *opts, purUid, true); });
}

}  // namespace kovra::tool
