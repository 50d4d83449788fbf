// kovractl: the vendor's network services' eBPF maps from the command line, through libkovrabpf.
#include <errno.h>
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
2 bad arguments (nothing was touched); 3 not root, or a map missing, locked or not fitting its
records (nothing was touched), or the sandbox could not be set up; 4 the service returned -errno
(the errno is printed); 5 the output could not be written. The library's log lines go to
stderr; -v adds its DEBUG lines. `kovractl help`, `kovractl COMMAND help` and --help show help.)";

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

bool isGlobalFlag(const std::string& arg) {
    for (const char* flag : {"-j", "--json", "-p", "--pretty", "-v", "--verbose"}) {
        if (arg == flag) return true;
    }
    return arg.size() > 2 && arg[0] == '-' && arg[1] != '-' &&
           arg.find_first_not_of("jpv", 1) == std::string::npos;
}

bool wantsJson(const std::vector<std::string>& args) {
    for (const std::string& arg : args) {
        if (arg == "--") break;
        if (arg == "--json" || arg == "--pretty" ||
            (isGlobalFlag(arg) && arg.find_first_of("jp", 1) != std::string::npos)) {
            return true;
        }
    }
    return false;
}

// The sandbox's command is everything after the sandbox's own options (or after --), handed on
// untouched: `kovractl sandbox --seed demo kovractl stats uids -j` gives -j to the inner command.
std::vector<std::string> splitSandboxCommand(std::vector<std::string>& args) {
    size_t i = 0;
    while (i < args.size() && isGlobalFlag(args[i])) ++i;
    if (i == args.size() || args[i] != "sandbox") return {};
    for (++i; i < args.size(); ++i) {
        if (args[i] == "--seed") {
            // A missing value is the parser's to report.
            if (i + 1 < args.size()) ++i;
        } else if (args[i] == "--") {
            std::vector<std::string> command(args.begin() + i + 1, args.end());
            args.resize(i);
            return command;
        } else if (args[i].empty() || args[i][0] != '-') {
            break;
        }
    }
    std::vector<std::string> command(args.begin() + i, args.end());
    args.resize(i);
    return command;
}

std::vector<const CLI::App*> subcommandsOf(const CLI::App* command) {
    return command->get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* subcommandNamed(const CLI::App* command, const std::string& name) {
    for (const CLI::App* sub : subcommandsOf(command)) {
        if (sub->check_name(name)) return sub;
    }
    return nullptr;
}

// A command's help with its whole name in the usage line: "Usage: kovractl stats uids ...".
std::string helpOf(const CLI::App* command) {
    std::string parents;
    for (const CLI::App* p = command->get_parent(); p != nullptr; p = p->get_parent()) {
        parents = p->get_name() + (parents.empty() ? "" : " " + parents);
    }
    return command->help(parents);
}

// The innermost command that `words` name, skipping options. With `strict`, every word must be
// a global flag or the next subcommand's name, or there is none (nullptr).
const CLI::App* commandNamed(const CLI::App& app, const std::vector<std::string>& words,
                             bool strict = false) {
    const CLI::App* current = &app;
    for (const std::string& word : words) {
        if (strict ? isGlobalFlag(word) : (!word.empty() && word[0] == '-')) continue;
        const CLI::App* sub = subcommandNamed(current, word);
        if (sub == nullptr) return strict ? nullptr : current;
        current = sub;
    }
    return current;
}

// `kovractl __complete WORD...`: the words that may follow, for the bash completion.
void printCompletions(const CLI::App& app, const std::vector<std::string>& words) {
    const CLI::App* command = commandNamed(app, words);
    std::vector<std::string> next;
    for (const CLI::App* sub : subcommandsOf(command)) next.push_back(sub->get_name());
    if (command != &app) next.push_back("help");
    for (const CLI::App* c = command; c != nullptr; c = c->get_parent()) {
        for (const CLI::Option* option : c->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                if (std::find(next.begin(), next.end(), "--" + name) == next.end()) {
                    next.push_back("--" + name);
                }
            }
        }
    }
    for (const std::string& word : next) printf("%s\n", word.c_str());
}

std::string roff(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        // A line that starts with a dot or a quote would be read as a request.
        if ((i == 0 || text[i - 1] == '\n') && (text[i] == '.' || text[i] == '\'')) out += "\\&";
        out += text[i] == '\\' ? std::string("\\e") : std::string(1, text[i]);
    }
    return out;
}

