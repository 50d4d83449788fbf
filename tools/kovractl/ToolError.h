// kovractl's exit codes and the error that carries one up to main().
#pragma once

#include <stdexcept>
#include <string>

namespace kovra::tool {

// A service's status becomes the exit code: 0 stays 0, -1 (a walk, write or delete failed)
// becomes 1, and -errno becomes 100 + errno (-ENOENT: 102). 2 and 3 are kovractl's own.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;        // bad arguments; nothing was touched
inline constexpr int kExitEnvironment = 3;  // maps not pinned, no root for the sandbox, ...
inline constexpr int kExitErrnoBase = 100;

// Exit code for a service status, as above.
inline int exitCodeForStatus(int status) {
    if (status >= 0) return kExitOk;
    if (status == -1) return kExitFailed;
    const int err = -status;
    return err > 255 - kExitErrnoBase ? 255 : kExitErrnoBase + err;
}

// Ends the command: main() prints "kovractl: <message>" on stderr and exits with `exitCode`.
class ToolError : public std::runtime_error {
  public:
    ToolError(int exitCode, const std::string& message)
        : std::runtime_error(message), mExitCode(exitCode) {}
    int exitCode() const { return mExitCode; }

  private:
    int mExitCode;
};

}  // namespace kovra::tool
