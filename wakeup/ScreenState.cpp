// The screen-state switch of the TCP wake-up detector: records the state with its time stamp for
// the kernel side, resets the maps the kernel side flags as overflowing when the screen state is
// non-zero, and drops the registered IM heartbeat lengths when it is zero.
#include <android/log.h>

#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraKernelContract.h>
#include <kovrabpf/KovraPinnedMaps.h>

#include "ServiceSupport.h"

namespace android::bpf {

namespace {

constexpr uint32_t kStateCodeKey = KOVRA_SCREEN_CODE_KEY;

struct ScreenState {
    uint64_t code;
    uint32_t stampKey;
};
constexpr ScreenState kScreenZero{KOVRA_SCREEN_OFF, KOVRA_SCREEN_OFF_STAMP_KEY};
constexpr ScreenState kScreenNonZero{KOVRA_SCREEN_ON, KOVRA_SCREEN_ON_STAMP_KEY};

// The check map's value for a map the kernel side has found overflowing; we write 0 once it is
// reset. Any other value is the kernel side's business and is left alone.
constexpr uint32_t kOverflowing = KOVRA_OVERFLOWING;
constexpr uint32_t kReset = KOVRA_OVERFLOW_RESET;

// Empties a map if it could be opened; a map that cannot be cleared is not worth failing the
// screen-state change for, so the outcome is dropped (clear logs a real delete failure itself).
template <const auto& pinned>
void clearIfOpened() {
    BpfMap map(pinned);
    if (!openFailure(map, pinned)) map.clear();
}

// Every map the kernel side may flag, under the check map key that flags it, in the order they
// are reset.
struct OverflowCheck {
    uint32_t bit;
    void (*reset)();
};
constexpr OverflowCheck kOverflowChecks[] = {
        {KOVRA_OVERFLOW_IN_SEQ, clearIfOpened<maps::kSkTcpCookieInSeq>},
        {KOVRA_OVERFLOW_OUT_SEQ, clearIfOpened<maps::kSkTcpCookieOutSeq>},
        {KOVRA_OVERFLOW_OUT_ACK, clearIfOpened<maps::kSkTcpCookieOutAck>},
        {KOVRA_OVERFLOW_INWAKEUP, clearIfOpened<maps::kAppTcpInwakeup>},
        {KOVRA_OVERFLOW_OUTWAKEUP, clearIfOpened<maps::kAppTcpOutwakeup>},
        {KOVRA_OVERFLOW_WAKEUPDURATION, clearIfOpened<maps::kAppTcpWakeupduration>},
};

// Reading a flag and writing 0 back is not atomic: a flag the kernel side raises again while its
// map is being cleared is taken back all the same, which is what the kernel side expects.
void resetOverflowingMaps() {
    BpfMap check(maps::kOverflowingMapCheck);
    if (openFailure(check, maps::kOverflowingMapCheck)) return;
    uint32_t mask = 0;
    for (const OverflowCheck& entry : kOverflowChecks) {
        const Result<uint32_t> flag = check.readValue(entry.bit);
        if (!flag.ok() || flag.value() != kOverflowing) continue;
        entry.reset();
        // The flag is taken back even when its map could not be opened, so that a map which
        // stays unusable is not retried on every screen change.
        check.writeValue(entry.bit, kReset, BPF_ANY);
        mask |= entry.bit;
    }
    // Deliberately untagged: the line is filed under the calling process's default tag.
    if (mask != 0) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr,
                            "[BpfWakeupDetector] clear overflowing map:%u", mask);
    }
}

}  // namespace

// The screen state map stays open, and locked, through the follow-up steps, so the locks are
// always taken in the order screen state map, check map, reset map.
int bpfUpdateScreenStateMap(uint32_t screenState, uint64_t stamp) {
    BpfMap map(maps::kScreenState);
    if (auto status = openFailure(map, maps::kScreenState)) return *status;
    const ScreenState& state = screenState != 0 ? kScreenNonZero : kScreenZero;
    // Both entries are written, and the follow-up runs, even when the first write fails.
    const bool codeWritten = map.writeValue(kStateCodeKey, state.code, BPF_ANY).ok();
    const bool stampWritten = map.writeValue(state.stampKey, stamp, BPF_ANY).ok();
    if (screenState != 0) {
        resetOverflowingMaps();
    } else {
        clearIfOpened<maps::kImAppHbLen>();
    }
    return codeWritten && stampWritten ? 0 : -1;
}

}  // namespace android::bpf
