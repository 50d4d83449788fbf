// kovractl dump and kovractl load: a capture of the maps, printed (with -j, the capture format
// itself), and a capture written back into the maps of a sandbox.
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <kovrasandbox/Clock.h>

#include "Commands.h"
#include "Replay.h"

namespace kovra::tool {
namespace {

Output dump(const std::vector<std::string>& names) {
    if (geteuid() != 0) requireMaps({});
    return showCapture(takeCapture(names));
}

std::string namespaceOf(const char* pid) {
    char link[PATH_MAX];
    const ssize_t length =
            readlink((std::string("/proc/") + pid + "/ns/mnt").c_str(), link, sizeof(link));
    return length > 0 ? std::string(link, static_cast<size_t>(length)) : "";
}

// A kovractl sandbox says so in its environment and sits in a mount namespace of its own; the
// machine's maps (a device's live ones) are in the first process's.
bool insideSandbox() {
    return getenv("KOVRA_SANDBOX") != nullptr && namespaceOf("self") != namespaceOf("1");
}

struct LoadOptions {
    std::string file;
    std::vector<std::string> maps;
    bool rawStamps = false;
    bool force = false;
};

Output load(const LoadOptions& options) {
    Capture capture = readCaptureFile(options.file);
    selectMaps(capture, options.maps);
    if (!options.force && !insideSandbox()) {
        throw ToolError(kExitUsage,
                        "load writes only into a kovractl sandbox's private bpffs (try: kovractl "
                        "sandbox -- kovractl load FILE, or --force to write these maps); nothing "
                        "was written");
    }
    if (!options.rawStamps) rebaseStamps(capture, sandbox::monotonicNowNs());
    Output out{Json::object()};
    for (const auto& [name, count] : replay(capture, false)) {
        out.json[name] = count;
        out.line("loaded " + countOf(count, "entry") + " into " + name);
    }
    for (const CapturedMap& map : capture.maps) {
        if (map.unreadable) out.line("left " + map.name + " as it is: " + *map.unreadable);
    }
    return out;
}

}  // namespace

void addCaptureCommands(CLI::App& app, Context& ctx) {
    std::vector<std::string> names;
    for (const MapFields& map : catalogueFields()) names.push_back(map.name);
    auto dumpNames = std::make_shared<std::vector<std::string>>();
    CLI::App* dumpCommand = app.add_subcommand(
            "dump",
            "Print every entry of every map of the catalogue (or of the named ones), field by "
            "field; read-only: nothing is pruned or harvested. With -j it is a capture, which "
            "`load` and `sandbox --seed FILE` replay");
    dumpCommand->add_option("MAP", *dumpNames, "Maps by short name, as `kovractl maps` lists them")
            ->check(CLI::IsMember(names));
    onShow(dumpCommand, ctx, [dumpNames] { return dump(*dumpNames); });

    auto options = std::make_shared<LoadOptions>();
    CLI::App* loadCommand = app.add_subcommand(
            "load",
            "Write a capture (`kovractl -j dump`) into the maps, all of it or the named maps: "
            "each map then holds exactly the captured entries. The whole file is checked "
            "first; a fault writes nothing (exit 2). Only inside `kovractl sandbox` unless "
            "--force");
    loadCommand->add_option("FILE", options->file, "The capture")->required();
    loadCommand->add_option("MAP", options->maps, "Maps by short name")
            ->check(CLI::IsMember(names));
    loadCommand->add_flag("--raw-stamps", options->rawStamps,
                          "Keep the capture's CLOCK_MONOTONIC stamps as they are, instead of "
                          "shifting them so that each record keeps the age it had at capture");
    loadCommand->add_flag("--force", options->force,
                          "Write also outside a kovractl sandbox: into whatever maps are pinned "
                          "under /sys/fs/bpf, a device's live maps included");
    onShow(loadCommand, ctx, [options] { return load(*options); });
}

}  // namespace kovra::tool
