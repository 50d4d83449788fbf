// The TCP wake-up detector: the heartbeat lengths and the screen-state switch with its reset of
// the maps flagged as overflowing (the counter readers are among the copying services, core/).
#include <fcntl.h>

#include <algorithm>

#include "Harness.h"

namespace kovra::test {
namespace {

class WakeupCountersDeathTest : public KernelTest {};

TEST_F(WakeupCountersDeathTest, HeartbeatLengthIsCreatedOrReplacedInAWritableMapOnly) {
    TypedMap map(maps::kImAppHbLen, 2);
    EXPECT_EQ(0, noLeak([] { return bpfAddAppImHbLenMap(10123, 300); }));
    EXPECT_EQ(0, noLeak([] { return bpfAddAppImHbLenMap(10123, 120); }));
    EXPECT_EQ(0, noLeak([] { return bpfAddAppImHbLenMap(10200, 45); }));
    EXPECT_EQ(-1, noLeak([] { return bpfAddAppImHbLenMap(10300, 60); })) << "the map is full";
    EXPECT_EQ(120u, map.get(10123));
    EXPECT_TRUE(takeLogs().empty());

    reportMapFlags(BPF_F_RDONLY);
    expectAborts([] { bpfAddAppImHbLenMap(10123, 1); });
    EXPECT_EQ(120u, map.get(10123));
}

using Flags = std::vector<std::pair<uint32_t, uint32_t>>;

constexpr uint32_t kEntries = 3;

// Every map a screen-state change may touch.
struct DetectorMaps {
    TypedMap<uint32_t, uint64_t> screen{maps::kScreenState};
    TypedMap<uint32_t, uint32_t> check{maps::kOverflowingMapCheck};
    TypedMap<uint32_t, uint32_t> hbLen{maps::kImAppHbLen};
    TypedMap<uint64_t, uint32_t> inSeq{maps::kSkTcpCookieInSeq};
    TypedMap<uint64_t, uint32_t> outSeq{maps::kSkTcpCookieOutSeq};
    TypedMap<uint64_t, uint32_t> outAck{maps::kSkTcpCookieOutAck};
    TypedMap<uint32_t, uint64_t> inWakeup{maps::kAppTcpInwakeup};
    TypedMap<uint32_t, uint64_t> outWakeup{maps::kAppTcpOutwakeup};
    TypedMap<uint32_t, uint64_t> wakeupDuration{maps::kAppTcpWakeupduration};

