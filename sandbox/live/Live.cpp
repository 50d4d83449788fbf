#include <kovralive/Live.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <kovrabpf/KovraPinnedMaps.h>
#include <kovrasandbox/Maps.h>

#include "Objects.h"

namespace kovra::live {
namespace {

std::string errnoText(const std::string& what) {
    return what + ": " + strerror(errno);
}

// What libbpf said last, for the error of a load that failed.
std::string libbpfLog;

int collectLibbpfLog(libbpf_print_level level, const char* format, va_list args) {
    if (level == LIBBPF_DEBUG) return 0;
    char line[512];
    const int n = vsnprintf(line, sizeof(line), format, args);
    libbpfLog += line;
    if (libbpfLog.size() > 4096) libbpfLog.erase(0, libbpfLog.size() - 4096);
    return n;
}

// The programs name their maps by the catalogue's short names.
const char* cataloguePath(std::string_view mapName) {
    for (const android::bpf::PinnedMapInfo& row : android::bpf::kPinnedMaps) {
        if (row.name == mapName) return row.path;
    }
    return nullptr;
}

void writeFile(const std::string& path, const char* text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) throw LiveError(errnoText("opening " + path));
    const bool ok = write(fd, text, strlen(text)) == static_cast<ssize_t>(strlen(text));
    const int err = errno;
    close(fd);
    errno = err;
    if (!ok) throw LiveError(errnoText("writing " + path));
}

void makeFolder(const char* path) {
    std::string folder(path, strrchr(path, '/'));
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw LiveError(errnoText("creating " + folder));
    }
}

}  // namespace

struct LiveSide::Loaded {
    std::vector<bpf_object*> objects;
    std::vector<bpf_link*> links;
    ~Loaded() {
        for (bpf_link* link : links) bpf_link__destroy(link);
        for (bpf_object* object : objects) bpf_object__close(object);
    }

    // Opens one program object, swaps its catalogue maps for the pinned ones, loads it and
    // attaches every program in it to the cgroup.
    void add(const ProgramObject& source, int cgroupFd) {
        LIBBPF_OPTS(bpf_object_open_opts, options, .object_name = source.name);
        bpf_object* object = bpf_object__open_mem(source.data, source.size, &options);
        if (object == nullptr) throw LiveError(errnoText(std::string("opening ") + source.name));
        objects.push_back(object);
        bpf_map* map;
        bpf_object__for_each_map(map, object) {
            const char* name = bpf_map__name(map);
            if (const char* path = cataloguePath(name)) {
                const int fd = bpf_obj_get(path);
                if (fd < 0) {
                    throw LiveError(errnoText(std::string("the live side needs every catalogue "
                                                          "map pinned; opening ") +
                                              path));
                }
                const int err = bpf_map__reuse_fd(map, fd);
                close(fd);
                if (err != 0) {
                    errno = -err;
                    throw LiveError(errnoText(std::string("reusing ") + path));
                }
            } else if (std::string_view(name) == kFrozenUids.name) {
                makeFolder(kFrozenUidsPath);
                bpf_map__set_pin_path(map, kFrozenUidsPath);
            }
        }
        libbpfLog.clear();
        if (const int err = bpf_object__load(object); err != 0) {
            errno = -err;
            throw LiveError(errnoText(std::string("loading the ") + source.name + " programs") +
                            "\n" + libbpfLog);
        }
        bpf_program* program;
        bpf_object__for_each_program(program, object) {
            bpf_link* link = bpf_program__attach_cgroup(program, cgroupFd);
            if (link == nullptr) {
                throw LiveError(errnoText("this kernel cannot attach cgroup BPF programs (" +
                                          std::string(bpf_program__name(program)) + ")"),
                                true);
            }
            links.push_back(link);
        }
    }
};

namespace {

constexpr char kFolderPrefix[] = "/tmp/kovra-live-cgroup.";
constexpr char kCgroupPrefix[] = "kovra-live.";

// The names (suffixes) in `dir` of the entries that start with `prefix`.
std::vector<std::string> suffixesIn(const char* dir, std::string_view prefix) {
    std::vector<std::string> suffixes;
    if (DIR* d = opendir(dir)) {
        while (dirent* entry = readdir(d)) {
            std::string_view name(entry->d_name);
            if (name.substr(0, prefix.size()) == prefix && name.size() > prefix.size()) {
                suffixes.emplace_back(name.substr(prefix.size()));
            }
        }
        closedir(d);
    }
    return suffixes;
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

std::string sweepLeftovers(const std::string& cgroupRoot) {
    std::vector<std::string> suffixes = suffixesIn(cgroupRoot.c_str(), kCgroupPrefix);
    for (std::string& s : suffixesIn("/tmp", strrchr(kFolderPrefix, '/') + 1))
        suffixes.push_back(std::move(s));
    std::sort(suffixes.begin(), suffixes.end());
    suffixes.erase(std::unique(suffixes.begin(), suffixes.end()), suffixes.end());
    int cgroups = 0, folders = 0;
    for (const std::string& suffix : suffixes) {
        const std::string folder = kFolderPrefix + suffix;
        // No folder: the creator cannot be told, so the cgroup stays. A folder that is a mount
        // point here is a live side of this very mount namespace.
        const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) continue;
        struct statfs fs;
        if (fstatfs(fd, &fs) != 0 || fs.f_type == CGROUP2_SUPER_MAGIC ||
            flock(fd, LOCK_EX | LOCK_NB) != 0) {
            close(fd);
            continue;
        }
        // Ours now: its creator and guard are gone. A cgroup that is not empty stays, and its
        // folder with it, for a later sweep.
        const std::string cgroup = cgroupRoot + "/" + kCgroupPrefix + suffix;
        const bool removed = rmdir(cgroup.c_str()) == 0;
        if (removed || errno == ENOENT) {
            cgroups += removed;
            folders += rmdir(folder.c_str()) == 0;
        }
        close(fd);
    }
    if (cgroups + folders == 0) return "";
    return "removed " + std::to_string(cgroups) + " empty cgroup(s) and " +
           std::to_string(folders) + " folder(s) left by killed live sandboxes";
}

LiveSide::LiveSide() {
    // A mount namespace of our own for the cgroup2 mount, a copy of the caller's (its private
    // bpffs included), so that the mount can never show on the machine.
    if (unshare(CLONE_NEWNS) != 0) throw LiveError(errnoText("unshare(CLONE_NEWNS)"));
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        throw LiveError(errnoText("making / private"));
    }
    libbpf_set_print(collectLibbpfLog);
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

void joinCgroup(const std::string& cgroup) {
    writeFile(cgroup + "/cgroup.procs", "0");
}

void setFrozen(uint32_t uid, bool frozen) {
    const auto map = sandbox::openMap(kFrozenUids);
    // Thawing a UID that is not frozen is no mistake.
    frozen ? map.put(uid, 1) : (void)map.erase(uid);
}

}  // namespace kovra::live
