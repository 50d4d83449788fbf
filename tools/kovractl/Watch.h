// Listings that can be sorted, cut to the top rows, and watched: `--interval SECONDS` repeats
// the listing, redrawn in place on a terminal, as appended blocks or JSON lines otherwise.
#pragma once

#include "Cli.h"

namespace kovra::tool {

struct ListOptions {
    double interval = 0;  // seconds between refreshes; 0: list once
    size_t count = 0;     // refreshes; 0: until Ctrl-C
    std::string sort;     // column to sort by, largest first
    size_t top = 0;       // rows kept after sorting; 0: all
};

// Adds --sort and --top, and with `watchable` --interval and --count, to a listing command whose
// View has these `columns` and `rated` counters: --sort completes to the columns a listing can
// have.
void addListOptions(CLI::App* command, ListOptions& options, bool watchable,
                    const std::vector<std::string>& columns,
                    const std::vector<std::string>& rated = {});

// One listing: its rows, and what reading them changed (removals by a service that prunes), as
// JSON fields added to the listing's object and as lines below its table.
struct Listing {
    Rows rows;
    Json changes = Json::object();
    std::vector<std::string> lines;
};

struct View {
    std::vector<std::string> columns;  // the columns every listing has
    std::string noun;                  // what a row is: "UID", "socket"
    std::vector<std::string> rated;    // counters whose per-second rates a watch adds
    std::function<Listing()> list;     // reads the rows; throws a ToolError on failure
};

// Lists once, or every `interval` seconds, and returns the exit code. Without changes to report,
// a single listing prints as a table or a JSON array; with them, as an object {"rows": [...],
// ...changes}. A watch prints one such object per line with its time. Ctrl-C ends a watch with
// exit 0.
int present(const Context& ctx, const ListOptions& options, const View& view);

}  // namespace kovra::tool
