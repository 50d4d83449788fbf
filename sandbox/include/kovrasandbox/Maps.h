// The desk's one way to a pinned map, over libbpf and never over the library's own bpf(2) layer:
// maps created and pinned as the kernel side would (every catalogue map, or any a test needs),
// opened from their pins with the access a caller asks for, described by the kernel, and read
// and written by key, raw (RawMap) or through a catalogue row's types. kovractl's checks and
// views, the live loader, the benchmarks and the tests all go through it. Failures throw Error
// (kovrasandbox/Error.h).
//
// A walk lists the keys first and reads each value after: the kernel side may delete an entry
// in between, and such an entry is left out of the walk, which goes on with the others.
#pragma once

#include <linux/bpf.h>
#include <stdint.h>
#include <string.h>

#include <optional>
#include <utility>
#include <vector>

#include <kovrabpf/KovraPinnedMaps.h>
#include <kovrasandbox/RawMap.h>

namespace kovra::sandbox {

// A map read through the key and value types of its catalogue row.
template <typename K, typename V>
class ReadOnlyMap : public RawMap {
  public:
    std::optional<V> get(const K& key) const {
        V value;
        if (!getRaw(&key, &value)) return std::nullopt;
        return value;
    }
    std::vector<K> keys() const {
        std::vector<K> out;
        for (const Bytes& raw : rawKeys(sizeof(K))) {
            K key;
            memcpy(&key, raw.data(), sizeof(K));
            out.push_back(key);
        }
        return out;
    }
    std::vector<std::pair<K, V>> entries() const {
        std::vector<std::pair<K, V>> out;
        for (const K& key : keys()) {
            if (auto value = get(key)) out.emplace_back(key, *value);
        }
        return out;
    }
    size_t size() const { return rawKeys(sizeof(K)).size(); }

  protected:
    explicit ReadOnlyMap(RawMap raw) : RawMap(std::move(raw)) {}
    using RawMap::RawMap;
    template <typename K2, typename V2>
    friend ReadOnlyMap<K2, V2> openReadOnly(const android::bpf::PinnedMap<K2, V2>& map);
};

// A map read and written through the types of its row.
template <typename K, typename V>
class TypedMap : public ReadOnlyMap<K, V> {
  public:
    // Creates the map at the row's path (see RawMap).
    explicit TypedMap(const android::bpf::PinnedMap<K, V>& map,
                      uint32_t maxEntries = kDefaultMaxEntries, uint32_t mapFlags = 0)
        : ReadOnlyMap<K, V>(map.path, sizeof(K), sizeof(V), maxEntries, mapFlags) {}
    // The map pinned at the row's path, opened read-write.
    static TypedMap open(const android::bpf::PinnedMap<K, V>& map) {
        return TypedMap(RawMap::open(map.path, Access::kReadWrite));
    }

    void put(const K& key, const V& value, uint64_t flags = BPF_ANY) const {
        this->putRaw(&key, &value, flags);
    }
    // False when `key` had no entry.
    bool erase(const K& key) const { return this->eraseRaw(&key); }

  private:
    explicit TypedMap(RawMap raw) : ReadOnlyMap<K, V>(std::move(raw)) {}
};

template <typename K, typename V>
TypedMap<K, V> openMap(const android::bpf::PinnedMap<K, V>& map) {
    return TypedMap<K, V>::open(map);
}

template <typename K, typename V>
ReadOnlyMap<K, V> openReadOnly(const android::bpf::PinnedMap<K, V>& map) {
    return ReadOnlyMap<K, V>(RawMap::open(map.path, Access::kReadOnly));
}

// Room in each catalogue map; well above what the demo data set puts in any of them.
inline constexpr uint32_t kCatalogueMaxEntries = 1024;

// Creates every map of the catalogue, empty, at its exact path with its key and value sizes,
// replacing any map pinned there. The pins keep them.
void createCatalogueMaps(uint32_t maxEntries = kCatalogueMaxEntries);

// Byte-wise equality for the kernel's plain records.
template <typename T>
bool sameBytes(const T& a, const T& b) {
    return memcmp(&a, &b, sizeof(T)) == 0;
}

}  // namespace kovra::sandbox
