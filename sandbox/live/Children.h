// The children a run of flows forks: each joins the live side's cgroup and dies with the thread
// that forked it, and stop() reaches every one of them from a signal handler.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kovra::traffic {

// Runs `body` in a child that joined `cgroup`; returns the child and the read end of its report
// pipe, whose write end `body` gets. The child first closes `parentOnly`: the write ends of the
// flows' stop pipes, whose end of file must reach each receiver when the parent closes them. A
// stopping signal (Ctrl-C reaches it too, or stop() passes one on) ends its flow early, with a
// report of what it did.
std::pair<pid_t, int> spawn(const std::string& cgroup, const std::vector<int>& parentOnly,
                            const std::function<void(int)>& body);

// Whether stop() has come; a run starts no more flows then.
bool stopRequested();

// Forgets the children of a run that ended, and a stop that came for it.
void forgetChildren();

}  // namespace kovra::traffic
