// kovractl speeds: per-socket and per-(UID, interface) speeds, which interfaces are measured, and
// what the services pruned or wiped on the way.
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
    uint32_t ifindex = 0;
    std::string state;
    bool local = false;
    uint32_t config = 0;
    uint64_t cookie = 0;
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

int socketSpeeds(const Context& ctx, const SpeedsOptions& opts) {
    const PinnedMapInfo& speedsMap = rowOf(maps::kAppSocketSpeeds.path);
    const PinnedMapInfo& infoMap = rowOf(maps::kAppSocketInfo.path);
    View view{
            {"cookie", "ifindex", "firstSpeedKbps", "secondSpeedKbps", "firstStamp", "secondStamp",
             "tag"},
            "socket",
            {},
            [&] {
                const std::set<uint64_t> sockets = keysOf(speedsMap), infos = keysOf(infoMap);
                std::unordered_map<uint64_t, SpeedsValue> speeds;
                std::unordered_set<uint64_t> watched(opts.watch.begin(), opts.watch.end());
                check(bpfGetAppSocketSpeedsTotal(speeds, opts.staleMs, opts.minKbps, watched),
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
            {"uid", "ifindex", "firstSpeedKbps", "secondSpeedKbps"}, "pair", {}, [&] {
                const std::set<uint64_t> before = keysOf(pairsMap);
                std::unordered_map<uint64_t, IfaceSpeedsValue> speeds;
                check(bpfGetAppUidSpeedsTotal(speeds, opts.staleMs), "reading the UID speeds");
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

// Taking an interface out sweeps its data from three maps, then drops its table entry.
const std::vector<std::pair<std::string, const PinnedMapInfo*>>& sweptMaps() {
    static const std::vector<std::pair<std::string, const PinnedMapInfo*>> swept = {
            {"sockets", &rowOf(maps::kAppSocketSpeeds.path)},
            {"pairs", &rowOf(maps::kAppUidSpeeds.path)},
            {"socketInfo", &rowOf(maps::kAppSocketInfo.path)},
            {"interfaces", &rowOf(maps::kAppSocketSpeedsIfindex.path)}};
    return swept;
}

// What `speeds iface` needs: the table to list it, to put an interface in, or every swept map.
MapNeeds ifaceNeeds(bool listing, bool on) {
    if (listing) return {needs(maps::kAppSocketSpeedsIfindex, Access::kReadOnly)};
    if (on) return {needs(maps::kAppSocketSpeedsIfindex, Access::kReadWrite)};
    MapNeeds all;
    for (const auto& [name, map] : sweptMaps()) all.push_back({map, Access::kReadWrite});
    return all;
}

// The per-interface measurement table as it stands.
Output listInterfaces() {
    Rows rows{{"ifindex", "enable", "localEnable"}, {}};
    for (const auto& [ifindex, config] : readEntries(maps::kAppSocketSpeedsIfindex)) {
        rows.rows.push_back({ifindex, config.enable, config.localEnable});
    }
    std::sort(rows.rows.begin(), rows.rows.end());
    return listing(rows, "measured interface");
}

Output bindInterface(const SpeedsOptions& opts) {
    const bool on = opts.state == "on";
    if (on) {
        return change(bpfUpdateAppSocketSpeedsIfindex(opts.ifindex, 1, opts.local),
                      "measure interface " + std::to_string(opts.ifindex) +
                              (opts.local ? " without subnet-local sockets" : ""),
                      {{"ifindex", opts.ifindex}, {"enable", true}, {"local", opts.local}});
    }
    const auto& swept = sweptMaps();
    std::vector<Json> before;
    for (const auto& [name, map] : swept) before.push_back(entryCount(*map));
    const int status = bpfUpdateAppSocketSpeedsIfindex(opts.ifindex, 0, 0);
    Json wiped = Json::object();
    std::string line = "wiped for interface " + std::to_string(opts.ifindex) + ":";
    for (size_t m = 0; m < swept.size(); ++m) {
        const Json after = entryCount(*swept[m].second);
        wiped[swept[m].first] = before[m].is_number() && after.is_number()
                                        ? Json(before[m].get<size_t>() - after.get<size_t>())
                                        : Json(nullptr);
        line += " " + wiped[swept[m].first].dump() + " from " + mapName(swept[m].second->path) +
                (m + 1 < swept.size() ? "," : "");
    }
    return change(status, "stop measuring interface " + std::to_string(opts.ifindex),
                  {{"ifindex", opts.ifindex}, {"enable", false}, {"wiped", wiped}}, {line});
}

Output showConfig() {
    Json word = nullptr;
    for (const auto& [key, value] : readEntries(maps::kAppSocketSpeedsConfig)) {
        if (key == 0) word = value;
    }
    Output out{{{"config", word}}};
    return std::move(
            out.line("speed configuration word: " + (word.is_null() ? "not set" : word.dump())));
}

Output setConfig(uint32_t config) {
    return change(bpfUpdateAppSocketSpeedsConfig(config),
                  "set the speed configuration word to " + std::to_string(config),
                  {{"config", config}});
}

Output localStatus(uint64_t cookie) {
    const int status = bpfGetSocketLocalStatus(cookie);
    check(status, "telling whether socket " + std::to_string(cookie) + " is local");
    Output out{{{"cookie", cookie}, {"local", status == 1}}};
    return std::move(
            out.line("socket " + std::to_string(cookie) + ": " +
                     (status == 1 ? "peer in the interface's subnet" : "peer outside the subnet")));
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
    addListOptions(sockets, opts->list, true);
    onRun(sockets, ctx,
          {needs(maps::kAppSocketSpeeds, Access::kReadWrite),
           needs(maps::kAppSocketInfo, Access::kReadWrite),
           needs(maps::kAppSocketSpeedsIfindex, Access::kReadWrite)},
          [&ctx, opts] { return socketSpeeds(ctx, *opts); });

    CLI::App* uids = speeds->add_subcommand(
            "uids", "Every live (UID, interface) pair in kbps; prunes, and reports, stale pairs");
    addNumber(uids, "--stale-ms", opts->staleMs, "Age in ms beyond which a speed is stale");
    addListOptions(uids, opts->list, true);
    onRun(uids, ctx, {needs(maps::kAppUidSpeeds, Access::kReadWrite)},
          [&ctx, opts] { return uidSpeeds(ctx, *opts); });

    CLI::App* iface = speeds->add_subcommand(
            "iface",
            "Without arguments, list the measured interfaces; with them, put an interface into "
            "measurement, or take it out and wipe what was gathered for it");
    CLI::Option* ifindex = addNumber(iface, "IFINDEX", opts->ifindex, "Interface index");
    CLI::Option* state = iface->add_option("STATE", opts->state, "on or off")
                                 ->check(CLI::IsMember({"on", "off"}));
    iface->add_flag("--local", opts->local,
                    "With on: leave sockets whose peer is in the interface's subnet out of "
                    "reports");
    allOrNone(iface, {ifindex, state}, [opts] {
        if (opts->local && opts->state != "on") {
            throw CLI::ValidationError("--local", "goes with on");
        }
    });
    onShow(
            iface, ctx,
            [opts, state] { return ifaceNeeds(state->count() == 0, opts->state == "on"); },
            [opts, state] { return state->count() > 0 ? bindInterface(*opts) : listInterfaces(); });

    CLI::App* config =
            speeds->add_subcommand("config", "Show the global speed configuration word, or set it");
    CLI::Option* word =
            addNumber(config, "WORD", opts->config, "The word, as the kernel side reads it")
                    ->required(false);
    onShow(
            config, ctx,
            [word] {
                return MapNeeds{needs(maps::kAppSocketSpeedsConfig,
                                      word->count() > 0 ? Access::kReadWrite : Access::kReadOnly)};
            },
            [opts, word] { return word->count() > 0 ? setConfig(opts->config) : showConfig(); });

    CLI::App* local = speeds->add_subcommand(
            "local",
            "Whether a socket's peer lies in its interface's IPv4 subnet (exit 1 when "
            "it cannot be told, as usual outside a socket report)");
    addNumber(local, "COOKIE", opts->cookie, "Socket cookie");
    onShow(local, ctx, {needs(maps::kAppSocketInfo, Access::kReadWrite)},
           [opts] { return localStatus(opts->cookie); });
}

}  // namespace kovra::tool
