// kovractl: the vendor's network services' eBPF maps from the command line, through libkovrabpf.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <android/log.h>

#include "Commands.h"

namespace kovra::tool {
namespace {

constexpr char kExitCodes[] = R"(
Exit codes: 0 success; 1 the service failed (status -1: a walk, write or delete failed);
2 bad arguments (nothing was touched); 3 maps not pinned or not fitting, or the sandbox could
not be set up; 100+errno the service returned -errno (102: ENOENT). The library's log lines
go to stderr; -v adds its DEBUG lines.)";

// The library ends the process with abort() when a map cannot be opened or locked, or does not
// fit its records. Say so before dying, in the only way a signal handler may.
void explainAbort(int) {
    static const char message[] =
            "kovractl: the library ended the process: a map it opened is missing, locked by "
            "another writer, or does not fit its records (see `kovractl maps`)\n";
    ssize_t ignored = write(STDERR_FILENO, message, sizeof(message) - 1);
    (void)ignored;
    signal(SIGABRT, SIG_DFL);
    raise(SIGABRT);
}

// The innermost subcommand that was given, for the usage shown with an error.
const CLI::App* innermost(const CLI::App& app) {
    const CLI::App* current = &app;
    while (!current->get_subcommands().empty()) current = current->get_subcommands().front();
    return current;
}

int usageError(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App* command = innermost(app);
    // An unknown subcommand is left over rather than reported by name; name it.
    const std::vector<std::string> unknown = app.remaining(true);
    if (!unknown.empty() && error.get_name() == "RequiredError") {
        fprintf(stderr, "kovractl: unknown subcommand '%s'\n\n", unknown.front().c_str());
    } else {
        fprintf(stderr, "kovractl: %s\n\n", error.what());
    }
    fputs(command->help().c_str(), stderr);
    return kExitUsage;
}

int run(int argc, char** argv) {
    CLI::App app("Reads and changes the vendor network services' eBPF maps through libkovrabpf.",
                 "kovractl");
    app.require_subcommand(1);
    // Global flags are accepted after the subcommands too: `kovractl stats uids --json`.
    app.fallthrough();
    Context ctx;
    bool verbose = false;
    app.add_flag("--json", ctx.json, "Print JSON instead of tables");
    app.add_flag("-v,--verbose", verbose, "Also show the library's DEBUG log lines");

    addStatsCommands(app, ctx);
    addFreezeCommands(app, ctx);
    addSpeedsCommands(app, ctx);
    addWakeupCommands(app, ctx);
    addNetCommands(app, ctx);
    addMapsCommand(app, ctx);
    addSandboxCommand(app, ctx);
    // Set last, so that only the top-level help carries it, not every subcommand's.
    app.footer(kExitCodes);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return usageError(app, error);
    }

    if (verbose) __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    try {
        return ctx.action();
    } catch (const ToolError& error) {
        fprintf(stderr, "kovractl: %s\n", error.what());
        return error.exitCode();
    }
}

}  // namespace
}  // namespace kovra::tool

int main(int argc, char** argv) {
    signal(SIGABRT, kovra::tool::explainAbort);
    return kovra::tool::run(argc, argv);
}
