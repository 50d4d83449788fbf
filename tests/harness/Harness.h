// Test harness for the services, on the real kernel.
//
// Each test process enters a mount namespace of its own and mounts a private bpffs at
// /sys/fs/bpf, so maps are created and pinned at their real paths without touching the
// machine's own. Maps are created and read back through the desk's kernel side (sandbox/, over
// libbpf), independently of the library.
// The test executable interposes three C functions the library calls:
//   syscall               counts bpf commands and can fail or rewrite any of them;
//   __android_log_print   captures every log line (priority, tag or null tag, text);
//   uname                 can report a made-up release.
// Only what the kernel cannot be made to do on demand is faked that way.
#pragma once

#include <errno.h>
#include <linux/bpf.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kovrabpf/KovraBpfNetworkStats.h>
#include <kovrabpf/KovraPinnedMaps.h>
#include <kovrasandbox/Bpffs.h>
#include <kovrasandbox/Clock.h>
#include <kovrasandbox/Maps.h>
#include <kovrasandbox/Netns.h>

#include <Interpose.h>

namespace kovra::test {

// ---- Maps ----

// The library under test, and the desk's maps and clock the tests stand its maps up with.
using namespace android::bpf;
using android::base::Result;
using sandbox::monotonicNowNs;
using sandbox::openFdCount;
using sandbox::RawMap;
using sandbox::sameBytes;
using sandbox::TypedMap;

// The process's private network namespace with lo and a veth pair (sandbox/Netns.h), entered by
// the first call and kept; null, and a test failure, when it cannot be set up.
const sandbox::PrivateNetwork* testNetwork();

// A map of plain numbers for the map handles' own tests.
inline constexpr PinnedMap<uint32_t, uint64_t> kTestMap{"/sys/fs/bpf/map_test_u32_u64_map"};

// ---- Log capture ----

struct LogLine {
    int priority;
    std::optional<std::string> tag;  // nullopt: logged with a null tag
    std::string text;
    bool operator==(const LogLine& o) const {
        return priority == o.priority && tag == o.tag && text == o.text;
    }
};
std::ostream& operator<<(std::ostream& os, const LogLine& line);

inline constexpr char kTag[] = "KovraBpfNetworkStats";
inline LogLine errorLine(std::string text) {
    return {6, kTag, std::move(text)};
}
inline LogLine debugLine(std::string text) {
    return {3, kTag, std::move(text)};
}
inline LogLine untaggedError(std::string text) {
    return {6, std::nullopt, std::move(text)};
}

// Returns the lines logged since the last call, and forgets them.
std::vector<LogLine> takeLogs();

// ---- bpf(2) interposition ----

using interpose::realBpf;

// Called for every bpf command the library (or the test) issues through syscall(). `nth` counts
// this command from 1 since the hook was set (setting one restarts every count). Returning a value
// replaces the system call (set errno yourself); nullopt lets it through.
using BpfHook = std::function<std::optional<long>(int cmd, bpf_attr& attr, unsigned size, int nth)>;
void setBpfHook(BpfHook hook);
// Fails the nth call of `cmd` with `err`.
void failBpfCommand(int cmd, int nth, int err);
// Adds `extra` to the map flags every info query reports. Today's kernels keep BPF_F_RDONLY and
// BPF_F_WRONLY with the descriptor and leave them out of a map's reported flags, so a map that
// reports them has to be made up.
void reportMapFlags(uint32_t extra);
// The ways a walk of five or more entries fails: the command made to fail, its errno, the error
// the walk ends with and how many entries it delivered before.
struct WalkFailure {
    int cmd, nth, err;
    const char* message;
    size_t read;
};
inline const WalkFailure kWalkFailures[] = {
        {BPF_MAP_LOOKUP_ELEM, 3, EIO, "BpfMap::readValue() failed", 2},
        {BPF_MAP_GET_NEXT_KEY, 4, EBUSY, "BpfMap::getNextKey() failed", 3},
        {BPF_MAP_GET_NEXT_KEY, 1, EPERM, "BpfMap::getFirstKey() failed", 0}};
// bpf commands issued through syscall() since the last reset, by command.
int bpfCommandCount(int cmd);
// Clears hooks, counters and the uname override.
void resetInterposers();

// uname reports this release (nullopt: the kernel's), or fails when `fail` is set.
void setUnameRelease(std::optional<std::string> release, bool fail = false);

// ---- Descriptors ----

// Runs `call` and checks that it leaves the number of open descriptors as it found it.
template <typename F>
auto noLeak(F&& call) {
    const int before = openFdCount();
    auto result = call();
    EXPECT_EQ(before, openFdCount()) << "a descriptor leaked";
    return result;
}

// ---- Fixture ----

// Enters the private bpffs once per process, empties it before every test and resets the
// interposers. Without the privileges a test skips, unless underCi(), where it fails: CI must run
// these tests.
class KernelTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

// CI=true: a kernel-map test that cannot run there fails rather than skips.
bool underCi();

// Expects `statement` to end the process through abort(). Runs in a forked child (see below).
inline void expectAborts(const std::function<void()>& statement) {
    EXPECT_EXIT(
            {
                statement();
                _exit(0);
            },
            ::testing::KilledBySignal(SIGABRT), "");
}

// Death tests that must start from a fresh process (the cached kernel version) re-execute the
// test binary; everything else forks, so maps made before the death statement are visible.
void useReexecDeathTests();

}  // namespace kovra::test
