#include "Pinned.h"

#include <errno.h>
#include <linux/bpf.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kovra::tool {
namespace {

long bpf(int cmd, bpf_attr& attr) {
    return syscall(__NR_bpf, cmd, &attr, sizeof(attr));
}

uint64_t ptr(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}

}  // namespace

void throwMapError(int exitCode, const std::string& what, const char* path) {
    throw ToolError(exitCode, what + " " + path + ": " + strerror(errno));
}

RawMap RawMap::create(const android::bpf::PinnedMapInfo& row, uint32_t maxEntries) {
    bpf_attr attr{};
    attr.map_type = BPF_MAP_TYPE_HASH;
    attr.key_size = row.keySize;
    attr.value_size = row.valueSize;
    attr.max_entries = maxEntries;
    RawMap map(static_cast<int>(bpf(BPF_MAP_CREATE, attr)));
    if (map.mFd < 0) throwMapError(kExitEnvironment, "creating the map for", row.path);

    bpf_attr pin{};
    pin.pathname = ptr(row.path);
    pin.bpf_fd = static_cast<uint32_t>(map.mFd);
    if (bpf(BPF_OBJ_PIN, pin) != 0) throwMapError(kExitEnvironment, "pinning", row.path);
    return map;
}

std::optional<RawMap> RawMap::open(const char* path, bool readOnly) {
    bpf_attr attr{};
    attr.pathname = ptr(path);
    attr.file_flags = readOnly ? BPF_F_RDONLY : 0;
    const int fd = static_cast<int>(bpf(BPF_OBJ_GET, attr));
    if (fd < 0) return std::nullopt;
    return RawMap(fd);
}

RawMap::~RawMap() {
    if (mFd >= 0) close(mFd);
}

MapShape RawMap::shape() const {
    bpf_map_info info{};
    bpf_attr attr{};
    attr.info.bpf_fd = static_cast<uint32_t>(mFd);
    attr.info.info_len = sizeof(info);
    attr.info.info = ptr(&info);
    if (bpf(BPF_OBJ_GET_INFO_BY_FD, attr) != 0) return {};
    return {info.type, info.key_size, info.value_size, info.max_entries, info.map_flags};
}

void RawMap::put(const void* key, const void* value, const char* what) const {
    bpf_attr attr{};
    attr.map_fd = static_cast<uint32_t>(mFd);
    attr.key = ptr(key);
    attr.value = ptr(value);
    attr.flags = BPF_ANY;
    if (bpf(BPF_MAP_UPDATE_ELEM, attr) != 0) throwMapError(kExitEnvironment, "writing", what);
}

bool RawMap::get(const void* key, void* value) const {
    bpf_attr attr{};
    attr.map_fd = static_cast<uint32_t>(mFd);
    attr.key = ptr(key);
    attr.value = ptr(value);
    return bpf(BPF_MAP_LOOKUP_ELEM, attr) == 0;
}

std::vector<std::vector<uint8_t>> RawMap::keys(uint32_t keySize) const {
    std::vector<std::vector<uint8_t>> keys;
    std::vector<uint8_t> next(keySize);
    while (true) {
        bpf_attr attr{};
        attr.map_fd = static_cast<uint32_t>(mFd);
        attr.key = keys.empty() ? 0 : ptr(keys.back().data());
        attr.next_key = ptr(next.data());
        if (bpf(BPF_MAP_GET_NEXT_KEY, attr) != 0) return keys;
        keys.push_back(next);
    }
}

}  // namespace kovra::tool
