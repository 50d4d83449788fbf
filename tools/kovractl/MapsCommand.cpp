// kovractl maps and kovractl dump: every map of the catalogue, whether the library would accept
// it, and its entries decoded by the catalogue's record types. Both read the maps directly
// through read-only handles, take no lock and change nothing.
#include <arpa/inet.h>
#include <netinet/in.h>
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

// Record fields as JSON, by record type; a plain number takes the name its map gives it.
void decode(Json& o, const char* name, uint32_t v) {
    o[name] = v;
}
void decode(Json& o, const char* name, uint64_t v) {
    o[name] = v;
}
void decode(Json& o, const char*, const StatsValue& v) {
    o.update({{"rxPackets", v.rxPackets},
              {"rxBytes", v.rxBytes},
              {"txPackets", v.txPackets},
              {"txBytes", v.txBytes}});
}
void decode(Json& o, const char*, const KovraStatsValue& v) {
    o.update({{"rxPackets", v.rxPackets},
              {"rxBytes", v.rxBytes},
              {"txPackets", v.txPackets},
              {"txBytes", v.txBytes},
              {"extra0", v.extra0},
              {"extra1", v.extra1}});
}
template <size_t N>
void decodeWords(Json& o, const uint64_t (&words)[N]) {
    for (size_t w = 0; w < N; ++w) o["data" + std::to_string(w)] = words[w];
}
void decode(Json& o, const char*, const AppFreezeSynInfo& v) {
    decodeWords(o, v.data);
}
void decode(Json& o, const char*, const AppFreezeStatsInfo& v) {
    decodeWords(o, v.data);
}
void decode(Json& o, const char*, const AppFreezeConfig& v) {
    o.update({{"word0", v.word0}, {"word1", v.word1}, {"word2", v.word2}});
}
void decode(Json& o, const char*, const SpeedsValue& v) {
    o.update({{"tag", v.tag},
              {"ifindex", v.ifindex},
              {"firstSpeed", v.firstSpeed},
              {"firstStamp", v.firstStamp},
              {"secondSpeed", v.secondSpeed},
              {"secondStamp", v.secondStamp},
              {"firstAux0", v.firstAux0},
              {"firstAux1", v.firstAux1},
              {"firstAux2", v.firstAux2},
              {"secondAux0", v.secondAux0},
              {"secondAux1", v.secondAux1},
              {"secondAux2", v.secondAux2}});
}
void decode(Json& o, const char*, const SocketTuple& v) {
    in_addr address{v.remoteAddr4};
    o.update({{"ifindex", v.ifindex},
              {"ipv4Valid", v.ipv4Valid},
              {"remoteAddr4", inet_ntoa(address)}});
}
void decode(Json& o, const char*, const IfIndexSpeedConfig& v) {
    o.update({{"enable", v.enable}, {"localEnable", v.localEnable}});
}
// The value carries an interface index of its own, which may differ from the key's.
void decode(Json& o, const char*, const UidIfindexKey& v) {
    o.update({{"uid", v.uid}, {"keyIfindex", v.ifindex}});
}

struct Dumper {
    const char* path;
    std::function<Rows()> read;
};

template <typename K, typename V>
Dumper dumper(const PinnedMap<K, V>& map) {
    return {map.path, [&map, keyName = map.keyLabel, valueName = map.valueLabel] {
                Rows rows;
                Json names = Json::object();
                decode(names, keyName, K{});
                decode(names, valueName, V{});
                for (const auto& item : names.items()) rows.columns.push_back(item.key());
                for (const auto& [key, value] : readEntries(map)) {
                    Json o = Json::object();
                    decode(o, keyName, key);
                    decode(o, valueName, value);
                    rows.rows.emplace_back();
                    for (const auto& item : o.items()) rows.rows.back().push_back(item.value());
                }
                std::sort(rows.rows.begin(), rows.rows.end());
                return rows;
            }};
}

const std::vector<Dumper>& dumpers() {
    static const std::vector<Dumper> all = [] {
        std::vector<Dumper> dumpers;
        forEachMap([&](const auto& map) { dumpers.push_back(dumper(map)); });
        return dumpers;
    }();
    return all;
}

std::vector<std::string> dumpNames() {
    std::vector<std::string> names;
    for (const Dumper& d : dumpers()) names.push_back(mapName(d.path));
    return names;
}

Output dump(const std::vector<std::string>& names) {
    if (geteuid() != 0) requireMaps({});
    Output out{Json::object()};
    for (const Dumper& d : dumpers()) {
        const std::string name = mapName(d.path);
        if (!names.empty() && std::find(names.begin(), names.end(), name) == names.end()) continue;
        const MapState state = inspectMap(rowOf(d.path), Access::kReadOnly);
        if (state.state != "ok") {
            // The others are still shown; the exit code tells that one was not.
            fprintf(stderr, "kovractl: %s: %s: %s\n", d.path, state.state.c_str(),
                    state.problem.c_str());
            out.json[name] = nullptr;
            out.exitCode = kExitEnvironment;
            continue;
        }
        const Rows rows = d.read();
        out.json[name] = rows.toJson();
        if (!out.text.empty()) out.line("");
        out.line("== " + name + " (" + countOf(rows.rows.size(), "entry") + ")");
        if (!rows.rows.empty()) out.table(rows);
    }
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

    auto names = std::make_shared<std::vector<std::string>>();
    CLI::App* dumpCommand = app.add_subcommand(
            "dump",
            "Print the entries of every map of the catalogue (or the named ones), decoded by "
            "their record types; read-only: nothing is pruned or harvested");
    dumpCommand->add_option("MAP", *names, "Maps by short name, as `kovractl maps` lists them")
            ->check(CLI::IsMember(dumpNames()));
    onShow(dumpCommand, ctx, [names] { return dump(*names); });
}

}  // namespace kovra::tool
