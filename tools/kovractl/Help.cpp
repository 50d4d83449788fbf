#include "Help.h"

#include <stdio.h>

#include "Capture.h"
#include "Cli.h"

namespace kovra::tool {
namespace {

std::vector<const CLI::App*> subcommandsOf(const CLI::App* command) {
    return command->get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* subcommandNamed(const CLI::App* command, const std::string& name) {
    for (const CLI::App* sub : subcommandsOf(command)) {
        if (sub->check_name(name)) return sub;
    }
    return nullptr;
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

}  // namespace

bool isGlobalFlag(const std::string& arg) {
    for (const char* flag : {"-j", "--json", "-p", "--pretty", "-v", "--verbose", "--preview"}) {
        if (arg == flag) return true;
    }
    return arg.size() > 2 && arg[0] == '-' && arg[1] != '-' &&
           arg.find_first_not_of("jpv", 1) == std::string::npos;
}

std::string helpOf(const CLI::App* command) {
    std::string parents;
    for (const CLI::App* p = command->get_parent(); p != nullptr; p = p->get_parent()) {
        parents = p->get_name() + (parents.empty() ? "" : " " + parents);
    }
    return command->help(parents);
}

const CLI::App* commandNamed(const CLI::App& app, const std::vector<std::string>& words,
                             bool strict) {
    const CLI::App* current = &app;
    for (const std::string& word : words) {
        if (strict ? isGlobalFlag(word) : (!word.empty() && word[0] == '-')) continue;
        const CLI::App* sub = subcommandNamed(current, word);
        if (sub == nullptr) return strict ? nullptr : current;
        current = sub;
    }
    return current;
}

void printCompletions(const CLI::App& app, const std::vector<std::string>& words) {
    const CLI::App* command = commandNamed(app, words);
    // After an option that takes one of known values (--sort COLUMN), those values alone.
    if (const CLI::Option* option =
                words.empty() ? nullptr : command->get_option_no_throw(words.back())) {
        for (const std::string& value : offeredValues(option)) printf("%s\n", value.c_str());
        if (!offeredValues(option).empty()) return;
    }
    std::vector<std::string> next;
    for (const CLI::App* sub : subcommandsOf(command)) next.push_back(sub->get_name());
    if (command != &app) next.push_back("help");
    // The words a command's arguments take: map names, the screen's states, the demo data set.
    const std::string name = command->get_name();
    if (name == "dump" || name == "load") {
        for (const MapFields& map : catalogueFields()) next.push_back(map.name);
    }
    if (name == "screen") next.insert(next.end(), {"on", "off"});
    if (name == "sandbox") next.push_back("demo");
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

// The sections after the commands: what the tool reads and writes, what it reads from its
// environment, and the workflows people run.
constexpr char kManTail[] =
        ".SH \"GLOBAL OPTIONS\"\n"
        ".TP\n\\-j, \\-\\-json\nCompact JSON instead of tables, errors included.\n"
        ".TP\n\\-p, \\-\\-pretty\nIndented JSON instead of tables, errors included.\n"
        ".TP\n\\-v, \\-\\-verbose\nAlso the library's DEBUG log lines, and which entries were "
        "removed.\n"
        ".TP\n\\-\\-preview\nRun a command that removes entries against a copy of the maps in a "
        "private bpffs, and report what it would return and remove; the real maps stay as they "
        "are.\n"
        ".TP\n\\-V, \\-\\-version\nThe version, then exit.\n"
        ".SH FILES\n"
        ".TP\n/sys/fs/bpf/\nThe pinned maps, at the paths `kovractl maps` lists.\n"
        ".TP\n/tmp/kovra-live-cgroup.*\nA live sandbox's cgroup2 mount point; a new live sandbox "
        "removes those whose sandbox was killed, and says so.\n"
        ".SH ENVIRONMENT\n"
        ".TP\nKOVRA_SANDBOX\nSet by `kovractl sandbox` for its command: `load` writes only "
        "where it is set, unless given \\-\\-force.\n"
        ".TP\nKOVRA_LIVE_CGROUP, KOVRA_LIVE_NETNS\nSet by `kovractl sandbox \\-\\-live`: the "
        "sub-cgroup the programs are attached to, and the network namespace's inode.\n"
        ".TP\nSHELL\nThe shell `kovractl sandbox` starts when given no command.\n"
        ".SH EXAMPLES\n"
        "Capture a device's maps, then replay them on the desk with each record's age kept:\n"
        ".nf\n"
        "  adb shell kovractl \\-j dump > device.json\n"
        "  sudo kovractl sandbox \\-\\-seed device.json \\-\\- kovractl speeds sockets\n"
        "  sudo kovractl sandbox \\-\\- sh \\-c 'kovractl load device.json app_socket_info'\n"
        ".fi\n"
        "Compare two captures, and look at one app across every family:\n"
        ".nf\n"
        "  kovractl diff before.json after.json\n"
        "  kovractl uid 10123\n"
        ".fi\n"
        "See what a harvest would remove, without removing it:\n"
        ".nf\n"
        "  kovractl \\-\\-preview freeze syns\n"
        ".fi\n";

void printManPage(const CLI::App& app) {
    printf(".TH KOVRACTL 1 \"\" \"kovractl %s\" \"User Commands\"\n", KOVRA_VERSION);
    printf(".SH NAME\nkovractl \\- %s\n", roff(app.get_description()).c_str());
    printf(".SH SYNOPSIS\n.B kovractl\n[\\-j|\\-p] [\\-v] COMMAND ...\n");
    printf(".SH DESCRIPTION\nEvery command that changes a map goes through the library's "
           "services; views (maps, dump, the listings without arguments) read the maps through "
           "read-only handles. Before a service runs, kovractl checks the maps it opens and "
           "refuses with exit 3 what the library would abort on.\n");
    printf(".SH COMMANDS\n");
    for (const CLI::App* sub : subcommandsOf(&app))
        printManSection(sub, "kovractl " + sub->get_name());
    printf(".SH \"EXIT STATUS\"\n%s\n", roff(kExitCodes + 1).c_str());
    printf("%s", kManTail);
}

}  // namespace kovra::tool
