// kovractl maps: which maps of the catalogue are pinned, whether they fit the library's records,
// and how many entries they hold. It reads the maps directly (read-only, no lock) so that it can
// report a map the services would refuse; it never writes.
#include <kovrasandbox/Maps.h>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;
using sandbox::MapShape;
using sandbox::RawMap;

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

struct MapReport {
    const PinnedMapInfo& row;
    std::string state;  // "ok", "missing" or what does not fit
    MapShape shape{};
    size_t entries = 0;
};

MapReport inspect(const PinnedMapInfo& row) {
    MapReport report{row, "ok"};
    std::optional<RawMap> map = RawMap::open(row.path, true);
    if (!map) {
        report.state = errno == ENOENT ? "missing" : std::string("unreadable: ") + strerror(errno);
        return report;
    }
    report.shape = map->shape();
    report.entries = map->rawKeys(report.shape.keySize).size();
    if (report.shape.keySize != row.keySize || report.shape.valueSize != row.valueSize) {
        report.state = "sizes " + std::to_string(report.shape.keySize) + "/" +
                       std::to_string(report.shape.valueSize) + ", expected " +
                       std::to_string(row.keySize) + "/" + std::to_string(row.valueSize);
    } else if (report.shape.flags & BPF_F_RDONLY) {
        report.state = "read-only";
    }
    return report;
}

int listMaps(const Context& ctx) {
    std::vector<MapReport> reports;
    for (const PinnedMapInfo& row : kPinnedMaps) reports.push_back(inspect(row));
    const bool allFit = std::all_of(reports.begin(), reports.end(),
                                    [](const MapReport& r) { return r.state == "ok"; });
    if (ctx.json) {
        Json rows = Json::array();
        for (const MapReport& r : reports) {
            rows.push_back({{"name", mapName(r.row.path)},
                            {"path", r.row.path},
                            {"family", familyName(r.row.family)},
                            {"keySize", r.row.keySize},
                            {"valueSize", r.row.valueSize},
                            {"state", r.state},
                            {"entries", r.entries}});
        }
        printJson(rows);
    } else {
        Table table({"MAP", "FAMILY", "KEY", "VALUE", "ENTRIES", "STATE"});
        for (const MapReport& r : reports) {
            table.add({mapName(r.row.path), familyName(r.row.family), std::to_string(r.row.keySize),
                       std::to_string(r.row.valueSize), std::to_string(r.entries), r.state});
        }
        table.print();
    }
    return allFit ? kExitOk : kExitEnvironment;
}

}  // namespace

void addMapsCommand(CLI::App& app, Context& ctx) {
    CLI::App* command = app.add_subcommand(
            "maps",
            "List the catalogue's pinned maps with their entry counts, and check that each is "
            "there and fits the library's records (exit 3 when one does not)");
    onRun(command, ctx, [&ctx] { return listMaps(ctx); });
}

}  // namespace kovra::tool
