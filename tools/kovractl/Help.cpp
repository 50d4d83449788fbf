#include "Help.h"

#include <stdio.h>

#include "Capture.h"

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
}

}  // namespace kovra::tool
