// kovractl speeds iface, config and local: which interfaces are measured and what taking one out
// wipes, the global configuration word, and whether a socket's peer is local.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

struct SettingsOptions {
    uint32_t ifindex = 0;
    std::string state;
    bool local = false;
    uint32_t config = 0;
    uint64_t cookie = 0;
};

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

Output bindInterface(const SettingsOptions& opts) {
    const bool on = opts.state == "on";
    if (on) {
        return change(call(bpfUpdateAppSocketSpeedsIfindex, opts.ifindex, 1, opts.local),
                      "measure interface " + std::to_string(opts.ifindex) +
                              (opts.local ? " without subnet-local sockets" : ""),
                      {{"ifindex", opts.ifindex}, {"enable", true}, {"local", opts.local}});
    }
    const auto& swept = sweptMaps();
    std::vector<Json> before;
    for (const auto& [name, map] : swept) before.push_back(entryCount(*map));
    const Status status = call(bpfUpdateAppSocketSpeedsIfindex, opts.ifindex, 0, 0);
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
    return change(call(bpfUpdateAppSocketSpeedsConfig, config),
                  "set the speed configuration word to " + std::to_string(config),
                  {{"config", config}});
}

Output localStatus(uint64_t cookie) {
    const Status status = call(bpfGetSocketLocalStatus, cookie);
    check(status, "telling whether socket " + std::to_string(cookie) + " is local");
    Output out{{{"cookie", cookie}, {"local", status.value == 1}}};
    return std::move(out.line(
            "socket " + std::to_string(cookie) + ": " +
            (status.value == 1 ? "peer in the interface's subnet" : "peer outside the subnet")));
}

}  // namespace

void addSpeedsSettings(CLI::App* speeds, Context& ctx) {
    auto opts = std::make_shared<SettingsOptions>();
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
