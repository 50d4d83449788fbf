// kovractl wakeup: the TCP wake-up detector's per-UID counters (the IM heartbeat lengths are
// HeartbeatCommand.cpp's).
#include <kovrabpf/KovraBpfNetworkStats.h>

#include <map>

#include "Commands.h"
#include "Watch.h"

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

// "fin-drop" -> "finDrop", the column's JSON key.
std::string camel(const std::string& dashed) {
    std::string out;
    for (size_t i = 0; i < dashed.size(); ++i) {
        out += dashed[i] == '-' ? static_cast<char>(toupper(dashed[++i])) : dashed[i];
    }
    return out;
}

std::vector<std::string> shortNames() {
    std::vector<std::string> names;
    for (const CounterMap& map : counterMaps()) names.push_back(shortName(map.path));
    return names;
}

// The listing's columns: the UID, then one per counter map, in the order given.
std::vector<std::string> columnsOf(const std::vector<std::string>& names) {
    std::vector<std::string> columns = {"uid"};
    for (const std::string& name : names) columns.push_back(camel(name));
    return columns;
}

struct WakeupOptions {
    std::vector<std::string> maps;
    ListOptions list;
};

// The counter maps asked for, in the order given, all nine by default.
std::vector<const CounterMap*> chosenCounters(const WakeupOptions& opts) {
    const std::vector<std::string> names = opts.maps.empty() ? shortNames() : opts.maps;
    std::vector<const CounterMap*> chosen;
    for (const std::string& name : names) {
        for (const CounterMap& map : counterMaps()) {
            if (shortName(map.path) == name) chosen.push_back(&map);
        }
    }
    return chosen;
}

MapNeeds counterNeeds(const WakeupOptions& opts) {
    MapNeeds needed;
    for (const CounterMap* map : chosenCounters(opts)) {
        needed.push_back({&rowOf(map->path), Access::kReadOnly});
    }
    return needed;
}

int readCounters(const Context& ctx, const WakeupOptions& opts) {
    const std::vector<const CounterMap*> chosen = chosenCounters(opts);
    View view{columnsOf(opts.maps.empty() ? shortNames() : opts.maps), "UID", {}, [&] {
                  std::map<unsigned int, std::vector<Json>> byUid;
                  for (size_t m = 0; m < chosen.size(); ++m) {
                      Counters counters;
                      check(call(chosen[m]->read, counters),
                            "reading the " + shortName(chosen[m]->path) + " counters");
                      for (const auto& [uid, value] : counters) {
                          auto& row = byUid[uid];
                          row.resize(chosen.size(), nullptr);
                          row[m] = value;
                      }
                  }
                  Listing listing;
                  for (auto& [uid, values] : byUid) {
                      listing.rows.rows.push_back({uid});
                      auto& row = listing.rows.rows.back();
                      row.insert(row.end(), values.begin(), values.end());
                  }
                  return listing;
              }};
    return present(ctx, opts.list, view);
}

}  // namespace

void addWakeupCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<WakeupOptions>();
    CLI::App* wakeup = app.add_subcommand(
            "wakeup", "The TCP wake-up detector's per-UID counters (all nine maps by default)");
    CLI::Option* counterNames =
            wakeup->add_option("MAP", opts->maps, "Counter maps to show, by short name")
                    ->check(CLI::IsMember(shortNames()));
    addListOptions(wakeup, opts->list, true, columnsOf(shortNames()));
    onRun(
            wakeup, ctx, [opts] { return counterNeeds(*opts); },
            [&ctx, opts] { return readCounters(ctx, *opts); });
    addHeartbeatCommand(wakeup, ctx, counterNames);
}

}  // namespace kovra::tool
