// Counts, by command, the bpf commands the library issues, from its shared object or from its
// handle templates compiled into the benchmarks, as the executable's syscall() sees them
// (tests/interpose/). The desk map layer's commands, which seed the maps and run the batch floor,
// go through libbpf and pass uncounted; the raw floor's are the library's own wrappers and are
// counted, but only a service's benchmark reports what it issued.
#include <atomic>

#include <Interpose.h>

#include "Bench.h"

namespace kovra::bench {
namespace {

std::atomic<uint64_t> counts[kCommandKinds];

std::optional<long> count(int cmd, void*, unsigned) {
    if (cmd >= 0 && cmd < kCommandKinds) ++counts[cmd];
    return std::nullopt;
}

[[maybe_unused]] const bool counting = (interpose::observeBpf(count), true);

}  // namespace

uint64_t bpfCommands(int cmd) {
    return cmd >= 0 && cmd < kCommandKinds ? counts[cmd].load() : 0;
}

}  // namespace kovra::bench
