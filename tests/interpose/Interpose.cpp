#include "Interpose.h"

#include <bpf/bpf.h>
#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>

#include <atomic>
#include <iterator>
#include <utility>

namespace kovra::interpose {
namespace {

using SyscallFn = long (*)(long, ...);

std::atomic<BpfObserver> observer{nullptr};

// The base address of the loaded object that holds `address`.
const void* objectOf(const void* address) {
    Dl_info info;
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

// Whether `caller`, a return address, lies in libbpf. The bpf commands come from a handful of
// call sites, each looked up once, so that timed code pays a few comparisons per command rather
// than a dladdr().
bool fromLibbpf(const void* caller) {
    static const void* const libbpf = objectOf(reinterpret_cast<const void*>(&bpf_map_create));
    thread_local std::pair<const void*, bool> known[16];
    thread_local size_t count = 0;
    for (size_t i = 0; i < count; ++i) {
        if (known[i].first == caller) return known[i].second;
    }
    const bool verdict = objectOf(caller) == libbpf;
    if (count < std::size(known)) known[count++] = {caller, verdict};
    return verdict;
}

SyscallFn realSyscall() {
    static const auto real = reinterpret_cast<SyscallFn>(nextDefinition("syscall"));
    return real;
}

}  // namespace

void observeBpf(BpfObserver next) {
    observer = next;
}

void* nextDefinition(const char* name) {
    void* sym = dlsym(RTLD_NEXT, name);
    if (sym == nullptr) {
        fprintf(stderr, "no definition of %s after the executable's own\n", name);
        abort();
    }
    return sym;
}

long realBpf(int cmd, void* attr, unsigned size) {
    return realSyscall()(SYS_bpf, cmd, attr, size);
}

}  // namespace kovra::interpose

extern "C" long syscall(long number, ...) {
    using namespace kovra::interpose;
    // syscall() takes up to six register-sized arguments; every wrapper of it passes them all on.
    va_list ap;
    va_start(ap, number);
    long a[6];
    for (long& arg : a) arg = va_arg(ap, long);
    va_end(ap);
    const BpfObserver observe = observer.load();
    if (number == SYS_bpf && observe != nullptr && !fromLibbpf(__builtin_return_address(0))) {
        const auto reply = observe(static_cast<int>(a[0]), reinterpret_cast<void*>(a[1]),
                                   static_cast<unsigned>(a[2]));
        if (reply) return *reply;
    }
    return realSyscall()(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
