// kovractl diff A B: what differs between two captures, map by map and entry by entry, with the
// change of every number that changed. Exits as diff(1) does: 0 when the maps are the same, 1
// when they differ; the captures' own times are not compared.
#include <map>

#include "Commands.h"
#include "Replay.h"

namespace kovra::tool {
namespace {

using Entries = std::map<Bytes, Bytes>;

std::string shown(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// "uid=10012 ifindex=21", for the table.
std::string describe(const Json& record) {
    std::string text;
    for (const auto& item : record.items()) {
        text += (text.empty() ? "" : " ") + item.key() + "=" + shown(item.value());
    }
    return text;
}

// An added or removed entry: in the JSON list of its kind, and as a line "+ uid=1: count=2".
void listEntry(Json& list, std::vector<std::string>& lines, const char* sign,
               const MapFields& fields, const Bytes& key, const Bytes& value) {
    const Json shownKey = encodeRecord(fields.key, key),
               shownValue = encodeRecord(fields.value, value);
    list.push_back({{"key", shownKey}, {"value", shownValue}});
    lines.push_back(sign + describe(shownKey) + ": " + describe(shownValue));
}

// b - a as a JSON number, negative when it went down.
Json delta(uint64_t a, uint64_t b) {
    return b >= a ? Json(b - a) : Json(-static_cast<int64_t>(a - b));
}

// The fields that differ between two values: from, to and, for numbers, by how much.
Json changedFields(const Fields& fields, const Bytes& a, const Bytes& b) {
    const Json before = encodeRecord(fields, a), after = encodeRecord(fields, b);
    Json changed = Json::object();
    for (const auto& item : before.items()) {
        const Json& to = after.at(item.key());
        if (item.value() == to) continue;
        changed[item.key()] = {{"from", item.value()}, {"to", to}};
        if (!to.is_string()) {
            changed[item.key()]["delta"] = delta(item.value().get<uint64_t>(), to.get<uint64_t>());
        }
    }
    return changed;
}

// A map's entries in the capture's (key) order; none when it was not captured.
const std::vector<std::pair<Bytes, Bytes>>& entriesOf(const CapturedMap* map) {
    static const std::vector<std::pair<Bytes, Bytes>> none;
    return map == nullptr ? none : map->entries;
}

const CapturedMap* find(const Capture& capture, const std::string& name) {
    for (const CapturedMap& map : capture.maps) {
        if (map.name == name) return &map;
    }
    return nullptr;
}

// One map's differences, or null when there are none.
Json diffMap(const MapFields& fields, const CapturedMap* a, const CapturedMap* b, Output& out) {
    const auto state = [](const CapturedMap* map) -> Json {
        if (map == nullptr) return "not captured";
        return map->unreadable ? Json("unreadable: " + *map->unreadable) : Json("captured");
    };
    Json found = {{"added", Json::array()}, {"removed", Json::array()}, {"changed", Json::array()}};
    if (state(a) != state(b)) found["state"] = {{"from", state(a)}, {"to", state(b)}};
    const Entries before(entriesOf(a).begin(), entriesOf(a).end()),
            after(entriesOf(b).begin(), entriesOf(b).end());
    std::vector<std::string> lines;
    for (const auto& [key, value] : entriesOf(b)) {
        const auto old = before.find(key);
        if (old == before.end()) {
            listEntry(found["added"], lines, "+ ", fields, key, value);
        } else if (old->second != value) {
            const Json shownKey = encodeRecord(fields.key, key);
            const Json changed = changedFields(fields.value, old->second, value);
            found["changed"].push_back({{"key", shownKey}, {"fields", changed}});
            std::string line = "~ " + describe(shownKey) + ":";
            for (const auto& item : changed.items()) {
                const Json& change = item.value();
                line += " " + item.key() + " " + shown(change["from"]) + " -> " +
                        shown(change["to"]);
                if (change.contains("delta")) {
                    line += std::string(" (") + (change["delta"] >= 0 ? "+" : "") +
                            change["delta"].dump() + ")";
                }
            }
            lines.push_back(line);
        }
    }
    for (const auto& [key, value] : entriesOf(a)) {
        if (after.count(key) == 0) listEntry(found["removed"], lines, "- ", fields, key, value);
    }
    if (lines.empty() && !found.contains("state")) return nullptr;
    out.line("== " + fields.name + ": " + std::to_string(found["added"].size()) + " added, " +
             std::to_string(found["removed"].size()) + " removed, " +
             std::to_string(found["changed"].size()) + " changed" +
             (found.contains("state")
                      ? ", " + state(a).get<std::string>() + " -> " + state(b).get<std::string>()
                      : ""));
    for (const std::string& line : lines) out.line(line);
    return found;
}

Output diff(const std::string& fileA, const std::string& fileB) {
    const Capture a = readCaptureFile(fileA, ""), b = readCaptureFile(fileB, "");
    Output out{Json::object()};
    for (const MapFields& fields : catalogueFields()) {
        const CapturedMap *inA = find(a, fields.name), *inB = find(b, fields.name);
        if (inA == nullptr && inB == nullptr) continue;
        Json found = diffMap(fields, inA, inB, out);
        if (!found.is_null()) out.json[fields.name] = std::move(found);
    }
    if (out.json.empty()) out.line("the captures' maps are the same");
    out.exitCode = out.json.empty() ? kExitOk : kExitFailed;
    return out;
}

}  // namespace

void addDiffCommand(CLI::App& app, Context& ctx) {
    auto files = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* command = app.add_subcommand(
            "diff",
            "Compare two captures (`kovractl -j dump`): per map the entries added, removed and "
            "changed, each changed field with its delta. Exits 0 when the maps are the same, 1 "
            "when they differ, 2 when a capture cannot be read");
    command->add_option("A", files->first, "The earlier capture")->required();
    command->add_option("B", files->second, "The later capture")->required();
    onShow(command, ctx, [files] { return diff(files->first, files->second); });
}

}  // namespace kovra::tool
