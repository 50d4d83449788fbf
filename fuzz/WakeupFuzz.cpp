// The wake-up detector over fuzzed maps: the counter readers copy their maps into a caller's
// table that already holds some UIDs, and a screen-state switch with fuzzed overflow flags resets
// exactly the maps flagged with 1, takes those flags back and leaves everything else alone.
#include <kovrabpf/KovraPinnedMaps.h>

#include "FuzzMaps.h"

using namespace android::bpf;
using namespace kovra::fuzz;

namespace {

template <typename V>
void fuzzReader(FuzzedDataProvider& input, FuzzedMap<uint32_t, V>& map,
                int (*read)(std::unordered_map<uint32_t, V>&)) {
    map.refill(input);
    fuzzCopy(input, map, read);
    require(map.map().keys().size() == map.written().size(), "a reader changed its map");
}

// The maps a non-zero screen state may reset, by the overflow flag that names them.
struct Resettable {
    uint32_t bit;
    const kovra::sandbox::RawMap* map;
    size_t keySize;
};

size_t entries(const Resettable& r) {
    return r.map->rawKeys(r.keySize).size();
}

void fuzzScreenOn(FuzzedDataProvider& input, FuzzedMap<uint32_t, uint32_t>& check,
                  const std::vector<Resettable>& resettable) {
    check.refill(input);
    // Flags drawn from the input land on the six known bits as often as not.
    for (const Resettable& r : resettable) {
        if (input.ConsumeBool()) {
            const uint32_t flag = input.ConsumeIntegralInRange<uint32_t>(0, 2);
            require(check.map().put(r.bit, flag), "writing a flag");
        }
    }
    std::vector<std::pair<std::optional<uint32_t>, size_t>> before;
    for (const Resettable& r : resettable) before.emplace_back(check.map().get(r.bit), entries(r));
    const size_t flags = check.map().keys().size();

    require(withoutLeak([&] { return bpfUpdateScreenStateMap(1, 7); }) == 0, "screen on failed");
    for (size_t i = 0; i < resettable.size(); ++i) {
        const auto& [flag, size] = before[i];
        const Resettable& r = resettable[i];
        if (flag == 1u) {
            require(check.map().get(r.bit) == 0u, "a flag of 1 was not taken back");
            require(entries(r) == 0, "a flagged map kept entries");
        } else {
            require(check.map().get(r.bit) == flag, "a flag other than 1 changed");
            require(entries(r) == size, "a map not flagged with 1 was touched");
        }
    }
    require(check.map().keys().size() == flags, "the check map gained or lost keys");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzedMap<uint32_t, uint32_t> finDrops(maps::kAppTcpFinDrop);
    static FuzzedMap<uint32_t, uint64_t> inWakeups(maps::kAppTcpInwakeup);
    static FuzzedMap<uint32_t, uint64_t> outWakeups(maps::kAppTcpOutwakeup);
    static FuzzedMap<uint32_t, uint64_t> durations(maps::kAppTcpWakeupduration);
    static FuzzedMap<uint64_t, uint32_t> inSeq(maps::kSkTcpCookieInSeq);
    static FuzzedMap<uint64_t, uint32_t> outSeq(maps::kSkTcpCookieOutSeq);
    static FuzzedMap<uint64_t, uint32_t> outAck(maps::kSkTcpCookieOutAck);
    static FuzzedMap<uint32_t, uint32_t> check(maps::kOverflowingMapCheck);
    static const kovra::sandbox::TypedMap screen(maps::kScreenState);
    static const std::vector<Resettable> resettable = {
            {1, &inSeq.map(), 8},     {2, &outSeq.map(), 8},      {4, &outAck.map(), 8},
            {8, &inWakeups.map(), 4}, {16, &outWakeups.map(), 4}, {32, &durations.map(), 4}};

    FuzzedDataProvider input(data, size);
    fuzzReader(input, finDrops, bpfGetAppTcpFinDropMap);
    fuzzReader(input, inWakeups, bpfGetAppTcpInwakeupMap);
    fuzzReader(input, outWakeups, bpfGetAppTcpOutwakeupMap);
    fuzzReader(input, durations, bpfGetAppTcpWakeupdurationMap);
    for (auto* sequences : {&inSeq, &outSeq, &outAck}) sequences->refill(input);
    fuzzScreenOn(input, check, resettable);
    return 0;
}
