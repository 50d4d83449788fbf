#include <kovrabpf/BpfUtils.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <kovrabpf/BpfSyscall.h>

namespace android::bpf {

uint32_t uncachedKernelVersion() {
    struct utsname buf;
    memset(&buf, 0, sizeof(buf));
    if (uname(&buf)) return 0;

    // The scan's count is of no interest: a field it cannot read stays 0, so "5.10" is 5.10.0
    // and a local version suffix after the third number is ignored.
    unsigned major = 0, minor = 0, sub = 0;
    (void)sscanf(buf.release, "%u.%u.%u", &major, &minor, &sub);
    return (major << 24) + (minor << 16) + sub;
}

uint32_t kernelVersion() {
    static const uint32_t version = uncachedKernelVersion();
    return version;
}

int bpfLock(int fd, short type) {
    if (fd < 0) return fd;

    // Own the descriptor while asking the kernel about it, so that fdsan (where the platform has
    // it) sees a known owner; hand it back untouched afterwards.
    android::base::unique_fd owner(fd);
    const int mapId = bpfGetMapInfoWord(owner.get(), MapInfoWord::kId);
    const int savedErrno = errno;
    fd = owner.release();

    // Kernels that cannot report map ids answer EINVAL; nothing can be locked there.
    if (mapId == -1 && savedErrno == EINVAL) return fd;
    if (mapId <= 0) abort();

    struct flock lock;
    memset(&lock, 0, sizeof(lock));
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = mapId;
    lock.l_len = 1;
    const int rv = fcntl(fd, F_OFD_SETLK, &lock);
    if (rv == 0) return fd;

    const int lockErrno = errno;
    close(fd);
    errno = lockErrno;
    return rv;
}

}  // namespace android::bpf
