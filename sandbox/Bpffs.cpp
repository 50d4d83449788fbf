#include "kovrasandbox/Bpffs.h"

#include <dirent.h>
#include <errno.h>
#include <ftw.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <set>
#include <sstream>

#include "kovrasandbox/Maps.h"

namespace kovra::sandbox {
namespace {

// A fresh bpffs already holds the kernel's own entries (maps.debug, progs.debug); they stay.
// Their names travel in the share variable, so a re-executed child knows them too.
std::set<std::string> preloaded;

std::string failed(const char* step) {
    return std::string(step) + ": " + strerror(errno);
}

std::string enterOnce(const char* shareVariable) {
    if (const char* names = shareVariable ? getenv(shareVariable) : nullptr) {
        std::istringstream in(names);
        for (std::string name; std::getline(in, name, '/');) preloaded.insert(name);
        return "";
    }
    if (geteuid() != 0) return "needs root (CAP_SYS_ADMIN and CAP_BPF) for a private bpffs";
    if (unshare(CLONE_NEWNS) != 0) return failed("unshare(CLONE_NEWNS)");
    // Without this our bpffs mount would propagate back into the machine's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failed("making / private");
    }
    if (mount("bpf", kBpffs, "bpf", 0, nullptr) != 0)
        return failed("mounting a bpffs at /sys/fs/bpf");
    std::string names;
    if (DIR* dir = opendir(kBpffs)) {
        while (dirent* entry = readdir(dir)) {
            preloaded.insert(entry->d_name);
            names += std::string(entry->d_name) + "/";
        }
        closedir(dir);
    }
    if (shareVariable != nullptr) setenv(shareVariable, names.c_str(), 1);
    return "";
}

int removeEntry(const char* path, const struct stat*, int, struct FTW* ftw) {
    if (ftw->level == 0 || (ftw->level == 1 && preloaded.count(path + ftw->base))) return 0;
    return remove(path) == 0 ? 0 : -1;
}

}  // namespace

void enterPrivateBpffs(const char* shareVariable) {
    static const std::string problem = enterOnce(shareVariable);
    if (!problem.empty()) throw Error(problem);
}

void emptyBpffs() {
    if (nftw(kBpffs, removeEntry, 16, FTW_DEPTH | FTW_PHYS) != 0) fail("emptying", kBpffs);
}

int openFdCount() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

}  // namespace kovra::sandbox
