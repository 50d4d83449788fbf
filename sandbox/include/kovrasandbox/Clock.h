// The desk tooling's one clock: CLOCK_MONOTONIC, the clock the kernel side stamps speed records
// with (bpf_ktime_get_ns), so that a stamp the desk writes or reads compares with the kernel's.
#pragma once

#include <stdint.h>
#include <time.h>

namespace kovra::sandbox {

// CLOCK_MONOTONIC in nanoseconds.
inline uint64_t monotonicNowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace kovra::sandbox
