// How kovractl ends a command that went wrong: one line on stderr per problem (the help of the
// command after a usage error), the same as JSON on stdout with -j or -p, and the exit code.
#pragma once

#include <string>
#include <vector>

#include "Cli.h"

namespace kovra::tool {

// A command line the parser refused: exit 2.
int usageError(const CLI::App& app, const CLI::ParseError& error, bool json, bool pretty,
               const std::vector<std::string>& args);

// Runs the chosen command (on a copy of the maps with --preview) and returns its exit code, a
// ToolError's, or 1 for any other exception: one line and an exit code rather than an abort.
int runAction(const Context& ctx);

// Every write is checked once, at the end: a full disk or a closed stdout fails the command with
// exit 5 and says what was lost or made. Returns `code` when the output went through.
int checkOutput(const Context& ctx, int code);

}  // namespace kovra::tool
