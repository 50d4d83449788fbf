// The desk tools' exit codes (kovractl's and the traffic driver's) and the error that carries one
// up to main().
#pragma once

#include <stdexcept>
#include <string>

namespace kovra::tool {

// A fixed small set, clear of the shell's 126 and up (command not runnable, 128 + signal). The
// errno behind a status is printed, not encoded in the exit code.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // the service returned -1: a walk, write or delete failed
inline constexpr int kExitUsage = 2;   // bad arguments; nothing was touched
inline constexpr int kExitEnvironment = 3;  // not root, a map missing or not fitting, no sandbox
inline constexpr int kExitErrno = 4;        // the service returned -errno
inline constexpr int kExitOutput = 5;       // the output could not be written

inline int exitCodeForStatus(int status) {
    if (status >= 0) return kExitOk;
    return status == -1 ? kExitFailed : kExitErrno;
}

// Ends the command: main() prints "kovractl: <message>" on stderr, with JSON output an error
// object on stdout as well unless the command has printed its own (`inJson`), and exits with
// `exitCode`.
class ToolError : public std::runtime_error {
  public:
    ToolError(int exitCode, const std::string& message, bool inJson = false)
        : std::runtime_error(message), mExitCode(exitCode), mInJson(inJson) {}
    int exitCode() const { return mExitCode; }
    bool inJson() const { return mInJson; }

  private:
    int mExitCode;
    bool mInJson;
};

}  // namespace kovra::tool
