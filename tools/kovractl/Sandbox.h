#pragma once

#include <string>
#include <vector>

namespace kovra::tool {

struct SandboxOptions {
    std::string seed;                  // "demo", a capture's file, or empty for empty maps
    bool rawStamps = false;            // a capture's stamps as they are, not rebased
    std::vector<std::string> command;  // empty: an interactive shell
    bool live = false;                 // network namespace, cgroup and live programs too
};

// Enters a private mount namespace with its own bpffs at /sys/fs/bpf, creates every map of the
// catalogue there, seeds the demo data or replays a capture when asked (a capture is checked
// whole before the sandbox is made: a fault is a ToolError, exit 2), then runs the command in place
// of this process. Returns only when the command cannot be run (127 not found, 126 otherwise).
// Needs root; throws a ToolError (exit 3) without it or when a step fails. Live: the sandbox also
// enters a network namespace of its own, loads the live side and stays as the parent of the
// command, which runs in the live side's cgroup; returns its exit status.
int runSandbox(const SandboxOptions& options);

// Runs `command` in place of this process, started as it would be from a shell: every signal at
// its default, none blocked. Returns only when it cannot be run: 127 when it is not found, 126
// otherwise, said on stderr.
int execCommand(std::vector<std::string>& command);

}  // namespace kovra::tool
