// Services called in a loop while a separate "kernel side" process inserts, updates and deletes
// entries of the same maps as fast as it can. Every call must return a status its service may
// return, leak no descriptor, log exactly the line its outcome calls for, and report each record
// exactly as the kernel handed it over. The writer makes every record from its key and a
// version, so a record can be told for one that was written or one the kernel tore; the count of
// torn ones is printed.
//
// Runs for KOVRA_STRESS_SECONDS seconds (15 by default).
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <random>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;

// Few keys, so that the writer keeps hitting the entries a walk is passing.
constexpr uint32_t kKeys = 256;

// The record the writer puts under `key` at its `version`: the version in the first four bytes,
// every other byte a function of both.
template <typename V>
V written(uint32_t key, uint32_t version) {
    static_assert(sizeof(V) >= 8);
    V value;
    auto* bytes = reinterpret_cast<uint8_t*>(&value);
    memcpy(bytes, &version, sizeof(version));
    for (size_t i = sizeof(version); i < sizeof(V); ++i) {
        bytes[i] = static_cast<uint8_t>(key * 131 + version * 7 + i);
    }
    return value;
}

template <typename V>
bool wasWritten(uint32_t key, const V& value) {
    uint32_t version;
    memcpy(&version, &value, sizeof(version));
    return key < kKeys && sameBytes(value, written<V>(key, version));
}

// One map the writer churns: how to make its key and its record for (key, version).
struct Churned {
    const RawMap* map;
    std::function<void(uint32_t key, uint32_t version)> put;
    std::function<void(uint32_t key)> erase;
};

template <typename K, typename V>
Churned churned(const TestMap<K, V>& map) {
    return {&map,
            [&map](uint32_t key, uint32_t version) { map.put(K(key), written<V>(key, version)); },
            [&map](uint32_t key) { map.erase(K(key)); }};
}

// The kernel side: a child process writing until it is killed. Returns its pid; `ops` counts
// its writes in memory shared with the parent.
pid_t startWriter(const std::vector<Churned>& maps, std::atomic<uint64_t>* ops) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::minstd_rand random(getpid());
    for (uint32_t version = 1;; ++version) {
        const Churned& target = maps[version % maps.size()];
        const uint32_t key = random() % kKeys;
        if (random() % 3 == 0) {
            target.erase(key);
        } else {
            target.put(key, version);
        }
        ops->fetch_add(1, std::memory_order_relaxed);
    }
}

struct Tally {
    const char* service;
    int calls = 0, incomplete = 0, torn = 0;
};

// The kernel's replies to the lookups of one service call, by key, the first one kept as the
// caller's table keeps the first record under a key. The kernel may reply with a record nobody
// wrote: a preallocated hash map hands a replaced element back to its free list at once, so a
// lookup racing two updates can copy a value while it is being rewritten for another key. The
// library cannot tell; what it owes is to report exactly what the kernel replied.
template <typename K, typename V>
class Replies {
  public:
    Replies() {
        setBpfHook([this](int cmd, bpf_attr& attr, unsigned size, int) -> std::optional<long> {
            if (cmd != BPF_MAP_LOOKUP_ELEM) return std::nullopt;
            const long rv = realBpf(cmd, &attr, size);
            const int err = errno;
            if (rv == 0) {
                K key;
                V value;
                memcpy(&key, reinterpret_cast<const void*>(attr.key), sizeof(K));
                memcpy(&value, reinterpret_cast<const void*>(attr.value), sizeof(V));
                mReplies.try_emplace(key, value);
            }
            errno = err;
            return rv;
        });
    }
    ~Replies() { setBpfHook(nullptr); }

    // Checks a reported record against the reply for its key, `expected` turning the kernel's
    // record into what the service reports for it.
    template <typename Reported, typename Expected>
    void check(Tally& tally, K key, const Reported& reported, Expected expected) const {
        const auto reply = mReplies.find(key);
        ASSERT_NE(mReplies.end(), reply)
                << tally.service << " reported key " << key << " the kernel never returned";
        EXPECT_TRUE(sameBytes(expected(reply->second), reported))
                << tally.service << " changed the record of key " << key;
        if (!wasWritten(key, reply->second)) ++tally.torn;
    }

  private:
    std::unordered_map<K, V> mReplies;
};

