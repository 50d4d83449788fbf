// What the benchmarks share: catalogue maps seeded once per size in the private bpffs, and the
// floors every service is measured against. The floors run the same kernel commands the library
// could at best: the raw loop is the library's own algorithm (one key step and one lookup per
// entry) with nothing around the system calls; the batch read is the kernel's fastest way to hand
// over a whole map. Both land in the same kind of table the service fills.
#pragma once

#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "Bpffs.h"

namespace kovra::bench {

using android::bpf::PinnedMap;
using test::RawMap;

// Set when a benchmark finds its service or a floor misbehaving; the run then exits non-zero, so
// that a short run of every benchmark can stand as a test that they still measure what they say.
inline bool anyFailed = false;

inline void fail(benchmark::State& state, const char* why) {
    state.SkipWithError(why);
    anyFailed = true;
}

// The map sizes the walking benchmarks run at.
inline constexpr int64_t kSizes[] = {1 << 10, 10 << 10, 64 << 10};

inline long bpf(int cmd, bpf_attr& attr) {
    return syscall(__NR_bpf, cmd, &attr, sizeof(attr));
}

inline uint64_t ptr(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}

// The i-th key of a seeded map: UID-like numbers, whatever the key's width.
template <typename K>
K keyAt(uint32_t i) {
    const uint64_t number = 10000 + i;
    K key{};
    memcpy(&key, &number, std::min(sizeof(K), sizeof(number)));
    return key;
}

// A value made from its key, so that no two entries are alike.
template <typename K, typename V>
V derivedFrom(const K& key) {
    uint64_t seed = 0;
    memcpy(&seed, &key, std::min(sizeof(K), sizeof(seed)));
    V value;
    auto* bytes = reinterpret_cast<uint8_t*>(&value);
    for (size_t i = 0; i < sizeof(V); ++i) bytes[i] = static_cast<uint8_t>(seed * 31 + i);
    return value;
}

// Writes n entries (keyAt(0..n-1) -> make(key)) in one batched update.
template <typename K, typename V>
void fill(const RawMap& map, int64_t n, V (*make)(const K&)) {
    std::vector<K> keys(n);
    std::vector<V> values(n);
    for (int64_t i = 0; i < n; ++i) {
        keys[i] = keyAt<K>(static_cast<uint32_t>(i));
        values[i] = make(keys[i]);
    }
    bpf_attr attr{};
    attr.batch.map_fd = static_cast<uint32_t>(map.fd());
    attr.batch.keys = ptr(keys.data());
    attr.batch.values = ptr(values.data());
    attr.batch.count = static_cast<uint32_t>(n);
    if (bpf(BPF_MAP_UPDATE_BATCH, attr) != 0 || attr.batch.count != n) abort();
}

// The catalogue map `map` pinned with max_entries n and holding n entries. The map is kept for
// the next benchmark of the same size; a benchmark that empties it refills it before it ends.
template <typename K, typename V>
const RawMap& seeded(const PinnedMap<K, V>& map, int64_t n, V (*make)(const K&)) {
    struct Seeded {
        int64_t size;
        std::unique_ptr<RawMap> map;
    };
    static std::map<std::string, Seeded> pinned;
    Seeded& entry = pinned[map.path];
    if (entry.size != n || !entry.map) {
        entry.map.reset();  // the old map goes before its pin is replaced
        entry.map = std::make_unique<RawMap>(map.path, sizeof(K), sizeof(V), n);
        fill(*entry.map, n, make);
        entry.size = n;
    }
    return *entry.map;
}

// Opens a pinned map, as the floors do on every pass.
inline int openPinned(const char* path, uint32_t fileFlags) {
    bpf_attr attr{};
    attr.pathname = ptr(path);
    attr.file_flags = fileFlags;
    return static_cast<int>(bpf(BPF_OBJ_GET, attr));
}

inline long getNextKey(int fd, const void* key, void* next) {
    bpf_attr attr{};
    attr.map_fd = static_cast<uint32_t>(fd);
    attr.key = ptr(key);
    attr.next_key = ptr(next);
    return bpf(BPF_MAP_GET_NEXT_KEY, attr);
}

inline long lookup(int fd, const void* key, void* value) {
    bpf_attr attr{};
    attr.map_fd = static_cast<uint32_t>(fd);
    attr.key = ptr(key);
    attr.value = ptr(value);
    return bpf(BPF_MAP_LOOKUP_ELEM, attr);
}

// The library's walk with nothing around the system calls: key after key, one lookup each,
// into `out` through `store`. Kept out of line so that callgrind.sh can count it alone.
template <typename K, typename V, typename Store>
[[gnu::noinline]] void rawWalk(int fd, Store store) {
    K key, next;
    V value;
    if (getNextKey(fd, nullptr, &key) != 0) return;
    while (true) {
        const bool more = getNextKey(fd, &key, &next) == 0;
        if (lookup(fd, &key, &value) != 0) abort();
        store(key, value);
        if (!more) return;
        key = next;
    }
}

// The library's clear with nothing around the system calls: delete the first key until none.
template <typename K>
[[gnu::noinline]] void rawClear(int fd) {
    K key;
    while (getNextKey(fd, nullptr, &key) == 0) {
        bpf_attr attr{};
        attr.map_fd = static_cast<uint32_t>(fd);
        attr.key = ptr(&key);
        if (bpf(BPF_MAP_DELETE_ELEM, attr) != 0) abort();
    }
}

// The whole map in as few commands as the kernel allows: `command` is BPF_MAP_LOOKUP_BATCH, or
// BPF_MAP_LOOKUP_AND_DELETE_BATCH to empty the map on the way.
template <typename K, typename V, typename Store>
void batchRead(int fd, int command, std::vector<K>& keys, std::vector<V>& values, Store store) {
    uint64_t token = 0;
    bool first = true;
    while (true) {
        bpf_attr attr{};
        attr.batch.map_fd = static_cast<uint32_t>(fd);
        attr.batch.in_batch = first ? 0 : ptr(&token);
        attr.batch.out_batch = ptr(&token);
        attr.batch.keys = ptr(keys.data());
        attr.batch.values = ptr(values.data());
        attr.batch.count = static_cast<uint32_t>(keys.size());
        const long rv = bpf(command, attr);
        if (rv != 0 && errno != ENOENT) abort();
        for (uint32_t i = 0; i < attr.batch.count; ++i) store(keys[i], values[i]);
        if (rv != 0) return;
        first = false;
    }
}

// Puts a harvested map's n entries back without counting the time it takes.
template <typename K, typename V>
void refillUntimed(benchmark::State& state, const RawMap& map, int64_t n, V (*make)(const K&)) {
    state.PauseTiming();
    fill(map, n, make);
    state.ResumeTiming();
}

// Reports time per entry beside time per call.
inline void perEntry(benchmark::State& state, int64_t entries) {
    state.counters["per_entry"] = benchmark::Counter(
            static_cast<double>(entries),
            benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace kovra::bench
