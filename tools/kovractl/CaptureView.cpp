// A capture shown: with -j the capture itself, as a table each map's entries field by field.
#include <ctype.h>

#include "Replay.h"

namespace kovra::tool {
namespace {

// A map's entries as one table: the key's fields, then the value's.
Rows rowsOf(const CapturedMap& map) {
    const MapFields& fields = *fieldsNamed(map.name);
    Rows rows;
    // A key field named as a value field (the UID speeds' ifindex) is told apart as keyIfindex.
    for (const Field& field : fields.key) {
        std::string name = field.name;
        for (const Field& other : fields.value) {
            if (name == other.name)
                name = "key" + std::string(1, toupper(name[0])) + name.substr(1);
        }
        rows.columns.push_back(name);
    }
    for (const Field& field : fields.value) rows.columns.push_back(field.name);
    for (const auto& [key, value] : map.entries) {
        rows.rows.emplace_back();
        for (const Json& record :
             {encodeRecord(fields.key, key), encodeRecord(fields.value, value)}) {
            for (const auto& item : record.items()) rows.rows.back().push_back(item.value());
        }
    }
    return rows;
}

}  // namespace

Output showCapture(const Capture& capture) {
    Output out{toJson(capture)};
    for (const CapturedMap& map : capture.maps) {
        if (!out.text.empty()) out.line("");
        if (map.unreadable) {
            // The others are still shown; the exit code tells that one was not.
            out.line("== " + map.name + ": " + *map.unreadable);
            out.exitCode = kExitEnvironment;
            continue;
        }
        out.line("== " + map.name + " (" + countOf(map.entries.size(), "entry") + ")");
        if (!map.entries.empty()) out.table(rowsOf(map));
    }
    return out;
}

}  // namespace kovra::tool
