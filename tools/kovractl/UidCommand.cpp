// kovractl uid UID: one app across every family, read-only: its traffic totals, freeze
// statistics, socket and interface speeds, wake-up counters, heartbeat length and blocking, as
// a capture of the maps kept to that UID's entries (so that -j prints a capture `load` takes).
#include <unistd.h>

#include "Commands.h"
#include "Replay.h"

namespace kovra::tool {
namespace {

// The field of a map's entry that holds the app's UID: a key field named uid (the per-UID maps),
// the socket speeds' tag, in which the kernel side records the socket's UID, or the freeze
// statistics' key. Null for a map that is not kept per app.
const Field* uidField(const MapFields& map, bool& inKey) {
    for (bool key : {true, false}) {
        for (const Field& field : key ? map.key : map.value) {
            const std::string name = field.name;
            if (name == "uid" || (!key && name == "tag" && map.name == "app_socket_speeds") ||
                (key && map.name == "app_freeze_stats")) {
                inKey = key;
                return &field;
            }
        }
    }
    return nullptr;
}

Output showUid(uint32_t uid) {
    if (geteuid() != 0) requireMaps({});
    Capture capture = takeCapture({});
    std::vector<CapturedMap> kept;
    for (CapturedMap& map : capture.maps) {
        bool inKey = false;
        const Field* field = uidField(*fieldsNamed(map.name), inKey);
        if (field == nullptr) continue;
        auto& entries = map.entries;
        entries.erase(std::remove_if(entries.begin(), entries.end(),
                                     [&](const auto& entry) {
                                         return readNumber(inKey ? entry.first : entry.second,
                                                           *field) != uid;
                                     }),
                      entries.end());
        kept.push_back(std::move(map));
    }
    capture.maps = std::move(kept);
    return showCapture(capture);
}

}  // namespace

void addUidCommand(CLI::App& app, Context& ctx) {
    auto uid = std::make_shared<uint32_t>(0);
    CLI::App* command = app.add_subcommand(
            "uid",
            "Show one app across every family, read-only: its traffic totals, freeze statistics, "
            "socket and interface speeds, wake-up counters, heartbeat length and blocking. With "
            "-j, a capture of those entries");
    addNumber(command, "UID", *uid, "The app's UID");
    onShow(command, ctx, [uid] { return showUid(*uid); });
}

}  // namespace kovra::tool
