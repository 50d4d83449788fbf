// kovractl net: cutting apps off the network and letting them back on.
#include <kovrabpf/KovraBpfNetworkStats.h>

#include "Commands.h"

namespace kovra::tool {

using namespace android::bpf;

namespace {

struct NetOptions {
    uint32_t uid = 0;
    int rule = 0;
};

// The services take the UID as int and use its bits unchanged as the unsigned key.
int asServiceUid(uint32_t uid) {
    int value;
    memcpy(&value, &uid, sizeof(value));
    return value;
}

int block(const Context& ctx, uint32_t uid) {
    requirePinned(MapFamily::kFirewall);
    return reportChange(ctx, bpfDisableNetwork(asServiceUid(uid)),
                        "block UID " + std::to_string(uid), {{"uid", uid}, {"action", "block"}});
}

int unblock(const Context& ctx, uint32_t uid) {
    requirePinned(MapFamily::kFirewall);
    return reportChange(ctx, bpfEnableNetwork(asServiceUid(uid)),
                        "unblock UID " + std::to_string(uid),
                        {{"uid", uid}, {"action", "unblock"}});
}

int legacy(const Context& ctx, uint32_t uid, int rule) {
    requirePinned(MapFamily::kFirewall);
    const std::string action = rule == 1 ? "allow" : "block";
    return reportChange(ctx, bpfLegacySetFirewall(asServiceUid(uid), rule),
                        "legacy firewall " + action + " UID " + std::to_string(uid),
                        {{"uid", uid}, {"rule", rule}, {"action", action}});
}

}  // namespace

void addNetCommands(CLI::App& app, Context& ctx) {
    auto opts = std::make_shared<NetOptions>();
    CLI::App* net = app.add_subcommand("net", "Per-app network blocking")->require_subcommand(1);

    CLI::App* blockCommand = net->add_subcommand("block", "Cut the app off the network");
    addNumber(blockCommand, "UID", opts->uid, "The app's UID");
    onRun(blockCommand, ctx, [&ctx, opts] { return block(ctx, opts->uid); });

    CLI::App* unblockCommand = net->add_subcommand(
            "unblock", "Let the app back on the network (exit 1 when it was not blocked)");
    addNumber(unblockCommand, "UID", opts->uid, "The app's UID");
    onRun(unblockCommand, ctx, [&ctx, opts] { return unblock(ctx, opts->uid); });

    CLI::App* legacyCommand = net->add_subcommand(
            "legacy",
            "The legacy firewall switch: RULE 1 allows the app (exit 1 when it was not "
            "blocked), any other RULE blocks it");
    addNumber(legacyCommand, "UID", opts->uid, "The app's UID");
    legacyCommand->add_option("RULE", opts->rule, "1 allows, anything else blocks")->required();
    onRun(legacyCommand, ctx, [&ctx, opts] { return legacy(ctx, opts->uid, opts->rule); });
}

}  // namespace kovra::tool
