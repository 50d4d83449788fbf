#pragma once

#include <string>
#include <vector>

namespace kovra::tool {

struct SandboxOptions {
    std::string seed;                  // "demo", or empty for empty maps
    std::vector<std::string> command;  // empty: an interactive shell
};

// Enters a private mount namespace with its own bpffs at /sys/fs/bpf, creates every map of the
// catalogue there, seeds the demo data when asked, then runs the command in place of this
// process. Returns only when the command cannot be run (127 not found, 126 otherwise). Needs
// root; throws a ToolError (exit 3) without it or when a step fails.
int runSandbox(const SandboxOptions& options);

}  // namespace kovra::tool
