// kovractl maps: every map of the catalogue and whether the library would accept it, read
// directly through read-only handles, without a lock, changing nothing.

#include <unistd.h>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

const char* familyName(MapFamily family) {
    switch (family) {
        case MapFamily::kStats:
            return "stats";
        case MapFamily::kFreeze:
            return "freeze";
        case MapFamily::kSpeeds:
            return "speeds";
        case MapFamily::kWakeup:
            return "wakeup";
        case MapFamily::kFirewall:
            return "net";
    }
    return "?";
}

Json optional(const std::optional<uint32_t>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Output listMaps() {
    // Without root, no service could open a map, whatever each looks like from here.
    if (geteuid() != 0) requireMaps({});
    Rows rows{{"name", "family", "type", "keySize", "valueSize", "entries", "state"}, {}};
    Output out{Json::array()};
    std::vector<std::string> problems;
    for (const PinnedMapInfo& row : kPinnedMaps) {
        const MapState s = inspectMap(row, row.access);
        const Json type = s.type ? Json(*s.type) : Json(nullptr);
        const Json entries = s.entries ? Json(*s.entries) : Json(nullptr);
        rows.rows.push_back({mapName(row.path), familyName(row.family), type, optional(s.keySize),
                             optional(s.valueSize), entries, s.state});
        out.json.push_back(
                {{"name", mapName(row.path)},
                 {"path", row.path},
                 {"family", familyName(row.family)},
                 {"access", row.access == Access::kReadOnly ? "read-only" : "read-write"},
                 {"type", type},
                 {"keySize", optional(s.keySize)},
                 {"valueSize", optional(s.valueSize)},
                 {"expectedKeySize", row.keySize},
                 {"expectedValueSize", row.valueSize},
                 {"entries", entries},
                 {"state", s.state},
                 {"problem", s.problem.empty() ? Json(nullptr) : Json(s.problem)}});
        if (!s.problem.empty()) problems.push_back(mapName(row.path) + ": " + s.problem);
    }
    out.table(rows);
    for (const std::string& line : problems) out.line(line);
    out.exitCode = problems.empty() ? kExitOk : kExitEnvironment;
    return out;
}

}  // namespace

void addMapsCommand(CLI::App& app, Context& ctx) {
    CLI::App* maps = app.add_subcommand(
            "maps",
            "List the catalogue's maps with their type, sizes, entry count and state: whether "
            "the library would accept each for the access its services need (exit 3 when one "
            "is not ok)");
    onShow(maps, ctx, listMaps);
}

}  // namespace kovra::tool
