// Speed records for the tests, stamped against the same clock the kernel side uses.
#pragma once

#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include <kovrabpf/KovraBpfNetworkStats.h>

namespace kovra::test {

inline constexpr uint64_t kNsPerMs = 1'000'000;

// The stamp of a record that has not moved for as long as the machine has been up.
inline constexpr uint64_t kAtBoot = 0;

// Now, on the clock the kernel side stamps with. Records stamped kAtBoot must be stale against
// the tests' thresholds (a few seconds at most), so on a machine up for less than that, such as a
// test VM just booted, this first waits.
inline uint64_t monotonicNow() {
    constexpr uint64_t kSettled = 5'000 * kNsPerMs;
    const auto read = [] {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u +
               static_cast<uint64_t>(ts.tv_nsec);
    };
    const uint64_t now = read();
    if (now >= kSettled) return now;
    usleep(static_cast<useconds_t>((kSettled - now) / 1000));
    return read();
}

// A record whose opaque fields all hold recognisable values, so that a report can be checked to
// copy them through byte for byte.
inline android::bpf::SpeedsValue speedRecord(uint32_t ifindex, uint64_t firstSpeed,
                                             uint64_t firstStamp, uint64_t secondSpeed,
                                             uint64_t secondStamp) {
    android::bpf::SpeedsValue value;
    value.tag = 0xC0DE0000u + ifindex;
    value.ifindex = ifindex;
    value.firstAux0 = 11;
    value.firstAux1 = 12;
    value.firstSpeed = firstSpeed;
    value.firstAux2 = 13;
    value.firstStamp = firstStamp;
    value.secondAux0 = 21;
    value.secondAux1 = 22;
    value.secondSpeed = secondSpeed;
    value.secondAux2 = 23;
    value.secondStamp = secondStamp;
    return value;
}

// Map keys come in the kernel's hash order.
template <typename K>
std::vector<K> sorted(std::vector<K> keys) {
    std::sort(keys.begin(), keys.end());
    return keys;
}

}  // namespace kovra::test
