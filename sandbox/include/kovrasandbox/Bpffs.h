// A private bpffs for this process: the desk's stand-in for the device's /sys/fs/bpf, where the
// kernel side's maps are created and pinned at their real paths without touching the machine's.
#pragma once

#include <kovrasandbox/Error.h>

namespace kovra::sandbox {

inline constexpr char kBpffs[] = "/sys/fs/bpf";

// Moves this process into a mount namespace of its own with a fresh bpffs at /sys/fs/bpf, once;
// later calls give the first call's answer. Throws Error saying what prevented it (it needs
// root). The process's children share the bpffs; it vanishes with the last of them.
//
// `shareVariable` names an environment variable that lets a process this one re-executes (a
// death test's child) know that it already sits in its parent's bpffs and stay there instead of
// mounting another; nullptr for none.
void enterPrivateBpffs(const char* shareVariable = nullptr);

// Removes every pin and folder of the private bpffs except the kernel's own entries
// (maps.debug, progs.debug). Throws Error when one cannot be removed.
void emptyBpffs();

// The number of descriptors this process has open, for leak checks.
int openFdCount();

}  // namespace kovra::sandbox
