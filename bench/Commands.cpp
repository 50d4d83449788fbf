// The bench executable's own syscall(): the library reaches it through the dynamic linker, which
// finds the executable's definition first. It counts, by command, the bpf commands the library
// issues, from its shared object or from its handle templates compiled into the benchmarks; the
// benchmarks' seeding and floors go through libbpf, whose commands pass uncounted.
#include <dlfcn.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>

#include <atomic>
#include <iterator>
#include <utility>

#include "Bench.h"

namespace kovra::bench {
namespace {

using SyscallFn = long (*)(long, ...);

std::atomic<uint64_t> counts[kCommandKinds];

// The base address of the object that holds `address`.
const void* objectOf(const void* address) {
    Dl_info info;
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

SyscallFn nextSyscall() {
    void* sym = dlsym(RTLD_NEXT, "syscall");
    if (sym == nullptr) abort();
    SyscallFn fn;
    memcpy(&fn, &sym, sizeof(fn));
    return fn;
}

// The bpf commands come from a handful of call sites; each is looked up once, so that the
// timings, the floors' included, pay a few comparisons per command rather than a dladdr().
bool inLibbpf(const void* caller) {
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

}  // namespace

uint64_t bpfCommands(int cmd) {
    return cmd >= 0 && cmd < kCommandKinds ? counts[cmd].load() : 0;
}

}  // namespace kovra::bench

extern "C" long syscall(long number, ...) {
    static const auto real = kovra::bench::nextSyscall();
    // syscall() takes up to six register-sized arguments; every wrapper of it passes them all on.
    va_list ap;
    va_start(ap, number);
    long a[6];
    for (long& arg : a) arg = va_arg(ap, long);
    va_end(ap);
    if (number == SYS_bpf && a[0] >= 0 && a[0] < kovra::bench::kCommandKinds &&
        !kovra::bench::inLibbpf(__builtin_return_address(0))) {
        ++kovra::bench::counts[a[0]];
    }
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
