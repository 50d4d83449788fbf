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

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <unordered_set>

#include "Harness.h"

namespace kovra::test {
namespace {

using namespace android::bpf;

// Few keys, so that the writer keeps hitting the entries a walk is passing.
constexpr uint32_t kKeys = 256;

// The record the writer puts under `key` at its `version`. A 32-bit value holds the key above
// the low bits of the version; a wider one holds the version in its first four bytes and a
// function of both everywhere else.
template <typename V>
V written(uint32_t key, uint32_t version) {
    if constexpr (sizeof(V) == sizeof(uint32_t)) {
        return key << 20 | (version & 0xfffff);
    } else {
        V value;
        auto* bytes = reinterpret_cast<uint8_t*>(&value);
        memcpy(bytes, &version, sizeof(version));
        for (size_t i = sizeof(version); i < sizeof(V); ++i) {
            bytes[i] = static_cast<uint8_t>(key * 131 + version * 7 + i);
        }
        return value;
    }
}

template <typename V>
bool wasWritten(uint32_t key, const V& value) {
    uint32_t version;
    memcpy(&version, &value, sizeof(version));
    return key < kKeys && sameBytes(value, written<V>(key, version));
}

// One map the writer churns: how it writes the record of (key, version) and deletes a key.
struct Churned {
    std::function<void(uint32_t key, uint32_t version)> put;
    std::function<void(uint32_t key)> erase;
};

// The writer's key `key` in the map's key type: the number in its low bytes.
template <typename K>
K keyOf(uint32_t key) {
    K wide{};
    memcpy(&wide, &key, sizeof(key));
    return wide;
}

template <typename K, typename V>
Churned churned(const TestMap<K, V>& map) {
    return {[&map](uint32_t key, uint32_t version) {
                map.put(keyOf<K>(key), written<V>(key, version));
            },
            [&map](uint32_t key) { map.erase(keyOf<K>(key)); }};
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
                uint64_t key = 0;
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

    // Checks a record reported under `key` (the map key's bytes read as a number) against the
    // reply for that key: `matches(reply, reported)` says whether the service made the one from
    // the other.
    template <typename Reported, typename Matches>
    void check(Tally& tally, uint64_t key, const Reported& reported, Matches matches) const {
        const auto reply = mReplies.find(key);
        ASSERT_NE(mReplies.end(), reply)
                << tally.service << " reported key " << key << " the kernel never returned";
        EXPECT_TRUE(matches(reply->second, reported))
                << tally.service << " changed the record of key " << key;
        if (!wasWritten(static_cast<uint32_t>(key), reply->second)) ++tally.torn;
    }

  private:
    std::unordered_map<uint64_t, V> mReplies;
};

template <typename V>
bool asIs(const V& reply, const V& reported) {
    return sameBytes(reply, reported);
}

// How a service reports a walk the writer cut short: the status it returns then, and the line
// it logs (none for the services that log nothing).
struct CutShort {
    int status;
    const char* line;
};

// A walk either completes (0, nothing logged) or is cut short where the writer deleted the entry
// it was about to read. The socket report's debug line per reported socket is no part of that.
template <typename K, typename V, typename Table, typename Matches = bool (*)(const V&, const V&)>
void callWalker(Tally& tally, int (*service)(Table&), CutShort cutShort,
                Matches matches = asIs<V>) {
    Table out;
    const Replies<K, V> replies;
    const int status = noLeak([&] { return service(out); });
    ++tally.calls;
    std::vector<LogLine> logs = takeLogs();
    logs.erase(std::remove_if(logs.begin(), logs.end(),
                              [](const LogLine& l) {
                                  return l.priority == 3 && l.text.rfind("add speed ", 0) == 0;
                              }),
               logs.end());
    std::vector<LogLine> cutLines;
    if (cutShort.line != nullptr) cutLines.push_back(errorLine(cutShort.line));
    if (status == cutShort.status && logs == cutLines && (status != 0 || !logs.empty())) {
        ++tally.incomplete;
    } else {
        EXPECT_EQ(0, status) << tally.service;
        EXPECT_EQ(std::vector<LogLine>{}, logs) << tally.service;
    }
    for (const auto& [key, value] : out) {
        replies.check(tally, static_cast<uint64_t>(key), value, matches);
    }
}

bool widened(const StatsValue& reply, const KovraStatsValue& reported) {
    KovraStatsValue value{};
    memcpy(&value, &reply, sizeof(reply));
    return sameBytes(value, reported);
}

// A reported speed is the record's in kbps, or 0 when its direction has gone stale.
bool inKbps(uint64_t reported, uint64_t raw) {
    return reported == 0 || reported == raw / 1000;
}

bool socketInKbps(const SpeedsValue& reply, const SpeedsValue& reported) {
    SpeedsValue rest = reported;
    rest.firstSpeed = reply.firstSpeed;
    rest.secondSpeed = reply.secondSpeed;
    return sameBytes(rest, reply) && inKbps(reported.firstSpeed, reply.firstSpeed) &&
           inKbps(reported.secondSpeed, reply.secondSpeed);
}

bool pairInKbps(const SpeedsValue& reply, const IfaceSpeedsValue& reported) {
    return inKbps(reported.firstSpeedKbps, reply.firstSpeed) &&
           inKbps(reported.secondSpeedKbps, reply.secondSpeed);
}

// Every socket the writer keeps, whatever its speed.
int reportAllSockets(std::unordered_map<uint64_t, SpeedsValue>& out) {
    std::unordered_set<uint64_t> watched;
    return bpfGetAppSocketSpeedsTotal(out, 1000, 0, watched);
}

int reportAllPairs(std::unordered_map<uint64_t, IfaceSpeedsValue>& out) {
    return bpfGetAppUidSpeedsTotal(out, 1000);
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
        replies.check(tally, uid, out, asIs<KovraStatsValue>);
    }
}

// The writer keeps flagging the in-wake-up map as overflowing; each non-zero screen state resets
// it while the writer refills it. The switch succeeds, logging the reset when it saw the flag.
void callScreenOn(Tally& tally, uint64_t stamp) {
    EXPECT_EQ(0, noLeak([&] { return bpfUpdateScreenStateMap(1, stamp); }));
    ++tally.calls;
    const auto logs = takeLogs();
    if (logs.empty()) ++tally.incomplete;  // the flag was not up this time
    EXPECT_TRUE(logs.empty() ||
                logs == std::vector{untaggedError("[BpfWakeupDetector] clear overflowing map:8")})
            << testing::PrintToString(logs);
}

std::chrono::seconds stressDuration() {
    const char* seconds = getenv("KOVRA_STRESS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 15);
}

class StressTest : public KernelTest {};

TEST_F(StressTest, ServicesHoldUpWhileTheKernelSideWritesTheirMaps) {
    const TestMap netdStats(maps::kNetdAppUidStats);
    const TestMap purStats(maps::kUidPurStats);
    const TestMap finDrops(maps::kAppTcpFinDrop);
    const TestMap inWakeups(maps::kAppTcpInwakeup);
    const TestMap freezeStats(maps::kAppFreezeStats);
    const TestMap screenState(maps::kScreenState);
    const TestMap overflowCheck(maps::kOverflowingMapCheck);
    const TestMap socketSpeeds(maps::kAppSocketSpeeds);
    const TestMap uidSpeeds(maps::kAppUidSpeeds);
    const TestMap socketInfo(maps::kAppSocketInfo);
    const TestMap interfaces(maps::kAppSocketSpeedsIfindex);
    for (const auto& sequences :
         {maps::kSkTcpCookieInSeq, maps::kSkTcpCookieOutSeq, maps::kSkTcpCookieOutAck}) {
        TestMap{sequences}.put(1, 1);  // pinned, and kept by its pin
    }
    const Churned raiseFlag{[&](uint32_t, uint32_t) { overflowCheck.put(8, 1); }, [](uint32_t) {}};
    const std::vector<Churned> churn = {
            churned(netdStats),   churned(purStats),     churned(finDrops),  churned(inWakeups),
            churned(freezeStats), churned(socketSpeeds), churned(uidSpeeds), raiseFlag};

    auto* ops = static_cast<std::atomic<uint64_t>*>(mmap(nullptr, sizeof(std::atomic<uint64_t>),
                                                         PROT_READ | PROT_WRITE,
                                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, ops);
    new (ops) std::atomic<uint64_t>(0);
    const pid_t writer = startWriter(churn, ops);
    ASSERT_GT(writer, 0) << strerror(errno);

    Tally tallies[] = {{"bpfGetUidStatsTotal"},     {"bpfGetUidPurStatsTotal"},
                       {"bpfGetUidPurStats"},       {"bpfGetAppTcpFinDropMap"},
                       {"bpfGetAppTcpInwakeupMap"}, {"bpfFetchAppFreezeStats"},
                       {"bpfUpdateScreenStateMap"}, {"bpfGetAppSocketSpeedsTotal"},
                       {"bpfGetAppUidSpeedsTotal"}};
    const auto deadline = std::chrono::steady_clock::now() + stressDuration();
    for (uint32_t round = 0; std::chrono::steady_clock::now() < deadline; ++round) {
        callWalker<uint32_t, StatsValue>(
                tallies[0], bpfGetUidStatsTotal,
                {-1, "bpfGetUidStatsTotalInternal end with error: BpfMap::readValue() failed"},
                widened);
        callWalker<uint32_t, KovraStatsValue>(
                tallies[1], bpfGetUidPurStatsTotal,
                {-1, "bpfGetFreezeStatsTotalInternal end with error: BpfMap::readValue() failed"});
        callSingleUid(tallies[2], round % kKeys);
        callWalker<uint32_t, uint32_t>(tallies[3], bpfGetAppTcpFinDropMap, {-1, nullptr});
        callWalker<uint32_t, uint64_t>(tallies[4], bpfGetAppTcpInwakeupMap, {-1, nullptr});
        callWalker<uint64_t, AppFreezeStatsInfo>(
                tallies[5], bpfFetchAppFreezeStats,
                {-1, "bpfFetchAppFreezeStats end with error: BpfMap::readValue() failed"});
        callScreenOn(tallies[6], round);
        callWalker<uint64_t, SpeedsValue>(
                tallies[7], reportAllSockets,
                {0,
                 "bpfGetAppSocketSpeedsTotalInternal end with error: BpfMap::readValue() failed"},
                socketInKbps);
        callWalker<UidIfindexKey, SpeedsValue>(
                tallies[8], reportAllPairs,
                {0, "bpfGetAppUidSpeedsTotalInternal end with error: BpfMap::readValue() failed"},
                pairInKbps);
        if (HasFailure()) break;  // one broken contract is enough to read, not thousands
    }

    kill(writer, SIGKILL);
    int status;
    ASSERT_EQ(writer, waitpid(writer, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer stopped on its own";
    EXPECT_GT(ops->load(), 0u) << "the writer never wrote";
    for (const Tally& t : tallies) {
        EXPECT_GT(t.calls - t.incomplete, 0) << t.service << " never completed";
        printf("%s: %d calls, %d cut short, %d records torn by the kernel\n", t.service, t.calls,
               t.incomplete, t.torn);
    }
    printf("writer: %lu writes\n", static_cast<unsigned long>(ops->load()));
    munmap(ops, sizeof(std::atomic<uint64_t>));
}

}  // namespace
}  // namespace kovra::test
