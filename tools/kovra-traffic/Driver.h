// What kovra-traffic's command line and its run of flows share.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include <kovralive/Flow.h>

namespace kovra::traffic {

// "kovra-traffic: `problem`" on stderr; returns the exit code of a problem with the environment.
int environment(const std::string& problem);

// Flushes and closes `out` (stdout stays open); false (errno set) when anything written to it
// was lost.
bool written(FILE* out);

// Runs `flows` in `cgroup` and reports what they sent: a table on stdout, pretty JSON instead
// when `jsonFile` is "-", and into `jsonFile` besides when it names a file (checked writable
// before any flow runs). Returns the exit code: 128 + N when signal N ended the flows.
int runFlows(const std::vector<Flow>& flows, const char* cgroup, const std::string& jsonFile);

}  // namespace kovra::traffic
