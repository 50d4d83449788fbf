#include "Inspect.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ToolError.h"

namespace kovra::tool {

using android::bpf::PinnedMapInfo;
using sandbox::MapInfo;
using sandbox::RawMap;

namespace {

// The record types are plain bytes in hash-like maps. A per-CPU map would return one value per
// CPU into a buffer sized for one, and the other kinds hold no such records.
bool fitsRecords(uint32_t type) {
    return type == BPF_MAP_TYPE_HASH || type == BPF_MAP_TYPE_LRU_HASH || type == BPF_MAP_TYPE_ARRAY;
}

// True when another open file description holds a write lock on the map's id byte, which makes
// the library's shared lock fail.
bool writeLocked(int fd, uint32_t id) {
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = id;
    lock.l_len = 1;
    return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

MapState fail(MapState state, const std::string& word, const std::string& problem) {
    state.state = word;
    state.problem = problem;
    return state;
}

std::string sizes(uint32_t key, uint32_t value) {
    return std::to_string(key) + "/" + std::to_string(value);
}

}  // namespace

const PinnedMapInfo& rowOf(const char* path) {
    for (const PinnedMapInfo& row : android::bpf::kPinnedMaps) {
        if (strcmp(row.path, path) == 0) return row;
    }
    throw ToolError(kExitFailed, std::string("not in the catalogue: ") + path);
}

MapState inspectMap(const PinnedMapInfo& row, Access access) {
    MapState state;
    state.row = &row;
    struct stat st;
    if (stat(row.path, &st) != 0) {
        return errno == ENOENT ? fail(state, "missing", "not pinned")
                               : fail(state, "no-access",
                                      std::string("cannot be looked at: ") + strerror(errno));
    }
    if (S_ISDIR(st.st_mode)) return fail(state, "not-a-map", "a directory, not a pinned map");
    std::optional<RawMap> map;
    MapInfo info;
    try {
        map.emplace(RawMap::open(row.path, Access::kReadOnly));
    } catch (const sandbox::Error& error) {
        return error.code() == EACCES || error.code() == EPERM
                       ? fail(state, "no-access",
                              std::string("cannot be opened: ") + strerror(error.code()))
                       : fail(state, "not-a-map",
                              std::string("not a pinned map: ") + strerror(error.code()));
    }
    try {
        info = map->info();
        state.type = sandbox::mapTypeName(info.type);
        state.keySize = info.keySize;
        state.valueSize = info.valueSize;
        state.flags = info.flags;
        state.entries = map->rawKeys(info.keySize).size();
    } catch (const sandbox::Error& error) {
        return fail(state, "not-a-map", std::string("not a map: ") + strerror(error.code()));
    }

    if (!fitsRecords(info.type)) {
        return fail(state, "wrong-type",
                    "type " + *state.type + ", expected hash, lru_hash or array");
    }
    if (info.keySize != row.keySize || info.valueSize != row.valueSize) {
        return fail(state, "wrong-size",
                    "key/value sizes " + sizes(info.keySize, info.valueSize) + ", expected " +
                            sizes(row.keySize, row.valueSize));
    }
    if (info.flags & BPF_F_WRONLY) {
        return fail(state, "write-only", "flags mark it write-only, the library reads every map");
    }
    if (access == Access::kReadWrite) {
        if (info.flags & BPF_F_RDONLY) {
            return fail(state, "read-only", "flags mark it read-only, the service writes to it");
        }
        std::optional<RawMap> writable;
        try {
            writable.emplace(RawMap::open(row.path, Access::kReadWrite));
        } catch (const sandbox::Error& error) {
            return fail(state, "no-access",
                        std::string("cannot be opened for writing: ") + strerror(error.code()));
        }
        if (writeLocked(map->fd(), info.id)) {
            return fail(state, "locked", "write-locked by another process");
        }
        if (writable->frozen()) {
            return fail(state, "frozen",
                        "frozen read-only by the kernel (BPF_MAP_FREEZE): the service's writes to "
                        "it fail");
        }
    }
    return state;
}

void requireMaps(const MapNeeds& maps) {
    if (geteuid() != 0) {
        throw ToolError(kExitEnvironment,
                        "needs root: the maps under /sys/fs/bpf are open to root only "
                        "(try: sudo kovractl ...)");
    }
    std::string problems;
    for (const auto& [row, access] : maps) {
        const MapState state = inspectMap(*row, access);
        if (state.state == "ok") continue;
        // The library opens a frozen map as any other and its writes fail, which the service
        // reports by its status, or not at all (a harvest or a prune that leaves the entries):
        // said here, before it runs, so that the cause is seen either way.
        if (state.state == "frozen") {
            fprintf(stderr, "kovractl: warning: %s: %s\n", row->path, state.problem.c_str());
            continue;
        }
        if (!problems.empty()) problems += "\n";
        problems += std::string(row->path) + ": " + state.state + ": " + state.problem;
    }
    if (!problems.empty()) {
        throw ToolError(kExitEnvironment,
                        problems +
                                "\nnothing was changed; `kovractl maps` shows every "
                                "map, `kovractl sandbox` gives a private set to try things on");
    }
}

std::vector<std::pair<sandbox::Bytes, sandbox::Bytes>> readEntries(const PinnedMapInfo& row) {
    // Records are read into buffers of the map's sizes, which must be the catalogue's.
    if (const MapState state = inspectMap(row, Access::kReadOnly); state.state != "ok") {
        throw ToolError(kExitEnvironment,
                        std::string(row.path) + ": " + state.state + ": " + state.problem);
    }
    try {
        return RawMap::open(row.path, Access::kReadOnly).rawEntries();
    } catch (const sandbox::Error& error) {
        throw ToolError(kExitEnvironment, error.what());
    }
}

}  // namespace kovra::tool
