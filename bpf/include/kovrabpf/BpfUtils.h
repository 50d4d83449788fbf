// The kernel version probe and the lock that read-write openers of a map share.
#pragma once

#include <stdint.h>

namespace android::bpf {

// The running kernel's release packed as (major << 24) + (minor << 16) + sub-level, with plain
// 32-bit wrap-around: a sub-level of 65536 or more spills into the minor field. Missing fields
// count as 0; 0 when uname fails. Asks the kernel on every call.
uint32_t uncachedKernelVersion();

// uncachedKernelVersion() of the first call, kept for the life of the process.
uint32_t kernelVersion();

// Kernels from 4.14 on report a map's flags and sizes; below that they cannot be checked.
inline bool isAtLeastKernelVersion4_14() {
    return (kernelVersion() >> 17) >= 519;
}

// Puts an open-file-description lock of `type` (F_RDLCK or F_WRLCK) on the byte at the map's
// kernel id, so that every read-write opener of one map shares it and a write-lock holder
// excludes them. Returns `fd` when locked, or unlocked on kernels that cannot report map ids;
// a negative `fd` unchanged; -1 after closing `fd` when the lock is refused (errno from fcntl).
// Aborts when the map id cannot be learnt for any other reason.
int bpfLock(int fd, short type);

}  // namespace android::bpf
