// kovractl: the vendor's network services' eBPF maps from the command line, through libkovrabpf.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <android/log.h>

#include "Commands.h"
#include "Help.h"

namespace kovra::tool {
namespace {

// The pre-checks keep the library from ending the process, but a map can change between the
// check and the service's open. Say so, and end without a core dump.
void explainAbort(int) {
    static const char message[] =
            "kovractl: the library ended the process: a map changed between kovractl's check and "
            "the service's open (missing, locked by another writer, or not fitting its records; "
            "see `kovractl maps`)\n";
    ssize_t ignored = write(STDERR_FILENO, message, sizeof(message) - 1);
    (void)ignored;
    _exit(kExitEnvironment);
}

// An error as JSON on stdout, laid out as -p or -j asked.
void printJsonError(const std::string& message, int exitCode, bool pretty) {
    printf("%s\n",
           Json({{"error", message}, {"exitCode", exitCode}}).dump(pretty ? 2 : -1).c_str());
}

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

int run(std::vector<std::string> args) {
    CLI::App app("Reads and changes the vendor network services' eBPF maps through libkovrabpf.",
                 "kovractl");
    app.require_subcommand(1);
    // Global flags are accepted after the subcommands too: `kovractl stats uids -j`.
    app.fallthrough();
    // -V as well: bpftool's and ip's users type it.
    app.set_version_flag("-V,--version", KOVRA_VERSION);
    Context ctx;
    CLI::Option* json = app.add_flag("-j,--json", ctx.json, "Print compact JSON instead of tables");
    CLI::Option* pretty =
            app.add_flag("-p,--pretty", ctx.pretty, "Print indented JSON instead of tables");
    app.add_flag("-v,--verbose", ctx.verbose,
                 "Also show the library's DEBUG log lines, and which entries were removed");
    app.add_flag("--preview", ctx.preview,
                 "Run the command on a copy of the maps in a private bpffs: show what it would "
                 "return and remove, and leave the maps as they are (root)");

    addStatsCommands(app, ctx);
    addFreezeCommands(app, ctx);
    addSpeedsCommands(app, ctx);
    addWakeupCommands(app, ctx);
    addScreenCommand(app, ctx);
    addNetCommands(app, ctx);
    addMapsCommand(app, ctx);
    addCaptureCommands(app, ctx);
    addDiffCommand(app, ctx);
    addUidCommand(app, ctx);
    addSandboxCommand(app, ctx);
    // Set last, so that only the top-level help carries it, not every subcommand's.
    app.footer(kExitCodes);

    if (!args.empty() && args[0] == "__complete") {
        printCompletions(app, std::vector<std::string>(args.begin() + 1, args.end()));
        return kExitOk;
    }
    if (!args.empty() && args[0] == "__man") {
        printManPage(app);
        return kExitOk;
    }
    // `help` as the last word after a command's name: that command's help.
    if (!args.empty() && args.back() == "help") {
        const std::vector<std::string> before(args.begin(), args.end() - 1);
        if (const CLI::App* command = commandNamed(app, before, true)) {
            printf("%s", helpOf(command).c_str());
            return kExitOk;
        }
    }

    std::vector<std::string> reversed(args.rbegin(), args.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& error) {
        return usageError(app, error, json->count() > 0, pretty->count() > 0, args);
    }
    if (ctx.verbose) __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    int code;
    try {
        if (ctx.preview) enterPreview();
        code = ctx.action();
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
        code = error.exitCode();
    } catch (const std::exception& error) {
        // Not a user's mistake, but still one line and an exit code rather than an abort.
        fprintf(stderr, "kovractl: internal error: %s\n", error.what());
        code = kExitFailed;
    }
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

}  // namespace
}  // namespace kovra::tool

int main(int argc, char** argv) {
    signal(SIGABRT, kovra::tool::explainAbort);
    // A closed pipe is seen as a failed write, and run() decides what it means, rather than a
    // silent death in the middle of a harvest.
    signal(SIGPIPE, SIG_IGN);
    return kovra::tool::run(std::vector<std::string>(argv + 1, argv + argc));
}
