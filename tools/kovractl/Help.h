// kovractl's help beyond CLI11's own: a command's help with its whole name, `help` as the last
// word, the manual page and the bash completion, all from the same command definitions.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace kovra::tool {

inline constexpr char kExitCodes[] = R"(
Exit codes: 0 success; 1 the service failed (status -1: a walk, write or delete failed; the
errno it left is printed), or `diff` found the captures differ; 2 bad arguments or a capture that cannot be read (nothing was
touched); 3 not root, or a map missing, locked or not fitting its records (nothing was touched),
or the sandbox could not be set up; 4 the service returned -errno (the errno is printed); 5 the
output could not be written. The library's log lines go to stderr; -v adds its DEBUG lines. `kovractl help`, `kovractl COMMAND help` and --help show help.)";

// -j, -p, -v and their long forms, alone or bundled (-jv).
bool isGlobalFlag(const std::string& arg);

// A command's help with its whole name in the usage line: "Usage: kovractl stats uids ...".
std::string helpOf(const CLI::App* command);

// The innermost command that `words` name, skipping options. With `strict`, every word must be
// a global flag or the next subcommand's name, or there is none (nullptr).
const CLI::App* commandNamed(const CLI::App& app, const std::vector<std::string>& words,
                             bool strict = false);

// `kovractl __complete WORD...`: the words that may follow, for the bash completion.
void printCompletions(const CLI::App& app, const std::vector<std::string>& words);

// `kovractl __man`: the manual page, from the same definitions as the help.
void printManPage(const CLI::App& app);

}  // namespace kovra::tool
