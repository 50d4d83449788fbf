// The live sandbox's two steps, in a build with the live side (KOVRA_LIVE_SIDE).
#pragma once

#ifdef KOVRA_LIVE_SIDE
#include <memory>
#include <string>
#include <vector>

#include <kovralive/Live.h>

namespace kovra::tool {

// Enters a network namespace of the sandbox's own, so that no traffic reaches the machine's
// network, and loads the live side with its programs attached to a private cgroup. Throws a
// ToolError (exit 3) when a step fails.
std::unique_ptr<live::LiveSide> goLive();

// Runs `command` in the live side's cgroup and waits for it; returns its exit status.
int runMeasured(const live::LiveSide& live, std::vector<std::string>& command);

}  // namespace kovra::tool
#endif
