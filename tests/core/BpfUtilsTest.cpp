#include <fcntl.h>
#include <sys/personality.h>

#include "Harness.h"

namespace kovra::test {
namespace {

class KernelVersionTest : public KernelTest {};

TEST_F(KernelVersionTest, ReleaseIsPackedWithoutMasking) {
    struct Case {
        const char* release;
        uint32_t packed;
    };
    for (const Case& c : {Case{"4.14.0", 0x040E0000}, Case{"4.13.255", 0x040D00FF},
                          Case{"4.14", 0x040E0000}, Case{"5.10", 0x050A0000},
                          Case{"6.1.0-13-arm64", 0x06010000}, Case{"4.13.65536", 0x040E0000},
                          Case{"4.13.65537", 0x040E0001}, Case{"linux", 0}, Case{"", 0}}) {
        setUnameRelease(c.release);
        EXPECT_EQ(c.packed, uncachedKernelVersion()) << c.release;
    }
    setUnameRelease(std::nullopt, /*fail=*/true);
    EXPECT_EQ(0u, uncachedKernelVersion());
}

TEST_F(KernelVersionTest, CachedVersionIsReadOnce) {
    const uint32_t first = kernelVersion();
    setUnameRelease("3.0.0");
    EXPECT_EQ(first, kernelVersion());
    EXPECT_EQ(0x03000000u, uncachedKernelVersion());
}

// The gate decides whether a map's sizes are checked at all. Each case needs a process whose
// cached version is still unset, so the test binary is re-executed for it; the probe opens a
// map whose value is one byte longer than the handle's, which only the check can notice.
TEST_F(KernelVersionTest, MapChecksRunFromKernel4_14On) {
    useReexecDeathTests();
    RawMap valueOneByteLonger(kTestMap.path, 4, 9);
    auto probeUnder = [](const char* release) {
        setUnameRelease(release);
        BpfMapRO<uint32_t, uint64_t> map(kTestMap);
        _exit(0);
    };
    for (const char* below : {"4.13.65535", "4.13.255", "3.18.140-android"}) {
        SCOPED_TRACE(below);
        EXPECT_EXIT(probeUnder(below), ::testing::ExitedWithCode(0), "");
    }
    for (const char* from : {"4.14", "4.14.0", "4.13.65536", "6.1.0"}) {
        SCOPED_TRACE(from);
        EXPECT_EXIT(probeUnder(from), ::testing::KilledBySignal(SIGABRT), "");
    }
}

// The same gate driven by the kernel itself: UNAME26 makes uname report a 2.6 release.
TEST_F(KernelVersionTest, Uname26PersonalitySkipsTheMapChecks) {
    useReexecDeathTests();
    RawMap valueOneByteLonger(kTestMap.path, 4, 9);
    auto open = [] {
        BpfMapRO<uint32_t, uint64_t> map(kTestMap);
        _exit(0);
    };
    EXPECT_EXIT(
            {
                if (personality(PER_LINUX | UNAME26) == -1) _exit(2);
                open();
            },
            ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(open(), ::testing::KilledBySignal(SIGABRT), "");
}

class BpfLockTest : public KernelTest {};

TEST_F(BpfLockTest, NegativeDescriptorComesBackUntouched) {
    errno = EXDEV;
    EXPECT_EQ(-9, bpfLock(-9, F_RDLCK));
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(0, bpfCommandCount(BPF_OBJ_GET_INFO_BY_FD));
}

TEST_F(BpfLockTest, RefusedLockClosesTheDescriptor) {
    const TypedMap map(kTestMap);
    auto open = [] { return RawMap::open(kTestMap.path, sandbox::Access::kReadWrite); };
    std::optional<RawMap> holder = open();
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_start = map.info().id;
    lock.l_len = 1;
    ASSERT_EQ(0, fcntl(holder->fd(), F_OFD_SETLK, &lock));

    const int fd = dup(open().fd());
    EXPECT_EQ(-1, bpfLock(fd, F_RDLCK));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "the refused descriptor must be closed";
    holder.reset();

    const int again = dup(open().fd());
    EXPECT_EQ(again, bpfLock(again, F_RDLCK));
    close(again);
}

}  // namespace
}  // namespace kovra::test
