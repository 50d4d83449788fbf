// What a desk tool shows, as data, and the one function that prints it: a table for a person,
// compact or indented JSON for a program. kovractl's commands and the traffic driver build an
// Output and never print themselves.
#pragma once

#include <stddef.h>
#include <stdio.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "ToolError.h"

namespace kovra::tool {

using Json = nlohmann::ordered_json;

enum class Format { kTable, kJson, kPrettyJson };

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

// Prints `output` on `stream` and returns its exit code; throws its failure once printed.
int render(Format format, const Output& output, FILE* stream = stdout);

// A listing: the rows as a table with a closing count ("307 UIDs"), or as a JSON array.
Output listing(const Rows& rows, const std::string& noun);

// "1 UID", "307 UIDs".
std::string countOf(size_t count, const std::string& noun);

}  // namespace kovra::tool
