#include <algorithm>
#include <vector>

#include "Harness.h"
#include "SpeedRecords.h"

namespace kovra::test {
namespace {

using namespace android::bpf;

// Every map an interface's measurement touches, created in the test's private bpffs.
struct SpeedMaps {
    TestMap<uint32_t, IfIndexSpeedConfig> interfaces{maps::kAppSocketSpeedsIfindex};
    TestMap<uint64_t, SpeedsValue> sockets{maps::kAppSocketSpeeds};
    TestMap<UidIfindexKey, SpeedsValue> uids{maps::kAppUidSpeeds};
    TestMap<uint64_t, SocketTuple> info{maps::kAppSocketInfo};
};

SocketTuple socketOn(uint32_t ifindex) {
    SocketTuple tuple{};
    tuple.ifindex = ifindex;
    return tuple;
}

std::vector<uint32_t> uidsOf(const std::vector<UidIfindexKey>& keys) {
    std::vector<uint32_t> uids;
    for (const UidIfindexKey& key : keys) uids.push_back(key.uid);
    std::sort(uids.begin(), uids.end());
    return uids;
}

// Socket 10 + n and UID 100 + n were measured on interface n, except UID 1007, whose key names
// interface 7 while its value names interface 8.
void gatherOn(const SpeedMaps& kernel, std::initializer_list<uint32_t> interfaces) {
    for (uint32_t ifindex : interfaces) {
        ASSERT_TRUE(kernel.sockets.put(10 + ifindex, speedRecord(ifindex, 1, 2, 3, 4)));
        ASSERT_TRUE(kernel.uids.put({100 + ifindex, ifindex}, speedRecord(ifindex, 1, 2, 3, 4)));
        ASSERT_TRUE(kernel.info.put(10 + ifindex, socketOn(ifindex)));
    }
    ASSERT_TRUE(kernel.uids.put({1007, 7}, speedRecord(8, 1, 2, 3, 4)));
}

class InterfaceBindingTest : public KernelTest {};

TEST_F(InterfaceBindingTest, EnablingStoresOneAndReplacesTheLocalSwitch) {
    SpeedMaps kernel;
    gatherOn(kernel, {7});
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(7, 5, 1); }));
    EXPECT_TRUE(sameBytes(IfIndexSpeedConfig{1, 1}, *kernel.interfaces.get(7)));
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(7, -1, 0); }));
    EXPECT_TRUE(sameBytes(IfIndexSpeedConfig{1, 0}, *kernel.interfaces.get(7)));
    EXPECT_EQ(1u, kernel.sockets.size()) << "enabling leaves gathered data alone";
    EXPECT_TRUE(takeLogs().empty());

    failBpfCommand(BPF_MAP_UPDATE_ELEM, 1, E2BIG);
    EXPECT_EQ(-1, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(9, 1, 1); }));
    EXPECT_EQ(std::vector{errorLine(
                      "bpfUpdateAppSocketSpeedsIfindex failed! 9,1,Argument list too long")},
              takeLogs());
    EXPECT_FALSE(kernel.interfaces.get(9));
}

TEST_F(InterfaceBindingTest, DisablingWipesWhatTheValuesSayWasGatheredOnTheInterface) {
    SpeedMaps kernel;
    gatherOn(kernel, {7, 8, 9});
    ASSERT_TRUE(kernel.interfaces.put(7, {1, 1}));
    ASSERT_TRUE(kernel.interfaces.put(8, {1, 0}));

    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(7, 0, 1); }));
    EXPECT_EQ(std::vector<uint32_t>{8}, kernel.interfaces.keys());
    EXPECT_EQ((std::vector<uint64_t>{18, 19}), sorted(kernel.sockets.keys()));
    EXPECT_EQ((std::vector<uint64_t>{18, 19}), sorted(kernel.info.keys()));
    EXPECT_EQ((std::vector<uint32_t>{108, 109, 1007}), uidsOf(kernel.uids.keys()))
            << "UID 1007's value names interface 8";
    EXPECT_TRUE(takeLogs().empty());

    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(8, 0, 0); }));
    EXPECT_EQ(std::vector<uint32_t>{109}, uidsOf(kernel.uids.keys()));

    // Interface 9 was never enabled: its data still goes, but the table delete fails the call.
    EXPECT_EQ(-1, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(9, 0, 0); }));
    EXPECT_EQ(std::vector{errorLine(
                      "bpfUpdateAppSocketSpeedsIfindex failed! 9,0,No such file or directory")},
              takeLogs());
    EXPECT_EQ(0u, kernel.sockets.size() + kernel.uids.size() + kernel.info.size());
}

struct Sweep {
    int (*service)(uint32_t);
    const char* walkError;
};

TEST_F(InterfaceBindingTest, SweepsReportWalkErrorsAndADisableGoesOnRegardless) {
    SpeedMaps kernel;
    const Sweep sweeps[] = {
            {bpfDeleteIfindexSocketSpeeds,
             "bpfDeleteIfindexSocketSpeeds end with error: BpfMap::readValue() failed"},
            {bpfDeleteIfindexUidSpeeds,
             "bpfDeleteIfindexUidSpeeds end with error: BpfMap::readValue() failed"},
            {bpfDelIfIndexSocketInfoMap,
             "bpfDelIfIndexSocketInfoMap end with error: BpfMap::readValue() failed"},
    };
    gatherOn(kernel, {7, 8});
    for (const Sweep& sweep : sweeps) {
        failBpfCommand(BPF_MAP_LOOKUP_ELEM, 1, EIO);
        EXPECT_EQ(-1, noLeak([&] { return sweep.service(7); }));
        EXPECT_EQ(std::vector{errorLine(sweep.walkError)}, takeLogs());
        resetInterposers();
        EXPECT_EQ(0, noLeak([&] { return sweep.service(7); }));
        EXPECT_TRUE(takeLogs().empty());
    }
    EXPECT_EQ((std::vector<uint64_t>{18}), kernel.sockets.keys());
    EXPECT_EQ((std::vector<uint64_t>{18}), kernel.info.keys());

    // The first sweep of a disable fails at once; the others and the table delete still run.
    gatherOn(kernel, {7});
    ASSERT_TRUE(kernel.interfaces.put(7, {1, 0}));
    failBpfCommand(BPF_MAP_LOOKUP_ELEM, 1, EIO);
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsIfindex(7, 0, 0); }));
    EXPECT_EQ(std::vector{errorLine(sweeps[0].walkError)}, takeLogs());
    EXPECT_EQ(0u, kernel.interfaces.size());
    EXPECT_EQ(2u, kernel.sockets.size()) << "the failed sweep left socket 17";
    EXPECT_EQ((std::vector<uint64_t>{18}), kernel.info.keys());
}

TEST_F(InterfaceBindingTest, ConfigWordGoesUnderKeyZeroAndARejectedWriteStillSucceeds) {
    TestMap config(maps::kAppSocketSpeedsConfig);
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsConfig(0xDEADBEEF); }));
    EXPECT_EQ(std::vector<uint32_t>{0}, config.keys());
    EXPECT_EQ(0xDEADBEEF, *config.get(0));

    failBpfCommand(BPF_MAP_UPDATE_ELEM, 1, ENOSPC);
    EXPECT_EQ(0, noLeak([] { return bpfUpdateAppSocketSpeedsConfig(5); }));
    EXPECT_EQ(1, bpfCommandCount(BPF_MAP_UPDATE_ELEM)) << "the write was tried";
    EXPECT_EQ(0xDEADBEEF, *config.get(0));
    EXPECT_TRUE(takeLogs().empty());
}

}  // namespace
}  // namespace kovra::test
