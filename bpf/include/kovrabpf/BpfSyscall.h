// The thin layer between the map handles and the kernel: one inline function per bpf(2) command
// the library issues. Each returns what the system call returned and leaves errno as it set it.
#pragma once

#include <errno.h>
#include <linux/bpf.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace android::bpf {

// The attribute block handed to the kernel: always this many bytes, zero but for the fields a
// command sets. It is larger than the bpf_attr of older uapi headers, and the kernel accepts a
// larger block as long as the bytes it does not know are zero.
inline constexpr unsigned kBpfAttrSize = 152;

union BpfAttr {
    bpf_attr attr;
    uint8_t block[kBpfAttrSize];
};

inline uint64_t bpfPtr(const void* p) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p));
}

inline long bpfCall(int cmd, BpfAttr& a) {
    return syscall(__NR_bpf, cmd, &a, kBpfAttrSize);
}

inline BpfAttr bpfZeroAttr() {
    BpfAttr a;
    memset(&a, 0, sizeof(a));
    return a;
}

inline int bpfObjGet(const char* path, uint32_t fileFlags) {
    BpfAttr a = bpfZeroAttr();
    a.attr.pathname = bpfPtr(path);
    a.attr.bpf_fd = 0;
    a.attr.file_flags = fileFlags;
    return static_cast<int>(bpfCall(BPF_OBJ_GET, a));
}

inline long bpfLookupElem(int fd, const void* key, void* value) {
    BpfAttr a = bpfZeroAttr();
    a.attr.map_fd = static_cast<uint32_t>(fd);
    a.attr.key = bpfPtr(key);
    a.attr.value = bpfPtr(value);
    return bpfCall(BPF_MAP_LOOKUP_ELEM, a);
}

inline long bpfUpdateElem(int fd, const void* key, const void* value, uint64_t flags) {
    BpfAttr a = bpfZeroAttr();
    a.attr.map_fd = static_cast<uint32_t>(fd);
    a.attr.key = bpfPtr(key);
    a.attr.value = bpfPtr(value);
    a.attr.flags = flags;
    return bpfCall(BPF_MAP_UPDATE_ELEM, a);
}

inline long bpfDeleteElem(int fd, const void* key) {
    BpfAttr a = bpfZeroAttr();
    a.attr.map_fd = static_cast<uint32_t>(fd);
    a.attr.key = bpfPtr(key);
    return bpfCall(BPF_MAP_DELETE_ELEM, a);
}

// A null `key` asks for the first key of the map.
inline long bpfGetNextKey(int fd, const void* key, void* nextKey) {
    BpfAttr a = bpfZeroAttr();
    a.attr.map_fd = static_cast<uint32_t>(fd);
    a.attr.key = bpfPtr(key);
    a.attr.next_key = bpfPtr(nextKey);
    return bpfCall(BPF_MAP_GET_NEXT_KEY, a);
}

// The 32-bit words of bpf_map_info the library reads.
enum class MapInfoWord : size_t {
    kId = offsetof(bpf_map_info, id),
    kKeySize = offsetof(bpf_map_info, key_size),
    kValueSize = offsetof(bpf_map_info, value_size),
    kFlags = offsetof(bpf_map_info, map_flags),
};
static_assert(static_cast<size_t>(MapInfoWord::kId) == 4 &&
              static_cast<size_t>(MapInfoWord::kKeySize) == 8 &&
              static_cast<size_t>(MapInfoWord::kValueSize) == 12 &&
              static_cast<size_t>(MapInfoWord::kFlags) == 20);

// Asks the kernel for the map's info (a fresh zeroed 88-byte buffer each time) and returns one
// word of it, read as signed. -1 when the command failed (errno is the kernel's) or when the reply
// is too short to hold the word: an older kernel that does not know the field, so errno becomes
// EOPNOTSUPP.
inline int bpfGetMapInfoWord(int fd, MapInfoWord word) {
    constexpr uint32_t kInfoSize = 88;
    alignas(8) uint8_t info[kInfoSize] = {};
    BpfAttr a = bpfZeroAttr();
    a.attr.info.bpf_fd = static_cast<uint32_t>(fd);
    a.attr.info.info_len = kInfoSize;
    a.attr.info.info = bpfPtr(info);
    if (bpfCall(BPF_OBJ_GET_INFO_BY_FD, a) != 0) return -1;
    const size_t offset = static_cast<size_t>(word);
    if (a.attr.info.info_len < offset + sizeof(uint32_t)) {
        errno = EOPNOTSUPP;
        return -1;
    }
    int32_t value;
    memcpy(&value, info + offset, sizeof(value));
    return value;
}

}  // namespace android::bpf
