// What the benchmarks share: catalogue maps seeded once per size in the private bpffs, and the
// floors every service is measured against. The floors run the same kernel commands the library
// could at best, through libbpf's one-call wrappers: the raw loop is the library's own algorithm
// (one key step and one lookup per entry) with nothing around the system calls; the batch read is
// the kernel's fastest way to hand over a whole map. Both land in the same kind of table the
// service fills.
#pragma once

#include <bpf/bpf.h>
#include <errno.h>
#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrasandbox/Clock.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <kovrasandbox/Maps.h>

namespace kovra::bench {

using android::bpf::PinnedMap;
using sandbox::RawMap;

// Set when a benchmark finds its service or a floor misbehaving; the run then exits non-zero, so
// that a short run of every benchmark can stand as a test that they still measure what they say.
inline bool anyFailed = false;

inline void fail(benchmark::State& state, const char* why) {
    state.SkipWithError(why);
    anyFailed = true;
}

// The map sizes the walking benchmarks run at.
inline constexpr int64_t kSizes[] = {1 << 10, 10 << 10, 64 << 10};

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

// A speed record updated in both directions when the map is seeded.
template <typename K>
android::bpf::SpeedsValue freshSpeeds(const K& key) {
    auto value = derivedFrom<K, android::bpf::SpeedsValue>(key);
    value.firstStamp = value.secondStamp = sandbox::monotonicNowNs();
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
    uint32_t count = static_cast<uint32_t>(n);
    if (bpf_map_update_batch(map.fd(), keys.data(), values.data(), &count, nullptr) != 0 ||
        count != n) {
        abort();
    }
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
    LIBBPF_OPTS(bpf_obj_get_opts, opts, .file_flags = fileFlags);
    return bpf_obj_get_opts(path, &opts);
}

// The library's walk with nothing around the system calls: key after key, one lookup each,
// into `out` through `store`. Kept out of line so that callgrind.sh can count it alone.
template <typename K, typename V, typename Store>
[[gnu::noinline]] void rawWalk(int fd, Store store) {
    K key, next;
    V value;
    if (bpf_map_get_next_key(fd, nullptr, &key) != 0) return;
    while (true) {
        const bool more = bpf_map_get_next_key(fd, &key, &next) == 0;
        if (bpf_map_lookup_elem(fd, &key, &value) != 0) abort();
        store(key, value);
        if (!more) return;
        key = next;
    }
}

// The library's clear with nothing around the system calls: delete the first key until none.
template <typename K>
[[gnu::noinline]] void rawClear(int fd) {
    K key;
    while (bpf_map_get_next_key(fd, nullptr, &key) == 0) {
        if (bpf_map_delete_elem(fd, &key) != 0) abort();
    }
}

// The whole map in as few commands as the kernel allows: `command` is BPF_MAP_LOOKUP_BATCH, or
// BPF_MAP_LOOKUP_AND_DELETE_BATCH to empty the map on the way.
template <typename K, typename V, typename Store>
void batchRead(int fd, int command, std::vector<K>& keys, std::vector<V>& values, Store store) {
    const auto read = command == BPF_MAP_LOOKUP_BATCH ? bpf_map_lookup_batch
                                                      : bpf_map_lookup_and_delete_batch;
    uint64_t token = 0;
    bool first = true;
    while (true) {
        uint32_t count = static_cast<uint32_t>(keys.size());
        const int rv = read(fd, first ? nullptr : &token, &token, keys.data(), values.data(),
                            &count, nullptr);
        if (rv != 0 && errno != ENOENT) abort();
        for (uint32_t i = 0; i < count; ++i) store(keys[i], values[i]);
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

// How many of each bpf command the library has issued since the process started (Commands.cpp).
inline constexpr int kCommandKinds = BPF_PROG_BIND_MAP + 1;
uint64_t bpfCommands(int cmd);

// The library's bpf commands as a benchmark issues them: taken when its loop starts, reported by
// count() as counters beside its timings, per call by kind and per entry in all.
class CommandCount {
  public:
    CommandCount() { snapshot(before_); }
    void count(benchmark::State& state, int64_t entries) const {
        uint64_t after[kCommandKinds];
        snapshot(after);
        const std::pair<int, const char*> kinds[] = {{BPF_OBJ_GET, "get"},
                                                     {BPF_OBJ_GET_INFO_BY_FD, "info"},
                                                     {BPF_MAP_GET_NEXT_KEY, "next"},
                                                     {BPF_MAP_LOOKUP_ELEM, "lookup"},
                                                     {BPF_MAP_UPDATE_ELEM, "update"},
                                                     {BPF_MAP_DELETE_ELEM, "delete"}};
        double all = total(after);
        state.counters["bpf_per_entry"] = avg(all / std::max<int64_t>(entries, 1));
        for (const auto& [cmd, name] : kinds) {
            const double issued = after[cmd] - before_[cmd];
            if (issued > 0) state.counters[std::string("bpf_") + name] = avg(issued);
            all -= issued;
        }
        if (all > 0) state.counters["bpf_other"] = avg(all);
    }

  private:
    static benchmark::Counter avg(double issued) {
        return benchmark::Counter(issued, benchmark::Counter::kAvgIterations);
    }
    static void snapshot(uint64_t* into) {
        for (int cmd = 0; cmd < kCommandKinds; ++cmd) into[cmd] = bpfCommands(cmd);
    }
    double total(const uint64_t* after) const {
        double all = 0;
        for (int cmd = 0; cmd < kCommandKinds; ++cmd) all += after[cmd] - before_[cmd];
        return all;
    }
    uint64_t before_[kCommandKinds];
};

// Reports time per entry beside time per call.
inline void perEntry(benchmark::State& state, int64_t entries) {
    state.counters["per_entry"] = benchmark::Counter(
            static_cast<double>(entries),
            benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace kovra::bench
