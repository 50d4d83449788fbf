// kovractl screen: the screen-state switch, and the overflowing maps that `screen on` resets.
#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraKernelContract.h>

#include <map>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

// The maps the screen-on reset clears, by their bit in the overflow check map.
const std::vector<std::pair<uint32_t, const char*>> kOverflowBits = {
        {KOVRA_OVERFLOW_IN_SEQ, maps::kSkTcpCookieInSeq.path},
        {KOVRA_OVERFLOW_OUT_SEQ, maps::kSkTcpCookieOutSeq.path},
        {KOVRA_OVERFLOW_OUT_ACK, maps::kSkTcpCookieOutAck.path},
        {KOVRA_OVERFLOW_INWAKEUP, maps::kAppTcpInwakeup.path},
        {KOVRA_OVERFLOW_OUTWAKEUP, maps::kAppTcpOutwakeup.path},
        {KOVRA_OVERFLOW_WAKEUPDURATION, maps::kAppTcpWakeupduration.path}};

struct ScreenOptions {
    std::string state;
    uint64_t stamp = 0;
};

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
    const Status status = call(bpfUpdateScreenStateMap, on ? 1 : 0, stamp);
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

void addScreenCommand(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<ScreenOptions>();
    CLI::App* screen = app.add_subcommand(
            "screen",
            "Without arguments, show the screen state and the overflow flags; with them, record a "
            "screen-state change: `on` also resets the maps the kernel side flags as overflowing, "
            "`off` drops the heartbeat lengths (both reported)");
    CLI::Option* state = screen->add_option("STATE", opts->state, "on or off")
                                 ->check(CLI::IsMember({"on", "off"}));
    CLI::Option* stamp = addNumber(screen, "STAMP", opts->stamp,
                                   "The time stamp of the change, stored as given");
    allOrNone(screen, {state, stamp});
    onShow(
            screen, ctx,
            [opts, state] {
                return state->count() > 0
                               ? screenNeeds(opts->state == "on")
                               : MapNeeds{needs(maps::kScreenState, Access::kReadOnly),
                                          needs(maps::kOverflowingMapCheck, Access::kReadOnly)};
            },
            [opts, state] {
                return state->count() > 0 ? switchScreen(opts->state, opts->stamp) : showScreen();
            });
}

}  // namespace kovra::tool
