// kovractl wakeup and kovractl screen: the TCP wake-up detector's per-UID counters, the IM
// heartbeat lengths and the screen-state switch with the overflowing maps it resets.
#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraKernelContract.h>

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

// The maps the screen-on reset clears, by their bit in the overflow check map.
const std::vector<std::pair<uint32_t, const char*>> kOverflowBits = {
        {KOVRA_OVERFLOW_IN_SEQ, maps::kSkTcpCookieInSeq.path},
        {KOVRA_OVERFLOW_OUT_SEQ, maps::kSkTcpCookieOutSeq.path},
        {KOVRA_OVERFLOW_OUT_ACK, maps::kSkTcpCookieOutAck.path},
        {KOVRA_OVERFLOW_INWAKEUP, maps::kAppTcpInwakeup.path},
        {KOVRA_OVERFLOW_OUTWAKEUP, maps::kAppTcpOutwakeup.path},
        {KOVRA_OVERFLOW_WAKEUPDURATION, maps::kAppTcpWakeupduration.path}};

struct WakeupOptions {
    std::vector<std::string> maps;
    uint32_t uid = 0;
    uint32_t hbLen = 0;
    std::string screen;
    uint64_t stamp = 0;
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
    View view{{"uid"}, "UID", {}, [&] {
                  std::map<unsigned int, std::vector<Json>> byUid;
                  for (size_t m = 0; m < chosen.size(); ++m) {
                      Counters counters;
                      check(chosen[m]->read(counters),
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
    for (const CounterMap* map : chosen) view.columns.push_back(camel(shortName(map->path)));
    return present(ctx, opts.list, view);
}

Output listHeartbeats() {
    Rows rows{{"uid", "hbLen"}, {}};
    for (const auto& [uid, length] : readEntries(maps::kImAppHbLen))
        rows.rows.push_back({uid, length});
    std::sort(rows.rows.begin(), rows.rows.end());
    return listing(rows, "heartbeat length");
}

Output addHeartbeat(uint32_t uid, uint32_t hbLen) {
    return change(bpfAddAppImHbLenMap(uid, hbLen),
                  "set the heartbeat length of UID " + std::to_string(uid) + " to " +
                          std::to_string(hbLen),
                  {{"uid", uid}, {"hbLen", hbLen}});
}

// The overflow flags by bit; an absent entry is null.
std::map<uint32_t, Json> overflowFlags() {
    std::map<uint32_t, Json> flags;
    for (const auto& [bit, path] : kOverflowBits) flags[bit] = nullptr;
    for (const auto& [key, value] : readEntries(maps::kOverflowingMapCheck)) {
        if (flags.count(key) != 0) flags[key] = value;
    }
    return flags;
}

Output showScreen() {
    std::map<uint32_t, Json> state = {{KOVRA_SCREEN_CODE_KEY, nullptr},
                                      {KOVRA_SCREEN_OFF_STAMP_KEY, nullptr},
                                      {KOVRA_SCREEN_ON_STAMP_KEY, nullptr}};
    for (const auto& [key, value] : readEntries(maps::kScreenState)) state[key] = value;
    const Json code = state[KOVRA_SCREEN_CODE_KEY];
    const Json name = code == KOVRA_SCREEN_ON    ? Json("on")
                      : code == KOVRA_SCREEN_OFF ? Json("off")
                                                 : Json(nullptr);
    Rows overflow{{"bit", "map", "flag", "entries"}, {}};
    const std::map<uint32_t, Json> flags = overflowFlags();
    for (const auto& [bit, path] : kOverflowBits) {
        overflow.rows.push_back({bit, mapName(path), flags.at(bit), entryCount(rowOf(path))});
    }
    const Json off = state[KOVRA_SCREEN_OFF_STAMP_KEY], on = state[KOVRA_SCREEN_ON_STAMP_KEY];
    Output out{{{"state", name},
                {"stateCode", code},
                {"offStamp", off},
                {"onStamp", on},
                {"overflow", overflow.toJson()}}};
    auto text = [](const Json& value) { return value.is_null() ? std::string("-") : value.dump(); };
    out.line("screen: " + (name.is_null() ? std::string("never set") : name.get<std::string>()) +
             " (state code " + text(code) + "), last off at stamp " + text(off) +
             ", last on at stamp " + text(on));
    out.line("overflow flags (1: reset by the next `screen on`):");
    return std::move(out.table(overflow));
}

// The maps flagged as overflowing, which `screen on` resets; none while the check map cannot be
// read.
std::vector<std::pair<uint32_t, const char*>> flaggedMaps() {
    std::vector<std::pair<uint32_t, const char*>> flagged;
    if (inspectMap(rowOf(maps::kOverflowingMapCheck.path), Access::kReadOnly).state != "ok") {
        return flagged;
    }
    const std::map<uint32_t, Json> flags = overflowFlags();
    for (const auto& [bit, path] : kOverflowBits) {
        if (flags.at(bit) == KOVRA_OVERFLOWING) flagged.push_back({bit, path});
    }
    return flagged;
}

// The service opens the check map, then each map whose flag is 1 (on), or the heartbeat lengths
// (off).
MapNeeds screenNeeds(bool on) {
    MapNeeds needed = {needs(maps::kScreenState, Access::kReadWrite)};
    if (!on) {
        needed.push_back(needs(maps::kImAppHbLen, Access::kReadWrite));
        return needed;
    }
    needed.push_back(needs(maps::kOverflowingMapCheck, Access::kReadWrite));
    for (const auto& [bit, path] : flaggedMaps())
        needed.push_back({&rowOf(path), Access::kReadWrite});
    return needed;
}

Output switchScreen(const std::string& state, uint64_t stamp) {
    const bool on = state == "on";
    const std::vector<std::pair<uint32_t, const char*>> flagged =
            on ? flaggedMaps() : std::vector<std::pair<uint32_t, const char*>>{};
    const Json dropped = on ? Json(nullptr) : entryCount(rowOf(maps::kImAppHbLen.path));
    uint32_t mask = 0;
    Json reset = Json::array();
    for (const auto& [bit, path] : flagged) {
        mask |= bit;
        reset.push_back(
                {{"bit", bit}, {"map", mapName(path)}, {"entries", entryCount(rowOf(path))}});
    }
    const int status = bpfUpdateScreenStateMap(on ? 1 : 0, stamp);
    Json details = {{"screen", state}, {"stamp", stamp}};
    std::vector<std::string> report;
    if (on) {
        details["reset"] = {{"mask", mask}, {"maps", reset}};
        std::string line = "reset overflowing maps (mask " + std::to_string(mask) + "):";
        for (const auto& map : reset) {
            line += " " + map["map"].get<std::string>() + " (" +
                    countOf(map["entries"].is_null() ? 0 : map["entries"].get<size_t>(), "entry") +
                    ")";
        }
        report.push_back(reset.empty() ? "no map was flagged as overflowing; nothing reset" : line);
    } else {
        details["dropped"] = {{"heartbeatLengths", dropped}};
        report.push_back("dropped " + dropped.dump() + " heartbeat lengths");
    }
    return change(status, "screen " + state + " at stamp " + std::to_string(stamp), details,
                  report);
}

}  // namespace

void addWakeupCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<WakeupOptions>();
    CLI::App* wakeup = app.add_subcommand(
            "wakeup", "The TCP wake-up detector's per-UID counters (all nine maps by default)");
    CLI::Option* counterNames =
            wakeup->add_option("MAP", opts->maps, "Counter maps to show, by short name")
                    ->check(CLI::IsMember(shortNames()));
    addListOptions(wakeup, opts->list, true);
    onRun(
            wakeup, ctx, [opts] { return counterNeeds(*opts); },
            [&ctx, opts] { return readCounters(ctx, *opts); });

    CLI::App* hbLen = wakeup->add_subcommand(
            "hb-len", "Without arguments, list the IM heartbeat lengths; with them, register one");
    CLI::Option* uid = addNumber(hbLen, "UID", opts->uid, "The app's UID");
    CLI::Option* length = addNumber(hbLen, "LEN", opts->hbLen,
                                    "The heartbeat length, as the kernel side expects it");
    allOrNone(hbLen, {uid, length}, [counterNames] {
        if (counterNames->count() > 0) {
            throw CLI::ValidationError("hb-len", "takes no counter map names before it");
        }
    });
    onShow(
            hbLen, ctx,
            [uid] {
                return MapNeeds{needs(maps::kImAppHbLen,
                                      uid->count() > 0 ? Access::kReadWrite : Access::kReadOnly)};
            },
            [opts, uid] {
                return uid->count() > 0 ? addHeartbeat(opts->uid, opts->hbLen) : listHeartbeats();
            });

    CLI::App* screen = app.add_subcommand(
            "screen",
            "Without arguments, show the screen state and the overflow flags; with them, record a "
            "screen-state change: `on` also resets the maps the kernel side flags as overflowing, "
            "`off` drops the heartbeat lengths (both reported)");
    CLI::Option* state = screen->add_option("STATE", opts->screen, "on or off")
                                 ->check(CLI::IsMember({"on", "off"}));
    CLI::Option* stamp = addNumber(screen, "STAMP", opts->stamp,
                                   "The time stamp of the change, stored as given");
    allOrNone(screen, {state, stamp});
    onShow(
            screen, ctx,
            [opts, state] {
                return state->count() > 0
                               ? screenNeeds(opts->screen == "on")
                               : MapNeeds{needs(maps::kScreenState, Access::kReadOnly),
                                          needs(maps::kOverflowingMapCheck, Access::kReadOnly)};
            },
            [opts, state] {
                return state->count() > 0 ? switchScreen(opts->screen, opts->stamp) : showScreen();
            });
}

}  // namespace kovra::tool
