#include <kovrasandbox/Interpose.h>

#include <bpf/bpf.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

#include <iterator>
#include <utility>

namespace kovra::sandbox {
namespace {

// The base address of the loaded object that holds `address`.
const void* objectOf(const void* address) {
    Dl_info info;
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

}  // namespace

void* nextDefinition(const char* name) {
    void* sym = dlsym(RTLD_NEXT, name);
    if (sym == nullptr) {
        fprintf(stderr, "no definition of %s after the executable's own\n", name);
        abort();
    }
    return sym;
}

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

}  // namespace kovra::sandbox
