// What the fuzz targets share. A target fills real maps in the private bpffs of the fuzzing
// process with keys and records drawn from the input, gives the caller's table some entries of
// its own, calls the services and checks what they report against what it wrote. A broken
// check ends the process, which libFuzzer reports with the input that did it.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <unordered_map>

#include <fuzzer/FuzzedDataProvider.h>
#include <kovrasandbox/Bpffs.h>
#include <kovrasandbox/Maps.h>

namespace kovra::fuzz {

using android::bpf::PinnedMap;

inline void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

// Any plain record, from the input's next bytes (zero-padded when the input runs out).
template <typename T>
T draw(FuzzedDataProvider& input) {
    T value{};
    const auto bytes = input.ConsumeBytes<uint8_t>(sizeof(T));
    if (!bytes.empty()) memcpy(&value, bytes.data(), bytes.size());
    return value;
}

// Every key of the library's maps fits in 64 bits; the model keys its entries that way.
template <typename K>
uint64_t widen(const K& key) {
    static_assert(sizeof(K) <= sizeof(uint64_t));
    uint64_t wide = 0;
    memcpy(&wide, &key, sizeof(K));
    return wide;
}

// Runs `call`, requiring that it leaves the number of open descriptors as it found it.
template <typename F>
auto withoutLeak(F&& call) {
    const int before = sandbox::openFdCount();
    auto result = call();
    require(before == sandbox::openFdCount(), "a descriptor leaked");
    return result;
}

// A pinned map with what the current input wrote into it.
template <typename K, typename V>
class FuzzedMap {
  public:
    static constexpr uint32_t kMaxEntries = 32;

    explicit FuzzedMap(const PinnedMap<K, V>& map) : mMap(map, kMaxEntries) {}

    // Empties the map, then writes the entries the input asks for, each key and record drawn by
    // `drawKey` and `drawValue` (by default from the input's next bytes as they are). Keys repeat
    // whenever the input repeats them; the last write wins, as in the kernel.
    template <typename DrawValue = V (*)(FuzzedDataProvider&),
              typename DrawKey = K (*)(FuzzedDataProvider&)>
    void refill(FuzzedDataProvider& input, DrawValue drawValue = draw<V>,
                DrawKey drawKey = draw<K>) {
        for (const K& key : mMap.keys()) mMap.erase(key);
        mWritten.clear();
        const uint32_t count = input.ConsumeIntegralInRange<uint32_t>(0, kMaxEntries);
        for (uint32_t i = 0; i < count; ++i) {
            const K key = drawKey(input);
            const V value = drawValue(input);
            require(mMap.put(key, value), "writing a drawn entry");
            mWritten[widen(key)] = value;
        }
    }

    const std::unordered_map<uint64_t, V>& written() const { return mWritten; }
    const sandbox::TypedMap<K, V>& map() const { return mMap; }

  private:
    sandbox::TypedMap<K, V> mMap;
    std::unordered_map<uint64_t, V> mWritten;
};

// The caller's table before the call: a few entries under keys the map holds or not, whose
// values the service must leave alone.
template <typename Table, typename V>
Table callersTable(FuzzedDataProvider& input, const std::unordered_map<uint64_t, V>& written) {
    Table table;
    const uint32_t count = input.ConsumeIntegralInRange<uint32_t>(0, 4);
    for (uint32_t i = 0; i < count; ++i) {
        auto key = draw<typename Table::key_type>(input);
        if (!written.empty() && input.ConsumeBool()) {
            auto it = written.begin();
            std::advance(it, input.ConsumeIntegralInRange<size_t>(0, written.size() - 1));
            key = static_cast<typename Table::key_type>(it->first);
        }
        table.try_emplace(key, draw<typename Table::mapped_type>(input));
    }
    return table;
}

// A copying service's table after the call: the caller's entries as they were and, under every
// other key the map held, `expected` of what it held; nothing else.
template <typename Table, typename V, typename Expected>
void requireCopied(const Table& after, const Table& before,
                   const std::unordered_map<uint64_t, V>& written, Expected expected) {
    size_t added = 0;
    for (const auto& [key, value] : before) {
        require(sandbox::sameBytes(value, after.at(key)), "a caller's entry was overwritten");
    }
    for (const auto& [key, value] : written) {
        const auto tableKey = static_cast<typename Table::key_type>(key);
        if (before.count(tableKey)) continue;
        ++added;
        require(after.count(tableKey) == 1, "a map entry is missing");
        require(sandbox::sameBytes(expected(value), after.at(tableKey)),
                "a record changed on the way");
    }
    require(after.size() == before.size() + added, "the table holds entries no map held");
}

template <typename V>
V asIs(const V& value) {
    return value;
}

// Calls a copying service with a caller's table drawn from the input and requires that it
// succeeds and copies `map` into the table (see requireCopied).
template <typename Table, typename K, typename V, typename Expected = V (*)(const V&)>
void fuzzCopy(FuzzedDataProvider& input, const FuzzedMap<K, V>& map, int (*service)(Table&),
              Expected expected = asIs<V>) {
    const Table before = callersTable<Table>(input, map.written());
    Table after = before;
    require(withoutLeak([&] { return service(after); }) == 0, "a walk of a still map failed");
    requireCopied(after, before, map.written(), expected);
}

}  // namespace kovra::fuzz
