// What a call costs before and after its work (opening and closing a map handle, read-only and
// read-write), a single-entry service, and clear() on maps of growing size and max_entries.
#include <fcntl.h>

#include <kovrabpf/KovraPinnedMaps.h>

#include "Bench.h"

namespace kovra::bench {
namespace {

using namespace android::bpf;

constexpr int64_t kSingleEntryMapSize = 1 << 10;

// One info query as the handle makes it, in the library's own wrapper.
uint32_t infoWord(int fd, MapInfoWord word) {
    const int value = bpfGetMapInfoWord(fd, word);
    if (value == -1) abort();
    return static_cast<uint32_t>(value);
}

// The floor of an open and close: the same commands as the handle's, with nothing around them.
// A read-write open locks one byte at the map's id first.
void rawOpenAndClose(benchmark::State& state, bool writable) {
    seeded(maps::kUidPurStats, kSingleEntryMapSize, derivedFrom<uint32_t, KovraStatsValue>);
    for (auto _ : state) {
        const int fd = openPinned(maps::kUidPurStats.path, writable ? 0 : BPF_F_RDONLY);
        if (writable) {
            struct flock lock {};
            lock.l_type = F_RDLCK;
            lock.l_start = infoWord(fd, MapInfoWord::kId);
            lock.l_len = 1;
            if (fcntl(fd, F_OFD_SETLK, &lock) != 0) abort();
        }
        const bool fits = !(infoWord(fd, MapInfoWord::kFlags) & BPF_F_WRONLY) &&
                          infoWord(fd, MapInfoWord::kKeySize) == sizeof(uint32_t) &&
                          infoWord(fd, MapInfoWord::kValueSize) == sizeof(KovraStatsValue);
        if (!fits) abort();
        close(fd);
    }
}

template <typename Handle>
void openAndClose(benchmark::State& state) {
    seeded(maps::kUidPurStats, kSingleEntryMapSize, derivedFrom<uint32_t, KovraStatsValue>);
    const CommandCount commands;
    for (auto _ : state) {
        Handle handle(maps::kUidPurStats);
        benchmark::DoNotOptimize(handle.getMap().get());
    }
    commands.count(state, 1);
}

void blockOneUid(benchmark::State& state) {
    seeded(maps::kAppNetDisconnLimit, kSingleEntryMapSize, derivedFrom<uint32_t, uint32_t>);
    const int uid = static_cast<int>(keyAt<uint32_t>(7));
    const CommandCount commands;
    for (auto _ : state) {
        if (bpfDisableNetwork(uid) != 0) fail(state, "blocking failed");
    }
    commands.count(state, 1);
}

void singleUidLookup(benchmark::State& state) {
    seeded(maps::kUidPurStats, kSingleEntryMapSize, derivedFrom<uint32_t, KovraStatsValue>);
    const uint32_t uid = keyAt<uint32_t>(7);
    KovraStatsValue out;
    const CommandCount commands;
    for (auto _ : state) {
        if (bpfGetUidPurStats(uid, out) != 0) fail(state, "lookup failed");
    }
    commands.count(state, 1);
}

// clear() deletes the first key until there is none. The map is made and filled outside the
// timed region; `entries` of `maxEntries` are filled.
using Cleared = PinnedMap<uint64_t, AppFreezeSynInfo>;
constexpr Cleared kCleared = maps::kAppFreezeSyn;
auto* const kMake = derivedFrom<uint64_t, AppFreezeSynInfo>;

enum class Clearer { kService, kRaw, kBatch };

void emptyOnce(Clearer how, const RawMap& map) {
    switch (how) {
        case Clearer::kService:
            if (!BpfMap<uint64_t, AppFreezeSynInfo>(kCleared).clear().ok()) abort();
            break;
        case Clearer::kRaw:
            rawClear<uint64_t>(map.fd());
            break;
        case Clearer::kBatch: {
            std::vector<uint64_t> keys(1024);
            std::vector<AppFreezeSynInfo> values(1024);
            batchRead(map, sandbox::BatchMode::kReadAndDelete, keys, values,
                      [](const uint64_t&, const AppFreezeSynInfo&) {});
            break;
        }
    }
}

void clearing(benchmark::State& state, Clearer how) {
    const int64_t entries = state.range(0);
    const RawMap map(kCleared.path, sizeof(uint64_t), sizeof(AppFreezeSynInfo),
                     static_cast<uint32_t>(state.range(1)));
    fill(map, entries, kMake);
    const CommandCount commands;
    for (auto _ : state) {
        emptyOnce(how, map);
        refillUntimed(state, map, entries, kMake);
    }
    perEntry(state, entries);
    if (how == Clearer::kService) commands.count(state, entries);
}

}  // namespace

void registerOpenAndClearBenchmarks() {
    benchmark::RegisterBenchmark("open read-only/service",
                                 openAndClose<BpfMapRO<uint32_t, KovraStatsValue>>);
    benchmark::RegisterBenchmark("open read-only/raw", rawOpenAndClose, false);
    benchmark::RegisterBenchmark("open read-write/service",
                                 openAndClose<BpfMap<uint32_t, KovraStatsValue>>);
    benchmark::RegisterBenchmark("open read-write/raw", rawOpenAndClose, true);
    benchmark::RegisterBenchmark("bpfGetUidPurStats/service", singleUidLookup);
    benchmark::RegisterBenchmark("bpfDisableNetwork/service", blockOneUid);

    const std::pair<Clearer, const char*> clearers[] = {{Clearer::kService, "clear/service"},
                                                        {Clearer::kRaw, "clear/raw"},
                                                        {Clearer::kBatch, "clear/batch"}};
    // Full maps of growing size, then small fillings of a large map: the first-key scan of a
    // hash map grows with its buckets, not with its entries.
    const std::pair<int64_t, int64_t> shapes[] = {{1 << 10, 1 << 10},
                                                  {10 << 10, 10 << 10},
                                                  {64 << 10, 64 << 10},
                                                  {1 << 10, 64 << 10},
                                                  {10 << 10, 64 << 10}};
    for (const auto& [entries, maxEntries] : shapes) {
        for (const auto& [how, name] : clearers) {
            benchmark::RegisterBenchmark(name, clearing, how)
                    ->ArgNames({"n", "max"})
                    ->Args({entries, maxEntries});
        }
    }
}

}  // namespace kovra::bench
