// What killed live sides leave behind: their empty sub-cgroups and the folders nobody holds.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <string.h>
#include <sys/file.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "Side.h"

namespace kovra::live {
namespace {

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

}  // namespace kovra::live
