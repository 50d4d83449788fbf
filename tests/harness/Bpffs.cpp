#include "Bpffs.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <sstream>

namespace kovra::test {
namespace {

constexpr char kBpffs[] = "/sys/fs/bpf";
// Set once this process (or the one that re-executed it for a death test) sits in its own
// mount namespace, so a re-executed child reuses its parent's bpffs instead of mounting another.
constexpr char kInSandbox[] = "KOVRA_TEST_IN_PRIVATE_BPFFS";

// A fresh bpffs already holds the kernel's own entries (maps.debug, progs.debug); they stay.
// Their names travel in the sandbox variable, so a re-executed child knows them too.
std::set<std::string> preloaded;

std::string enterOnce() {
    if (const char* names = getenv(kInSandbox)) {
        std::istringstream in(names);
        for (std::string name; std::getline(in, name, '/');) preloaded.insert(name);
        return "";
    }
    if (geteuid() != 0) return "needs root (CAP_SYS_ADMIN and CAP_BPF) for a private bpffs";
    if (unshare(CLONE_NEWNS) != 0) return std::string("unshare(CLONE_NEWNS): ") + strerror(errno);
    // Without this our bpffs mount would propagate back into the machine's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return std::string("making / private: ") + strerror(errno);
    }
    if (mount("bpf", kBpffs, "bpf", 0, nullptr) != 0) {
        return std::string("mounting bpffs: ") + strerror(errno);
    }
    std::string names;
    if (DIR* dir = opendir(kBpffs)) {
        while (dirent* entry = readdir(dir)) {
            preloaded.insert(entry->d_name);
            names += std::string(entry->d_name) + "/";
        }
        closedir(dir);
    }
    setenv(kInSandbox, names.c_str(), 1);
    return "";
}

void reportAndExit(const std::string& what) {
    fprintf(stderr, "kovra harness: %s\n", what.c_str());
    abort();
}

FailureReporter failureReporter = reportAndExit;

void fail(const std::string& what) {
    failureReporter(what);
}

long bpfAttr(int cmd, bpf_attr& attr) {
    return realBpf(cmd, &attr, sizeof(attr));
}

uint64_t ptr(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}

}  // namespace

long realBpf(int cmd, void* attr, unsigned size) {
    using SyscallFn = long (*)(long, ...);
    static const SyscallFn real = [] {
        // The definition after this executable's own: libc's, or a sanitizer's in front of it.
        void* sym = dlsym(RTLD_NEXT, "syscall");
        if (sym == nullptr) reportAndExit("no next definition of syscall");
        SyscallFn fn;
        memcpy(&fn, &sym, sizeof(fn));
        return fn;
    }();
    return real(SYS_bpf, cmd, attr, size);
}

std::string enterPrivateBpffs() {
    static const std::string problem = enterOnce();
    return problem;
}

const std::set<std::string>& preloadedBpffsEntries() {
    return preloaded;
}

void setFailureReporter(FailureReporter reporter) {
    failureReporter = reporter;
}

RawMap::RawMap(const char* path, uint32_t keySize, uint32_t valueSize, uint32_t maxEntries,
               uint32_t mapFlags) {
    bpf_attr attr{};
    attr.map_type = BPF_MAP_TYPE_HASH;
    attr.key_size = keySize;
    attr.value_size = valueSize;
    attr.max_entries = maxEntries;
    attr.map_flags = mapFlags;
    mFd = static_cast<int>(bpfAttr(BPF_MAP_CREATE, attr));
    if (mFd < 0) {
        fail(std::string("creating map for ") + path + ": " + strerror(errno));
        return;
    }
    unlink(path);
    bpf_attr pin{};
    pin.pathname = ptr(path);
    pin.bpf_fd = static_cast<uint32_t>(mFd);
    if (bpfAttr(BPF_OBJ_PIN, pin) != 0)
        fail(std::string("pinning ") + path + ": " + strerror(errno));
}

RawMap::~RawMap() {
    if (mFd >= 0) close(mFd);
}

bool RawMap::putRaw(const void* key, const void* value, uint64_t flags) const {
    bpf_attr attr{};
    attr.map_fd = static_cast<uint32_t>(mFd);
    attr.key = ptr(key);
    attr.value = ptr(value);
    attr.flags = flags;
    return bpfAttr(BPF_MAP_UPDATE_ELEM, attr) == 0;
}

bool RawMap::getRaw(const void* key, void* value) const {
    bpf_attr attr{};
    attr.map_fd = static_cast<uint32_t>(mFd);
    attr.key = ptr(key);
    attr.value = ptr(value);
    return bpfAttr(BPF_MAP_LOOKUP_ELEM, attr) == 0;
}

bool RawMap::eraseRaw(const void* key) const {
    bpf_attr attr{};
    attr.map_fd = static_cast<uint32_t>(mFd);
    attr.key = ptr(key);
    return bpfAttr(BPF_MAP_DELETE_ELEM, attr) == 0;
}

std::vector<std::vector<uint8_t>> RawMap::rawKeys(uint32_t keySize) const {
    std::vector<std::vector<uint8_t>> keys;
    std::vector<uint8_t> next(keySize);
    const void* current = nullptr;
    while (true) {
        bpf_attr attr{};
        attr.map_fd = static_cast<uint32_t>(mFd);
        attr.key = ptr(current);
        attr.next_key = ptr(next.data());
        if (bpfAttr(BPF_MAP_GET_NEXT_KEY, attr) != 0) break;
        keys.push_back(next);
        current = keys.back().data();
    }
    return keys;
}

uint32_t RawMap::id() const {
    bpf_map_info info{};
    bpf_attr attr{};
    attr.info.bpf_fd = static_cast<uint32_t>(mFd);
    attr.info.info_len = sizeof(info);
    attr.info.info = ptr(&info);
    if (bpfAttr(BPF_OBJ_GET_INFO_BY_FD, attr) != 0) {
        fail(std::string("reading a map's id: ") + strerror(errno));
    }
    return info.id;
}

int openFdCount() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

}  // namespace kovra::test
