// What every kovractl subcommand shares: the parsed global flags, argument checks, the map
// check before a service runs, tables, JSON and the status-to-exit-code rule.
#pragma once

#include <stdint.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <kovrabpf/KovraPinnedMaps.h>

#include "ToolError.h"

namespace kovra::tool {

using Json = nlohmann::ordered_json;

struct Context {
    bool json = false;            // --json: machine-readable output instead of tables
    std::function<int()> action;  // what the chosen subcommand does; returns the exit code
};

// Makes `action` the one to run when `command` is the subcommand chosen on the command line.
// Nothing runs while the command line is parsed, so a usage error touches no map. A command
// that has subcommands of its own (`wakeup` and `wakeup hb-len`) yields to the innermost one
// given, whose callback runs first.
inline void onRun(CLI::App* command, Context& ctx, std::function<int()> action) {
    command->callback([&ctx, action = std::move(action)] {
        if (!ctx.action) ctx.action = action;
    });
}

// A pinned map's short name: its file name without the kernel side's prefix and the "_map"
// suffix ("/sys/fs/bpf/map_kovra-netd_app_tcp_fin_drop_map" is "app_tcp_fin_drop").
std::string mapName(const char* path);

// Accepts an unsigned decimal or 0x-hexadecimal number up to `max`.
CLI::Validator unsignedNumber(uint64_t max);

// Adds a required unsigned argument; it accepts decimal or 0x-prefixed hexadecimal within the
// range of T, so "abc", "-1" and 4294967296 for a UID are usage errors.
template <typename T>
CLI::Option* addNumber(CLI::App* command, const std::string& name, T& value,
                       const std::string& description) {
    return command->add_option(name, value, description)
            ->required()
            ->check(unsignedNumber(std::numeric_limits<T>::max()));
}

// Ends the command with exit 3 unless every map of `family` is pinned. The library ends the
// process with abort() when a map is missing; checking the paths first (no map is opened)
// turns that into a message.
void requirePinned(android::bpf::MapFamily family);

// The exit code for a service's status (see ToolError.h), after one line on stderr when it
// failed: "kovractl: <what> failed: <strerror> (status -N)".
int finish(int status, const std::string& what);

// For a service that changes maps and returns nothing else: on success "<what>: ok", or with
// --json the `details` with the status; the exit code as finish() gives it.
int reportChange(const Context& ctx, int status, const std::string& what, Json details);

// "1 UID", "307 UIDs": the closing line of a table.
std::string countOf(size_t count, const std::string& noun);

// Prints `value` as indented JSON on stdout.
void printJson(const Json& value);

// An aligned text table: numeric columns right-aligned, the others left-aligned.
class Table {
  public:
    explicit Table(std::vector<std::string> headers) : mRows{std::move(headers)} {}
    void add(std::vector<std::string> row) { mRows.push_back(std::move(row)); }
    void print() const;

  private:
    std::vector<std::vector<std::string>> mRows;  // the first row is the header
};

// Sorted keys of an unordered result table, so output is stable from run to run.
template <typename Map>
std::vector<typename Map::key_type> sortedKeys(const Map& map) {
    std::vector<typename Map::key_type> keys;
    keys.reserve(map.size());
    for (const auto& entry : map) keys.push_back(entry.first);
    std::sort(keys.begin(), keys.end());
    return keys;
}

}  // namespace kovra::tool
