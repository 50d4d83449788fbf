// The test executable's own definitions of __android_log_print and uname, and what it does with
// the library's bpf commands (the executable's syscall() is interpose/'s). The library reaches
// these C functions through the dynamic linker, which finds the executable's first; each forwards
// to the next definition (libc's or a sanitizer's) unless a test says otherwise.
#include <stdarg.h>
#include <stdio.h>
#include <sys/utsname.h>

#include <map>
#include <mutex>

#include <Interpose.h>

#include "Harness.h"

namespace kovra::test {
namespace {

using UnameFn = int (*)(struct utsname*);

struct State {
    std::mutex lock;
    std::vector<LogLine> logs;
    BpfHook hook;
    std::map<int, int> bpfCounts;
    std::optional<std::string> unameRelease;
    bool unameFails = false;
};

State& state() {
    static State* s = new State;  // never destroyed: atexit handlers may still log
    return *s;
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const LogLine& line) {
    return os << "{prio " << line.priority << ", tag "
              << (line.tag ? '"' + *line.tag + '"' : "null") << ", \"" << line.text << "\"}";
}

std::vector<LogLine> takeLogs() {
    std::lock_guard guard(state().lock);
    return std::exchange(state().logs, {});
}

void setBpfHook(BpfHook hook) {
    std::lock_guard guard(state().lock);
    state().hook = std::move(hook);
    state().bpfCounts.clear();
}

void failBpfCommand(int cmd, int nth, int err) {
    setBpfHook([=](int c, bpf_attr&, unsigned, int n) -> std::optional<long> {
        if (c != cmd || n != nth) return std::nullopt;
        errno = err;
        return -1;
    });
}

void reportMapFlags(uint32_t extra) {
    setBpfHook([extra](int cmd, bpf_attr& attr, unsigned size, int) -> std::optional<long> {
        if (cmd != BPF_OBJ_GET_INFO_BY_FD) return std::nullopt;
        const long rv = realBpf(cmd, &attr, size);
        reinterpret_cast<bpf_map_info*>(attr.info.info)->map_flags |= extra;
        return rv;
    });
}

int bpfCommandCount(int cmd) {
    std::lock_guard guard(state().lock);
    return state().bpfCounts[cmd];
}

void resetInterposers() {
    std::lock_guard guard(state().lock);
    state().hook = nullptr;
    state().bpfCounts.clear();
    state().unameRelease.reset();
    state().unameFails = false;
}

void setUnameRelease(std::optional<std::string> release, bool fail) {
    std::lock_guard guard(state().lock);
    state().unameRelease = std::move(release);
    state().unameFails = fail;
}

namespace {

// Counts each of the library's bpf commands and hands it to the test's hook.
std::optional<long> observe(int cmd, void* attr, unsigned size) {
    BpfHook hook;
    int nth;
    {
        std::lock_guard guard(state().lock);
        nth = ++state().bpfCounts[cmd];
        hook = state().hook;
    }
    return hook ? hook(cmd, *static_cast<bpf_attr*>(attr), size, nth) : std::nullopt;
}

[[maybe_unused]] const bool observing = (interpose::observeBpf(observe), true);

}  // namespace
}  // namespace kovra::test

using namespace kovra::test;

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char buf[1024];
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    std::lock_guard guard(state().lock);
    state().logs.push_back({prio, tag ? std::optional<std::string>(tag) : std::nullopt, buf});
    return 1;
}

extern "C" int uname(struct utsname* buf) {
    static const auto real = reinterpret_cast<UnameFn>(kovra::interpose::nextDefinition("uname"));
    std::optional<std::string> release;
    {
        std::lock_guard guard(state().lock);
        if (state().unameFails) {
            errno = EFAULT;
            return -1;
        }
        release = state().unameRelease;
    }
    const int rv = real(buf);
    if (rv == 0 && release) {
        snprintf(buf->release, sizeof(buf->release), "%s", release->c_str());
    }
    return rv;
}
