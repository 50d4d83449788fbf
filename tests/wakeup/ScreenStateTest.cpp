#include <errno.h>
#include <fcntl.h>

#include <string>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;

constexpr uint32_t kEntries = 3;

// Every map a screen-state change may touch.
struct DetectorMaps {
    TestMap<uint32_t, uint64_t> screen{maps::kScreenState};
    TestMap<uint32_t, uint32_t> check{maps::kOverflowingMapCheck};
    TestMap<uint32_t, uint32_t> hbLen{maps::kImAppHbLen};
    TestMap<uint64_t, uint32_t> inSeq{maps::kSkTcpCookieInSeq};
    TestMap<uint64_t, uint32_t> outSeq{maps::kSkTcpCookieOutSeq};
    TestMap<uint64_t, uint32_t> outAck{maps::kSkTcpCookieOutAck};
    TestMap<uint32_t, uint64_t> inWakeup{maps::kAppTcpInwakeup};
    TestMap<uint32_t, uint64_t> outWakeup{maps::kAppTcpOutwakeup};
    TestMap<uint32_t, uint64_t> wakeupDuration{maps::kAppTcpWakeupduration};

    // Gives every map but the screen state and check maps kEntries entries.
    void fill() const {
        for (uint32_t i = 1; i <= kEntries; ++i) {
            ASSERT_TRUE(hbLen.put(10000 + i, 300));
            for (auto* map : {&inSeq, &outSeq, &outAck}) ASSERT_TRUE(map->put(0xC00C1E00 + i, i));
            for (auto* map : {&inWakeup, &outWakeup, &wakeupDuration}) {
                ASSERT_TRUE(map->put(10000 + i, i));
            }
        }
    }

    // Entry counts of the maps under overflow check, by bit: 1, 2, 4, 8, 16, 32.
    std::vector<size_t> flaggable() const {
        return {inSeq.size(),    outSeq.size(),    outAck.size(),
                inWakeup.size(), outWakeup.size(), wakeupDuration.size()};
    }
};

std::vector<size_t> allFull() {
    return std::vector<size_t>(6, kEntries);
}

std::vector<LogLine> resetLine(uint32_t mask) {
    return {untaggedError("[BpfWakeupDetector] clear overflowing map:" + std::to_string(mask))};
}

class ScreenStateTest : public KernelTest {};

TEST_F(ScreenStateTest, RecordsTheStateCodeAndTheStampOfEachState) {
    DetectorMaps m;
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(1, 1000); }));
    EXPECT_EQ(2u, m.screen.get(1));
    EXPECT_EQ(1000u, m.screen.get(3));
    EXPECT_EQ(std::nullopt, m.screen.get(2));

    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(0, 2000); }));
    EXPECT_EQ(1u, m.screen.get(1));
    EXPECT_EQ(2000u, m.screen.get(2));
    EXPECT_EQ(1000u, m.screen.get(3)) << "the other state's stamp stays";

    constexpr uint64_t kWideStamp = 0x8877665544332211;
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(7, kWideStamp); }));
    EXPECT_EQ(2u, m.screen.get(1)) << "any non-zero state is state code 2";
    EXPECT_EQ(kWideStamp, m.screen.get(3));
    EXPECT_EQ(2000u, m.screen.get(2));
    EXPECT_EQ(3u, m.screen.size());
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(ScreenStateTest, OnlyTheValueOneUnderTheSixBitsActs) {
    DetectorMaps m;
    m.fill();
    for (auto [key, value] : {std::pair{1u, 1u}, {8u, 1u}, {2u, 2u}, {64u, 1u}}) {
        ASSERT_TRUE(m.check.put(key, value));
    }
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(1, 5); }));
    EXPECT_EQ((std::vector<size_t>{0, kEntries, kEntries, 0, kEntries, kEntries}), m.flaggable());
    EXPECT_EQ(0u, m.check.get(1));
    EXPECT_EQ(0u, m.check.get(8));
    EXPECT_EQ(2u, m.check.get(2));
    EXPECT_EQ(1u, m.check.get(64));
    EXPECT_EQ(4u, m.check.size());
    EXPECT_EQ(kEntries, m.hbLen.size()) << "a non-zero state keeps the heartbeat lengths";
    EXPECT_EQ(resetLine(9), takeLogs()) << "one line for all the maps reset";

    // The flags now read 0: nothing is reset and nothing is logged.
    m.fill();
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(1, 6); }));
    EXPECT_EQ(allFull(), m.flaggable());
    EXPECT_TRUE(takeLogs().empty());
}