// A walk either completes (0, nothing logged) or stops where the writer deleted the entry it was
// about to read (-1 and the one line naming the failed read).
template <typename V, typename Table, typename Expected>
void callTotals(Tally& tally, int (*service)(Table&), const char* errorLine, Expected expected) {
    Table out;
    const Replies<uint32_t, V> replies;
    const int status = noLeak([&] { return service(out); });
    ++tally.calls;
    const auto logs = takeLogs();
    if (status == -1) {
        ++tally.incomplete;
        EXPECT_EQ(std::vector{kovra::test::errorLine(errorLine)}, logs) << tally.service;
    } else {
        EXPECT_EQ(0, status) << tally.service;
        EXPECT_TRUE(logs.empty()) << tally.service;
    }
    for (const auto& [uid, value] : out) {
        ASSERT_EQ(uid, static_cast<uint32_t>(uid)) << tally.service << " widened a UID wrongly";
        replies.check(tally, static_cast<uint32_t>(uid), value, expected);
    }
}

KovraStatsValue widened(const StatsValue& stats) {
    KovraStatsValue value{};
    memcpy(&value, &stats, sizeof(stats));
    return value;
}

KovraStatsValue asIs(const KovraStatsValue& value) {
    return value;
}

void callSingleUid(Tally& tally, uint32_t uid) {
    KovraStatsValue out{};
    const Replies<uint32_t, KovraStatsValue> replies;
    const int status = noLeak([&] { return bpfGetUidPurStats(uid, out); });
    ++tally.calls;
    const auto logs = takeLogs();
    if (status == -ENOENT) {
        ++tally.incomplete;
        EXPECT_EQ(std::vector{errorLine("Failed to get current uid " + std::to_string(uid) +
                                        " stats: No such file or directory")},
                  logs);
    } else {
        EXPECT_EQ(0, status);
        EXPECT_TRUE(logs.empty());
        replies.check(tally, uid, out, asIs);
    }
}

std::chrono::seconds stressDuration() {
    const char* seconds = getenv("KOVRA_STRESS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 15);
}

class StressTest : public KernelTest {};

TEST_F(StressTest, ServicesHoldUpWhileTheKernelSideWritesTheirMaps) {
    const TestMap netdStats(maps::kNetdAppUidStats);
    const TestMap purStats(maps::kUidPurStats);
    const std::vector<Churned> churn = {churned(netdStats), churned(purStats)};

    auto* ops = static_cast<std::atomic<uint64_t>*>(mmap(nullptr, sizeof(std::atomic<uint64_t>),
                                                         PROT_READ | PROT_WRITE,
                                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, ops);
    new (ops) std::atomic<uint64_t>(0);
    const pid_t writer = startWriter(churn, ops);
    ASSERT_GT(writer, 0) << strerror(errno);

    Tally totals{"bpfGetUidStatsTotal"}, purTotals{"bpfGetUidPurStatsTotal"},
            single{"bpfGetUidPurStats"};
    const auto deadline = std::chrono::steady_clock::now() + stressDuration();
    for (uint32_t round = 0; std::chrono::steady_clock::now() < deadline; ++round) {
        callTotals<StatsValue>(totals, bpfGetUidStatsTotal,
                               "bpfGetUidStatsTotalInternal end with error: "
                               "BpfMap::readValue() failed",
                               widened);
        callTotals<KovraStatsValue>(purTotals, bpfGetUidPurStatsTotal,
                                    "bpfGetFreezeStatsTotalInternal end with "
                                    "error: BpfMap::readValue() failed",
                                    asIs);
        callSingleUid(single, round % kKeys);
        if (HasFailure()) break;  // one broken contract is enough to read, not thousands
    }

    kill(writer, SIGKILL);
    int status;
    ASSERT_EQ(writer, waitpid(writer, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer stopped on its own";
    EXPECT_GT(ops->load(), 0u) << "the writer never wrote";
    for (const Tally* t : {&totals, &purTotals, &single}) {
        EXPECT_GT(t->calls - t->incomplete, 0) << t->service << " never completed";
        printf("%s: %d calls, %d cut short by the writer, %d records torn by the kernel\n",
               t->service, t->calls, t->incomplete, t->torn);
    }
    printf("writer: %lu writes\n", static_cast<unsigned long>(ops->load()));
    munmap(ops, sizeof(std::atomic<uint64_t>));
}

}  // namespace
}  // namespace kovra::test
