#include "Live.h"

#include <sys/stat.h>

#include <bpf/bpf.h>

#include <kovrasandbox/Netns.h>

namespace kovra::test {

void LiveTest::SetUp() {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    static sandbox::PrivateNetwork network;
    static const std::string problem = sandbox::enterPrivateNetwork(network);
    ASSERT_EQ("", problem);
    struct stat netns;
    ASSERT_EQ(0, stat("/proc/self/ns/net", &netns));
    setenv(live::kNetnsEnv, std::to_string(netns.st_ino).c_str(), 1);
    using android::bpf::maps::kSkTcpCookieInSeq;
    using android::bpf::maps::kSkTcpCookieOutAck;
    using android::bpf::maps::kSkTcpCookieOutSeq;
    for (const android::bpf::PinnedMapInfo& row : android::bpf::kPinnedMaps) {
        const bool sequence = strcmp(row.path, kSkTcpCookieInSeq.path) == 0 ||
                              strcmp(row.path, kSkTcpCookieOutSeq.path) == 0 ||
                              strcmp(row.path, kSkTcpCookieOutAck.path) == 0;
        RawMap(row.path, row.keySize, row.valueSize, sequence ? kSequenceEntries : 4096);
    }
    try {
        mLive = std::make_unique<live::LiveSide>();
    } catch (const live::LiveError& e) {
        // Like a missing bpffs: a kernel without cgroup programs skips, except under CI.
        const char* ci = getenv("CI");
        if (!e.cannotAttach || (ci != nullptr && strcmp(ci, "true") == 0)) FAIL() << e.what();
        GTEST_SKIP() << "live test skipped: " << e.what();
    }
}

void LiveTest::TearDown() {
    mLive.reset();
    KernelTest::TearDown();
}

std::vector<traffic::Sent> LiveTest::drive(const std::vector<traffic::Flow>& flows) const {
    return traffic::run(flows, mLive->cgroup());
}

bool LiveTest::lookupRaw(const char* path, const void* key, void* value) {
    const int fd = bpf_obj_get(path);
    const bool found = fd >= 0 && bpf_map_lookup_elem(fd, key, value) == 0;
    if (fd >= 0) close(fd);
    return found;
}

traffic::Flow flow(uint32_t uid, uint32_t peer, uint64_t bytes) {
    traffic::Flow f;
    f.uid = uid;
    f.peerUid = peer;
    f.bytes = bytes;
    f.limitMs = 30000;
    return f;
}

}  // namespace kovra::test
