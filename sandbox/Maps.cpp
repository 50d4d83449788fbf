#include "kovrasandbox/Maps.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
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

int openPin(const char* path, Access access) {
    LIBBPF_OPTS(bpf_obj_get_opts, opts,
                .file_flags = access == Access::kReadOnly ? uint32_t{BPF_F_RDONLY} : 0u);
    return bpf_obj_get_opts(path, &opts);
}

}  // namespace

void fail(const std::string& what, const std::string& where) {
    const int err = errno;
    throw Error(what + " " + where + ": " + strerror(err), err);
}

std::string mapTypeName(uint32_t type) {
    const char* name = libbpf_bpf_map_type_str(static_cast<bpf_map_type>(type));
    return name != nullptr ? name : "type " + std::to_string(type);
}

RawMap::RawMap(const char* path, uint32_t keySize, uint32_t valueSize, uint32_t maxEntries,
               uint32_t mapFlags, bpf_map_type type)
    : mPath(path) {
    LIBBPF_OPTS(bpf_map_create_opts, opts, .map_flags = mapFlags);
    mFd = bpf_map_create(type, nullptr, keySize, valueSize, maxEntries, &opts);
    if (mFd < 0) sandbox::fail("creating the map for", path);
    try {
        pin(path);
    } catch (const Error&) {
        close(mFd);
        throw;
    }
}

void RawMap::pin(const char* path) const {
    makeParentFolders(path);
    unlink(path);
    if (bpf_obj_pin(mFd, path) != 0) sandbox::fail("pinning", path);
}

RawMap RawMap::open(const char* path, Access access) {
    const int fd = openPin(path, access);
    if (fd < 0) sandbox::fail("opening", path);
    return RawMap(fd, path);
}

std::optional<RawMap> RawMap::find(const char* path, Access access) {
    const int fd = openPin(path, access);
    if (fd < 0 && errno == ENOENT) return std::nullopt;
    if (fd < 0) sandbox::fail("opening", path);
    return RawMap(fd, path);
}

void RawMap::fail(const char* what) const {
    sandbox::fail(what, mPath);
}

RawMap::~RawMap() {
    if (mFd >= 0) close(mFd);
}

MapInfo RawMap::info() const {
    bpf_map_info info{};
    uint32_t size = sizeof(info);
    if (bpf_obj_get_info_by_fd(mFd, &info, &size) != 0) fail("describing");
    return {info.id, info.type, info.key_size, info.value_size, info.max_entries, info.map_flags};
}

bool RawMap::getRaw(const void* key, void* value) const {
    if (bpf_map_lookup_elem(mFd, key, value) == 0) return true;
    if (errno != ENOENT) fail("reading an entry of");
    return false;
}

void RawMap::putRaw(const void* key, const void* value, uint64_t flags) const {
    if (bpf_map_update_elem(mFd, key, value, flags) != 0) fail("writing an entry of");
}

bool RawMap::eraseRaw(const void* key) const {
    if (bpf_map_delete_elem(mFd, key) == 0) return true;
    if (errno != ENOENT) fail("deleting an entry of");
    return false;
}

std::vector<Bytes> RawMap::rawKeys(uint32_t keySize) const {
    std::vector<Bytes> keys;
    Bytes next(keySize);
    while (bpf_map_get_next_key(mFd, keys.empty() ? nullptr : keys.back().data(), next.data()) ==
           0) {
        keys.push_back(next);
    }
    if (errno != ENOENT) fail("walking the keys of");
    return keys;
}

std::vector<std::pair<Bytes, Bytes>> RawMap::rawEntries() const {
    const MapInfo shape = info();
    std::vector<std::pair<Bytes, Bytes>> entries;
    for (Bytes& key : rawKeys(shape.keySize)) {
        Bytes value(shape.valueSize);
        if (getRaw(key.data(), value.data())) entries.emplace_back(std::move(key), value);
    }
    return entries;
}

// A delete without a key: the kernel checks the descriptor's write access, which freezing takes
// away, before it copies the key, so a frozen map answers EPERM and any other EFAULT, and no
// entry can be deleted. Seen so on a 6.18 kernel for hash and array maps alike; the kernel's
// source has checked in this order since freezing came in 5.2.
bool RawMap::frozen() const {
    return bpf_map_delete_elem(mFd, nullptr) != 0 && errno == EPERM;
}

void RawMap::freeze() const {
    if (bpf_map_freeze(mFd) != 0) fail("freezing");
}

void createCatalogueMaps(uint32_t maxEntries) {
    for (const android::bpf::PinnedMapInfo& row : android::bpf::kPinnedMaps) {
        RawMap(row.path, row.keySize, row.valueSize, maxEntries);
    }
}

}  // namespace kovra::sandbox
