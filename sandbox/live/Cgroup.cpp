// The live side's cgroup: a cgroup2 mount of its own, the sub-cgroup its processes join, and the
// guard that removes both once the live side is gone, however it ends.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "Side.h"

namespace kovra::live {
namespace {

void writeFile(const std::string& path, const char* text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) throw LiveError(errnoText("opening " + path));
    const bool ok = write(fd, text, strlen(text)) == static_cast<ssize_t>(strlen(text));
    const int err = errno;
    close(fd);
    errno = err;
    if (!ok) throw LiveError(errnoText("writing " + path));
}

// Ends every process in the cgroup at `path` and removes it; false when it stays. Async-signal-
// safe, as the guard runs it in a child forked from a process that may have threads.
bool killAndRemove(const char* path, const char* killFile, const char* procsFile) {
    for (int tries = 0; tries < 300; ++tries) {
        if (rmdir(path) == 0 || errno == ENOENT) return true;
        if (errno != EBUSY) return false;
        const int fd = open(killFile, O_WRONLY | O_CLOEXEC);
        if (fd >= 0) {
            ssize_t ignored = write(fd, "1", 1);
            (void)ignored;
            close(fd);
        } else if (const int procs = open(procsFile, O_RDONLY | O_CLOEXEC); procs >= 0) {
            // Kernels before 5.14 have no cgroup.kill: one member at a time.
            char buffer[4096];
            const ssize_t n = read(procs, buffer, sizeof(buffer) - 1);
            close(procs);
            long pid = 0;
            for (ssize_t i = 0; i < n; ++i) {
                if (buffer[i] >= '0' && buffer[i] <= '9') {
                    pid = pid * 10 + (buffer[i] - '0');
                } else if (pid > 0) {
                    kill(static_cast<pid_t>(pid), SIGKILL);
                    pid = 0;
                }
            }
        }
        const timespec pause{0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return false;
}

}  // namespace

// A fresh folder, held (flock) from before anything is mounted on it, with the cgroup2
// hierarchy mounted there and a sub-cgroup named after it that this call made (mkdir, never
// found).
void LiveSide::makeCgroup() {
    for (int tries = 0; tries < 10; ++tries) {
        char folder[] = "/tmp/kovra-live-cgroup.XXXXXX";
        if (mkdtemp(folder) == nullptr)
            throw LiveError(errnoText("creating a cgroup2 mount point"));
        const int lock = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        struct stat st;
        // A sweep may take a folder between mkdtemp and flock: then it is removed (no links).
        if (lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0 || fstat(lock, &st) != 0 ||
            st.st_nlink == 0) {
            if (lock >= 0) close(lock);
            continue;
        }
        if (mount("cgroup2", folder, "cgroup2", 0, nullptr) != 0) {
            const int err = errno;
            rmdir(folder);
            close(lock);
            errno = err;
            throw LiveError(errnoText("mounting cgroup2"), true);
        }
        const std::string cgroup =
                std::string(folder) + "/" + kCgroupPrefix + (folder + sizeof(kFolderPrefix) - 1);
        if (mkdir(cgroup.c_str(), 0755) == 0) {
            mMount = folder;
            mCgroup = cgroup;
            mLockFd = lock;
            return;
        }
        const int err = errno;
        umount2(folder, MNT_DETACH);
        rmdir(folder);
        close(lock);
        errno = err;
        if (err != EEXIST) throw LiveError(errnoText("creating " + cgroup));
    }
    throw LiveError("no unused name for the live side's cgroup");
}

// The guard: a child outside the sub-cgroup that waits for this process to close its end of a
// pipe, which it does when it ends, however, then ends what runs in the sub-cgroup and removes
// it, the mount and the folder. It holds the folder's lock meanwhile; it ignores the terminal's
// signals, which are the sandbox's and its command's to handle.
void LiveSide::startGuard() {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) throw LiveError(errnoText("pipe"));
    const std::string killFile = mCgroup + "/cgroup.kill", procs = mCgroup + "/cgroup.procs";
    mGuard = fork();
    if (mGuard < 0) {
        close(pipeFds[0]);
        close(pipeFds[1]);
        throw LiveError(errnoText("fork"));
    }
    if (mGuard == 0) {
        for (int sig : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE}) signal(sig, SIG_IGN);
        // Only the pipe's read end and the lock stay open (not the links, which would keep
        // the programs attached, nor the caller's pipes, which would keep its readers waiting).
        const int devNull = open("/dev/null", O_RDWR);
        dup2(devNull, STDIN_FILENO);
        dup2(devNull, STDOUT_FILENO);
        const int readEnd = fcntl(pipeFds[0], F_DUPFD, 10), lock = fcntl(mLockFd, F_DUPFD, 10);
        dup2(readEnd, 3);
        dup2(lock, 4);
        close_range(5, ~0u, 0);
        char byte;
        while (read(3, &byte, 1) != 0 && errno == EINTR) {
        }
        // A cgroup that stays keeps its folder, where a later sweep finds it: so a folder gone
        // means that nothing of this live side runs any more.
        const bool removed = killAndRemove(mCgroup.c_str(), killFile.c_str(), procs.c_str());
        umount2(mMount.c_str(), MNT_DETACH);
        if (removed) rmdir(mMount.c_str());
        _exit(0);
    }
    close(pipeFds[0]);
    mGuardPipe = pipeFds[1];
}

void joinCgroup(const std::string& cgroup) {
    writeFile(cgroup + "/cgroup.procs", "0");
}

}  // namespace kovra::live