void printManSection(const CLI::App* command, const std::string& path) {
    printf(".SS \"%s\"\n.nf\n%s\n.fi\n", path.c_str(), roff(helpOf(command)).c_str());
    for (const CLI::App* sub : subcommandsOf(command)) {
        printManSection(sub, path + " " + sub->get_name());
    }
}

// `kovractl __man`: the manual page, from the same definitions as the help.
void printManPage(const CLI::App& app) {
    printf(".TH KOVRACTL 1 \"\" \"kovractl %s\" \"User Commands\"\n", KOVRA_VERSION);
    printf(".SH NAME\nkovractl \\- %s\n", roff(app.get_description()).c_str());
    printf(".SH SYNOPSIS\n.B kovractl\n[\\-j|\\-p] [\\-v] COMMAND ...\n");
    printf(".SH DESCRIPTION\nEvery command that changes a map goes through the library's "
           "services; views (maps, dump, the listings without arguments) read the maps through "
           "read-only handles. Before a service runs, kovractl checks the maps it opens and "
           "refuses with exit 3 what the library would abort on.\n");
    printf(".SH COMMANDS\n");
    for (const CLI::App* sub : subcommandsOf(&app)) printManSection(sub, "kovractl " + sub->get_name());
    printf(".SH \"EXIT STATUS\"\n%s\n", roff(kExitCodes + 1).c_str());
}

int usageError(const CLI::App& app, const CLI::ParseError& error, bool json,
               const std::vector<std::string>& args) {
    const CLI::App* command = commandNamed(app, args);
    std::string message = error.what();
    // An unknown subcommand is left over rather than reported by name; name it.
    const std::vector<std::string> unknown = app.remaining(true);
    if (!unknown.empty() && error.get_name() == "RequiredError") {
        message = "unknown subcommand '" + unknown.front() + "'";
    }
    fprintf(stderr, "kovractl: %s\n\n%s", message.c_str(), helpOf(command).c_str());
    if (json) printf("%s\n", Json({{"error", message}, {"exitCode", kExitUsage}}).dump().c_str());
    return kExitUsage;
}

int run(std::vector<std::string> args) {
    CLI::App app("Reads and changes the vendor network services' eBPF maps through libkovrabpf.",
                 "kovractl");
    app.require_subcommand(1);
    // Global flags are accepted after the subcommands too: `kovractl stats uids -j`.
    app.fallthrough();
    app.set_version_flag("--version", KOVRA_VERSION);
    Context ctx;
    app.add_flag("-j,--json", ctx.json, "Print compact JSON instead of tables");
    app.add_flag("-p,--pretty", ctx.pretty, "Print indented JSON instead of tables");
    app.add_flag("-v,--verbose", ctx.verbose,
                 "Also show the library's DEBUG log lines, and which entries were removed");
    ctx.sandboxCommand = splitSandboxCommand(args);

    addStatsCommands(app, ctx);
    addFreezeCommands(app, ctx);
    addSpeedsCommands(app, ctx);
    addWakeupCommands(app, ctx);
    addNetCommands(app, ctx);
    addMapsCommand(app, ctx);
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

    const bool json = wantsJson(args);
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
        return usageError(app, error, json, args);
    }

    if (ctx.verbose) __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    int code;
    try {
        code = ctx.action();
    } catch (const ToolError& error) {
        // One line each for several problems (every map that does not fit, say).
        std::string lines = error.what();
        for (size_t at = 0; (at = lines.find('\n', at)) != std::string::npos; at += 11) {
            lines.insert(at + 1, "kovractl: ");
        }
        fprintf(stderr, "kovractl: %s\n", lines.c_str());
        if (json && !error.inJson()) {
            printf("%s\n", Json({{"error", error.what()}, {"exitCode", error.exitCode()}}).dump().c_str());
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
        fprintf(stderr, "kovractl: writing the output failed: %s%s%s\n", strerror(err),
                ctx.outputHoldsOnlyCopy.empty() ? "" : "; ", ctx.outputHoldsOnlyCopy.c_str());
        return kExitOutput;
    }
    return code;
}

}  // namespace
}  // namespace kovra::tool

int main(int argc, char** argv) {
    signal(SIGABRT, kovra::tool::explainAbort);
    // A closed pipe is an output failure like any other, reported rather than a silent death.
    signal(SIGPIPE, SIG_IGN);
    return kovra::tool::run(std::vector<std::string>(argv + 1, argv + argc));
}
