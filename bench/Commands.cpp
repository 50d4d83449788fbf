// The bench executable's own syscall(): the library reaches it through the dynamic linker, which
// finds the executable's definition first. It counts, by command, the bpf commands the library
// issues, from its shared object or from its handle templates compiled into the benchmarks; the
// benchmarks' seeding and floors go through libbpf, whose commands pass uncounted.
#include <stdarg.h>
#include <sys/syscall.h>

#include <atomic>

#include <kovrasandbox/Interpose.h>

#include "Bench.h"

namespace kovra::bench {
namespace {

std::atomic<uint64_t> counts[kCommandKinds];

}  // namespace

uint64_t bpfCommands(int cmd) {
    return cmd >= 0 && cmd < kCommandKinds ? counts[cmd].load() : 0;
}

}  // namespace kovra::bench

extern "C" long syscall(long number, ...) {
    using SyscallFn = long (*)(long, ...);
    static const auto real =
            reinterpret_cast<SyscallFn>(kovra::sandbox::nextDefinition("syscall"));
    // syscall() takes up to six register-sized arguments; every wrapper of it passes them all on.
    va_list ap;
    va_start(ap, number);
    long a[6];
    for (long& arg : a) arg = va_arg(ap, long);
    va_end(ap);
    if (number == SYS_bpf && a[0] >= 0 && a[0] < kovra::bench::kCommandKinds &&
        !kovra::sandbox::fromLibbpf(__builtin_return_address(0))) {
        ++kovra::bench::counts[a[0]];
    }
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
