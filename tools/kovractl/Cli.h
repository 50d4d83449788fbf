// What every kovractl subcommand shares: the parsed global flags, argument checks, and the rule
// that turns a service's status into an exit code.
#pragma once

#include <errno.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include <CLI/CLI.hpp>

#include <kovrabpf/KovraPinnedMaps.h>

#include "Inspect.h"
#include "Output.h"
#include "ToolError.h"

namespace kovra::tool {

struct Context {
    bool json = false;            // -j: compact JSON instead of tables
    bool pretty = false;          // -p: indented JSON
    bool verbose = false;         // -v: the library's DEBUG lines, and which entries were removed
    bool preview = false;         // --preview: run on a copy of the maps
    std::function<int()> action;  // what the chosen subcommand does; returns the exit code
    // Set once the output is the only copy of what a command removed (a harvest): the loss that
    // an output failure means, told with it.
    std::string outputHoldsOnlyCopy;
    // Set once a change has been made ("block UID 10050: ok"), so that an output failure after it
    // does not leave the user thinking it was not.
    std::string changeMade;
    bool jsonOutput() const { return json || pretty; }
    Format format() const {
        return pretty ? Format::kPrettyJson : json ? Format::kJson : Format::kTable;
    }
};

// The maps a command needs, which the one dispatch path below checks (requireMaps) before the
// command runs: given where the command is declared, as a list or as a function of its parsed
// options. A command that needs none (or looks at whatever it finds, as `maps` does) runs as any
// user.
class Needs {
  public:
    Needs() = default;
    Needs(std::initializer_list<MapNeeds::value_type> maps) : Needs(MapNeeds(maps)) {}
    Needs(MapNeeds maps) : mOf([maps] { return maps; }) {}
    template <typename F, std::enable_if_t<std::is_invocable_r_v<MapNeeds, F>, int> = 0>
    Needs(F of) : mOf(std::move(of)) {}
    MapNeeds operator()() const { return mOf ? mOf() : MapNeeds{}; }

  private:
    std::function<MapNeeds()> mOf;
};

// Makes `action` the one to run when `command` is the subcommand chosen on the command line.
// Nothing runs while the command line is parsed, so a usage error touches no map. A command
// that has subcommands of its own (`wakeup` and `wakeup hb-len`) yields to the innermost one
// given, whose callback runs first.
inline void onRun(CLI::App* command, Context& ctx, Needs needs, std::function<int()> action) {
    command->callback([&ctx, needs = std::move(needs), action = std::move(action)] {
        if (ctx.action) return;
        ctx.action = [needs, action] {
            if (const MapNeeds maps = needs(); !maps.empty()) requireMaps(maps);
            return action();
        };
    });
}

inline void onRun(CLI::App* command, Context& ctx, std::function<int()> action) {
    onRun(command, ctx, Needs(), std::move(action));
}

// The same for a command that returns what it shows, printed by render().
inline void onShow(CLI::App* command, Context& ctx, Needs needs, std::function<Output()> show) {
    onRun(command, ctx, std::move(needs), [&ctx, show = std::move(show)] {
        const Output out = show();
        // A change's output has its status (see change()); a made one says so last.
        if (out.json.is_object() && out.json.value("status", -1) == 0 && !out.text.empty() &&
            std::holds_alternative<std::string>(out.text.back())) {
            ctx.changeMade = std::get<std::string>(out.text.back());
        }
        return render(ctx.format(), out);
    });
}

inline void onShow(CLI::App* command, Context& ctx, std::function<Output()> show) {
    onShow(command, ctx, Needs(), std::move(show));
}

// A catalogue map's short name ("app_tcp_fin_drop").
std::string mapName(const char* path);

// The one number grammar of every argument: unsigned decimal without a leading zero, or
// 0x-hexadecimal, at most `max`. No sign, no blanks, no octal.
CLI::Validator unsignedNumber(uint64_t max);

// Adds a required unsigned argument in that grammar within the range of T (or up to `max`).
template <typename T>
CLI::Option* addNumber(CLI::App* command, const std::string& name, T& value,
                       const std::string& description,
                       uint64_t max = std::numeric_limits<T>::max()) {
    return command->add_option(name, value, description)->required()->check(unsignedNumber(max));
}

// What a service returned: its status and, for -1, the errno it left. The library returns -1
// and leaves errno as the system call that failed set it; anything run after the service may
// change errno again, so call() reads it at once.
struct Status {
    int value;
    int error;  // 0 when no system call failed (a -1 for a reason of the service's own)
};

// Calls a service with errno cleared first, so that an errno left from before is not taken for
// the service's.
template <typename Service, typename... Args>
Status call(Service&& service, Args&&... args) {
    errno = 0;
    const int value = std::invoke(std::forward<Service>(service), std::forward<Args>(args)...);
    return {value, value == -1 ? errno : 0};
}

// "<what> failed: <strerror> (status -N)"; for -1 with the errno the service left, or
// "<what> failed (status -1)" when it left none.
std::string failureText(Status status, const std::string& what);

// For a command that shows a map without arguments and changes it with them: either all of
// `options` are given or none, checked while parsing (with `more`, the command's other checks),
// so that a partial command line is a usage error like any other.
void allOrNone(CLI::App* command, std::vector<CLI::Option*> options,
               std::function<void()> more = {});

// The values that `kovractl __complete` offers after an option (the columns after --sort), set
// where the option is added; none unless set.
void offerValues(const CLI::Option* option, std::vector<std::string> values);
const std::vector<std::string>& offeredValues(const CLI::Option* option);

// A change through a service: the `report` lines and "<what>: ok", or with JSON the `details`
// with "status" (and "error"). A failed status is the output's failure: what the change removed
// is told even when the service then fails.
Output change(Status status, const std::string& what, Json details,
              const std::vector<std::string>& report = {});

// Throws the ToolError of a failed service status, with failureText().
void check(Status status, const std::string& what);

// Sorted keys of an unordered result table, so output is stable from run to run.
template <typename Map>
std::vector<typename Map::key_type> sortedKeys(const Map& map) {
    std::vector<typename Map::key_type> keys;
    keys.reserve(map.size());
    for (const auto& entry : map) keys.push_back(entry.first);
    std::sort(keys.begin(), keys.end());
    return keys;
}

// The number of entries of a map, or null when it cannot be read; for the removal reports, read
// just before and after a service call.
Json entryCount(const android::bpf::PinnedMapInfo& row);

}  // namespace kovra::tool
