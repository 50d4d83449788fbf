#include <errno.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "Harness.h"

namespace kovra::test {
namespace {

constexpr char kBpffs[] = "/sys/fs/bpf";

int removeEntry(const char* path, const struct stat*, int, struct FTW* ftw) {
    if (ftw->level == 0 || (ftw->level == 1 && preloadedBpffsEntries().count(path + ftw->base))) {
        return 0;
    }
    return remove(path) == 0 ? 0 : -1;
}

void emptyBpffs() {
    ASSERT_EQ(0, nftw(kBpffs, removeEntry, 16, FTW_DEPTH | FTW_PHYS)) << strerror(errno);
    ASSERT_EQ(0, mkdir("/sys/fs/bpf/netd_shared", 0700)) << strerror(errno);
}

void failTheTest(const std::string& what) {
    ADD_FAILURE() << what;
}

}  // namespace

void KernelTest::SetUp() {
    const std::string problem = enterPrivateBpffs();
    if (!problem.empty()) {
        const char* ci = getenv("CI");
        if (ci != nullptr && strcmp(ci, "true") == 0) {
            FAIL() << "kernel-map test cannot run: " << problem;
        }
        GTEST_SKIP() << "kernel-map test skipped: " << problem;
    }
    setFailureReporter(failTheTest);
    resetInterposers();
    emptyBpffs();
    takeLogs();
}

void KernelTest::TearDown() {
    resetInterposers();
}

void useReexecDeathTests() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

}  // namespace kovra::test
