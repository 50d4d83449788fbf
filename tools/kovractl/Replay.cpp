#include "Replay.h"

#include <string.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <kovrasandbox/Clock.h>

#include "Inspect.h"

namespace kovra::tool {

using android::bpf::PinnedMap;
using sandbox::RawMap;

namespace {

std::string wallClockNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char text[40];
    const size_t length = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
    snprintf(text + length, sizeof(text) - length, ".%03ldZ", now.tv_nsec / 1000000);
    return text;
}

CapturedMap captureMap(const MapFields& fields) {
    CapturedMap map{fields.name};
    const MapState state = inspectMap(*fields.row, Access::kReadOnly);
    if (state.state != "ok") {
        map.unreadable = state.state + ": " + state.problem;
        return map;
    }
    try {
        const RawMap raw = RawMap::open(fields.row->path, Access::kReadOnly);
        const sandbox::MapInfo info = raw.info();
        map.type = sandbox::mapTypeName(info.type);
        map.keySize = info.keySize;
        map.valueSize = info.valueSize;
        map.maxEntries = info.maxEntries;
        map.entries = raw.rawEntries();
    } catch (const sandbox::Error& error) {
        map = CapturedMap{fields.name, std::string("unreadable: ") + error.what()};
    }
    sortEntries(fields, map.entries);
    return map;
}

// The pinned map of a row, emptied and then holding exactly `entries`.
template <typename K, typename V>
void refill(const PinnedMap<K, V>& row, const CapturedMap& map) {
    const sandbox::TypedMap<K, V> typed = sandbox::openMap(row);
    for (const K& key : typed.keys()) typed.erase(key);
    for (const auto& [rawKey, rawValue] : map.entries) {
        K key;
        V value;
        memcpy(&key, rawKey.data(), sizeof(K));
        memcpy(&value, rawValue.data(), sizeof(V));
        typed.put(key, value);
    }
}

// Each map that is to be written must exist, fit the records and hold the capture's entries.
void checkTargets(const Capture& capture) {
    MapNeeds needs;
    for (const CapturedMap& map : capture.maps) {
        if (!map.unreadable) needs.emplace_back(fieldsNamed(map.name)->row, Access::kReadWrite);
    }
    requireMaps(needs);
    for (const CapturedMap& map : capture.maps) {
        if (map.unreadable) continue;
        const uint32_t room =
                RawMap::open(fieldsNamed(map.name)->row->path, Access::kReadOnly).info().maxEntries;
        if (map.entries.size() > room) {
            throw ToolError(kExitUsage, "map " + map.name + ": " +
                                                std::to_string(map.entries.size()) +
                                                " entries, more than the map holds (" +
                                                std::to_string(room) + "); nothing was written");
        }
    }
}

bpf_map_type typeNamed(const std::string& name) {
    return name == "lru_hash" ? BPF_MAP_TYPE_LRU_HASH : BPF_MAP_TYPE_HASH;
}

}  // namespace

Capture takeCapture(const std::vector<std::string>& names) {
    Capture capture{sandbox::monotonicNowNs(), wallClockNow()};
    for (const MapFields& fields : catalogueFields()) {
        if (names.empty() || std::find(names.begin(), names.end(), fields.name) != names.end()) {
            capture.maps.push_back(captureMap(fields));
        }
    }
    return capture;
}

Capture readCaptureFile(const std::string& path, const std::string& consequence) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    if (!file) {
        throw ToolError(kExitUsage, path + ": cannot be read: " + strerror(errno) + consequence);
    }
    try {
        return parseCapture(text.str());
    } catch (const CaptureError& error) {
        throw ToolError(kExitUsage, path + ": " + error.what() + consequence);
    }
}

void selectMaps(Capture& capture, const std::vector<std::string>& names) {
    if (names.empty()) return;
    for (const std::string& name : names) {
        if (std::none_of(capture.maps.begin(), capture.maps.end(),
                         [&](const CapturedMap& map) { return map.name == name; })) {
            throw ToolError(kExitUsage, "map " + name + " is not in the capture");
        }
    }
    capture.maps.erase(std::remove_if(capture.maps.begin(), capture.maps.end(),
                                      [&](const CapturedMap& map) {
                                          return std::find(names.begin(), names.end(), map.name) ==
                                                 names.end();
                                      }),
                       capture.maps.end());
}

std::vector<std::pair<std::string, size_t>> replay(const Capture& capture, bool create) {
    if (!create) checkTargets(capture);
    std::vector<std::pair<std::string, size_t>> written;
    for (const CapturedMap& map : capture.maps) {
        if (map.unreadable) continue;
        const android::bpf::PinnedMapInfo& row = *fieldsNamed(map.name)->row;
        if (create) {
            RawMap(row.path, row.keySize, row.valueSize, map.maxEntries, 0, typeNamed(map.type));
        }
        android::bpf::forEachMap([&](const auto& pinned) {
            if (strcmp(pinned.path, row.path) == 0) refill(pinned, map);
        });
        written.emplace_back(map.name, map.entries.size());
    }
    return written;
}

}  // namespace kovra::tool
