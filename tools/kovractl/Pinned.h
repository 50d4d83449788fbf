// Raw bpf(2) access to pinned maps, for the parts of kovractl that stand in for the kernel side
// (the sandbox creates and fills the maps) or look at maps without going through a service
// (`kovractl maps`). The service subcommands never use this: they call the library.
#pragma once

#include <stdint.h>
#include <string.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kovrabpf/KovraPinnedMaps.h>

#include "ToolError.h"

namespace kovra::tool {

// What the kernel reports about a map.
struct MapShape {
    uint32_t type;
    uint32_t keySize;
    uint32_t valueSize;
    uint32_t maxEntries;
    uint32_t flags;
};

// An open map descriptor, closed on destruction.
class RawMap {
  public:
    // Creates a hash map of the row's sizes and pins it at the row's path.
    static RawMap create(const android::bpf::PinnedMapInfo& row, uint32_t maxEntries);
    // Opens the map pinned at `path`; nullopt (errno set) when there is none or it cannot be.
    static std::optional<RawMap> open(const char* path, bool readOnly);

    RawMap(RawMap&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    RawMap& operator=(RawMap&&) = delete;
    RawMap(const RawMap&) = delete;
    ~RawMap();

    MapShape shape() const;
    void put(const void* key, const void* value, const char* what) const;
    bool get(const void* key, void* value) const;
    // Every key in the kernel's walk order, each `keySize` bytes.
    std::vector<std::vector<uint8_t>> keys(uint32_t keySize) const;

  private:
    explicit RawMap(int fd) : mFd(fd) {}
    int mFd;
};

// A typed view of a catalogue map that the kernel side's stand-in writes and reads.
template <typename K, typename V>
class KernelMap {
  public:
    explicit KernelMap(const android::bpf::PinnedMap<K, V>& map)
        : mPath(map.path), mRaw(openOrThrow(map.path)) {}

    void put(const K& key, const V& value) const { mRaw.put(&key, &value, mPath); }
    std::optional<V> get(const K& key) const {
        V value;
        if (!mRaw.get(&key, &value)) return std::nullopt;
        return value;
    }
    std::vector<std::pair<K, V>> entries() const {
        std::vector<std::pair<K, V>> out;
        for (const auto& raw : mRaw.keys(sizeof(K))) {
            K key;
            memcpy(&key, raw.data(), sizeof(K));
            if (auto value = get(key)) out.emplace_back(key, *value);
        }
        return out;
    }
    size_t size() const { return mRaw.keys(sizeof(K)).size(); }

  private:
    static RawMap openOrThrow(const char* path);
    const char* mPath;
    RawMap mRaw;
};

// Throws a ToolError naming `path` with strerror(errno).
[[noreturn]] void throwMapError(int exitCode, const std::string& what, const char* path);

template <typename K, typename V>
RawMap KernelMap<K, V>::openOrThrow(const char* path) {
    std::optional<RawMap> raw = RawMap::open(path, false);
    if (!raw) throwMapError(kExitEnvironment, "opening", path);
    return std::move(*raw);
}

}  // namespace kovra::tool
