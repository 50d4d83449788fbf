// kovractl speeds: per-socket and per-(UID, interface) speeds, and which interfaces are measured.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include "Commands.h"

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
};

void showSockets(const Context& ctx, const std::unordered_map<uint64_t, SpeedsValue>& speeds) {
    if (ctx.json) {
        Json rows = Json::array();
        for (uint64_t cookie : sortedKeys(speeds)) {
            const SpeedsValue& v = speeds.at(cookie);
            rows.push_back({{"cookie", cookie},
                            {"ifindex", v.ifindex},
                            {"firstSpeedKbps", v.firstSpeed},
                            {"secondSpeedKbps", v.secondSpeed},
                            {"firstStamp", v.firstStamp},
                            {"secondStamp", v.secondStamp},
                            {"tag", v.tag}});
        }
        printJson(rows);
        return;
    }
    Table table({"COOKIE", "IFINDEX", "FIRST_KBPS", "SECOND_KBPS"});
    for (uint64_t cookie : sortedKeys(speeds)) {
        const SpeedsValue& v = speeds.at(cookie);
        table.add({std::to_string(cookie), std::to_string(v.ifindex), std::to_string(v.firstSpeed),
                   std::to_string(v.secondSpeed)});
    }
    table.print();
    printf("%s\n", countOf(speeds.size(), "socket").c_str());
}

int socketSpeeds(const Context& ctx, const SpeedsOptions& opts) {
    requirePinned(MapFamily::kSpeeds);
    std::unordered_map<uint64_t, SpeedsValue> speeds;
    std::unordered_set<uint64_t> watched(opts.watch.begin(), opts.watch.end());
    const int status = bpfGetAppSocketSpeedsTotal(speeds, opts.staleMs, opts.minKbps, watched);
    if (status == 0) showSockets(ctx, speeds);
    return finish(status, "reading the socket speeds");
}

void showPairs(const Context& ctx, const std::unordered_map<uint64_t, IfaceSpeedsValue>& speeds) {
    // The table's key is the pair read as one little-endian u64: UID low, interface high.
    auto uidOf = [](uint64_t key) { return static_cast<uint32_t>(key); };
    auto ifindexOf = [](uint64_t key) { return static_cast<uint32_t>(key >> 32); };
    // Rows by UID, then interface.
    std::vector<uint64_t> keys = sortedKeys(speeds);
    std::sort(keys.begin(), keys.end(), [&](uint64_t a, uint64_t b) {
        return std::pair(uidOf(a), ifindexOf(a)) < std::pair(uidOf(b), ifindexOf(b));
    });
    if (ctx.json) {
        Json rows = Json::array();
        for (uint64_t key : keys) {
            rows.push_back({{"uid", uidOf(key)},
                            {"ifindex", ifindexOf(key)},
                            {"firstSpeedKbps", speeds.at(key).firstSpeedKbps},
                            {"secondSpeedKbps", speeds.at(key).secondSpeedKbps}});
        }
        printJson(rows);
        return;
    }
    Table table({"UID", "IFINDEX", "FIRST_KBPS", "SECOND_KBPS"});
    for (uint64_t key : keys) {
        table.add({std::to_string(uidOf(key)), std::to_string(ifindexOf(key)),
                   std::to_string(speeds.at(key).firstSpeedKbps),
                   std::to_string(speeds.at(key).secondSpeedKbps)});
    }
    table.print();
    printf("%s\n", countOf(speeds.size(), "pair").c_str());
}

int uidSpeeds(const Context& ctx, uint32_t staleMs) {
    requirePinned(MapFamily::kSpeeds);
    std::unordered_map<uint64_t, IfaceSpeedsValue> speeds;
    const int status = bpfGetAppUidSpeedsTotal(speeds, staleMs);
    if (status == 0) showPairs(ctx, speeds);
    return finish(status, "reading the UID speeds");
}