// True while another open file description holds a lock on the map's lock byte.
bool lockHeld(const RawMap& map, uint32_t id) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = id;
    lock.l_len = 1;
    return fcntl(map.fd(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

TEST_F(ScreenStateTest, ResetGoesInBitOrderUnderTheScreenStateAndCheckLocks) {
    DetectorMaps m;
    m.fill();
    for (uint32_t bit : {32u, 16u, 8u, 4u, 2u, 1u}) ASSERT_TRUE(m.check.put(bit, 1));
    const uint32_t screenId = m.screen.id();
    const uint32_t checkId = m.check.id();
    // Each map opened, with the locks held at that moment.
    std::vector<std::string> opened;
    setBpfHook([&](int cmd, bpf_attr& attr, unsigned, int) -> std::optional<long> {
        if (cmd != BPF_OBJ_GET) return std::nullopt;
        std::string entry = reinterpret_cast<const char*>(attr.pathname);
        if (lockHeld(m.screen, screenId)) entry += " +screen";
        if (lockHeld(m.check, checkId)) entry += " +check";
        opened.push_back(entry);
        return std::nullopt;
    });
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(1, 5); }));
    const std::string both = " +screen +check";
    const std::vector<std::string> expected = {
            maps::kScreenState.path,
            maps::kOverflowingMapCheck.path + std::string(" +screen"),
            maps::kSkTcpCookieInSeq.path + both,
            maps::kSkTcpCookieOutSeq.path + both,
            maps::kSkTcpCookieOutAck.path + both,
            maps::kAppTcpInwakeup.path + both,
            maps::kAppTcpOutwakeup.path + both,
            maps::kAppTcpWakeupduration.path + both};
    EXPECT_EQ(expected, opened);
    EXPECT_EQ(std::vector<size_t>(6, 0), m.flaggable());
    for (uint32_t bit : {1u, 2u, 4u, 8u, 16u, 32u}) EXPECT_EQ(0u, m.check.get(bit));
    EXPECT_EQ(resetLine(63), takeLogs());
}

TEST_F(ScreenStateTest, ZeroStateDropsHeartbeatLengthsAndLeavesOverflowAlone) {
    DetectorMaps m;
    m.fill();
    for (uint32_t bit : {1u, 2u, 4u, 8u, 16u, 32u}) ASSERT_TRUE(m.check.put(bit, 1));
    EXPECT_EQ(0, noLeak([] { return bpfUpdateScreenStateMap(0, 5); }));
    EXPECT_EQ(0u, m.hbLen.size());
    EXPECT_EQ(0, bpfCommandCount(BPF_MAP_LOOKUP_ELEM)) << "the check map is not read";
    EXPECT_EQ(allFull(), m.flaggable());
    for (uint32_t bit : {1u, 2u, 4u, 8u, 16u, 32u}) EXPECT_EQ(1u, m.check.get(bit));
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(ScreenStateTest, AFailedStateWriteStillRunsTheRestAndReturnsMinusOne) {
    for (uint32_t state : {0u, 1u}) {
        // The first and second updates of a call are the state code and the stamp.
        for (int failing = 1; failing <= 2; ++failing) {
            SCOPED_TRACE(testing::Message() << "state " << state << ", update " << failing);
            DetectorMaps m;
            m.fill();
            ASSERT_TRUE(m.check.put(8, 1));
            failBpfCommand(BPF_MAP_UPDATE_ELEM, failing, EIO);
            EXPECT_EQ(-1, noLeak([&] { return bpfUpdateScreenStateMap(state, 5); }));

            const uint32_t stampKey = state == 0 ? 2 : 3;
            EXPECT_EQ(failing != 1, m.screen.get(1).has_value());
            EXPECT_EQ(failing != 2, m.screen.get(stampKey).has_value());
            if (state == 0) {
                EXPECT_EQ(0u, m.hbLen.size());
                EXPECT_TRUE(takeLogs().empty());
            } else {
                EXPECT_EQ(0u, m.inWakeup.size());
                EXPECT_EQ(0u, m.check.get(8));
                EXPECT_EQ(resetLine(8), takeLogs());
            }
        }
    }
}

}  // namespace
}  // namespace kovra::test
