// kovractl's own look at the pinned maps, through read-only handles and never through a service:
// whether a map is there and would be accepted by the library (the pre-check of every command,
// and `kovractl maps`), and its entries decoded by the catalogue's record types (`kovractl dump`
// and the readers of the state the services only write).
#pragma once

#include <stdint.h>
#include <string.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kovrabpf/KovraPinnedMaps.h>
#include <kovrasandbox/Maps.h>

namespace kovra::tool {

using sandbox::Access;

// What kovractl finds at a catalogue path. `state` is "ok" or one word for the first thing that
// the library would refuse: missing, not-a-map, no-access, wrong-type, wrong-size, read-only,
// write-only, locked; or, for a map that the library opens but cannot write to, frozen.
// `problem` says it with the actual against the expected value.
struct MapState {
    const android::bpf::PinnedMapInfo* row = nullptr;
    std::string state = "ok";
    std::string problem;
    std::optional<std::string> type;
    std::optional<uint32_t> keySize;
    std::optional<uint32_t> valueSize;
    std::optional<uint32_t> flags;
    std::optional<size_t> entries;
};

MapState inspectMap(const android::bpf::PinnedMapInfo& row, Access access);

// The catalogue row of a map.
const android::bpf::PinnedMapInfo& rowOf(const char* path);

template <typename K, typename V>
std::pair<const android::bpf::PinnedMapInfo*, Access> needs(
        const android::bpf::PinnedMap<K, V>& map, Access access) {
    return {&rowOf(map.path), access};
}
using MapNeeds = std::vector<std::pair<const android::bpf::PinnedMapInfo*, Access>>;

// Ends the command with exit 3 unless kovractl runs as root and every map of `maps` passes
// inspectMap (ok, or frozen), so that the services never reach the library's abort(). Every
// problem is reported, one line per map.
void requireMaps(const MapNeeds& maps);

// Every entry of a map, read through a read-only handle in the kernel's walk order (see
// kovrasandbox/Maps.h). Throws a ToolError (exit 3) when the map is not ok or cannot be read.
std::vector<std::pair<sandbox::Bytes, sandbox::Bytes>> readEntries(
        const android::bpf::PinnedMapInfo& row);

template <typename K, typename V>
std::vector<std::pair<K, V>> readEntries(const android::bpf::PinnedMap<K, V>& map) {
    std::vector<std::pair<K, V>> out;
    for (const auto& [rawKey, rawValue] : readEntries(rowOf(map.path))) {
        std::pair<K, V> entry;
        memcpy(&entry.first, rawKey.data(), sizeof(K));
        memcpy(&entry.second, rawValue.data(), sizeof(V));
        out.push_back(entry);
    }
    return out;
}

}  // namespace kovra::tool
