// What a kovractl command shows, as data, and the one function that prints it: a table for a
// person, compact JSON with -j, indented JSON with -p. Commands build an Output and never print.
#pragma once

#include <stddef.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "ToolError.h"

namespace kovra::tool {

using Json = nlohmann::ordered_json;

struct Context;

// Rows of a listing: camelCase column names (the JSON keys; the table's headers are their
// upper-case forms) and one cell per column in every row, null where there is no value.
struct Rows {
    std::vector<std::string> columns;
    std::vector<std::vector<Json>> rows;
    Json toJson() const;
};

struct Output {
    Json json;  // what -j and -p print
    // What a person reads, in order: lines, and tables (numbers right-aligned, null as "-").
    std::vector<std::variant<std::string, Rows>> text = {};
    int exitCode = kExitOk;
    // A failure told after the output, which has said it already (a change that removed
    // entries, then failed).
    std::optional<ToolError> failure = std::nullopt;

    Output& line(std::string text);
    Output& table(Rows rows);
};

// Prints `output` as the context asks and returns its exit code; throws its failure once printed.
int render(const Context& ctx, const Output& output);

// A listing: the rows as a table with a closing count ("307 UIDs"), or as a JSON array.
Output listing(const Rows& rows, const std::string& noun);

// A change through a service: the `report` lines and "<what>: ok", or with JSON the `details`
// with "status" (and "error"). A failed status is the output's failure: what the change removed
// is told even when the service then fails.
Output change(int status, const std::string& what, Json details,
              const std::vector<std::string>& report = {});

// "1 UID", "307 UIDs".
std::string countOf(size_t count, const std::string& noun);

}  // namespace kovra::tool
