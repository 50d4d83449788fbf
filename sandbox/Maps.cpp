#include "kovrasandbox/Maps.h"

#include <bpf/bpf.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace kovra::sandbox {
namespace {

void makeParentFolders(const char* path) {
    const std::string full(path);
    for (size_t slash = full.find('/', 1); slash != std::string::npos;
         slash = full.find('/', slash + 1)) {
        if (mkdir(full.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST) {
            fail("creating the folder of", path);
        }
    }
}

}  // namespace

void fail(const std::string& what, const char* path) {
    throw Error(what + " " + path + ": " + strerror(errno));
}

RawMap::RawMap(const char* path, uint32_t keySize, uint32_t valueSize, uint32_t maxEntries,
               uint32_t mapFlags) {
    LIBBPF_OPTS(bpf_map_create_opts, opts, .map_flags = mapFlags);
    mFd = bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, keySize, valueSize, maxEntries, &opts);
    if (mFd < 0) fail("creating the map for", path);
    makeParentFolders(path);
    unlink(path);
    if (bpf_obj_pin(mFd, path) != 0) {
        const int err = errno;
        close(mFd);
        errno = err;
        fail("pinning", path);
    }
}

std::optional<RawMap> RawMap::open(const char* path, bool readOnly) {
    LIBBPF_OPTS(bpf_obj_get_opts, opts, .file_flags = readOnly ? uint32_t{BPF_F_RDONLY} : 0u);
    const int fd = bpf_obj_get_opts(path, &opts);
    if (fd < 0) return std::nullopt;
    return RawMap(fd);
}

RawMap::~RawMap() {
    if (mFd >= 0) close(mFd);
}

MapShape RawMap::shape() const {
    bpf_map_info info{};
    uint32_t size = sizeof(info);
    if (bpf_obj_get_info_by_fd(mFd, &info, &size) != 0) return {};
    return {info.type, info.key_size, info.value_size, info.max_entries, info.map_flags};
}

uint32_t RawMap::id() const {
    bpf_map_info info{};
    uint32_t size = sizeof(info);
    if (bpf_obj_get_info_by_fd(mFd, &info, &size) != 0) {
        throw Error(std::string("reading a map's id: ") + strerror(errno));
    }
    return info.id;
}

bool RawMap::putRaw(const void* key, const void* value, uint64_t flags) const {
    return bpf_map_update_elem(mFd, key, value, flags) == 0;
}

bool RawMap::getRaw(const void* key, void* value) const {
    return bpf_map_lookup_elem(mFd, key, value) == 0;
}

bool RawMap::eraseRaw(const void* key) const {
    return bpf_map_delete_elem(mFd, key) == 0;
}

std::vector<std::vector<uint8_t>> RawMap::rawKeys(uint32_t keySize) const {
    std::vector<std::vector<uint8_t>> keys;
    std::vector<uint8_t> next(keySize);
    while (bpf_map_get_next_key(mFd, keys.empty() ? nullptr : keys.back().data(), next.data()) ==
           0) {
        keys.push_back(next);
    }
    return keys;
}

void createCatalogueMaps(uint32_t maxEntries) {
    for (const android::bpf::PinnedMapInfo& row : android::bpf::kPinnedMaps) {
        RawMap(row.path, row.keySize, row.valueSize, maxEntries);
    }
}

}  // namespace kovra::sandbox
