// The live side's lifetime: the mount namespace and cgroup it stands up, the programs it loads,
// and its tearing down in the reverse order.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kovrasandbox/Maps.h>

#include "Side.h"

namespace kovra::live {

std::string errnoText(const std::string& what) {
    return what + ": " + strerror(errno);
}

LiveSide::LiveSide() {
    // A mount namespace of our own for the cgroup2 mount, a copy of the caller's (its private
    // bpffs included), so that the mount can never show on the machine.
    if (unshare(CLONE_NEWNS) != 0) throw LiveError(errnoText("unshare(CLONE_NEWNS)"));
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        throw LiveError(errnoText("making / private"));
    }
    makeCgroup();
    try {
        startGuard();
        mSwept = sweepLeftovers(mMount);
        mCgroupFd = open(mCgroup.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (mCgroupFd < 0) throw LiveError(errnoText("opening " + mCgroup));
        mLoaded = std::make_unique<Loaded>();
        for (const ProgramObject& object : programObjects()) mLoaded->add(object, mCgroupFd);
    } catch (...) {
        tearDown();
        throw;
    }
}

LiveSide::~LiveSide() {
    tearDown();
}

void LiveSide::tearDown() {
    mLoaded.reset();
    if (mCgroupFd >= 0) close(mCgroupFd);
    mCgroupFd = -1;
    if (!mMount.empty()) unlink(kFrozenUidsPath);
    if (mGuardPipe >= 0) {
        close(mGuardPipe);
        while (waitpid(mGuard, nullptr, 0) < 0 && errno == EINTR) {
        }
    } else if (!mCgroup.empty()) {
        // No guard yet: nothing ran in the sub-cgroup.
        rmdir(mCgroup.c_str());
        umount2(mMount.c_str(), MNT_DETACH);
        rmdir(mMount.c_str());
    }
    mGuardPipe = -1;
    if (mLockFd >= 0) close(mLockFd);
    mLockFd = -1;
    mCgroup.clear();
    mMount.clear();
}

void setFrozen(uint32_t uid, bool frozen) {
    const auto map = sandbox::openMap(kFrozenUids);
    // Thawing a UID that is not frozen is no mistake.
    frozen ? map.put(uid, 1) : (void)map.erase(uid);
}

}  // namespace kovra::live
