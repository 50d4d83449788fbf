// What the benchmarks share: catalogue maps seeded once per size in the private bpffs, and the
// floors every service is measured against. The raw floor is the library's own algorithm (one key
// step and one lookup per entry) in the library's own thin bpf(2) wrappers, the very commands it
// issues, with nothing around the system calls; the batch floor is the kernel's fastest way to
// hand over a whole map, read through the desk map layer. Both land in the same kind of table the
// service fills. Seeding goes through the desk map layer too.
#pragma once

#include <errno.h>
#include <kovrabpf/BpfSyscall.h>
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

#include <kovrasandbox/MapBatch.h>
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
    sandbox::putBatch(map, keys, values);
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

// Opens a pinned map, as the raw floor does on every pass.
inline int openPinned(const char* path, uint32_t fileFlags) {
    return android::bpf::bpfObjGet(path, fileFlags);
}

// The library's walk with nothing around the system calls: key after key, one lookup each,
// into `out` through `store`. Kept out of line so that callgrind.sh can count it alone.
template <typename K, typename V, typename Store>
[[gnu::noinline]] void rawWalk(int fd, Store store) {
    using namespace android::bpf;
    K key, next;
    V value;
    if (bpfGetNextKey(fd, nullptr, &key) != 0) return;
    while (true) {
        const bool more = bpfGetNextKey(fd, &key, &next) == 0;
        if (bpfLookupElem(fd, &key, &value) != 0) abort();
        store(key, value);
        if (!more) return;
        key = next;
    }
}

// The library's clear with nothing around the system calls: delete the first key until none.
template <typename K>
[[gnu::noinline]] void rawClear(int fd) {
    using namespace android::bpf;
    K key;
    while (bpfGetNextKey(fd, nullptr, &key) == 0) {
        if (bpfDeleteElem(fd, &key) != 0) abort();
    }
}

// The whole map in as few commands as the kernel allows, emptied on the way with kReadAndDelete,
// in batches as large as `keys` and `values`.
template <typename K, typename V, typename Store>
void batchRead(const RawMap& map, sandbox::BatchMode mode, std::vector<K>& keys,
               std::vector<V>& values, Store store) {
    sandbox::BatchReader batches(map, mode);
    while (!batches.done()) {
        const uint32_t count =
                batches.next(keys.data(), values.data(), static_cast<uint32_t>(keys.size()));
        for (uint32_t i = 0; i < count; ++i) store(keys[i], values[i]);
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
