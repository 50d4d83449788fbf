// The kernel side's maps on the desk, over libbpf: created and pinned at their paths (every map of
// the catalogue with its specified key and value sizes, or any map a test needs), opened from
// their pins, and read and written as the kernel's programs would, independently of the library.
#pragma once

#include <linux/bpf.h>
#include <stdint.h>
#include <string.h>

#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <kovrabpf/KovraPinnedMaps.h>

namespace kovra::sandbox {

// A step of standing up the kernel side that failed: what, where and why
// ("pinning /sys/fs/bpf/...: File exists").
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Throws an Error "`what` `path`: strerror(errno)".
[[noreturn]] void fail(const std::string& what, const char* path);

// Room in a map the sandbox creates, unless its creator asks for another.
inline constexpr uint32_t kDefaultMaxEntries = 4096;

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
    // Creates a hash map and pins it at `path`, replacing whatever was pinned there and creating
    // the folders the path needs. Throws Error.
    RawMap(const char* path, uint32_t keySize, uint32_t valueSize,
           uint32_t maxEntries = kDefaultMaxEntries, uint32_t mapFlags = 0);
    // Opens the map pinned at `path`; nullopt (errno set) when there is none or it cannot be.
    static std::optional<RawMap> open(const char* path, bool readOnly = false);

    RawMap(RawMap&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    RawMap& operator=(RawMap&&) = delete;
    RawMap(const RawMap&) = delete;
    ~RawMap();

    int fd() const { return mFd; }
    // The kernel's id of the map. Throws Error.
    uint32_t id() const;
    // All zero when the kernel does not tell.
    MapShape shape() const;

    bool putRaw(const void* key, const void* value, uint64_t flags = BPF_ANY) const;
    bool getRaw(const void* key, void* value) const;
    bool eraseRaw(const void* key) const;
    // The map's keys in the kernel's walk order, each `keySize` bytes.
    std::vector<std::vector<uint8_t>> rawKeys(uint32_t keySize) const;

  protected:
    explicit RawMap(int fd) : mFd(fd) {}

  private:
    int mFd;
};

// A map with the key and value types of a catalogue entry.
template <typename K, typename V>
class TypedMap : public RawMap {
  public:
    // Creates the map at the entry's path (see RawMap).
    explicit TypedMap(const android::bpf::PinnedMap<K, V>& map,
                      uint32_t maxEntries = kDefaultMaxEntries, uint32_t mapFlags = 0)
        : RawMap(map.path, sizeof(K), sizeof(V), maxEntries, mapFlags) {}
    // The map pinned at the entry's path. Throws Error when there is none.
    static TypedMap open(const android::bpf::PinnedMap<K, V>& map) {
        std::optional<RawMap> raw = RawMap::open(map.path);
        if (!raw) fail("opening", map.path);
        return TypedMap(std::move(*raw));
    }

    bool put(const K& key, const V& value, uint64_t flags = BPF_ANY) const {
        return putRaw(&key, &value, flags);
    }
    std::optional<V> get(const K& key) const {
        V value;
        if (!getRaw(&key, &value)) return std::nullopt;
        return value;
    }
    bool erase(const K& key) const { return eraseRaw(&key); }
    std::vector<K> keys() const {
        std::vector<K> out;
        for (const auto& raw : rawKeys(sizeof(K))) {
            K key;
            memcpy(&key, raw.data(), sizeof(K));
            out.push_back(key);
        }
        return out;
    }
    // Key and value pairs in walk order; a key deleted between the two reads is left out.
    std::vector<std::pair<K, V>> entries() const {
        std::vector<std::pair<K, V>> out;
        for (const K& key : keys()) {
            if (auto value = get(key)) out.emplace_back(key, *value);
        }
        return out;
    }
    size_t size() const { return rawKeys(sizeof(K)).size(); }

  protected:
    explicit TypedMap(RawMap raw) : RawMap(std::move(raw)) {}
};

// The map pinned at `map`'s path, typed. Throws Error when there is none.
template <typename K, typename V>
TypedMap<K, V> openMap(const android::bpf::PinnedMap<K, V>& map) {
    return TypedMap<K, V>::open(map);
}

// Room in each catalogue map; well above what the demo data set puts in any of them.
inline constexpr uint32_t kCatalogueMaxEntries = 1024;

// Creates every map of the catalogue (kPinnedMaps), empty, at its exact path with its key and
// value sizes, replacing any map pinned there. The pins keep them. Throws Error.
void createCatalogueMaps(uint32_t maxEntries = kCatalogueMaxEntries);

// Byte-wise equality for the kernel's plain records.
template <typename T>
bool sameBytes(const T& a, const T& b) {
    return memcmp(&a, &b, sizeof(T)) == 0;
}

}  // namespace kovra::sandbox