int bindInterface(const Context& ctx, const SpeedsOptions& opts) {
    const bool on = opts.state == "on";
    requirePinned(MapFamily::kSpeeds);
    const int status = bpfUpdateAppSocketSpeedsIfindex(opts.ifindex, on ? 1 : 0, opts.local);
    const std::string what =
            on ? "measure interface " + std::to_string(opts.ifindex) +
                            (opts.local ? " without subnet-local sockets" : "")
               : "stop measuring interface " + std::to_string(opts.ifindex) + " and wipe its data";
    return reportChange(ctx, status, what,
                        {{"ifindex", opts.ifindex}, {"enable", on}, {"local", opts.local}});
}

int setConfig(const Context& ctx, uint32_t config) {
    requirePinned(MapFamily::kSpeeds);
    return reportChange(ctx, bpfUpdateAppSocketSpeedsConfig(config),
                        "set the speed configuration word to " + std::to_string(config),
                        {{"config", config}});
}

int localStatus(const Context& ctx, uint64_t cookie) {
    requirePinned(MapFamily::kSpeeds);
    const int status = bpfGetSocketLocalStatus(cookie);
    if (status >= 0) {
        if (ctx.json) {
            printJson({{"cookie", cookie}, {"local", status == 1}});
        } else {
            printf("socket %llu: %s\n", static_cast<unsigned long long>(cookie),
                   status == 1 ? "peer in the interface's subnet" : "peer outside the subnet");
        }
    }
    return finish(status, "telling whether socket " + std::to_string(cookie) + " is local");
}

}  // namespace

void addSpeedsCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<SpeedsOptions>();
    CLI::App* speeds =
            app.add_subcommand("speeds", "Socket and UID speeds, and the measured interfaces")
                    ->require_subcommand(1);

    CLI::App* sockets = speeds->add_subcommand(
            "sockets",
            "Sockets at or above the floor (or watched and moving), in kbps; prunes "
            "sockets whose both directions are stale");
    addNumber(sockets, "--stale-ms", opts->staleMs, "Age in ms beyond which a speed is stale");
    addNumber(sockets, "--min-kbps", opts->minKbps, "Report floor in kbps");
    sockets->add_option("--watch", opts->watch,
                        "Cookies to report below the floor, comma-separated")
            ->delimiter(',')
            ->check(unsignedNumber(UINT64_MAX));
    onRun(sockets, ctx, [&ctx, opts] { return socketSpeeds(ctx, *opts); });

    CLI::App* uids = speeds->add_subcommand(
            "uids", "Every live (UID, interface) pair in kbps; prunes stale pairs");
    addNumber(uids, "--stale-ms", opts->staleMs, "Age in ms beyond which a speed is stale");
    onRun(uids, ctx, [&ctx, opts] { return uidSpeeds(ctx, opts->staleMs); });

    CLI::App* iface = speeds->add_subcommand(
            "iface",
            "Put an interface into measurement, or take it out and wipe what was "
            "gathered for it");
    addNumber(iface, "IFINDEX", opts->ifindex, "Interface index");
    iface->add_option("STATE", opts->state, "on or off")
            ->required()
            ->check(CLI::IsMember({"on", "off"}));
    iface->add_flag("--local", opts->local,
                    "With on: leave sockets whose peer is in the interface's subnet out of "
                    "reports");
    // Checked while parsing, so that it is a usage error like any other.
    iface->parse_complete_callback([opts] {
        if (opts->local && opts->state == "off") {
            throw CLI::ValidationError("--local", "goes with on, not off");
        }
    });
    onRun(iface, ctx, [&ctx, opts] { return bindInterface(ctx, *opts); });

    CLI::App* config = speeds->add_subcommand("config", "Set the global speed configuration word");
    addNumber(config, "WORD", opts->config, "The word, as the kernel side reads it");
    onRun(config, ctx, [&ctx, opts] { return setConfig(ctx, opts->config); });

    CLI::App* local = speeds->add_subcommand(
            "local",
            "Whether a socket's peer lies in its interface's IPv4 subnet (exit 1 when "
            "it cannot be told, as usual outside a socket report)");
    addNumber(local, "COOKIE", opts->cookie, "Socket cookie");
    onRun(local, ctx, [&ctx, opts] { return localStatus(ctx, opts->cookie); });
}

}  // namespace kovra::tool
