#include "Inspect.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "ToolError.h"

namespace kovra::tool {

using android::bpf::PinnedMapInfo;

namespace {

// A descriptor closed on every way out.
class Fd {
  public:
    explicit Fd(int fd) : mFd(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (mFd >= 0) close(mFd);
    }
    int get() const { return mFd; }

  private:
    int mFd;
};

int openPinned(const char* path, Access access) {
    LIBBPF_OPTS(bpf_obj_get_opts, opts,
                .file_flags = access == Access::kReadOnly ? static_cast<uint32_t>(BPF_F_RDONLY) : 0u);
    return bpf_obj_get_opts(path, &opts);
}

// The record types are plain bytes in hash-like maps. A per-CPU map would return one value per
// CPU into a buffer sized for one, and the other kinds hold no such records.
bool fitsRecords(uint32_t type) {
    return type == BPF_MAP_TYPE_HASH || type == BPF_MAP_TYPE_LRU_HASH ||
           type == BPF_MAP_TYPE_ARRAY;
}

std::string typeName(uint32_t type) {
    const char* name = libbpf_bpf_map_type_str(static_cast<bpf_map_type>(type));
    return name != nullptr ? name : "type " + std::to_string(type);
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

size_t countKeys(int fd, uint32_t keySize) {
    std::vector<uint8_t> key(keySize), next(keySize);
    size_t count = 0;
    for (const void* previous = nullptr; bpf_map_get_next_key(fd, previous, next.data()) == 0;
         previous = key.data()) {
        key.swap(next);
        ++count;
    }
    return count;
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
                               : fail(state, "no-access", std::string("cannot be looked at: ") +
                                                                  strerror(errno));
    }
    if (S_ISDIR(st.st_mode)) return fail(state, "not-a-map", "a directory, not a pinned map");
    Fd fd(openPinned(row.path, Access::kReadOnly));
    if (fd.get() < 0) {
        const int err = errno;
        return err == EACCES || err == EPERM
                       ? fail(state, "no-access", std::string("cannot be opened: ") + strerror(err))
                       : fail(state, "not-a-map",
                              std::string("not a pinned map: ") + strerror(err));
    }
    bpf_map_info info = {};
    uint32_t length = sizeof(info);
    if (bpf_obj_get_info_by_fd(fd.get(), &info, &length) != 0) {
        return fail(state, "not-a-map", std::string("not a map: ") + strerror(errno));
    }
    state.type = typeName(info.type);
    state.keySize = info.key_size;
    state.valueSize = info.value_size;
    state.flags = info.map_flags;
    state.entries = countKeys(fd.get(), info.key_size);

    if (!fitsRecords(info.type)) {
        return fail(state, "wrong-type",
                    "type " + *state.type + ", expected hash, lru_hash or array");
    }
    if (info.key_size != row.keySize || info.value_size != row.valueSize) {
        return fail(state, "wrong-size",
                    "key/value sizes " + sizes(info.key_size, info.value_size) + ", expected " +
                            sizes(row.keySize, row.valueSize));
    }
    if (info.map_flags & BPF_F_WRONLY) {
        return fail(state, "write-only", "flags mark it write-only, the library reads every map");
    }
    if (access == Access::kReadWrite) {
        if (info.map_flags & BPF_F_RDONLY) {
            return fail(state, "read-only", "flags mark it read-only, the service writes to it");
        }
        Fd writable(openPinned(row.path, Access::kReadWrite));
        if (writable.get() < 0) {
            return fail(state, "no-access",
                        std::string("cannot be opened for writing: ") + strerror(errno));
        }
        if (writeLocked(fd.get(), info.id)) {
            return fail(state, "locked", "write-locked by another process");
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
        if (!problems.empty()) problems += "\n";
        problems += std::string(row->path) + ": " + state.state + ": " + state.problem;
    }
    if (!problems.empty()) {
        throw ToolError(kExitEnvironment,
                        problems + "\nnothing was changed; `kovractl maps` shows every "
                                   "map, `kovractl sandbox` gives a private set to try things on");
    }
}

std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> readEntries(
        const PinnedMapInfo& row) {
    // Records are read into buffers of the catalogue's sizes, which the map must have.
    if (const MapState state = inspectMap(row, Access::kReadOnly); state.state != "ok") {
        throw ToolError(kExitEnvironment,
                        std::string(row.path) + ": " + state.state + ": " + state.problem);
    }
    Fd fd(openPinned(row.path, Access::kReadOnly));
    if (fd.get() < 0) {
        throw ToolError(kExitEnvironment,
                        std::string(row.path) + ": cannot be opened: " + strerror(errno));
    }
    std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> entries;
    std::vector<uint8_t> key(row.keySize), next(row.keySize), value(row.valueSize);
    for (const void* previous = nullptr; bpf_map_get_next_key(fd.get(), previous, next.data()) == 0;
         previous = key.data()) {
        key.swap(next);
        if (bpf_map_lookup_elem(fd.get(), key.data(), value.data()) == 0) {
            entries.emplace_back(key, value);
        }
    }
    if (errno != ENOENT) {
        throw ToolError(kExitEnvironment,
                        std::string(row.path) + ": reading its keys failed: " + strerror(errno));
    }
    return entries;
}

}  // namespace kovra::tool
