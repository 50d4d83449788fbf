#include <stdio.h>

#include "Harness.h"

// Found by argument-dependent lookup, so they live in the record's namespace.
namespace android::bpf {
static bool operator==(const AppFreezeConfig& a, const AppFreezeConfig& b) {
    return kovra::test::sameBytes(a, b);
}
static std::ostream& operator<<(std::ostream& os, const AppFreezeConfig& c) {
    return os << "{" << c.word0 << "," << c.word1 << "," << c.word2 << "}";
}
}  // namespace android::bpf

namespace kovra::test {
namespace {

class AppFreezeConfigTest : public KernelTest {};

constexpr uint32_t kKey = 1;

// Sets `config` and reports whether the setter went to the kernel for it (opened the map).
std::pair<int, bool> set(AppFreezeConfig config) {
    setBpfHook(nullptr);  // restarts the command counts
    const int status = noLeak([&] { return bpfSetAppFreezeConfig(config); });
    return {status, bpfCommandCount(BPF_OBJ_GET) > 0};
}

// A death-test child reports nothing of its own: it passes its failures on through stderr, which
// the parent prints, and through its exit status.
int exitStatusOfChild() {
    const testing::TestResult& result =
            *testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result.total_part_count(); ++i) {
        const testing::TestPartResult& part = result.GetTestPartResult(i);
        if (part.failed()) {
            fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
        }
    }
    return result.Failed() ? 1 : 0;
}

// The setter remembers what this process last wrote, so these cases each run in a freshly
// executed copy of the test binary; whatever the copy finds wrong fails the test here.
void inFreshProcess(const std::function<void()>& body) {
    useReexecDeathTests();
    EXPECT_EXIT(
            {
                body();
                _exit(exitStatusOfChild());
            },
            testing::ExitedWithCode(0), "");
}

TEST_F(AppFreezeConfigTest, GetReadsKeyOneThroughAReadWriteHandle) {
    TypedMap map(maps::kAppFreezeConfig);
    map.put(0, {9, 9, 9});
    AppFreezeConfig config{4, 5, 6};
    EXPECT_EQ(-ENOENT, noLeak([&] { return bpfGetAppFreezeConfig(config); }));
    EXPECT_EQ((AppFreezeConfig{4, 5, 6}), config) << "a failed read leaves the record untouched";
    EXPECT_EQ(std::vector{errorLine(
                      "Failed to get bpfSetAppFreezeConfig stats: No such file or directory")},
              takeLogs());

    std::vector<uint32_t> openFlags;
    setBpfHook([&](int cmd, bpf_attr& attr, unsigned, int) -> std::optional<long> {
        if (cmd == BPF_OBJ_GET) openFlags.push_back(attr.file_flags);
        return std::nullopt;
    });
    map.put(kKey, {1, 2, 4294967295u});
    EXPECT_EQ(0, noLeak([&] { return bpfGetAppFreezeConfig(config); }));
    EXPECT_EQ((AppFreezeConfig{1, 2, 4294967295u}), config);
    EXPECT_EQ(std::vector<uint32_t>{0}, openFlags) << "the getter opens the map read-write";
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(AppFreezeConfigTest, ThreeZerosAreSkippedOnlyUntilTheFirstWrite) {
    inFreshProcess([] {
        TypedMap map(maps::kAppFreezeConfig);
        EXPECT_EQ(std::pair(0, false), set({0, 0, 0}));
        EXPECT_EQ(0u, map.size());
        EXPECT_TRUE(takeLogs().empty());

        EXPECT_EQ(std::pair(0, true), set({1, 2, 4294967295u}));
        EXPECT_EQ((AppFreezeConfig{1, 2, 4294967295u}), map.get(kKey));
        EXPECT_EQ(std::vector{debugLine("succ update config 1,2,4294967295 over")}, takeLogs());

        EXPECT_EQ(std::pair(0, true), set({0, 0, 0}));
        EXPECT_EQ((AppFreezeConfig{0, 0, 0}), map.get(kKey));
        EXPECT_EQ(std::vector{debugLine("succ update config 0,0,0 over")}, takeLogs());
        EXPECT_EQ(1u, map.size());
    });
}

TEST_F(AppFreezeConfigTest, RepeatingTheLastWriteIsSkippedWhateverTheMapHolds) {
    inFreshProcess([] {
        TypedMap map(maps::kAppFreezeConfig);
        EXPECT_EQ(std::pair(0, true), set({1, 2, 3}));
        takeLogs();
        // Another process changes the record; this one neither notices nor, by reading it,
        // forgets what it wrote itself.
        map.put(kKey, {7, 7, 7});
        AppFreezeConfig read{};
        EXPECT_EQ(0, bpfGetAppFreezeConfig(read));
        EXPECT_EQ((AppFreezeConfig{7, 7, 7}), read);

        EXPECT_EQ(std::pair(0, false), set({1, 2, 3}));
        EXPECT_EQ((AppFreezeConfig{7, 7, 7}), map.get(kKey));
        EXPECT_TRUE(takeLogs().empty());

        EXPECT_EQ(std::pair(0, true), set({7, 7, 7})) << "only a write is remembered, not a read";
        EXPECT_EQ(std::vector{debugLine("succ update config 7,7,7 over")}, takeLogs());
    });
}

TEST_F(AppFreezeConfigTest, FailedWriteIsTriedAgain) {
    inFreshProcess([] {
        // A full map: the kernel refuses the new key 1.
        TypedMap map(maps::kAppFreezeConfig, /*maxEntries=*/1);
        map.put(0, {9, 9, 9});
        EXPECT_EQ(std::pair(-E2BIG, true), set({5, 6, 7}));
        EXPECT_EQ(std::vector{errorLine(
                          "Failed to get bpfSetAppFreezeConfig stats: Argument list too long")},
                  takeLogs());
        EXPECT_FALSE(map.get(kKey).has_value());

        ASSERT_TRUE(map.erase(0));
        EXPECT_EQ(std::pair(0, true), set({5, 6, 7}));
        EXPECT_EQ((AppFreezeConfig{5, 6, 7}), map.get(kKey));
        EXPECT_EQ(std::vector{debugLine("succ update config 5,6,7 over")}, takeLogs());
        EXPECT_EQ(std::pair(0, false), set({5, 6, 7}));
    });
}

}  // namespace
}  // namespace kovra::test
