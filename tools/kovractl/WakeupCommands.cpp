// kovractl wakeup and kovractl screen: the TCP wake-up detector's per-UID counters, the IM
// heartbeat lengths and the screen-state switch.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include <map>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

using Counters = std::unordered_map<unsigned int, unsigned long>;

// The nine counter maps by short name: the map's own name without "app_tcp_", dashed.
struct CounterMap {
    const char* path;
    std::function<int(Counters&)> read;
};

// The FIN drop map counts in 32 bits; its reader's table is widened to the others' type.
int readFinDrop(Counters& out) {
    std::unordered_map<unsigned int, unsigned int> narrow;
    const int status = bpfGetAppTcpFinDropMap(narrow);
    out.insert(narrow.begin(), narrow.end());
    return status;
}

const std::vector<CounterMap>& counterMaps() {
    static const std::vector<CounterMap> all = {
            {maps::kAppTcpFinDrop.path, readFinDrop},
            {maps::kAppTcpInwakeup.path, bpfGetAppTcpInwakeupMap},
            {maps::kAppTcpOutwakeup.path, bpfGetAppTcpOutwakeupMap},
            {maps::kAppTcpWakeupduration.path, bpfGetAppTcpWakeupdurationMap},
            {maps::kAppTcpOutImHb.path, bpfGetAppTcpOutImHbMap},
            {maps::kAppTcpOutAlign.path, bpfGetAppTcpOutAlignMap},
            {maps::kAppTcpInKeepAlive.path, bpfGetAppTcpInKeepAliveMap},
            {maps::kAppTcpReinwakeup.path, bpfGetAppTcpReinwakeupMap},
            {maps::kAppTcpReoutwakeup.path, bpfGetAppTcpReoutwakeupMap},
    };
    return all;
}

std::string shortName(const char* path) {
    std::string name = mapName(path).substr(strlen("app_tcp_"));
    std::replace(name.begin(), name.end(), '_', '-');
    return name;
}

std::vector<std::string> shortNames() {
    std::vector<std::string> names;
    for (const CounterMap& map : counterMaps()) names.push_back(shortName(map.path));
    return names;
}

struct WakeupOptions {
    std::vector<std::string> maps;
    uint32_t uid = 0;
    uint32_t hbLen = 0;
    std::string screen;
    uint64_t stamp = 0;
};

void showCounters(const Context& ctx, const std::vector<std::string>& names,
                  const std::vector<Counters>& tables) {
    std::map<unsigned int, std::vector<const unsigned long*>> byUid;
    for (size_t m = 0; m < tables.size(); ++m) {
        for (const auto& [uid, value] : tables[m]) {
            auto& row = byUid[uid];
            row.resize(tables.size(), nullptr);
            row[m] = &value;
        }
    }
    if (ctx.json) {
        Json rows = Json::array();
        for (const auto& [uid, values] : byUid) {
            Json row = {{"uid", uid}};
            for (size_t m = 0; m < names.size(); ++m) {
                if (values[m] != nullptr) row[names[m]] = *values[m];
            }
            rows.push_back(row);
        }
        printJson(rows);
        return;
    }
    std::vector<std::string> headers = {"UID"};
    for (const std::string& name : names) headers.push_back(name);
    Table table(headers);
    for (const auto& [uid, values] : byUid) {
        std::vector<std::string> row = {std::to_string(uid)};
        for (const unsigned long* value : values) {
            row.push_back(value != nullptr ? std::to_string(*value) : "-");
        }
        table.add(row);
    }
    table.print();
    printf("%s\n", countOf(byUid.size(), "UID").c_str());
}

int readCounters(const Context& ctx, std::vector<std::string> names) {
    requirePinned(MapFamily::kWakeup);
    if (names.empty()) names = shortNames();
    std::vector<Counters> tables(names.size());
    for (size_t m = 0; m < names.size(); ++m) {
        for (const CounterMap& map : counterMaps()) {
            if (shortName(map.path) != names[m]) continue;
            // The first failure decides the exit code; what was read is not shown.
            if (const int status = map.read(tables[m]); status != 0) {
                return finish(status, "reading the " + names[m] + " counters");
            }
        }
    }
    showCounters(ctx, names, tables);
    return kExitOk;
}

int addHeartbeat(const Context& ctx, uint32_t uid, uint32_t hbLen) {
    requirePinned(MapFamily::kWakeup);
    const int status = bpfAddAppImHbLenMap(uid, hbLen);
    return reportChange(ctx, status,
                        "set the heartbeat length of UID " + std::to_string(uid) + " to " +
                                std::to_string(hbLen),
                        {{"uid", uid}, {"hbLen", hbLen}});
}

int switchScreen(const Context& ctx, const std::string& state, uint64_t stamp) {
    requirePinned(MapFamily::kWakeup);
    const int status = bpfUpdateScreenStateMap(state == "on" ? 1 : 0, stamp);
    return reportChange(ctx, status, "screen " + state + " at stamp " + std::to_string(stamp),
                        {{"screen", state}, {"stamp", stamp}});
}

}  // namespace

void addWakeupCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<WakeupOptions>();
    CLI::App* wakeup = app.add_subcommand(
            "wakeup", "The TCP wake-up detector's per-UID counters (all nine maps by default)");
    wakeup->add_option("MAP", opts->maps, "Counter maps to show, by short name")
            ->check(CLI::IsMember(shortNames()));
    onRun(wakeup, ctx, [&ctx, opts] { return readCounters(ctx, opts->maps); });

    CLI::App* hbLen = wakeup->add_subcommand("hb-len", "Register an app's IM heartbeat length");
    addNumber(hbLen, "UID", opts->uid, "The app's UID");
    addNumber(hbLen, "LEN", opts->hbLen, "The heartbeat length, as the kernel side expects it");
    onRun(hbLen, ctx, [&ctx, opts] { return addHeartbeat(ctx, opts->uid, opts->hbLen); });

    CLI::App* screen = app.add_subcommand(
            "screen",
            "Record a screen-state change: `on` also resets the maps the kernel side flags as "
            "overflowing, `off` drops the heartbeat lengths");
    screen->add_option("STATE", opts->screen, "on or off")
            ->required()
            ->check(CLI::IsMember({"on", "off"}));
    addNumber(screen, "STAMP", opts->stamp, "The time stamp of the change, stored as given");
    onRun(screen, ctx, [&ctx, opts] { return switchScreen(ctx, opts->screen, opts->stamp); });
}

}  // namespace kovra::tool
