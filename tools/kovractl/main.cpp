// kovractl: the vendor's network services' eBPF maps from the command line, through libkovrabpf.
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <android/log.h>

#include "Commands.h"
#include "Failures.h"
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
    return checkOutput(ctx, runAction(ctx));
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
