// The clock and the staleness rule that the socket and UID speed walks share.
#pragma once

#include <stdint.h>
#include <time.h>

#include <kovrabpf/KovraBpfNetworkStats.h>

namespace android::bpf {

// CLOCK_MONOTONIC in nanoseconds: the clock the kernel side stamps speeds with.
inline uint64_t monotonicNowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Whole milliseconds from `stamp` to `now`. The kernel side keeps updating entries while we walk
// them, so a stamp may well be later than the `now` we took before the walk: that is age 0, not
// a wrapped-around age of half a million years.
inline uint64_t ageMs(uint64_t now, uint64_t stamp) {
    return now > stamp ? (now - stamp) / 1'000'000u : 0;
}

// How old the two directions of a speed record are, against a threshold in milliseconds. An age
// equal to the threshold is still fresh.
struct SpeedsAge {
    bool firstStale;
    bool secondStale;

    SpeedsAge(const SpeedsValue& value, uint64_t now, uint32_t staleMs)
        : firstStale(ageMs(now, value.firstStamp) > uint64_t{staleMs}),
          secondStale(ageMs(now, value.secondStamp) > uint64_t{staleMs}) {}

    // A record is dropped only when neither direction has moved within the threshold. A second
    // stamp that is not in the past has age 0 and is never stale, so such a record always stays,
    // however old its first direction is.
    bool prunable() const { return firstStale && secondStale; }

    // The raw speeds still worth reporting: a stale direction counts as not moving.
    uint64_t firstSpeed(const SpeedsValue& value) const {
        return firstStale ? 0 : value.firstSpeed;
    }
    uint64_t secondSpeed(const SpeedsValue& value) const {
        return secondStale ? 0 : value.secondSpeed;
    }
};

// Reports are in kbps; the kernel side counts speed in units a thousand times finer.
inline uint64_t toKbps(uint64_t raw) {
    return raw / 1000u;
}

}  // namespace android::bpf
