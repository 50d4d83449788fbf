// What a child forked by the desk's tools does first, so that nothing of a tool outlives it: the
// live sandbox's command, the ends of a traffic flow, the holder of a veth peer's namespace.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace kovra::sandbox {

// Dies with SIGKILL when the thread that forked it ends (`parent` is the forking process's pid,
// taken before fork(), for the race of a parent that ended already). Changing credentials clears
// the signal: call it again after.
inline void dieWithParent(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
}

}  // namespace kovra::sandbox
