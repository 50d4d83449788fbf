// The subcommands of kovractl, one function per family, each adding its commands to the app.
#pragma once

#include "Cli.h"

namespace kovra::tool {

void addStatsCommands(CLI::App& app, Context& ctx);
void addFreezeCommands(CLI::App& app, Context& ctx);
void addSpeedsCommands(CLI::App& app, Context& ctx);
// speeds iface, config and local, under `speeds`.
void addSpeedsSettings(CLI::App* speeds, Context& ctx);
void addWakeupCommands(CLI::App& app, Context& ctx);
// wakeup hb-len, which takes none of the wakeup command's `counterNames`.
void addHeartbeatCommand(CLI::App* wakeup, Context& ctx, const CLI::Option* counterNames);
void addScreenCommand(CLI::App& app, Context& ctx);
void addNetCommands(CLI::App& app, Context& ctx);
void addMapsCommand(CLI::App& app, Context& ctx);
void addCaptureCommands(CLI::App& app, Context& ctx);
void addDiffCommand(CLI::App& app, Context& ctx);
void addUidCommand(CLI::App& app, Context& ctx);

// From here on this process sees a copy of the maps in a private bpffs (--preview); a ToolError
// (exit 3) when it cannot be made.
void enterPreview();
void addSandboxCommand(CLI::App& app, Context& ctx);

}  // namespace kovra::tool
