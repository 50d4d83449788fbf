#include "Failures.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "Commands.h"
#include "Help.h"

namespace kovra::tool {
namespace {

// An error as JSON on stdout, laid out as -p or -j asked.
void printJsonError(const std::string& message, int exitCode, bool pretty) {
    printf("%s\n",
           Json({{"error", message}, {"exitCode", exitCode}}).dump(pretty ? 2 : -1).c_str());
}

}  // namespace

int usageError(const CLI::App& app, const CLI::ParseError& error, bool json, bool pretty,
               const std::vector<std::string>& args) {
    const CLI::App* command = commandNamed(app, args);
    std::string message = error.what();
    // An unknown subcommand is left over rather than reported by name; name it.
    const std::vector<std::string> unknown = app.remaining(true);
    if (!unknown.empty() && error.get_name() == "RequiredError") {
        message = "unknown subcommand '" + unknown.front() + "'";
    }
    fprintf(stderr, "kovractl: %s\n\n%s", message.c_str(), helpOf(command).c_str());
    if (json || pretty) printJsonError(message, kExitUsage, pretty);
    return kExitUsage;
}

int runAction(const Context& ctx) {
    try {
        if (ctx.preview) enterPreview();
        return ctx.action();
    } catch (const ToolError& error) {
        // One line each for several problems (every map that does not fit, say).
        const std::string prefix = "kovractl: ";
        std::string lines = error.what();
        for (size_t at = 0; (at = lines.find('\n', at)) != std::string::npos;
             at += 1 + prefix.size()) {
            lines.insert(at + 1, prefix);
        }
        fprintf(stderr, "%s%s\n", prefix.c_str(), lines.c_str());
        if (ctx.jsonOutput() && !error.inJson()) {
            printJsonError(error.what(), error.exitCode(), ctx.pretty);
        }
        return error.exitCode();
    } catch (const std::exception& error) {
        // Not a user's mistake, but still one line and an exit code rather than an abort.
        fprintf(stderr, "kovractl: internal error: %s\n", error.what());
        return kExitFailed;
    }
}

int checkOutput(const Context& ctx, int code) {
    // Every write is checked here, at the end: a full disk or a closed stdout fails the command.
    if (fflush(stdout) != 0 || ferror(stdout)) {
        const int err = errno;
        // A reader that has seen enough (`| head -1`) ends the command quietly, as it ends other
        // tools, unless what it did not read was the only copy of what a harvest removed.
        if (err == EPIPE && ctx.outputHoldsOnlyCopy.empty()) return code;
        const std::string made =
                ctx.changeMade.empty() ? "" : "; the change was made: " + ctx.changeMade;
        fprintf(stderr, "kovractl: writing the output failed: %s%s%s%s\n", strerror(err),
                ctx.outputHoldsOnlyCopy.empty() ? "" : "; ", ctx.outputHoldsOnlyCopy.c_str(),
                made.c_str());
        return kExitOutput;
    }
    return code;
}

}  // namespace kovra::tool
