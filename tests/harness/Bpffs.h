// The part of the harness that needs no test framework: a private bpffs for this process and
// real maps made in it with raw bpf(2). The kernel-map tests, the benchmarks, the stress test and
// the fuzz targets all stand their maps up through it.
#pragma once

#include <linux/bpf.h>
#include <stdint.h>
#include <string.h>

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <kovrabpf/KovraPinnedMaps.h>

namespace kovra::test {

// The real bpf system call, past any interposed syscall() of the executable.
long realBpf(int cmd, void* attr, unsigned size);

// Moves this process into a mount namespace of its own with a private bpffs at /sys/fs/bpf,
// once; later calls return the first call's answer. Returns what prevented it (needs root),
// empty on success. A child re-executed for a death test finds its parent's bpffs and stays in it.
std::string enterPrivateBpffs();

// The names a fresh bpffs already holds (maps.debug, progs.debug): they are not ours to remove.
const std::set<std::string>& preloadedBpffsEntries();

// How a map that cannot be made or read reports it: by default on stderr, ending the process;
// the test fixture turns it into a failure of the running test.
using FailureReporter = void (*)(const std::string& what);
void setFailureReporter(FailureReporter reporter);

// A map created with raw bpf(2), pinned at `path` (replacing whatever was pinned there) and kept
// open until destruction.
class RawMap {
  public:
    RawMap(const char* path, uint32_t keySize, uint32_t valueSize, uint32_t maxEntries = 4096,
           uint32_t mapFlags = 0);
    ~RawMap();
    RawMap(RawMap&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    RawMap(const RawMap&) = delete;
    RawMap& operator=(const RawMap&) = delete;

    int fd() const { return mFd; }
    bool putRaw(const void* key, const void* value, uint64_t flags = BPF_ANY) const;
    bool getRaw(const void* key, void* value) const;
    bool eraseRaw(const void* key) const;
    // The map's keys in the kernel's walk order.
    std::vector<std::vector<uint8_t>> rawKeys(uint32_t keySize) const;
    uint32_t id() const;

  private:
    int mFd;
};

template <typename K, typename V>
class TestMap : public RawMap {
  public:
    explicit TestMap(const android::bpf::PinnedMap<K, V>& map, uint32_t maxEntries = 4096,
                     uint32_t mapFlags = 0)
        : RawMap(map.path, sizeof(K), sizeof(V), maxEntries, mapFlags) {}

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
    size_t size() const { return rawKeys(sizeof(K)).size(); }
};

// Byte-wise equality for the kernel's plain records.
template <typename T>
bool sameBytes(const T& a, const T& b) {
    return memcmp(&a, &b, sizeof(T)) == 0;
}

// The number of descriptors this process has open.
int openFdCount();

}  // namespace kovra::test
