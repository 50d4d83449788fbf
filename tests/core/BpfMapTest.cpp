#include <fcntl.h>

#include <set>

#include "Harness.h"

namespace kovra::test {
namespace {

class BpfMapTest : public KernelTest {};

void fill(const TypedMap<uint32_t, uint64_t>& map, uint32_t n) {
    for (uint32_t k = 1; k <= n; ++k) map.put(k, k * 10ull);
}

// Every failure is the operation's own message with the kernel's errno.
template <typename T>
void expectError(const Result<T>& result, const char* message, int err) {
    ASSERT_FALSE(result.ok()) << message;
    EXPECT_EQ(message, result.error().message());
    EXPECT_EQ(err, result.error().code()) << message;
}

TEST_F(BpfMapTest, SingleOperationsReportMessageAndErrno) {
    TypedMap map(kTestMap);
    map.put(7, 70);
    BpfMap<uint32_t, uint64_t> handle(kTestMap);
    EXPECT_EQ(70u, handle.readValue(7).value());
    expectError(handle.readValue(8), "BpfMap::readValue() failed", ENOENT);
    EXPECT_EQ(7u, handle.getFirstKey().value());
    expectError(handle.getNextKey(7), "BpfMap::getNextKey() failed", ENOENT);
    // The flags go to the kernel as given: BPF_NOEXIST refuses an existing key.
    expectError(handle.writeValue(7, 71, BPF_NOEXIST), "BpfMap::writeValue() failed", EEXIST);
    ASSERT_TRUE(handle.writeValue(7, 72, BPF_ANY).ok());
    EXPECT_EQ(72u, map.get(7));
    ASSERT_TRUE(handle.deleteValue(7).ok());
    expectError(handle.deleteValue(7), "BpfMap::deleteValue() failed", ENOENT);
    expectError(handle.getFirstKey(), "BpfMap::getFirstKey() failed", ENOENT);
}

TEST_F(BpfMapTest, WalkVisitsEveryEntryAndToleratesDeletingTheCurrentOne) {
    TypedMap map(kTestMap);
    BpfMap<uint32_t, uint64_t> handle(kTestMap);
    int calls = 0;
    auto count = [&](const uint32_t&, const uint64_t&, const BpfMapRO<uint32_t, uint64_t>&) {
        ++calls;
        return Result<void>{};
    };
    EXPECT_TRUE(handle.iterateWithValue(count).ok());
    EXPECT_EQ(0, calls) << "an empty map calls nothing";
    EXPECT_TRUE(handle.clear().ok());

    fill(map, 50);
    std::set<uint32_t> seen;
    auto result = handle.iterateWithValue(
            [&](const uint32_t& key, const uint64_t& value, BpfMap<uint32_t, uint64_t>& self) {
                EXPECT_EQ(key * 10ull, value);
                seen.insert(key);
                return self.deleteValue(key);
            });
    EXPECT_TRUE(result.ok()) << result.error().message();
    EXPECT_EQ(50u, seen.size());
    EXPECT_EQ(0u, map.size());
}

TEST_F(BpfMapTest, WalkStopsAtTheFirstFailingStepOrCallback) {
    TypedMap map(kTestMap);
    fill(map, 5);
    const BpfMapRO<uint32_t, uint64_t> handle(kTestMap);
    int calls = 0;
    auto count = [&](const uint32_t&, const uint64_t&, const BpfMapRO<uint32_t, uint64_t>&) {
        ++calls;
        return Result<void>{};
    };

    // The callback's own error comes back unchanged and ends the walk after that entry.
    auto stop = handle.iterateWithValue(
            [&](const uint32_t&, const uint64_t&, const auto&) -> Result<void> {
                if (++calls == 2) return android::bpf::bpfError("callback says stop", EDOM);
                return {};
            });
    EXPECT_EQ(2, calls);
    expectError(stop, "callback says stop", EDOM);

    for (const WalkFailure& c : kWalkFailures) {
        failBpfCommand(c.cmd, c.nth, c.err);
        calls = 0;
        expectError(handle.iterateWithValue(count), c.message, c.err);
        EXPECT_EQ(c.read, size_t(calls)) << c.message;
    }
    EXPECT_EQ(5u, map.size()) << "a read-only walk never changes the map";
}

TEST_F(BpfMapTest, EntryDeletedBehindTheWalkEndsItWithReadValueEnoent) {
    TypedMap map(kTestMap);
    fill(map, 3);
    const auto order = map.keys();
    const BpfMapRO<uint32_t, uint64_t> handle(kTestMap);
    // Someone else deletes the entry the walk is about to read.
    auto result = handle.iterateWithValue([&](const uint32_t& key, const uint64_t&, const auto&) {
        if (key == order[0]) map.erase(order[1]);
        return Result<void>{};
    });
    expectError(result, "BpfMap::readValue() failed", ENOENT);
}

TEST_F(BpfMapTest, ClearEmptiesTheMapAndLogsOnlyRealDeleteFailures) {
    TypedMap map(kTestMap, 2048);
    fill(map, 1000);
    BpfMap<uint32_t, uint64_t> handle(kTestMap);
    // A key deleted by someone else (ENOENT) is no failure: clear goes on.
    failBpfCommand(BPF_MAP_DELETE_ELEM, 5, ENOENT);
    ASSERT_TRUE(handle.clear().ok());
    EXPECT_EQ(0u, map.size());
    EXPECT_TRUE(takeLogs().empty());

    fill(map, 4);
    resetInterposers();
    failBpfCommand(BPF_MAP_DELETE_ELEM, 2, EPERM);
    expectError(handle.clear(), "BpfMap::deleteValue() failed", EPERM);
    EXPECT_EQ(3u, map.size());
    EXPECT_EQ(std::vector{untaggedError("Failed to delete data Operation not permitted")},
              takeLogs());

    resetInterposers();
    failBpfCommand(BPF_MAP_GET_NEXT_KEY, 1, EACCES);
    expectError(handle.clear(), "BpfMap::getFirstKey() failed", EACCES);
    EXPECT_TRUE(takeLogs().empty());
}

// A map the kernel froze (BPF_MAP_FREEZE) still opens read-write and reads, but every write
// through the handle fails with EPERM; the desk's probe (a keyless delete) tells it apart from an
// unfrozen map on every kernel generation the tests run on.
TEST_F(BpfMapTest, FrozenMapReadsButRefusesWritesWithEperm) {
    TypedMap map(kTestMap);
    map.put(7, 70);
    EXPECT_FALSE(map.frozen());
    map.freeze();
    EXPECT_TRUE(map.frozen());
    BpfMap<uint32_t, uint64_t> handle(kTestMap);
    EXPECT_EQ(70u, handle.readValue(7).value());
    expectError(handle.writeValue(7, 71, BPF_ANY), "BpfMap::writeValue() failed", EPERM);
    expectError(handle.deleteValue(7), "BpfMap::deleteValue() failed", EPERM);
    EXPECT_EQ(70u, map.get(7).value());
}

TEST_F(BpfMapTest, HandleClosesItsDescriptorAndKeepsErrno) {
    TypedMap map(kTestMap);
    const int before = openFdCount();
    {
        BpfMap<uint32_t, uint64_t> rw(kTestMap);
        const BpfMapRO<uint32_t, uint64_t> ro(kTestMap);
        EXPECT_EQ(before + 2, openFdCount());
        errno = EXDEV;
    }
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(before, openFdCount());
}

// ---- Construction checks: every failure ends the process without a log line. ----

using BpfMapDeathTest = BpfMapTest;

TEST_F(BpfMapDeathTest, MissingOrMisshapenMapsAbort) {
    expectAborts([&] { BpfMapRO<uint32_t, uint64_t>{kTestMap}; });
    expectAborts([&] { BpfMap<uint32_t, uint64_t>{kTestMap}; });

    RawMap wideKey(kTestMap.path, 8, 8);
    expectAborts([&] { BpfMapRO<uint32_t, uint64_t>{kTestMap}; });
    RawMap valueOneByteLonger(kTestMap.path, 4, 9);
    expectAborts([&] { BpfMapRO<uint32_t, uint64_t>{kTestMap}; });
    expectAborts([&] { BpfMap<uint32_t, uint64_t>{kTestMap}; });
}

TEST_F(BpfMapDeathTest, MapFlagsDecideWhichHandleMayOpenIt) {
    TypedMap map(kTestMap);
    reportMapFlags(BPF_F_RDONLY);
    const BpfMapRO<uint32_t, uint64_t> ro(kTestMap);
    EXPECT_GE(ro.getMap().get(), 0) << "read-only maps are fine for reading";
    expectAborts([&] { BpfMap<uint32_t, uint64_t>{kTestMap}; });

    reportMapFlags(BPF_F_WRONLY);
    expectAborts([&] { BpfMapRO<uint32_t, uint64_t>{kTestMap}; });
    expectAborts([&] { BpfMap<uint32_t, uint64_t>{kTestMap}; });

    reportMapFlags(BPF_F_NO_PREALLOC);
    const BpfMap<uint32_t, uint64_t> rw(kTestMap);
    EXPECT_GE(rw.getMap().get(), 0) << "other flags do not matter";
}

TEST_F(BpfMapDeathTest, InfoQueriesThatFailOrReplyShortAbort) {
    TypedMap map(kTestMap);
    // Each of the three info queries (flags, key size, value size) is needed.
    for (int nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE(nth);
        failBpfCommand(BPF_OBJ_GET_INFO_BY_FD, nth, EIO);
        expectAborts([&] { BpfMapRO<uint32_t, uint64_t>{kTestMap}; });
    }
    // A kernel whose reply stops short of the flags word.
    setBpfHook([](int cmd, bpf_attr& attr, unsigned size, int) -> std::optional<long> {
        if (cmd != BPF_OBJ_GET_INFO_BY_FD) return std::nullopt;
        const long rv = realBpf(cmd, &attr, size);
        attr.info.info_len = 20;
        return rv;
    });
    expectAborts([&] { BpfMapRO<uint32_t, uint64_t>{kTestMap}; });
    EXPECT_TRUE(takeLogs().empty());
}

// ---- The shared lock of read-write openers. ----

struct flock byteLock(short type, uint32_t id) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = id;
    lock.l_len = 1;
    return lock;
}

int openRaw(const char* path) {
    bpf_attr attr{};
    attr.pathname = reinterpret_cast<uintptr_t>(path);
    return static_cast<int>(realBpf(BPF_OBJ_GET, &attr, sizeof(attr)));
}

TEST_F(BpfMapDeathTest, ReadWriteOpenersShareTheLockAndAWriteLockExcludesThem) {
    TypedMap map(kTestMap);
    const uint32_t id = map.info().id;
    const int probe = openRaw(kTestMap.path);
    ASSERT_GE(probe, 0);
    {
        BpfMap<uint32_t, uint64_t> first(kTestMap);
        BpfMap<uint32_t, uint64_t> second(kTestMap);
        ASSERT_TRUE(second.writeValue(1, 1, BPF_ANY).ok());
        struct flock lock = byteLock(F_WRLCK, id);
        EXPECT_EQ(-1, fcntl(probe, F_OFD_SETLK, &lock)) << "readers hold the byte";
        EXPECT_EQ(EAGAIN, errno);
        // Read-only openers take no lock.
        const BpfMapRO<uint32_t, uint64_t> reader(kTestMap);
    }
    struct flock lock = byteLock(F_WRLCK, id);
    ASSERT_EQ(0, fcntl(probe, F_OFD_SETLK, &lock)) << "closing the handles released the lock";
    const BpfMapRO<uint32_t, uint64_t> reader(kTestMap);
    expectAborts([&] { BpfMap<uint32_t, uint64_t>{kTestMap}; });
    close(probe);
}

TEST_F(BpfMapDeathTest, MapIdDecidesWhetherTheLockCanBeTaken) {
    TypedMap map(kTestMap);
    // Query order of a read-write open: the lock's id query comes first.
    auto replyToFirstInfo = [](std::function<long(bpf_attr&)> reply) {
        setBpfHook([reply](int cmd, bpf_attr& attr, unsigned, int nth) -> std::optional<long> {
            if (cmd != BPF_OBJ_GET_INFO_BY_FD || nth != 1) return std::nullopt;
            return reply(attr);
        });
    };
    replyToFirstInfo([](bpf_attr&) {
        errno = EINVAL;  // a kernel that cannot report map ids
        return -1L;
    });
    {
        BpfMap<uint32_t, uint64_t> unlocked(kTestMap);
        const int probe = openRaw(kTestMap.path);
        struct flock lock = byteLock(F_WRLCK, map.info().id);
        EXPECT_EQ(0, fcntl(probe, F_OFD_SETLK, &lock)) << "no lock was taken";
        close(probe);
    }
    replyToFirstInfo([](bpf_attr&) {
        errno = EPERM;
        return -1L;
    });
    expectAborts([&] { BpfMap<uint32_t, uint64_t>{kTestMap}; });
    // Success with the zeroed buffer untouched: map id 0, which names no map.
    replyToFirstInfo([](bpf_attr&) { return 0L; });
    expectAborts([&] { BpfMap<uint32_t, uint64_t>{kTestMap}; });
}

}  // namespace
}  // namespace kovra::test
