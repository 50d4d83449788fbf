// kovractl speeds sockets and uids: per-socket and per-(UID, interface) speeds, and what the
// services pruned on the way. The interfaces and the configuration are SpeedsSettings.cpp's.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include <set>

#include "Commands.h"
#include "Watch.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

struct SpeedsOptions {
    uint32_t staleMs = 0;
    uint32_t minKbps = 0;
    std::vector<uint64_t> watch;
    ListOptions list;
};

// The 8-byte keys of a map (socket cookies, or UID and interface as one little-endian u64).
std::set<uint64_t> keysOf(const PinnedMapInfo& map) {
    std::set<uint64_t> keys;
    for (const auto& [key, value] : readEntries(map)) {
        uint64_t number = 0;
        memcpy(&number, key.data(), std::min(key.size(), sizeof(number)));
        keys.insert(number);
    }
    return keys;
}

std::vector<uint64_t> gone(const std::set<uint64_t>& before, const std::set<uint64_t>& after) {
    std::vector<uint64_t> out;
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(),
                        std::back_inserter(out));
    return out;
}

std::string pairName(uint64_t key) {
    return std::to_string(static_cast<uint32_t>(key)) + "/" + std::to_string(key >> 32);
}

// "pruned 2 stale sockets: 40964 40965"; which ones only with -v.
std::string prunedLine(const Context& ctx, const std::vector<uint64_t>& keys,
                       const std::string& noun, bool pairs) {
    std::string line = "pruned " + countOf(keys.size(), "stale " + noun);
    if (ctx.verbose && !keys.empty()) {
        line += ":";
        for (uint64_t key : keys) line += " " + (pairs ? pairName(key) : std::to_string(key));
    }
    return line;
}

const std::vector<std::string> kSocketColumns = {
        "cookie",      "ifindex", "firstSpeedKbps", "secondSpeedKbps", "firstStamp",
        "secondStamp", "tag"};
const std::vector<std::string> kPairColumns = {"uid", "ifindex", "firstSpeedKbps",
                                               "secondSpeedKbps"};

int socketSpeeds(const Context& ctx, const SpeedsOptions& opts) {
    const PinnedMapInfo& speedsMap = rowOf(maps::kAppSocketSpeeds.path);
    const PinnedMapInfo& infoMap = rowOf(maps::kAppSocketInfo.path);
    View view{
            kSocketColumns, "socket", {}, [&] {
                const std::set<uint64_t> sockets = keysOf(speedsMap), infos = keysOf(infoMap);
                std::unordered_map<uint64_t, SpeedsValue> speeds;
                std::unordered_set<uint64_t> watched(opts.watch.begin(), opts.watch.end());
                check(call(bpfGetAppSocketSpeedsTotal, speeds, opts.staleMs, opts.minKbps, watched),
                      "reading the socket speeds");
                const std::vector<uint64_t> pruned = gone(sockets, keysOf(speedsMap));
                const size_t info = gone(infos, keysOf(infoMap)).size();
                Listing listing;
                for (uint64_t cookie : sortedKeys(speeds)) {
                    const SpeedsValue& v = speeds.at(cookie);
                    listing.rows.rows.push_back({cookie, v.ifindex, v.firstSpeed, v.secondSpeed,
                                                 v.firstStamp, v.secondStamp, v.tag});
                }
                listing.changes = {
                        {"pruned",
                         {{"sockets", pruned.size()}, {"socketInfo", info}, {"cookies", pruned}}}};
                listing.lines = {prunedLine(ctx, pruned, "socket", false) + " (and " +
                                 countOf(info, "socket information record") + ")"};
                return listing;
            }};
    return present(ctx, opts.list, view);
}

int uidSpeeds(const Context& ctx, const SpeedsOptions& opts) {
    const PinnedMapInfo& pairsMap = rowOf(maps::kAppUidSpeeds.path);
    View view{
            kPairColumns, "pair", {}, [&] {
                const std::set<uint64_t> before = keysOf(pairsMap);
                std::unordered_map<uint64_t, IfaceSpeedsValue> speeds;
                check(call(bpfGetAppUidSpeedsTotal, speeds, opts.staleMs),
                      "reading the UID speeds");
                const std::vector<uint64_t> pruned = gone(before, keysOf(pairsMap));
                // The table's key is the pair read as one little-endian u64: UID low,
                // interface high. Rows by UID, then interface.
                std::vector<uint64_t> keys = sortedKeys(speeds);
                std::sort(keys.begin(), keys.end(), [](uint64_t a, uint64_t b) {
                    return std::pair(static_cast<uint32_t>(a), a >> 32) <
                           std::pair(static_cast<uint32_t>(b), b >> 32);
                });
                Listing listing;
                for (uint64_t key : keys) {
                    listing.rows.rows.push_back({static_cast<uint32_t>(key), key >> 32,
                                                 speeds.at(key).firstSpeedKbps,
                                                 speeds.at(key).secondSpeedKbps});
                }
                Json which = Json::array();
                for (uint64_t key : pruned) {
                    which.push_back({{"uid", static_cast<uint32_t>(key)}, {"ifindex", key >> 32}});
                }
                listing.changes = {{"pruned", {{"pairs", pruned.size()}, {"which", which}}}};
                listing.lines = {prunedLine(ctx, pruned, "pair", true)};
                return listing;
            }};
    return present(ctx, opts.list, view);
}

}  // namespace

void addSpeedsCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<SpeedsOptions>();
    CLI::App* speeds =
            app.add_subcommand("speeds", "Socket and UID speeds, and the measured interfaces")
                    ->require_subcommand(1);

    CLI::App* sockets = speeds->add_subcommand(
            "sockets",
            "Sockets at or above the floor (or watched and moving), in kbps; prunes, and "
            "reports, sockets whose both directions are stale (every listing of a watch too)");
    addNumber(sockets, "--stale-ms", opts->staleMs, "Age in ms beyond which a speed is stale");
    // The service multiplies by 1000 in 32 bits; a larger floor would wrap.
    addNumber(sockets, "--min-kbps", opts->minKbps, "Report floor in kbps (at most 4294967)",
              UINT32_MAX / 1000);
    sockets->add_option("--watch", opts->watch,
                        "Cookies to report below the floor, comma-separated")
            ->delimiter(',')
            ->check(unsignedNumber(UINT64_MAX));
    addListOptions(sockets, opts->list, true, kSocketColumns);
    onRun(sockets, ctx,
          {needs(maps::kAppSocketSpeeds, Access::kReadWrite),
           needs(maps::kAppSocketInfo, Access::kReadWrite),
           needs(maps::kAppSocketSpeedsIfindex, Access::kReadWrite)},
          [&ctx, opts] { return socketSpeeds(ctx, *opts); });

    CLI::App* uids = speeds->add_subcommand(
            "uids", "Every live (UID, interface) pair in kbps; prunes, and reports, stale pairs");
    addNumber(uids, "--stale-ms", opts->staleMs, "Age in ms beyond which a speed is stale");
    addListOptions(uids, opts->list, true, kPairColumns);
    onRun(uids, ctx, {needs(maps::kAppUidSpeeds, Access::kReadWrite)},
          [&ctx, opts] { return uidSpeeds(ctx, *opts); });

    addSpeedsSettings(speeds, ctx);
}

}  // namespace kovra::tool
