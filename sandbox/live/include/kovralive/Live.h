// The desk's live kernel side: the project's own eBPF programs, loaded over the catalogue maps
// pinned at their paths and attached to a private cgroup v2 sub-cgroup, so that the traffic of
// every process in that cgroup fills the maps the services read.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>

#include <kovrabpf/KovraPinnedMaps.h>
#include <kovrasandbox/Error.h>

namespace kovra::live {

// The desk's own control map (not a catalogue map): UID -> non-zero while the UID is frozen.
inline constexpr char kFrozenUidsPath[] = "/sys/fs/bpf/kovra_desk/live_frozen_uids";
inline constexpr android::bpf::PinnedMap<uint32_t, uint32_t> kFrozenUids{kFrozenUidsPath,
                                                                         "desk_frozen_uids"};
// Set for the processes of a live sandbox: the sub-cgroup whose traffic is measured.
inline constexpr char kCgroupEnv[] = "KOVRA_LIVE_CGROUP";
// Set likewise: the inode of the sandbox's own network namespace, the only one the traffic
// driver sends in (whoever makes a private namespace for it declares it here).
inline constexpr char kNetnsEnv[] = "KOVRA_LIVE_NETNS";

// Why the live side could not start or be used, thrown like every failure of the sandbox
// library (kovrasandbox/Error.h); `cannotAttach` when the kernel refuses cgroup programs.
struct LiveError : sandbox::Error {
    LiveError(const std::string& what, bool cannotAttach = false)
        : sandbox::Error(what), cannotAttach(cannotAttach) {}
    bool cannotAttach;
};

// The sub-cgroup is `kovra-live.S` at the root of the cgroup2 hierarchy, mounted at
// `/tmp/kovra-live-cgroup.S` in the live side's own mount namespace; S is that folder's unique
// (mkdtemp) suffix, so no two live sides share a name, whatever their PID namespaces. The folder
// is flock()ed by its creator and the creator's guard for as long as either lives: a folder
// nobody holds belongs to a live side that is gone.
class LiveSide {
  public:
    // Needs every catalogue map pinned in a private bpffs. Moves the process into a mount
    // namespace of its own (a copy of the caller's) for a cgroup2 mount, removes what killed
    // live sides left (see swept()), makes the sub-cgroup, loads and attaches every program.
    // A guard process, forked here, ends everything in the sub-cgroup and removes it and the
    // folder once this process is gone, however it ends (SIGKILL included). Call it before the
    // process starts threads (a mount namespace is the whole process's). Throws LiveError.
    LiveSide();
    // Detaches every program, then the guard ends what is left in the sub-cgroup and removes it.
    ~LiveSide();
    LiveSide(const LiveSide&) = delete;
    LiveSide& operator=(const LiveSide&) = delete;

    // The sub-cgroup's directory.
    const std::string& cgroup() const { return mCgroup; }
    // One line saying what was swept at start ("" when nothing was), for the caller to print.
    const std::string& swept() const { return mSwept; }

  private:
    struct Loaded;
    void makeCgroup();
    void startGuard();
    void tearDown();
    std::string mMount;
    std::string mCgroup;
    std::string mSwept;
    int mLockFd = -1;
    int mCgroupFd = -1;
    int mGuardPipe = -1;  // its closing (by any end of this process) starts the guard's cleanup
    pid_t mGuard = -1;
    std::unique_ptr<Loaded> mLoaded;
};

// Removes the empty sub-cgroups under `cgroupRoot` (a cgroup2 mount) and the folders under /tmp
// that live sides left when they were killed together with their guard: those whose folder no
// process holds. Returns one line saying what went, or "" when nothing did.
std::string sweepLeftovers(const std::string& cgroupRoot);

// Moves the calling process into the cgroup at `cgroup`. Throws LiveError.
void joinCgroup(const std::string& cgroup);

// Marks `uid` frozen or not in the desk's control map.
void setFrozen(uint32_t uid, bool frozen);

}  // namespace kovra::live