    // Gives the heartbeat map and the six flaggable maps kEntries entries each.
    void fill() const {
        for (uint32_t i = 1; i <= kEntries; ++i) {
            hbLen.put(i, 300);
            for (auto* map : {&inSeq, &outSeq, &outAck}) map->put(i, i);
            for (auto* map : {&inWakeup, &outWakeup, &wakeupDuration}) map->put(i, i);
        }
    }
    // Entry counts of the flaggable maps, by bit: 1, 2, 4, 8, 16, 32.
    std::vector<size_t> flaggable() const {
        return {inSeq.size(),    outSeq.size(),    outAck.size(),
                inWakeup.size(), outWakeup.size(), wakeupDuration.size()};
    }
};

// A map's entries in key order.
template <typename K, typename V>
std::vector<std::pair<K, V>> entries(const TypedMap<K, V>& map) {
    auto out = map.entries();
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<LogLine> resetLine(uint32_t mask) {
    return {untaggedError("[BpfWakeupDetector] clear overflowing map:" + std::to_string(mask))};
}

// True while another open file description holds a lock on the map's lock byte.
bool lockHeld(const RawMap& map, uint32_t id) {
    struct flock lock = {F_WRLCK, SEEK_SET, off_t{id}, 1, 0};
    return fcntl(map.fd(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

class ScreenStateTest : public KernelTest {};

TEST_F(ScreenStateTest, ZeroDropsHeartbeatsAndNonZeroResetsFlaggedMapsInLockOrder) {
    DetectorMaps m;
    m.fill();
    for (uint32_t bit : {32u, 16u, 8u, 4u, 2u, 1u}) m.check.put(bit, 1);
    // Each map opened, with the locks held at that moment.
    std::vector<std::string> opened;
    setBpfHook([&, screenId = m.screen.info().id, checkId = m.check.info().id](
                       int cmd, bpf_attr& attr, unsigned, int) -> std::optional<long> {
        if (cmd != BPF_OBJ_GET) return std::nullopt;
        std::string entry = reinterpret_cast<const char*>(attr.pathname);
        if (lockHeld(m.screen, screenId)) entry += " +screen";
        if (lockHeld(m.check, checkId)) entry += " +check";
        opened.push_back(entry);
        return std::nullopt;
    });
    const std::string screen = " +screen", both = " +screen +check";
    using Screen = std::vector<std::pair<uint32_t, uint64_t>>;

    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(0, 2000); }));
    EXPECT_EQ((Screen{{1, 1}, {2, 2000}}), entries(m.screen));
    EXPECT_EQ((std::vector<std::string>{maps::kScreenState.path, maps::kImAppHbLen.path + screen}),
              opened)
            << "a zero state touches neither the check map nor a counter map";
    EXPECT_EQ(0u, m.hbLen.size());
    EXPECT_TRUE(takeLogs().empty());

    opened.clear();
    constexpr uint64_t kWideStamp = 0x8877665544332211;
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(7, kWideStamp); }));
    EXPECT_EQ((Screen{{1, 2}, {2, 2000}, {3, kWideStamp}}), entries(m.screen))
            << "any non-zero state is code 2; the zero state's stamp stays";
    EXPECT_EQ((std::vector<std::string>{
                      maps::kScreenState.path, maps::kOverflowingMapCheck.path + screen,
                      maps::kSkTcpCookieInSeq.path + both, maps::kSkTcpCookieOutSeq.path + both,
                      maps::kSkTcpCookieOutAck.path + both, maps::kAppTcpInwakeup.path + both,
                      maps::kAppTcpOutwakeup.path + both, maps::kAppTcpWakeupduration.path + both}),
              opened)
            << "flagged maps are reset in bit order; the heartbeat map stays shut";
    EXPECT_EQ(std::vector<size_t>(6, 0), m.flaggable());
    EXPECT_EQ((Flags{{1, 0}, {2, 0}, {4, 0}, {8, 0}, {16, 0}, {32, 0}}), entries(m.check));
    EXPECT_EQ(resetLine(63), takeLogs());

    // Only the value 1 under the six bits counts, and one line tells all the maps reset.
    m.fill();
    for (auto [key, value] : {std::pair{1u, 1u}, {8u, 1u}, {2u, 2u}, {64u, 1u}}) {
        m.check.put(key, value);
    }
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(1, 5); }));
    EXPECT_EQ((std::vector<size_t>{0, kEntries, kEntries, 0, kEntries, kEntries}), m.flaggable());
    EXPECT_EQ((Flags{{1, 0}, {2, 2}, {4, 0}, {8, 0}, {16, 0}, {32, 0}, {64, 1}}), entries(m.check));
    EXPECT_EQ(resetLine(9), takeLogs());

    // No flag is set any more: nothing is reset and nothing is logged.
    m.fill();
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(1, 6); }));
    EXPECT_EQ(std::vector<size_t>(6, kEntries), m.flaggable());
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(ScreenStateTest, AFailedStateWriteStillRunsTheRestAndReturnsMinusOne) {
    // The first and second updates of a call are the state code and the stamp.
    for (auto [state, failing] : {std::pair{0u, 1}, {0u, 2}, {1u, 1}, {1u, 2}}) {
        SCOPED_TRACE(testing::Message() << "state " << state << ", update " << failing);
        DetectorMaps m;
        m.fill();
        m.check.put(8, 1);
        failBpfCommand(BPF_MAP_UPDATE_ELEM, failing, EIO);
        EXPECT_EQ(-1, noLeak([s = state] { return bpfUpdateScreenStateMap(s, 5); }));
        EXPECT_EQ(failing != 1, m.screen.get(1).has_value());
        EXPECT_EQ(failing != 2, m.screen.get(state == 0 ? 2 : 3).has_value());
        // The follow-up ran: the heartbeat lengths or the flagged map are gone.
        EXPECT_EQ(0u, state == 0 ? m.hbLen.size() : m.inWakeup.size());
        EXPECT_EQ(state == 0 ? std::vector<LogLine>{} : resetLine(8), takeLogs());
    }
}

}  // namespace
}  // namespace kovra::test
