// The one syscall() of the executables that watch or steer the library's bpf commands (the
// tests and the benchmarks; link Interpose.cpp into the executable itself and export its
// symbols). The library reaches it through the dynamic linker, which finds the executable's
// definition first, and so does libbpf, through which the desk's own map work goes: its commands,
// and every other call, pass on untouched to the next definition (libc's, or a sanitizer's).
#pragma once

#include <optional>

namespace kovra::interpose {

// Sees each bpf command of the library: a value returned replaces the system call (with errno
// set by the observer), nullopt lets the command through. Called on the issuing thread.
using BpfObserver = std::optional<long> (*)(int cmd, void* attr, unsigned size);

// Makes `observer` see every later command; nullptr for none.
void observeBpf(BpfObserver observer);

// The definition of the C function `name` that follows the executable's own. Ends the process
// with a line on stderr when there is none.
void* nextDefinition(const char* name);

// The bpf system call itself, past every observer.
long realBpf(int cmd, void* attr, unsigned size);

}  // namespace kovra::interpose
